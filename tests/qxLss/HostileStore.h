// A store's file whose contents a test changes, all checksums being made right again before it is opened.
#pragma once

#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/AllocRing.h"
#include "tests/support/FuzzStore.h"

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

inline constexpr ssize_t SEGMENT_BYTES = 4096;

// In the order in which the base stores are made.
enum EBase {
    NEVER_USED = 0,
    CLOSED = 1,
    KILLED = 2,
    LONG_KILLED = 3,
    CLEANED_KILLED = 4,
    CLEANED_CLOSED = 5,
    MANY_SPACES = 6, // closed
    LONG_LIFE = 7    // killed
};

class HostileFile : public ::testing::Test {
protected:
    HostileFile() = default;
    ~HostileFile() noexcept override {
        if (m_store) m_store->Abandon();
    }

    void Take(EBase base) { m_file = FuzzBaseStores()[base]; }
    template <class T>
    T* At(int64 offset) {
        return reinterpret_cast<T*>(m_file.data() + offset);
    }
    // The newest header.
    CheckpointHeader& Header() {
        auto* const a = At<CheckpointHeader>(0);
        auto* const b = At<CheckpointHeader>(4096);
        return b->checkpointSequence > a->checkpointSequence ? *b : *a;
    }

    // Calls act(segment's offset, packet's offset, header) for each packet in the file.
    void ForEachPacket(const std::function<void(int64, int64, PacketHeader)>& act) {
        for (int64 segment = FRONT_AREA_BYTES; segment + SEGMENT_BYTES <= std::ssize(m_file);
             segment += SEGMENT_BYTES) {
            if (std::memcmp(m_file.data() + segment, SEGMENT_MAGIC, 8) != 0) continue;
            for (ssize_t pos = SEGMENT_HEADER_BYTES; pos + PACKET_HEADER_BYTES <= SEGMENT_BYTES;) {
                const PacketHeader header = ReadPod<PacketHeader>(m_file.data() + segment + pos);
                if (header.info == 0) break;
                act(segment, segment + pos, header);
                pos += PacketBytes(header.info);
            }
        }
    }
    // The last packet of the type; its offset, 0 if there is none.
    int64 LastPacket(EPacketType type, ssize_t leastBytes = 0) {
        int64 found = 0;
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) == type && PayloadBytes(header.info) >= leastBytes) found = at;
        });
        return found;
    }

    // The entries of the usage table in force, of segments that are used.
    std::vector<std::pair<ssize_t, SutEntry*>> UsedEntries() {
        const CheckpointHeader& header = Header();
        const Location l =
            ReadPod<Location>(reinterpret_cast<const octet_t*>(&header) + offsetof(CheckpointHeader, locations) +
                              header.numHighsPackets * sizeof(Location));
        std::vector<std::pair<ssize_t, SutEntry*>> entries;
        const ssize_t n =
            PayloadBytes(At<PacketHeader>(LocationOffset(l))->info) / static_cast<ssize_t>(sizeof(SutEntry));
        for (ssize_t slot = 0; slot < n; ++slot) {
            auto* const entry =
                At<SutEntry>(LocationOffset(l) + PACKET_HEADER_BYTES + slot * static_cast<int64>(sizeof(SutEntry)));
            if (entry->sequence != 0) entries.emplace_back(slot, entry);
        }
        return entries;
    }

    LssStore& Open(bool readOnly = false) {
        MakeChecksumsRight(m_file);
        m_sys.SetContent(m_file);
        bool createdNew = false;
        m_store = OpenFuzzStore(m_sys, readOnly ? OM_OPEN_EXISTING_READ_ONLY : OM_OPEN_EXISTING, createdNew,
                                FuzzSettings(false, true));
        return *m_store;
    }
    void ExpectRefused(const std::string& text) {
        try {
            Open();
            ADD_FAILURE() << "opened; expected: " << text;
        } catch (const CorruptLSSException& e) {
            EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
        }
        EXPECT_EQ(0, m_sys.NumChanges()) << "a refused open has changed the file";
    }

    FuzzSys m_sys;
    FileBytes m_file;
    LssStore* m_store = nullptr;
};

} // namespace quna
