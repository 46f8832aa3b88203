#include "qxLss/src/FileMap.h"

#include "qxUtils/Exceptions.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/SimSys.h"
#include "tests/support/TempDir.h"

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr int64 CHUNK = FileMap::CHUNK_BYTES;

octet_t ByteAt(int64 offset) { return static_cast<octet_t>(offset * 7 + offset / 4096); }

void Fill(File& file, int64 size) {
    std::vector<octet_t> bytes(static_cast<size_t>(size));
    for (int64 i = 0; i < size; ++i) bytes[static_cast<size_t>(i)] = ByteAt(i);
    file.Write(0, bytes.data(), size);
}

bool IsRight(const octet_t* p, int64 offset, int64 size) {
    for (int64 i = 0; i < size; ++i)
        if (p[i] != ByteAt(offset + i)) return false;
    return true;
}

TEST(FileMap, LoadGivesTheBytesOfTheFile) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    Fill(file, 10 * CHUNK);
    FileMap map(file);
    EXPECT_TRUE(IsRight(map.Load(0, 10 * CHUNK), 0, 10 * CHUNK));
    EXPECT_EQ(map.Load(5, 1), map.At(5));
    EXPECT_GE(map.MaxBytes(), int64{1} << 30);
}

TEST(FileMap, ShowsWhatIsWrittenAfterTheMappingWasMadeAndAfterTheFileHasGrown) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    FileMap map(file);
    file.Allocate(0, 4 * CHUNK);
    map.MarkLoaded(0, 4 * CHUNK);
    Fill(file, 4 * CHUNK);
    EXPECT_TRUE(IsRight(map.Load(0, 4 * CHUNK), 0, 4 * CHUNK));
    Fill(file, 8 * CHUNK);
    EXPECT_TRUE(IsRight(map.Load(4 * CHUNK, 4 * CHUNK), 4 * CHUNK, 4 * CHUNK));
}

TEST(FileMap, LoadsEachChunkOnce) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, 16 * CHUNK);
    FileMap map(file);
    map.Load(3 * CHUNK + 100, 10);
    EXPECT_EQ(sys.NumCalls(ESimCall::LOAD), 1);
    EXPECT_TRUE(map.IsChunkLoaded(3));
    EXPECT_FALSE(map.IsChunkLoaded(2));
    EXPECT_FALSE(map.IsChunkLoaded(4));
    map.Load(3 * CHUNK, CHUNK);
    EXPECT_EQ(sys.NumCalls(ESimCall::LOAD), 1);
}

TEST(FileMap, AScanLoadsFourChunksAtOnce) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, 16 * CHUNK);
    FileMap map(file);
    map.Load(CHUNK, 1);
    map.Load(2 * CHUNK, 1);
    EXPECT_EQ(sys.NumCalls(ESimCall::LOAD), 2);
    for (int64 chunk = 2; chunk < 6; ++chunk) EXPECT_TRUE(map.IsChunkLoaded(chunk)) << chunk;
    EXPECT_FALSE(map.IsChunkLoaded(6));
    map.Load(14 * CHUNK, 1);
    map.Load(15 * CHUNK, 1); // the read-ahead ends with the file
    EXPECT_EQ(sys.NumCalls(ESimCall::LOAD), 4);
}

TEST(FileMap, ARangeOverSeveralChunksIsLoadedInRunsAroundWhatIsThere) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, 200 * CHUNK);
    FileMap map(file);
    map.MarkLoaded(50 * CHUNK, 80 * CHUNK);
    EXPECT_TRUE(map.IsChunkLoaded(50));
    EXPECT_TRUE(map.IsChunkLoaded(129));
    EXPECT_FALSE(map.IsChunkLoaded(130));
    EXPECT_TRUE(IsRight(map.Load(40 * CHUNK, 100 * CHUNK), 40 * CHUNK, 100 * CHUNK));
    EXPECT_EQ(sys.NumCalls(ESimCall::LOAD), 2);
    for (int64 chunk = 40; chunk < 140; ++chunk) EXPECT_TRUE(map.IsChunkLoaded(chunk)) << chunk;
}

TEST(FileMap, OnlyWholeChunksCountAsWritten) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, 4 * CHUNK);
    FileMap map(file);
    map.MarkLoaded(CHUNK - 1, CHUNK);
    EXPECT_FALSE(map.IsChunkLoaded(0));
    EXPECT_FALSE(map.IsChunkLoaded(1));
    map.MarkLoaded(CHUNK, CHUNK);
    EXPECT_TRUE(map.IsChunkLoaded(1));
}

TEST(FileMap, ARangeBeyondTheEndOfTheFileIsAnExceptionAndNoSignal) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    Fill(file, CHUNK + 5000);
    FileMap map(file);
    EXPECT_TRUE(IsRight(map.Load(CHUNK, 5000), CHUNK, 5000));
    // The chunk that the end cuts is not taken for loaded, so this is seen.
    ExpectException<FileException>("Can't read 5001 bytes of file \"" + dir.File("f") +
                                       "\" at offset 16384: the file has 21384 bytes",
                                   [&] { map.Load(CHUNK, 5001); });
    EXPECT_THROW(map.Load(100 * CHUNK, 1), FileException);
    EXPECT_THROW(map.Load(map.MaxBytes(), 1), FileException);
    EXPECT_THROW(map.Load(map.MaxBytes() - 1, 8), FileException);
}

TEST(FileMap, BehindWhatIsAskedForTheLastPageMayGoOnWhereTheFileDoesNot) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    Fill(file, CHUNK);
    file.Truncate(CHUNK - 10);
    FileMap map(file);
    const octet_t* const p = map.Load(CHUNK - 110, 100, 10);
    EXPECT_TRUE(IsRight(p, CHUNK - 110, 100));
    for (int i = 100; i < 110; ++i) EXPECT_EQ(p[i], 0);
    EXPECT_THROW(map.Load(CHUNK - 110, 101, 9), FileException);
    EXPECT_THROW(map.Load(CHUNK - 110, 100, 11), FileException); // in the next page
    EXPECT_THROW(map.Load(CHUNK - 110, 110), FileException);
}

TEST(FileMap, AReadErrorIsAnExceptionWithTheOffsetAndTheNextTouchTriesAgain) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, 8 * CHUNK);
    FileMap map(file);
    sys.FailCall(ESimCall::LOAD, 1, EFAULT, false);
    ExpectException<FileException>("Can't read file \"d/f\" at offset 32768: Input/output error (errno 5)",
                                   [&] { map.Load(2 * CHUNK + 17, 4); });
    EXPECT_FALSE(map.IsChunkLoaded(2));
    EXPECT_TRUE(IsRight(map.Load(2 * CHUNK + 17, 4), 2 * CHUNK + 17, 4));
    sys.Disturb(5, 2);
    EXPECT_TRUE(IsRight(map.Load(0, 8 * CHUNK), 0, 8 * CHUNK));
}

TEST(FileMap, WhereAddressSpaceIsShortTheRangeIsHalved) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, CHUNK);
    sys.FailCall(ESimCall::MAP, 1, ENOMEM, false);
    {
        FileMap map(file);
        EXPECT_EQ(map.MaxBytes(), FileMap::MAX_BYTES / 2);
        EXPECT_TRUE(IsRight(map.Load(0, CHUNK), 0, CHUNK));
    }
    sys.FailCall(ESimCall::MAP, 1, ENOMEM, true);
    EXPECT_THROW(FileMap map(file), FileException);
}

TEST(FileMapThreads, ManyThreadsTouchTheSameChunks) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    constexpr int64 SIZE = 300 * CHUNK;
    Fill(file, SIZE);
    FileMap map(file);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int64 i = 0; i < SIZE; i += 1000) {
                const int64 offset = t % 2 ? i : SIZE - 1000 - i + i % 1000;
                if (offset < 0 || offset + 64 > SIZE) continue;
                if (!IsRight(map.Load(offset, 64), offset, 64)) ++wrong;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(FileMap, AnInterruptedLoadIsRepeated) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, CHUNK);
    FileMap map(file);
    for (const int error : {EINTR, EAGAIN}) {
        FileMap again(file);
        sys.FailCall(ESimCall::LOAD, 1, error, false);
        EXPECT_TRUE(IsRight(again.Load(0, CHUNK), 0, CHUNK));
    }
}

TEST(FileMap, ALengthThatIsRefusedAsInvalidIsHalvedToo) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    Fill(file, CHUNK);
    sys.FailCall(ESimCall::MAP, 1, EINVAL, false);
    FileMap map(file);
    EXPECT_EQ(map.MaxBytes(), FileMap::MAX_BYTES / 2);
    EXPECT_TRUE(IsRight(map.Load(0, CHUNK), 0, CHUNK));
}

// Free segments at the file's end are cut off, and come back, while what stands in front of them is read.
TEST(FileMapThreads, WhatIsCutOffBehindTheBytesThatAreAskedForIsNotMissed) {
    constexpr int NUM_ROUNDS = 1000;
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    Fill(file, 4 * CHUNK);
    std::atomic<bool> stop{false};
    std::thread cutter([&] {
        while (!stop) {
            file.Truncate(8 * CHUNK);
            file.Truncate(4 * CHUNK);
        }
    });
    int failures = 0;
    for (int round = 0; round < NUM_ROUNDS; ++round) {
        FileMap map(file, int64{1} << 30);
        try {
            map.Load(2 * CHUNK, 1);
            if (!IsRight(map.Load(3 * CHUNK, 64), 3 * CHUNK, 64))
                ++failures; // looks like a scan, which is read ahead for
        } catch (const FileException&) {
            ++failures;
        }
    }
    stop = true;
    cutter.join();
    EXPECT_EQ(failures, 0);
}

} // namespace
} // namespace quna
