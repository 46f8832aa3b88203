// Opens damaged copies of a store and compares what it gives with what it may give.
#pragma once

#include "tests/support/LabStore.h"
#include "tests/support/SimSys.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quna {

enum class ELabVerdict {
    HARMLESS, // everything is there
    PREFIX,   // the last transactions are gone, as the marks allow
    DETECTED, // by CorruptLSSException or FileException; what could be read was right
    SILENT,   // wrong content was given
    CUT,      // durable transactions are gone without an error
    ESCAPED,  // another exception
    CHANGED,  // an open that was refused has changed the file
    GREEDY,   // too much memory, or too many calls
    COUNT
};

const char* NameOf(ELabVerdict verdict);
inline bool IsFault(ELabVerdict verdict) { return verdict >= ELabVerdict::SILENT; }

struct LabTotals {
    int64 tried = 0;
    int64 verdicts[static_cast<size_t>(ELabVerdict::COUNT)] = {};
    int64 poorTexts = 0;   // messages without the file's name or a place
    double mostMemory = 0; // of a refused or read-only open, over the file's size
    int64 reported = 0;    // faults that were printed

    int64 Of(ELabVerdict verdict) const { return verdicts[static_cast<size_t>(verdict)]; }
    int64 NumFaults() const;
    // The keys and values of the last line.
    std::string Figures() const;
    void Add(const LabTotals& other);
};

// For the report: tells how to replay.
using LabWhere = std::function<std::string()>;

// Threads: one.
class DamageLab {
public:
    explicit DamageLab(const LabStore& store);
    ~DamageLab();

    const LabStore& Store() const { return m_store; }

    // --- damage, until Undo

    void Flip(int64 at, int bit);
    void Replace(int64 at, const FileBytes& bytes); // what goes beyond the end of the file is left out
    // Bytes in place of those that Resize has cut off and extended, which counts as damaged already.
    void Fill(int64 at, const FileBytes& bytes) { m_sys->Poke("d/store", at, bytes.data(), bytes.size()); }
    // Cut, or extended with zeros.
    void Resize(int64 size);
    // Cuts the file at `size`, which is no more than now; what stands behind `size` counts as damaged.
    void CutAt(int64 size);
    void Undo();
    const std::vector<LabRange>& Touched() const { return m_touched; }

    // --- trials, of the file as it is now

    // Opens for reading only; reads all elements, unless no packet is damaged and all are where they were. Not thorough: of
    // elements that are where they were, only those near an edge of the damage; if pages of the index are gone, some.
    ELabVerdict TryReading(LabTotals& totals, const LabWhere& where, bool thorough = true);
    // Opens for writing as an application that creates what is missing; identifiers of elements are not given again.
    // Undoes the damage. Requires: not shared.
    ELabVerdict TryWriting(LabTotals& totals, const LabWhere& where);
    // Opens the undamaged file once, for TryElement.
    void Share();
    // Reads one element of the store that Share has opened.
    ELabVerdict TryElement(LabTotals& totals, uint64 seid, const LabWhere& where);

    // --- what is read when

    // By opening the undamaged file, sorted and merged: what lies outside can't change what opening finds.
    std::vector<LabRange> ReadByOpen();
    struct Packet {
        LabRange range;
        uint64 seid; // 0: a page of the index
    };
    // What is read later: elements, their parts and pages, sorted.
    const std::vector<Packet>& ReadLater() const { return m_packets; }

    SimSys& Sys() { return *m_sys; }
    LssStore* Open(EOpenMode mode, bool& createdNew);

private:
    ELabVerdict Judge(LssStore& store, bool thorough, std::string& text);
    size_t IndexOf(uint64 seid) const;
    bool IsNearEdge(const Packet& packet) const;
    ELabVerdict Compare(const std::vector<std::optional<uint64>>& found, bool detected, std::string& text);
    void LookUp(LssStore& store, uint64 seid, std::optional<uint64>& hash, std::string& error);
    uint64 PlacesOf(LssStore& store) const;
    bool TouchesPacket() const;
    std::string RepeatedIdentifier(LssStore& store);
    std::vector<Packet> PacketsOf(LssStore& store) const;
    double MemoryOverFile() const;
    void RestoreAfterWriting();
    ELabVerdict Note(LabTotals& totals, ELabVerdict verdict, const std::string& text, const LabWhere& where);

    const LabStore& m_store;
    const SimImage m_image; // of the undamaged file
    std::unique_ptr<SimSys> m_sys;
    std::vector<LabRange> m_touched;
    int64 m_size;
    uint64 m_sample = 0;          // which elements are read when not all are
    LssStore* m_shared = nullptr; // the undamaged file, open for reading only; null before Share
    uint64 m_places = 0;
    std::vector<Packet> m_packets;
};

} // namespace quna
