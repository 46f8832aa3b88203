// The imagined disk is an instrument: these are the rules that the sweeps over it stand on.
#include "tests/support/SimDisk.h"

#include "qxLss/src/FileIo.h"
#include "qxUtils/Exceptions.h"
#include "tests/support/SimSys.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

namespace quna {
namespace {

using EChoice = CrashVariant::EChoice;

class DiskTest : public testing::Test {
protected:
    DiskTest() : m_file(m_sys) {
        m_file.Open("d/f", EFileAccess::CREATE);
        SyncDirectoryOf(m_sys, "d/f");
    }

    void Write(int64 offset, const std::string& text) { m_file.Write(offset, text.data(), std::ssize(text)); }

    // The file's content after a crash now; "none" if it is not there.
    std::string After(EChoice choice, uint64 seed = 0) {
        SimDisk disk(m_sys.InitialImage());
        for (const SimCall& call : m_sys.Record()) disk.Apply(call);
        const DiskImage image = disk.Image({choice, seed});
        const auto found = image.find("d/f");
        return found == image.end() ? "none" : std::string(found->second.begin(), found->second.end());
    }

    SimSys m_sys;
    File m_file;
};

TEST_F(DiskTest, OnlyWhatASyncCoversIsCertain) {
    Write(0, "abc");
    m_file.SyncData();
    Write(1, "X");
    Write(2, "Y");
    EXPECT_EQ(After(EChoice::NONE), "abc");
    EXPECT_EQ(After(EChoice::ALL), "aXY");
    EXPECT_EQ(After(EChoice::ALL_BUT_LAST), "aXc");
    EXPECT_EQ(After(EChoice::ONLY_LAST), "abY");
    std::set<std::string> seen;
    for (uint64 seed = 0; seed < 50; ++seed) seen.insert(After(EChoice::RANDOM_SUBSET, seed));
    EXPECT_EQ(seen, (std::set<std::string>{"abc", "aXc", "abY", "aXY"}));
}

TEST_F(DiskTest, ADurableWriteIsCertainByItself) {
    Write(0, "abc");
    m_file.WriteDurable(1, "X", 1);
    EXPECT_EQ(After(EChoice::NONE), std::string("\0X", 2));
    EXPECT_EQ(After(EChoice::ALL), "aXc"); // the earlier write never shows over it
}

TEST_F(DiskTest, AWriteIsTornAtSectorsAndSometimesInside) {
    Write(0, std::string(2048, 'a'));
    m_file.SyncData();
    Write(0, std::string(2048, 'b'));
    std::set<std::string> seen;
    bool insideSector = false;
    for (uint64 seed = 0; seed < 400; ++seed) {
        const std::string found = After(EChoice::TORN, seed);
        ASSERT_EQ(found.size(), 2048u);
        seen.insert(found);
        for (size_t i = 1; i < found.size(); ++i)
            insideSector = insideSector || (found[i] != found[i - 1] && i % 512 != 0);
    }
    EXPECT_GT(seen.size(), 10u);
    EXPECT_TRUE(insideSector);
}

TEST_F(DiskTest, ASectorNeverShowsALaterWriteWithoutAnEarlierOne) {
    Write(0, std::string(1024, 'a'));
    m_file.SyncData();
    Write(0, "b");
    Write(1, "c");
    Write(600, "d");
    std::set<std::string> seen;
    for (uint64 seed = 0; seed < 200; ++seed) {
        const std::string found = After(EChoice::SECTORS, seed);
        if (found[1] == 'c') {
            EXPECT_EQ(found[0], 'b');
        }
        seen.insert(found.substr(0, 2) + found[600]);
    }
    EXPECT_EQ(seen, (std::set<std::string>{"aaa", "baa", "bca", "aad", "bad", "bcd"}));
}

TEST_F(DiskTest, EveryNumberIsAnotherSubsetOfFewCalls) {
    Write(0, "abc");
    m_file.SyncData();
    Write(0, "X");
    m_file.WriteDurable(1, "Y", 1);
    Write(2, "Z");
    SimDisk disk(m_sys.InitialImage());
    for (const SimCall& call : m_sys.Record()) disk.Apply(call);
    ASSERT_EQ(disk.NumSubsets(nullptr), 4u); // of the two that are uncertain
    std::set<std::string> seen;
    for (uint64 i = 0; i < 4; ++i) {
        const FileBytes bytes = disk.Image({EChoice::SUBSET, 0, i}).at("d/f");
        seen.emplace(bytes.begin(), bytes.end());
    }
    EXPECT_EQ(seen, (std::set<std::string>{"aYc", "XYc", "aYZ", "XYZ"}));
    const SimCall next{.kind = SimCall::EKind::WRITE, .file = 0, .offset = 3, .data = {'!'}, .name = {}, .name2 = {}};
    EXPECT_EQ(disk.NumSubsets(&next), 8u);
    for (int i = 0; i < 7; ++i) disk.Apply(next);
    EXPECT_EQ(disk.NumSubsets(nullptr), 0u); // too many to count them all
}

TEST_F(DiskTest, EveryNumberTearsOneWriteInAnotherWay) {
    Write(0, std::string(2048, 'a'));
    m_file.SyncData();
    Write(0, std::string(1536, 'b'));
    SimDisk disk(m_sys.InitialImage());
    for (const SimCall& call : m_sys.Record()) disk.Apply(call);
    ASSERT_EQ(disk.NumTears(nullptr), 3u * (2 + 2)); // two boundaries, and two places inside a sector
    std::set<std::string> atBoundaries;
    for (uint64 i = 0; i < 6; ++i) {
        const FileBytes bytes = disk.Image({EChoice::TEAR, 5, i}).at("d/f");
        std::string sectors;
        for (size_t at = 0; at < 2048; at += 512) sectors += static_cast<char>(bytes[at]);
        atBoundaries.insert(sectors);
    }
    EXPECT_EQ(atBoundaries, (std::set<std::string>{"baaa", "bbaa", "abba", "aaba", "baba"}));
    bool inside = false;
    for (uint64 i = 6; i < 12; ++i) {
        const FileBytes bytes = disk.Image({EChoice::TEAR, 5, i}).at("d/f");
        for (size_t at = 1; at < 2048; ++at) inside = inside || (bytes[at] != bytes[at - 1] && at % 512 != 0);
    }
    EXPECT_TRUE(inside);
}

TEST_F(DiskTest, NewSpaceMayShowWhatWasThereBefore) {
    Write(0, std::string(1024, 'a'));
    m_file.SyncData();
    m_file.Truncate(512);
    m_file.SyncData();
    m_file.Allocate(512, 512);
    std::set<char> seen;
    for (uint64 seed = 0; seed < 200; ++seed) {
        const std::string found = After(EChoice::NEW_SPACE, seed);
        EXPECT_EQ(found.substr(0, 512), std::string(512, 'a'));
        if (found.size() == 1024) seen.insert(found[512]);
    }
    EXPECT_TRUE(seen.contains('a'));
    EXPECT_TRUE(seen.contains('\0'));
    EXPECT_GT(seen.size(), 2u); // and random bytes
}

TEST_F(DiskTest, TheSizeMayBeShortOfTheDataAndBeyond) {
    Write(0, std::string(512, 'a'));
    m_file.SyncData();
    Write(512, std::string(512, 'b'));
    bool isShort = false;
    bool isLong = false;
    for (uint64 seed = 0; seed < 100; ++seed) {
        const std::string found = After(EChoice::SIZE, seed);
        ASSERT_GE(found.size(), 512u); // which the sync covers
        isShort = isShort || found.size() < 1024;
        isLong = isLong || found.size() > 1024;
    }
    EXPECT_TRUE(isShort && isLong);
}

TEST_F(DiskTest, GarbageIsOnlyWhereSomethingWasBeingWritten) {
    Write(0, std::string(512, 'a'));
    m_file.SyncData();
    Write(512, std::string(512, 'b'));
    for (uint64 seed = 0; seed < 50; ++seed) {
        const std::string found = After(EChoice::GARBLED, seed);
        ASSERT_EQ(found.size() % 512, 0u);
        EXPECT_EQ(found.substr(0, 512), std::string(512, 'a'));
        if (found.size() > 512) {
            EXPECT_NE(found.substr(512), std::string(512, 'b'));
        }
    }
}

TEST_F(DiskTest, AnArenaHoldsWhatAMemoryFileHolds) {
    for (const ESimMemory kind :
         {ESimMemory::ARENA, ESimMemory::SHARED, ESimMemory::GUARDED, ESimMemory::ARENA, ESimMemory::GUARDED}) {
        SimSys sys({{"d/f", FileBytes(100, octet_t{'x'})}}, kind);
        File file(sys);
        file.Open("d/f", EFileAccess::READ_WRITE);
        file.Allocate(0, 8192);
        file.Write(8000, "abcdef", 6);
        const octet_t* base = nullptr;
        ASSERT_EQ(sys.Map(file.Descriptor(), 1 << 20, base), 0);
        EXPECT_EQ(base[99], 'x');
        EXPECT_EQ(base[100], 0);
        EXPECT_EQ(base[8001], 'b');
        EXPECT_EQ(sys.Unmap(base, 1 << 20), 0);
        file.PunchHole(4096, 4096);
        file.Truncate(50);
        file.Allocate(0, 8192);
        FileBytes bytes(8192);
        file.Read(0, bytes.data(), 8192);
        FileBytes expected(8192);
        std::fill_n(expected.begin(), 50, octet_t{'x'});
        EXPECT_EQ(bytes, expected);
    }
}

TEST_F(DiskTest, PagesBehindTheEndOfAGuardedFileCanNotBeTouched) {
    SimSys sys({{"d/f", FileBytes(5000, octet_t{'x'})}}, ESimMemory::GUARDED);
    File file(sys);
    file.Open("d/f", EFileAccess::READ_WRITE);
    const octet_t* base = nullptr;
    ASSERT_EQ(sys.Map(file.Descriptor(), 1 << 20, base), 0);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    // The system says of an address whether it can be read.
    const auto canRead = [&](int64 at) { return ::write(ends[1], base + at, 1) == 1; };
    EXPECT_TRUE(canRead(4999));
    EXPECT_FALSE(canRead(8192));
    file.Write(12000, "abc", 3);
    EXPECT_TRUE(canRead(12002));
    EXPECT_FALSE(canRead(12288));
    file.Truncate(4096);
    EXPECT_TRUE(canRead(4095));
    EXPECT_FALSE(canRead(4096));
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(sys.Unmap(base, 1 << 20), 0);
}

TEST_F(DiskTest, AFailedSyncLosesWhatWasPendingWhileReadsStillShowIt) {
    Write(0, "abc");
    m_file.SyncData();
    Write(0, "xyz");
    m_sys.FailCall(ESimCall::SYNC, 1, EIO, false);
    EXPECT_THROW(m_file.SyncData(), FileException);
    m_file.SyncData(); // succeeds, and does not bring them back
    EXPECT_EQ(After(EChoice::ALL), "abc");
    char bytes[3];
    m_file.Read(0, bytes, 3);
    EXPECT_EQ(std::string(bytes, 3), "xyz");
    m_file.DropCache(0, 0);
    m_file.Read(0, bytes, 3);
    EXPECT_EQ(std::string(bytes, 3), "abc");
}

TEST_F(DiskTest, NamesAreCertainAfterASyncOfTheDirectory) {
    EXPECT_TRUE(RenameFile(m_sys, "d/f", "d/g", false));
    EXPECT_EQ(After(EChoice::NONE), "");
    EXPECT_EQ(After(EChoice::ALL), "none");
    SyncDirectoryOf(m_sys, "d/g");
    EXPECT_EQ(After(EChoice::NONE), "none");
}

TEST_F(DiskTest, SizesArePendingTooAndANewDiskBeginsWithTheImage) {
    m_file.Allocate(0, 8192);
    EXPECT_EQ(After(EChoice::NONE), "");
    m_file.SyncData();
    EXPECT_EQ(After(EChoice::NONE).size(), 8192u);
    m_file.Truncate(100);
    EXPECT_EQ(After(EChoice::NONE).size(), 8192u);
    EXPECT_EQ(After(EChoice::ALL).size(), 100u);

    SimSys further(m_sys.CachedImage());
    File file(further);
    file.Open("d/f", EFileAccess::READ_WRITE);
    EXPECT_EQ(file.Size(), 100);
    EXPECT_EQ(further.NumRecorded(), 0);
}

} // namespace
} // namespace quna
