// A store on an imagined disk for tests, with small segments and no timed syncs.
#pragma once

#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "tests/support/SimSys.h"

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>

namespace quna {

inline LssSettings SmallSegments() {
    LssSettings settings;
    settings.segmentSize = 4096;
    settings.flushTimeMilliSec = -1;
    settings.validateSUTDuringCheckPoint = true;
    settings.cleanerUtilisationPercent = 0; // tests of the cleaner turn it on
    return settings;
}

using ElementMap = std::map<uint64, std::string>;

// Opens the store "d/store" of a SimSys and abandons it at the end, as a kill would, unless it was closed.
class TestLss {
public:
    explicit TestLss(SysCalls& sys, LssSettings settings = SmallSegments(), EOpenMode mode = OM_OPEN_ALWAYS,
                     ConstStringZ deltasDirPath = nullptr, ConstStringZ path = "d/store",
                     EBackground background = EBackground::THREADS, int stampShift = STAMP_SHIFT) {
        bool createdNew = false;
        m_lss = static_cast<LssStore*>(
            OpenLssForTest(sys, path, deltasDirPath, createdNew, mode, settings, background, stampShift));
        m_createdNew = createdNew;
        if (createdNew) m_lss->AllocateSeidHigh();
    }
    TestLss(const TestLss&) = delete;
    TestLss& operator=(const TestLss&) = delete;
    ~TestLss() {
        if (m_lss) m_lss->Abandon();
    }

    LssStore* operator->() const { return m_lss; }
    LssStore& operator*() const { return *m_lss; }
    bool IsCreatedNew() const { return m_createdNew; }
    void Close() {
        m_lss->Close();
        m_lss = nullptr;
    }
    void Abandon() { std::exchange(m_lss, nullptr)->Abandon(); }

    Seid NewSeid() { return m_lss->AllocateSeid(1); }

    // One transaction that writes one element.
    Seid Put(const std::string& content, bool flush = false) { return Put(NewSeid(), content, flush); }
    Seid Put(Seid seid, const std::string& content, bool flush = false) {
        AutoCloser<ILssTransaction> txn(m_lss->OpenTransaction());
        if (flush) txn->RequestFlushToDisk();
        Write(*txn.Get(), seid, content);
        txn.Close();
        return seid;
    }
    bool Delete(Seid seid) {
        AutoCloser<ILssTransaction> txn(m_lss->OpenTransaction());
        const bool existed = txn->DeleteSerialElement(seid);
        txn.Close();
        return existed;
    }
    static void Write(ILssTransaction& txn, Seid seid, const std::string& content) {
        AutoCloser<ICloseableOutputStream> os(txn.WriteSerialElement(seid));
        os->WriteStream(content.data(), static_cast<ssize_t>(content.size()));
        os.Close();
    }

    std::optional<std::string> Get(Seid seid) const {
        AutoCloser<IContiguousSerialElement> element(m_lss->OpenSerialElement(seid));
        if (!element) return std::nullopt;
        const ReadOnlyBuffer b = element->GetBuffer();
        return std::string(reinterpret_cast<const char*>(b.buffer), static_cast<size_t>(b.size));
    }
    ElementMap All() const {
        ElementMap all;
        m_lss->VisitElements([&](Seid seid, Location) { all[seid.value_] = Get(seid).value(); });
        return all;
    }
    LssStats Stats() const {
        LssStats stats{};
        m_lss->GetStats(stats);
        return stats;
    }

private:
    LssStore* m_lss = nullptr;
    bool m_createdNew = false;
};

// Random numbers of 32 bits.
class TestRandom {
public:
    explicit TestRandom(unsigned seed) : m_engine(seed) {}
    unsigned operator()() { return static_cast<unsigned>(m_engine()); }

private:
    std::mt19937 m_engine;
};

// Bytes that differ from place to place.
inline std::string Pattern(ssize_t n, unsigned seed = 1) {
    std::string s(static_cast<size_t>(n), '\0');
    unsigned x = seed * 2654435761u + 1;
    for (char& c : s) {
        x = x * 1664525u + 1013904223u;
        c = static_cast<char>(x >> 24);
    }
    return s;
}

// The file "d/store" as a killed process leaves it.
inline FileBytes StoreFile(const SimSys& sys) { return sys.CachedImage().at("d/store"); }
inline DiskImage ImageOf(FileBytes bytes) { return {{"d/store", std::move(bytes)}}; }

} // namespace quna
