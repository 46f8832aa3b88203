// A store with an archive on an imagined disk, and what it must hold after each of its transactions.
#pragma once

#include "qxLss/src/Restore.h"
#include "tests/qxLss/TestLss.h"

#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace quna {

inline constexpr ConstStringZ DELTAS = "d/deltas";

inline LssSettings ArchivedSettings() {
    LssSettings settings = SmallSegments();
    settings.cleanerUtilisationPercent = 85;
    settings.numSegmentsPerCheckPoint = 1 << 20; // when the test asks for it
    return settings;
}

// Copies a file as `cp` does.
inline void CopyFile(SimSys& sys, const std::string& from, const std::string& to) {
    File source(sys);
    source.Open(from, EFileAccess::READ_ONLY);
    std::vector<octet_t> bytes(static_cast<size_t>(source.Size()));
    source.Read(0, bytes.data(), std::ssize(bytes));
    RemoveFile(sys, to);
    File target(sys);
    target.Open(to, EFileAccess::CREATE);
    target.Write(0, bytes.data(), std::ssize(bytes));
}

inline std::vector<std::string> DeltaNames(SimSys& sys, const std::string& directory = DELTAS) {
    std::vector<std::string> names;
    for (const std::string& name : ListDirectory(sys, directory))
        if (TransactionOfDeltaName(name)) names.push_back(name);
    return names;
}

// The elements of the store at `path`, which is validated.
inline ElementMap ElementsOf(SimSys& sys, ConstStringZ path) {
    TestLss lss(sys, SmallSegments(), OM_OPEN_EXISTING, nullptr, path);
    lss->StopThreadsForTest();
    lss->Validate();
    return lss.All();
}

// Threads: one; the store's own are stopped.
class ArchivedStore {
public:
    explicit ArchivedStore(SimSys& sys, uint64 seed = 1, LssSettings settings = ArchivedSettings())
        : m_sys(sys), m_random(seed), m_settings(settings) {
        states.emplace_back();
        times.push_back(0);
    }

    std::vector<ElementMap> states; // after transaction n
    std::vector<uint64> times;      // of its commit

    uint64 Last() const { return states.size() - 1; }
    TestLss& Lss() { return *m_lss; }
    uint64 Pick(uint64 limit) { return m_random() % limit; }

    void Open(ConstStringZ deltas = DELTAS) {
        m_lss = std::make_unique<TestLss>(m_sys, m_settings, OM_OPEN_ALWAYS, deltas);
        Lss()->StopThreadsForTest();
        if (deltas) Lss()->ArchiverForTest()->SetDeltaBytesForTest(m_deltaBytes);
        if (Lss().IsCreatedNew()) {
            m_known.clear();
            m_highs = 1;
        }
    }
    void SetDeltaBytes(int64 n) { m_deltaBytes = n; }
    // Goes on with what a crash has left of another one: its first `last` transactions.
    void Adopt(const ArchivedStore& before, uint64 last) {
        states.assign(before.states.begin(), before.states.begin() + static_cast<std::ptrdiff_t>(last) + 1);
        times.assign(before.times.begin(), before.times.begin() + static_cast<std::ptrdiff_t>(last) + 1);
        for (const auto& [seid, bytes] : states.back()) m_known.push_back(seid);
    }
    bool IsOpen() const { return m_lss != nullptr; }
    void Close() {
        Lss().Close();
        m_lss.reset();
    }
    void Kill() { m_lss.reset(); }
    void Archive() {
        Lss()->Flush();
        Lss()->ArchiveForTest();
    }

    // One transaction of a few changes.
    void Transaction(bool flush = false) {
        ElementMap after = states.back();
        AutoCloser<ILssTransaction> txn(Lss()->OpenTransaction());
        if (flush) txn->RequestFlushToDisk();
        bool changed = false;
        for (uint64 i = 1 + Pick(5); i > 0; --i) {
            const Seid seid = SomeSeid();
            if (Pick(4) == 0) {
                const bool existed = txn->DeleteSerialElement(seid);
                if (existed != (after.erase(seid.value_) == 1)) throw std::logic_error("the model is wrong");
                changed = changed || existed;
            } else {
                after[seid.value_] = SomeBytes();
                TestLss::Write(*txn.Get(), seid, after[seid.value_]);
                changed = true;
            }
        }
        txn.Close();
        if (!changed) return;
        states.push_back(std::move(after));
        times.push_back(Lss()->TimeOfLastTransaction());
    }

    // One transaction that writes one element.
    void Put(Seid seid, const std::string& content) {
        Lss().Put(seid, content);
        states.push_back(states.back());
        states.back()[seid.value_] = content;
        times.push_back(Lss()->TimeOfLastTransaction());
    }
    void PutNew(ssize_t n) { Put(Lss().NewSeid(), Pattern(n, static_cast<unsigned>(m_random()))); }

    // A transaction that is dropped, with a long element in it.
    void AbortedTransaction() {
        try {
            AutoCloser<ILssTransaction> txn(Lss()->OpenTransaction());
            txn->RequestDropWhenUnwinding();
            TestLss::Write(*txn.Get(), SomeSeid(), Pattern(3 * 4096, 5));
            throw std::runtime_error("application");
        } catch (const std::runtime_error&) {
            return;
        }
    }

    // What makes the cleaner work, without an archive.
    void StepWithoutArchive() {
        Transaction();
        if (Pick(4) == 0) Lss()->CheckpointForTest();
        if (Pick(4) == 0) Lss()->CleanForTest(8);
    }

    // Anything that a store does in its life, but for ending.
    void Step() {
        switch (Pick(20)) {
        case 0: Lss()->CheckpointForTest(); break;
        case 1:
        case 2: Lss()->CleanForTest(1 + static_cast<ssize_t>(Pick(4))); break;
        case 3: Lss()->Flush(); break;
        case 4: AbortedTransaction(); break;
        case 5: Archive(); break;
        case 6: Lss()->ArchiveForTest(); break;
        case 7:
            if (Pick(3) == 0) m_highs = Lss()->AllocateSeidHigh();
            break;
        case 8: Lss()->ShrinkForTest(); break;
        default: Transaction(Pick(5) == 0); break;
        }
    }

private:
    Seid SomeSeid() {
        if (m_known.empty() || Pick(3) == 0) {
            m_known.push_back(Lss()->AllocateSeid(1 + static_cast<SeidHigh>(Pick(m_highs))).value_);
            return Seid(m_known.back());
        }
        return Seid(m_known[Pick(m_known.size())]);
    }

    std::string SomeBytes() {
        const uint64 kind = Pick(12);
        uint64 n = Pick(300);
        if (kind == 0) n = Pick(4096);
        if (kind == 1) n = Pick(5 * 4096); // long ones
        return Pattern(static_cast<ssize_t>(n), static_cast<unsigned>(m_random()));
    }

    SimSys& m_sys;
    std::mt19937_64 m_random;
    LssSettings m_settings;
    int64 m_deltaBytes = 20000;
    std::unique_ptr<TestLss> m_lss;
    SeidHigh m_highs = 1;
    std::vector<uint64> m_known;
};

inline RestoredLss Restore(SimSys& sys, RestoreTarget target, const std::string& base = "d/base",
                           const std::string& deltas = DELTAS, const std::string& to = "d/new") {
    RemoveFile(sys, to);
    return RestoreLssForTest(sys, base.c_str(), deltas.c_str(), target, to.c_str());
}

} // namespace quna
