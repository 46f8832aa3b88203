// The valid stores that fuzz targets start from.
#include "qxUtils/AutoCloser.h"
#include "tests/support/FuzzStore.h"

#include <initializer_list>
#include <utility>

namespace quna {
namespace {

// Mostly zeros, so that a sparse file is small.
void Put(LssStore& store, std::initializer_list<std::pair<Seid, ssize_t>> elements) {
    AutoCloser<ILssTransaction> transaction(store.OpenTransaction());
    for (const auto& [seid, size] : elements) {
        std::vector<octet_t> bytes(static_cast<size_t>(size));
        if (size > 0) bytes[0] = static_cast<octet_t>(seid.low_ + 1);
        AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(seid));
        stream->WriteStream(bytes.data(), size);
        stream.Close();
    }
    transaction.Close();
}

void Delete(LssStore& store, std::initializer_list<Seid> seids) {
    AutoCloser<ILssTransaction> transaction(store.OpenTransaction());
    for (const Seid seid : seids) transaction->DeleteSerialElement(seid);
    transaction.Close();
}

class Maker {
public:
    // `steps` gets the store and a way to close it and open it again.
    template <class Steps>
    FileBytes Make(bool closed, Steps steps) {
        m_sys.Clear();
        Open(OM_CREATE_NEW);
        m_high = m_store->AllocateSeidHigh();
        steps(*this);
        if (closed)
            std::exchange(m_store, nullptr)->Close();
        else
            std::exchange(m_store, nullptr)->Abandon();
        return m_sys.Content();
    }

    LssStore& Store() { return *m_store; }
    Seid Next() { return m_store->AllocateSeid(m_high); }
    void Reopen(bool closed) {
        if (closed)
            std::exchange(m_store, nullptr)->Close();
        else
            std::exchange(m_store, nullptr)->Abandon();
        Open(OM_OPEN_EXISTING);
    }

private:
    void Open(EOpenMode mode) {
        bool createdNew = false;
        m_store = OpenFuzzStore(m_sys, mode, createdNew, FuzzSettings(false, true));
    }

    FuzzSys m_sys;
    LssStore* m_store = nullptr;
    SeidHigh m_high = 0;
};

void FewElements(Maker& m) {
    const Seid a = m.Next();
    const Seid b = m.Next();
    const Seid c = m.Next();
    Put(m.Store(), {{a, 10}, {b, 500}, {c, 0}});
    Put(m.Store(), {{b, 40}});
    Delete(m.Store(), {a});
    m.Store().Flush();
    Put(m.Store(), {{m.Next(), 100}});
}

void LongElements(Maker& m) {
    const Seid a = m.Next();
    const Seid b = m.Next();
    Put(m.Store(), {{a, 9000}, {b, 5000}});
    Put(m.Store(), {{m.Next(), 1010}, {a, 6000}});
    Delete(m.Store(), {b});
}

void CleanedStore(Maker& m) {
    const Seid kept = m.Next();
    const Seid large = m.Next();
    Put(m.Store(), {{kept, 20}, {large, 5000}});
    for (int i = 0; i < 14; ++i) Put(m.Store(), {{m.Next(), 600}, {m.Next(), 30}});
    for (SeidLow low = 3; low < 24; low += 2) Delete(m.Store(), {Seid(low, kept.high_)});
    m.Store().CheckpointForTest();
    Put(m.Store(), {{kept, 21}});
    m.Store().CleanForTest(6);
    Put(m.Store(), {{m.Next(), 50}});
    m.Store().CleanForTest(2);
}

void ManySpaces(Maker& m) {
    for (int i = 0; i < 4; ++i) {
        const SeidHigh high = m.Store().AllocateSeidHigh();
        Put(m.Store(), {{m.Store().AllocateSeid(high), 8}, {Seid(0x345, high), 8}, {Seid(0x1ABCD, high), 8}});
        Put(m.Store(), {{Seid(0x2345678 + static_cast<SeidLow>(i), high), 8}});
    }
    Delete(m.Store(), {Seid(0x345, 3)});
}

std::vector<FileBytes> MakeAll() {
    Maker maker;
    std::vector<FileBytes> all;
    all.push_back(maker.Make(true, [](Maker&) {}));
    all.push_back(maker.Make(true, FewElements));
    all.push_back(maker.Make(false, FewElements));
    all.push_back(maker.Make(false, LongElements));
    all.push_back(maker.Make(false, CleanedStore));
    all.push_back(maker.Make(true, CleanedStore));
    all.push_back(maker.Make(true, ManySpaces));
    all.push_back(maker.Make(false, [](Maker& m) {
        LongElements(m);
        ManySpaces(m);
        m.Reopen(false);
        FewElements(m);
        m.Store().CheckpointForTest();
        CleanedStore(m);
        m.Reopen(true);
        LongElements(m);
        m.Store().CleanForTest(4);
    }));
    return all;
}

} // namespace

const std::vector<FileBytes>& FuzzBaseStores() {
    static const std::vector<FileBytes> stores = MakeAll();
    return stores;
}

} // namespace quna
