// Logs whose packets verify and are not what a store writes. The log ends there, or the file is refused; what came before
// stays, and a refused file is not changed.
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/HostileStore.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class HostileLog : public HostileFile {
protected:
    using Change = std::function<void(int64)>; // of the packet at an offset in the file

    octet_t* Payload(int64 packet) { return At<octet_t>(packet + PACKET_HEADER_BYTES); }
    PacketHeader& Head(int64 packet) { return *At<PacketHeader>(packet); }

    // The last packet of the type is changed. Opened and sound, or refused.
    void ExpectHarmless(EBase base, EPacketType type, const Change& change) {
        Take(base);
        const int64 at = LastPacket(type);
        ASSERT_NE(0, at);
        change(at);
        try {
            Open().Validate();
            std::exchange(m_store, nullptr)->Close();
        } catch (const CorruptLSSException&) {
            EXPECT_EQ(0, m_sys.NumChanges());
            if (m_store) std::exchange(m_store, nullptr)->Abandon();
        }
    }
    void ExpectChangeRefused(EBase base, EPacketType type, const Change& change, const std::string& text) {
        Take(base);
        const int64 at = LastPacket(type);
        ASSERT_NE(0, at);
        change(at);
        ExpectRefused(text);
    }

    // The last RELOC that has ranges, victims and a long element.
    int64 Reloc() {
        int64 found = 0;
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) != EPacketType::RELOC) return;
            const RelocPayload head = ReadPod<RelocPayload>(Payload(at));
            if (head.numNew && head.numVictims && head.numLong) found = at;
        });
        return found;
    }
    RelocPayload& RelocHead(int64 at) { return *At<RelocPayload>(at + PACKET_HEADER_BYTES); }
    RelocRange& Range(int64 at) { return *At<RelocRange>(at + PACKET_HEADER_BYTES + 16); }
    RelocVictim& Victim(int64 at) {
        return *At<RelocVictim>(at + PACKET_HEADER_BYTES + 16 +
                                RelocHead(at).numNew * static_cast<int64>(sizeof(RelocRange)));
    }
    RelocLong& Long(int64 at) {
        return *At<RelocLong>(at + PACKET_HEADER_BYTES + 16 +
                              RelocHead(at).numNew * static_cast<int64>(sizeof(RelocRange)) +
                              RelocHead(at).numVictims * static_cast<int64>(sizeof(RelocVictim)));
    }
    Location* Pair(int64 at) { return reinterpret_cast<Location*>(&Long(at) + 1); }
    void ExpectRelocHarmless(const std::vector<Change>& changes) {
        for (size_t i = 0; i < changes.size(); ++i) {
            SCOPED_TRACE("change " + std::to_string(i));
            Take(CLEANED_KILLED);
            const int64 at = Reloc();
            ASSERT_NE(0, at);
            changes[i](at);
            try {
                Open().Validate();
                std::exchange(m_store, nullptr)->Close();
            } catch (const CorruptLSSException&) {
                EXPECT_EQ(0, m_sys.NumChanges());
                if (m_store) std::exchange(m_store, nullptr)->Abandon();
            }
        }
    }
};

TEST_F(HostileLog, APacketThatMayNotStandInItEndsIt) {
    for (const uint32 type : {0u, 8u, 9u, 10u, 13u, 14u, 15u}) {
        ExpectHarmless(KILLED, EPacketType::HEAD, [&](int64 at) {
            Head(at).info = PacketInfo(static_cast<EPacketType>(type), PayloadBytes(Head(at).info));
        });
    }
}

TEST_F(HostileLog, ACommitThatIsNotTheNextOneEndsIt) {
    for (const Change& change :
         std::vector<Change>{[&](int64 at) { ++Head(at).key; }, [&](int64 at) { --Head(at).info; },
                             [&](int64 at) { ++At<CommitPayload>(at + PACKET_HEADER_BYTES)->bytes; },
                             [&](int64 at) { ++At<CommitPayload>(at + PACKET_HEADER_BYTES)->packets; }})
        ExpectHarmless(KILLED, EPacketType::COMMIT, change);
}

TEST_F(HostileLog, ElementsUnderHighHalvesThatWereNeverGivenAreRefused) {
    for (const uint64 high : {uint64{0}, uint64{77}}) {
        ExpectChangeRefused(
            KILLED, EPacketType::HEAD, [&](int64 at) { Head(at).key = high << 32 | 1; },
            "an element under a high half that was never allocated");
    }
}

// It is read as the last low that can be: nothing is handed out behind it.
TEST_F(HostileLog, AnElementUnderTheLastLowIsTaken) {
    ExpectHarmless(KILLED, EPacketType::HEAD, [&](int64 at) { Head(at).key |= 0xFFFFFFFF; });
}

TEST_F(HostileLog, ALinkOfAnotherLengthEndsIt) {
    ExpectHarmless(LONG_KILLED, EPacketType::LINK, [&](int64 at) { --Head(at).info; });
}

TEST_F(HostileLog, ALinkBehindAllSlotsEndsIt) {
    ExpectHarmless(LONG_KILLED, EPacketType::LINK,
                   [&](int64 at) { At<LinkPayload>(at + PACKET_HEADER_BYTES)->slot = 0x7FFFFFFF; });
}

TEST_F(HostileLog, ADropOfWhatIsOutsideTheSegmentsIsRefused) {
    ExpectChangeRefused(
        LONG_KILLED, EPacketType::DROP,
        [&](int64 at) {
            const Location outside = MakeLocation(64, 64);
            std::memcpy(Payload(at), &outside, sizeof outside);
        },
        "the log drops a packet");
}

TEST_F(HostileLog, ALongHeadThatContradictsItselfIsRefused) {
    const auto longHead = [&] {
        int64 found = 0;
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) == EPacketType::HEAD && PacketFlags(header.info)) found = at;
        });
        return found;
    };
    const std::vector<std::pair<Change, std::string>> changes{
        {[&](int64 at) { At<LongPrefix>(at + PACKET_HEADER_BYTES)->n = 0; }, "the head of a long element"},
        {[&](int64 at) { At<LongPrefix>(at + PACKET_HEADER_BYTES)->n = 1000; }, "the head of a long element"},
        {[&](int64 at) { ++At<LongPrefix>(at + PACKET_HEADER_BYTES)->totalBytes; }, "the head of a long element"},
        {[&](int64 at) { *At<Location>(at + PACKET_HEADER_BYTES + 16) = MakeLocation(64, 64); },
         "a long element has a part"}};
    for (const auto& [change, text] : changes) {
        Take(LONG_KILLED);
        const int64 at = longHead();
        ASSERT_NE(0, at);
        change(at);
        ExpectRefused(text);
    }
}

TEST_F(HostileLog, ARelocationThatIsCutShortEndsIt) {
    ExpectRelocHarmless({[&](int64 at) { Head(at).info = PacketInfo(EPacketType::RELOC, 12); },
                         [&](int64 at) { Head(at).info = PacketInfo(EPacketType::RELOC, 20); },
                         [&](int64 at) { RelocHead(at).numNew += 1000; },
                         [&](int64 at) { RelocHead(at).numVictims += 1000; },
                         [&](int64 at) { RelocHead(at).numLong += 1000; }, [&](int64 at) { Long(at).numPairs += 1000; },
                         [&](int64 at) {
                             ++Long(at).numPairs;
                             Head(at).info += 8;
                         },
                         [&](int64 at) { RelocHead(at).numLong = 0; }}); // and something behind it
}

TEST_F(HostileLog, ARelocationOfWhatNoStoreHasEndsIt) {
    const Location outside = MakeLocation(64, 64);
    ExpectRelocHarmless({[&](int64 at) { Long(at).seid = uint64{77} << 32; },
                         [&](int64 at) { Long(at).newHead = outside; }, [&](int64 at) { Pair(at)[0] = outside; },
                         [&](int64 at) { Pair(at)[1] = outside; }});
}

TEST_F(HostileLog, ARelocationOfRangesThatAreNotThereEndsIt) {
    ExpectRelocHarmless({[&](int64 at) { Range(at).slot = 0x7FFFFFFF; }, [&](int64 at) { Range(at).from = 56; },
                         [&](int64 at) { Range(at).from += 4; }, [&](int64 at) { Range(at).to = Range(at).from - 8; },
                         [&](int64 at) { Range(at).to = 4104; }, [&](int64 at) { Range(at).to -= 8; },
                         [&](int64 at) { Range(at).to += 8; }, [&](int64 at) { Range(at).to = Range(at).from + 8; },
                         [&](int64 at) { ++Range(at).sequence; },
                         [&](int64 at) { Range(at).slot = Header().numSlots - 1; },
                         [&](int64 at) { Range(at).slot = Header().startSlot; }});
}

// Each byte of a survivor segment is named by one range, and they come in their order.
TEST_F(HostileLog, ARelocationOfARangeThatWasNamedBeforeEndsIt) {
    int numTried = 0;
    for (const EBase base : {CLEANED_KILLED, LONG_LIFE}) {
        Take(base);
        std::vector<RelocRange*> ranges;
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) != EPacketType::RELOC) return;
            for (uint32 i = 0; i < RelocHead(at).numNew; ++i) ranges.push_back(&Range(at) + i);
        });
        if (ranges.size() < 2) continue;
        ++numTried;
        *ranges[ranges.size() - 1] = *ranges[ranges.size() - 2];
        try {
            Open();
            std::exchange(m_store, nullptr)->Abandon();
        } catch (const CorruptLSSException&) {
            EXPECT_EQ(0, m_sys.NumChanges());
        }
    }
    EXPECT_GT(numTried, 0);
}

TEST_F(HostileLog, ARelocationOutOfSegmentsThatAreNotThereIsRefused) {
    for (const Change& change : std::vector<Change>{[&](int64 at) { Victim(at).slot = 0x7FFFFFFF; },
                                                    [&](int64 at) { ++Victim(at).sequence; }}) {
        Take(CLEANED_KILLED);
        change(Reloc());
        ExpectRefused("the log names a cleaned segment that is not there");
    }
}

TEST_F(HostileLog, ARelocationThatLeavesLivePacketsInItsVictimsIsRefused) {
    Take(CLEANED_KILLED);
    const int64 at = Reloc();
    RelocHead(at).flags |= RELOC_FLAG_LAST;
    Long(at).oldHead += 8; // the element has been overwritten since, it seems: it stays
    ExpectRefused("live packets in a cleaned segment, expected none");
}

TEST_F(HostileLog, ARelocationInsideATransactionEndsIt) {
    Take(CLEANED_KILLED);
    // The COMMIT in front of a RELOC is taken away: its packets are still open.
    int64 commit = 0;
    int64 found = 0;
    ForEachPacket([&](int64, int64 at, PacketHeader header) {
        if (PacketType(header.info) == EPacketType::COMMIT) commit = at;
        if (PacketType(header.info) == EPacketType::RELOC && !found) found = commit;
    });
    ASSERT_NE(0, found);
    Head(found).info = PacketInfo(EPacketType::PAD, PayloadBytes(Head(found).info));
    try {
        Open();
    } catch (const CorruptLSSException&) {
        EXPECT_EQ(0, m_sys.NumChanges());
    }
}

// What a long element's list names is checked when its bytes are asked for.
TEST_F(HostileLog, PartsOfALongElementThatAreOthersAreRefusedWhenItIsRead) {
    const std::vector<Change> changes{
        [&](int64 at) { Head(at).info = PacketInfo(EPacketType::HEAD, PayloadBytes(Head(at).info)); },
        [&](int64 at) { ++Head(at).key; }, [&](int64 at) { --Head(at).info; }, [&](int64 at) { Head(at).info -= 8; },
        [&](int64 at) { ++At<OverflowPrefix>(at + PACKET_HEADER_BYTES)->ordinal; }};
    for (const Change& change : changes) {
        Take(CLEANED_CLOSED);
        ForEachPacket([&](int64, int64 at, PacketHeader header) {
            if (PacketType(header.info) == EPacketType::LONG_PART) change(at);
        });
        LssStore& store = Open(true);
        std::vector<Seid> longs;
        store.VisitElements([&](Seid seid, Location l) {
            if (IsLong(l)) longs.push_back(seid);
        });
        ASSERT_FALSE(longs.empty());
        for (const Seid seid : longs) {
            const AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(seid));
            EXPECT_THROW(element->GetBuffer(), CorruptLSSException);
        }
        std::exchange(m_store, nullptr)->Abandon();
    }
}

TEST_F(HostileLog, AHeadOfTheOtherKindIsRefusedWhenItIsRead) {
    Take(CLEANED_CLOSED);
    ForEachPacket([&](int64, int64 at, PacketHeader header) {
        if (PacketType(header.info) == EPacketType::HEAD) Head(at).info ^= PACKET_FLAG_LONG << 28;
    });
    LssStore& store = Open(true);
    std::vector<Seid> seids;
    store.VisitElements([&](Seid seid, Location) { seids.push_back(seid); });
    for (const Seid seid : seids) EXPECT_THROW(store.OpenSerialElement(seid), CorruptLSSException);
}

// An element may not reach into the last bytes of its segment.
TEST_F(HostileLog, AnElementThatReachesIntoTheEndOfItsSegmentEndsIt) {
    ExpectHarmless(KILLED, EPacketType::HEAD, [&](int64 at) {
        Head(at).info = PacketInfo(EPacketType::HEAD, SEGMENT_BYTES - at % SEGMENT_BYTES - PACKET_HEADER_BYTES - 64);
    });
}

TEST_F(HostileLog, ALongHeadShorterThanItsPrefixIsRefused) {
    ExpectChangeRefused(
        KILLED, EPacketType::HEAD,
        [&](int64 at) { Head(at).info = PacketInfo(EPacketType::HEAD, 8, PACKET_FLAG_LONG); },
        "the head of a long element");
}

TEST_F(HostileLog, ASegmentThatIsUsedAgainAlthoughItsPacketsAreLiveIsRefused) {
    Take(CLEANED_KILLED);
    const int64 at = Reloc();
    ASSERT_NE(0, at);
    ssize_t used = -1;
    for (const auto& [slot, entry] : UsedEntries())
        if (entry->kind == static_cast<uint8>(ESegmentKind::USER) && entry->livePackets &&
            slot != static_cast<ssize_t>(Header().startSlot))
            used = slot;
    ASSERT_GE(used, 0);
    auto& header = *At<SegmentHeader>(FRONT_AREA_BYTES + used * SEGMENT_BYTES);
    header.sequence = 0x7777;
    header.kind = static_cast<uint32>(ESegmentKind::SURVIVORS);
    Range(at) = {static_cast<uint32>(used), SEGMENT_HEADER_BYTES, SEGMENT_HEADER_BYTES, 0, 0x7777}; // of nothing
    ExpectRefused("packets are live; expected none");
}

TEST_F(HostileLog, ARelocationOfARangeBehindTheEndOfTheFileEndsIt) {
    Take(CLEANED_KILLED);
    const ssize_t slot = (std::ssize(m_file) - FRONT_AREA_BYTES + SEGMENT_BYTES - 1) / SEGMENT_BYTES;
    const int64 begin = FRONT_AREA_BYTES + slot * SEGMENT_BYTES;
    m_file.resize(static_cast<size_t>(begin) + SEGMENT_HEADER_BYTES + 8);
    auto& header = *At<SegmentHeader>(begin);
    header = ReadPod<SegmentHeader>(m_file.data() + FRONT_AREA_BYTES + Range(Reloc()).slot * SEGMENT_BYTES);
    header.sequence = 0x7777;
    header.slot = static_cast<uint32>(slot);
    Range(Reloc()) = {static_cast<uint32>(slot), SEGMENT_HEADER_BYTES, SEGMENT_HEADER_BYTES + 64, 0, 0x7777};
    try {
        Open();
    } catch (const CorruptLSSException&) {
        EXPECT_EQ(0, m_sys.NumChanges());
    }
}

TEST_F(HostileLog, APartWhoseLengthIsNotWhatItsElementSaysIsRefusedWhenItIsRead) {
    Take(CLEANED_CLOSED);
    ForEachPacket([&](int64, int64 at, PacketHeader header) {
        if (PacketType(header.info) != EPacketType::HEAD || !PacketFlags(header.info)) return;
        auto* const part = At<Location>(at + PACKET_HEADER_BYTES + static_cast<int64>(sizeof(LongPrefix)));
        *part = MakeLocation(LocationOffset(*part), LocationBytes(*part) - 8);
    });
    LssStore& store = Open(true);
    int numRefused = 0;
    store.VisitElements([&](Seid seid, Location l) {
        if (!IsLong(l)) return;
        const AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(seid));
        EXPECT_THROW(element->GetBuffer(), CorruptLSSException);
        ++numRefused;
    });
    EXPECT_GT(numRefused, 0);
}

} // namespace
} // namespace quna
