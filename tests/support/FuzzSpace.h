// A locked space of a store whose elements are whatever a fuzz target says, for targets of the object store.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "tests/support/TempDir.h"

#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace quna {

// Elements in memory, with the readable bytes behind each that readers may count on. Nothing is written.
class FuzzLss final : public ILogStructuredStore {
public:
    FuzzLss() = default;
    ~FuzzLss() = default;

    void Put(Seid seid, const octet_t* bytes, ssize_t n);
    // No element, and the identifiers from the beginning.
    void Forget() {
        m_elements.clear();
        m_highs = FIRST_HIGH;
        m_lows = FIRST_LOW;
    }

    void Close() override {}
    SeidHigh AllocateSeidHigh() override { return ++m_highs; }
    Seid AllocateSeid(SeidHigh high) override { return Seid(++m_lows, high); }
    bool AllocateAffiliateSeid(Seid& seid) override {
        seid = AllocateSeid(seid.high_);
        return true;
    }
    IContiguousSerialElement* OpenSerialElement(Seid seid) override;
    ILssTransaction* OpenTransaction() override;
    void GetStats(LssStats& stats) override { stats = LssStats(); }

private:
    static constexpr SeidHigh FIRST_HIGH = 100;
    static constexpr SeidLow FIRST_LOW = 1u << 30;

    SeidHigh m_highs = FIRST_HIGH;
    SeidLow m_lows = FIRST_LOW;
    std::map<uint64, std::vector<octet_t>> m_elements; // with the slack
};

// A store in a folder of its own, with a space that is current for the thread and locked exclusively for the object's life.
// The store's classes and those of the tests are registered; classes and types have the same ids in every process.
//
// Its elements are those of Lss() from the first call of Begin on.
class FuzzSpace {
public:
    FuzzSpace();
    ~FuzzSpace() noexcept(false);
    FuzzSpace(const FuzzSpace&) = delete;
    FuzzSpace& operator=(const FuzzSpace&) = delete;

    // The one of the process, which is never closed.
    static FuzzSpace& Get();

    // No element, and no object of an earlier input in memory.
    void Begin();

    PersistStore& Store() { return *m_store; }
    PSpace& Space() { return *m_space; }
    FuzzLss& Lss() { return m_fuzzLss; }
    ssize_t NumTypes() const { return m_numTypes; }

private:
    void RegisterIds();

    TempDir m_dir;
    PersistStore* m_store = nullptr;
    PSpace* m_space = nullptr;
    ILogStructuredStore* m_lss = nullptr; // the store's own
    FuzzLss m_fuzzLss;
    ssize_t m_numTypes = 0;
    std::optional<ThreadPSpaceScope> m_pair;
    std::optional<CSpaceLock> m_lock;
};

// Runs the act; an exception of the library ends it. Every other exception is reported. Did it come to its end?
template <class Act>
bool TryRecord(Act act);

} // namespace quna

#include "qxUtils/Exceptions.h"

template <class Act>
bool quna::TryRecord(Act act) {
    try {
        act();
        return true;
    } catch (const IException&) {
        return false;
    }
}
