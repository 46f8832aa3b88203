// Fuzz target: bytes as a row of calls of the log-structured store, compared with a map in memory: transactions, checkpoints,
// cleaning, closing, process death, power failure. After each opening the store holds what it must.
//
// Each call is a byte, and takes further bytes as its arguments; zeros stand for those behind the end.
#include "qxUtils/AutoCloser.h"
#include "tests/support/FuzzStore.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <utility>
#include <vector>

namespace quna {
namespace {

constexpr int MAX_CALLS = 80;
constexpr ssize_t MAX_STATES = 200;
constexpr ssize_t MAX_ELEMENTS = 48;

// What an element holds follows from two numbers.
struct Element {
    ssize_t size;
    uint32 seed;
    bool operator==(const Element& rhs) const { return size == rhs.size && seed == rhs.seed; }
};

constexpr ssize_t LONGEST = 255 * 53;

// Byte i is seed + 7 * i: all elements are pieces of one row of bytes.
const octet_t* BytesOf(const Element& e) {
    static const std::vector<octet_t> row = [] {
        std::vector<octet_t> bytes(LONGEST + 256);
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<octet_t>(7 * i);
        return bytes;
    }();
    constexpr uint32 INVERSE_OF_7 = 183; // modulo 256
    return row.data() + (e.seed * INVERSE_OF_7 & 255);
}

using State = std::map<uint64, Element>;

// Thrown through a transaction.
struct Unwinding {};

class Driver {
public:
    Driver(FuzzSys& sys, const octet_t* p, ssize_t n) : m_sys(sys), m_p(p), m_end(p + n) {
        const octet_t flags = Next();
        m_clean = flags & 1;
        m_validate = flags & 2;
        m_insideSteps = flags & 4;
        m_states.emplace_back();
    }
    ~Driver() {
        if (m_store) m_store->Abandon();
    }

    void Run() {
        m_sys.Clear();
        Open();
        for (int i = 0; i < MAX_CALLS && m_p != m_end && std::ssize(m_states) < MAX_STATES; ++i) Call(Next());
        CompareAll();
        m_pinned.clear();
        std::exchange(m_store, nullptr)->Close();
        Open();
        CompareAll();
    }

private:
    // An element that stays open while the store goes on.
    struct Pin {
        IContiguousSerialElement* element;
        Element expected;
        Pin(IContiguousSerialElement* e, const Element& x) : element(e), expected(x) {}
        Pin(Pin&& rhs) noexcept : element(std::exchange(rhs.element, nullptr)), expected(rhs.expected) {}
        Pin& operator=(Pin&&) = delete;
        ~Pin() {
            if (element) element->Close();
        }
    };

    octet_t Next() { return m_p == m_end ? octet_t{0} : *m_p++; }
    const State& Current() const { return m_states.back(); }

    void Open() {
        bool createdNew = false;
        m_store = OpenFuzzStore(m_sys, OM_OPEN_ALWAYS, createdNew, FuzzSettings(m_validate, m_clean));
        if (!createdNew) return;
        FuzzRequire(m_floor == 0, "a store with durable transactions was taken for missing");
        m_states.assign(1, State());
        m_given.clear();
        m_highs = m_store->AllocateSeidHigh();
    }

    void Call(octet_t what) {
        switch (what % 16) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4: RunTransaction(what >> 4); break;
        case 5: RunLongOnes(); break;
        case 6:
            m_store->Flush();
            m_floor = std::ssize(m_states) - 1;
            break;
        case 7: Maintain([this] { m_store->CheckpointForTest(); }, true); break;
        case 8: Maintain([this, what] { m_store->CleanForTest(1 + (what >> 4)); }, false); break;
        case 9: Maintain([this] { m_store->BackgroundForTest(); }, false); break;
        case 10: m_store->ShrinkForTest(); break;
        case 11: Reopen(what >> 4); break;
        case 12: PinOne(Next()); break;
        case 13: m_store->Validate(); break;
        case 14: RunDropped(); break;
        default:
            m_highs = std::max(m_highs, m_store->AllocateSeidHigh());
            CompareAll();
            break;
        }
    }

    Seid NewSeid(octet_t byte) {
        Seid seid(byte, 1 + byte % m_highs);
        if (byte % 3 == 0 && !Current().empty()) seid = Seid(Some(byte));
        if (byte % 3 == 2 || !m_store->AllocateAffiliateSeid(seid)) seid = m_store->AllocateSeid(1 + byte % m_highs);
        FuzzRequire(m_given.insert(seid.value_).second, "an identifier was given out twice");
        return seid;
    }
    uint64 Some(octet_t byte) const {
        auto i = Current().begin();
        std::advance(i, byte % Current().size());
        return i->first;
    }

    void Write(ILssTransaction& transaction, State& state, Seid seid, ssize_t size) {
        const Element e{size, ++m_seed};
        const octet_t* const bytes = BytesOf(e);
        AutoCloser<ICloseableOutputStream> stream(transaction.WriteSerialElement(seid));
        stream->WriteStream(bytes, size / 2);
        stream->WriteStream(bytes + size / 2, size - size / 2);
        stream.Close();
        state[seid.value_] = e;
    }

    void Change(ILssTransaction& transaction, State& state, octet_t byte) {
        const octet_t argument = Next();
        if (byte % 4 == 0 && !Current().empty()) {
            const uint64 seid = Some(argument);
            const bool existed = state.erase(seid) == 1;
            FuzzRequire(transaction.DeleteSerialElement(Seid(seid)) == existed, "a deletion has the wrong result");
            return;
        }
        const bool isOld = !Current().empty() && (byte % 2 || std::ssize(state) >= MAX_ELEMENTS);
        const Seid seid = isOld ? Seid(Some(argument)) : NewSeid(argument);
        Write(transaction, state, seid, byte * ssize_t{5});
    }

    void Commit(State state) {
        if (state == Current()) return;
        m_states.push_back(std::move(state));
    }

    void RunTransaction(int numChanges) {
        AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
        State state = Current();
        const bool flush = numChanges % 5 == 4;
        if (flush) transaction->RequestFlushToDisk();
        for (int i = 0; i <= numChanges % 6; ++i) Change(*transaction.Get(), state, Next());
        transaction.Close();
        Commit(std::move(state));
        if (flush) m_floor = std::ssize(m_states) - 1;
    }

    void RunLongOnes() {
        AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
        State state = Current();
        const octet_t which = Next();
        const Seid seid = state.empty() || which % 2 ? NewSeid(which) : Seid(Some(which));
        Write(*transaction.Get(), state, seid, Next() * (LONGEST / 255));
        transaction.Close();
        Commit(std::move(state));
    }

    // Nothing of it may happen.
    void RunDropped() {
        try {
            AutoCloser<ILssTransaction> transaction(m_store->OpenTransaction());
            transaction->RequestDropWhenUnwinding();
            State state = Current();
            for (int i = 0; i < 2; ++i) Change(*transaction.Get(), state, Next());
            throw Unwinding();
        } catch (const Unwinding&) {
            CompareAll();
        }
    }

    template <class Act>
    void Maintain(Act act, bool isCheckpoint) {
        const ssize_t closed = std::ssize(m_states) - 1;
        // The first transaction that closes takes a lock that is held between the steps.
        if (m_insideSteps && closed > 0)
            m_store->SetStepHookForTest([this] {
                if (m_p != m_end && *m_p % 8 == 0 && std::ssize(m_states) < MAX_STATES) RunTransaction(Next() >> 4);
            });
        act();
        m_store->SetStepHookForTest(nullptr);
        if (isCheckpoint) m_floor = std::max(m_floor, closed);
    }

    void PinOne(octet_t byte) {
        if (Current().empty()) return;
        const uint64 seid = Some(byte);
        IContiguousSerialElement* const element = m_store->OpenSerialElement(Seid(seid));
        FuzzRequire(element, "an element is missing");
        Pin pin(element, Current().at(seid));
        if (byte & 1) element->GetBuffer();
        if (m_pinned.size() < 8) m_pinned.push_back(std::move(pin));
    }

    static void Compare(IContiguousSerialElement& element, const Element& expected) {
        const ReadOnlyBuffer buffer = element.GetBuffer();
        FuzzRequire(buffer.size == expected.size, "an element has another size");
        FuzzRequire(std::memcmp(buffer.buffer, BytesOf(expected), static_cast<size_t>(buffer.size)) == 0,
                    "an element has other bytes");
    }

    bool Holds(const State& state) {
        LssStats stats{};
        m_store->GetStats(stats);
        if (stats.numLiveHeadPackets != std::ssize(state)) return false;
        for (const auto& [seid, expected] : state) {
            AutoCloser<IContiguousSerialElement> element(m_store->OpenSerialElement(Seid(seid)));
            if (!element) return false;
            const ReadOnlyBuffer buffer = element->GetBuffer();
            if (buffer.size != expected.size) return false;
            if (buffer.size > 0 && buffer.buffer[0] != BytesOf(expected)[0]) return false;
        }
        return true;
    }

    void CompareAll() {
        for (const Pin& pin : m_pinned) Compare(*pin.element, pin.expected);
        for (const auto& [seid, expected] : Current()) {
            AutoCloser<IContiguousSerialElement> element(m_store->OpenSerialElement(Seid(seid)));
            FuzzRequire(static_cast<bool>(element), "an element is missing");
            Compare(*element.Get(), expected);
        }
        LssStats stats{};
        m_store->GetStats(stats);
        FuzzRequire(stats.numLiveHeadPackets == std::ssize(Current()), "the number of elements is wrong");
    }

    void Reopen(int how) {
        m_pinned.clear();
        if (how % 3 == 0) {
            std::exchange(m_store, nullptr)->Close();
            m_floor = std::ssize(m_states) - 1;
        } else {
            std::exchange(m_store, nullptr)->Abandon(); // as good as killed
            if (how % 3 == 2) m_sys.LosePower();
        }
        Open();
        if (how % 3 == 2) FindState();
        m_floor = std::ssize(m_states) - 1; // recovery has made it durable
        CompareAll();
    }

    // After a power failure: the state after some transaction, none that was durable lost.
    void FindState() {
        while (std::ssize(m_states) - 1 > m_floor && !Holds(Current())) m_states.pop_back();
    }

    FuzzSys& m_sys;
    const octet_t* m_p;
    const octet_t* const m_end;
    bool m_clean = false;
    bool m_validate = false;
    bool m_insideSteps = false;
    LssStore* m_store = nullptr;
    SeidHigh m_highs = 0;
    uint32 m_seed = 0;
    std::vector<State> m_states;
    ssize_t m_floor = 0; // the newest state that is durable
    std::set<uint64> m_given;
    std::vector<Pin> m_pinned;
};

} // namespace
} // namespace quna

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    static quna::FuzzSys sys;
    quna::PrepareForFuzz();
    quna::Driver(sys, data, static_cast<quna::ssize_t>(size)).Run();
    return 0;
}
