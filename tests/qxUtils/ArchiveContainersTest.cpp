#include "qxUtils/ArchiveContainers.h"

#include "qxUtils/Archivexdeque.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxUtils/ByteSink.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

template <class T>
Bytes BytesOf(const T& x) {
    return Written([&](Archive& ar) { ar << x; });
}

template <class T>
T ReadBack(const Bytes& bytes) {
    T x{};
    const InputArchive end = InputArchive(bytes.data()) >> x;
    EXPECT_EQ(bytes.data() + bytes.size(), end.ptr());
    return x;
}

TEST(ArchiveContainers, AStringIsItsLengthAndItsBytesWithoutATerminator) {
    EXPECT_EQ((Bytes{3, 'a', 'b', 'c'}), BytesOf(xstring("abc")));
    EXPECT_EQ((Bytes{0}), BytesOf(xstring()));
    EXPECT_EQ((Bytes{2, 0, 'x'}), BytesOf(xstring("\0x", 2)));
}

TEST(ArchiveContainers, StringsCharVectorsAndByteVectorsHaveOneForm) {
    const std::string text(300, 'q');
    const xstring s(text);
    xvector<char> v;
    v.append(text.data(), 300);
    const VectorOfByte b(text.data(), 300);
    EXPECT_EQ(BytesOf(s), BytesOf(v));
    EXPECT_EQ(BytesOf(s), BytesOf(b));
    EXPECT_EQ(302u, BytesOf(s).size());
    EXPECT_EQ(s, ReadBack<xstring>(BytesOf(b)));
    EXPECT_EQ(b, ReadBack<VectorOfByte>(BytesOf(v)));
}

TEST(ArchiveContainers, AStringLongerThanTheBufferComesBack) {
    const std::string text(100000, 'z');
    EXPECT_EQ(text, ReadBack<xstring>(BytesOf(xstring(text))).str());
}

TEST(ArchiveContainers, ReadingAStringReplacesWhatItHeldAndKeepsTheTerminator) {
    const Bytes bytes = BytesOf(xstring("ab"));
    xstring x("a longer text");
    InputArchive(bytes.data()) >> x;
    EXPECT_STREQ("ab", x.c_str());
    EXPECT_EQ(2, x.size());
}

TEST(ArchiveContainers, AGuidIsSixteenBytesAsTheyLieInMemory) {
    Guid guid;
    guid.Data1 = 0x01020304;
    guid.Data2 = 0x0506;
    guid.Data3 = 0x0708;
    for (uint8 i = 0; i < 8; ++i) guid.Data4[i] = static_cast<uint8>(9 + i);
    const Bytes bytes = BytesOf(guid);
    EXPECT_EQ((Bytes{4, 3, 2, 1, 6, 5, 8, 7, 9, 10, 11, 12, 13, 14, 15, 16}), bytes);
    EXPECT_EQ(guid, ReadBack<Guid>(bytes));
}

TEST(ArchiveContainers, APairIsItsFirstThenItsSecond) {
    const std::pair<uint16, xstring> pair(0x0102, "x");
    EXPECT_EQ((Bytes{2, 1, 1, 'x'}), BytesOf(pair));
}

TEST(ArchiveContainers, AMapIsItsCountAndItsPairsInAscendingOrder) {
    const std::map<xstring, uint8> map = {{"b", 2}, {"a", 1}, {"ab", 3}};
    EXPECT_EQ((Bytes{3, 1, 'a', 1, 2, 'a', 'b', 3, 1, 'b', 2}), BytesOf(map));
    EXPECT_EQ(map, (ReadBack<std::map<xstring, uint8>>(BytesOf(map))));
}

TEST(ArchiveContainers, AnEmptyMapOrDequeIsItsCountOfZeroAndNothingElse) {
    EXPECT_EQ((Bytes{0}), BytesOf(std::map<xstring, uint8>()));
    EXPECT_EQ((Bytes{0}), BytesOf(xdeque<uint32, 8>()));
}

TEST(ArchiveContainers, ReadingAMapReplacesItsContents) {
    const Bytes bytes = BytesOf(std::map<uint8, uint8>{{1, 10}});
    std::map<uint8, uint8> map = {{1, 99}, {2, 20}};
    InputArchive(bytes.data()) >> map;
    EXPECT_EQ((std::map<uint8, uint8>{{1, 10}}), map);

    const Bytes none = {0};
    InputArchive(none.data()) >> map;
    EXPECT_TRUE(map.empty());
}

TEST(ArchiveContainers, AnEntryOutOfOrderLandsInItsPlaceAndARepeatedKeyKeepsItsFirstValue) {
    const Bytes bytes = {4, 5, 50, 1, 10, 5, 55, 3, 30};
    EXPECT_EQ((std::map<uint8, uint8>{{1, 10}, {3, 30}, {5, 50}}), (ReadBack<std::map<uint8, uint8>>(bytes)));
}

TEST(ArchiveContainers, ADequeIsItsCountAndItsElementsFromFrontToBack) {
    xdeque<uint16, 4> deque;
    for (uint16 x = 0; x < 11; ++x) deque.push_back(x);
    const Bytes bytes = BytesOf(deque);
    ASSERT_EQ(23u, bytes.size());
    EXPECT_EQ(11, bytes[0]);
    EXPECT_EQ(1, bytes[3]);
    EXPECT_EQ(10, bytes[21]);

    xdeque<uint16, 4> read;
    for (uint16 x = 0; x < 30; ++x) read.push_back(7);
    const InputArchive end = InputArchive(bytes.data()) >> read;
    EXPECT_EQ(bytes.data() + bytes.size(), end.ptr());
    ASSERT_EQ(11, read.size());
    uint16 expected = 0;
    for (const uint16 x : read) EXPECT_EQ(expected++, x);

    xdeque<uint16, 4> shorter;
    shorter.push_back(9);
    InputArchive(bytes.data()) >> shorter;
    EXPECT_EQ(11, shorter.size());
    EXPECT_EQ(0, shorter.front());
    EXPECT_EQ(10, shorter.back());
}

TEST(ArchiveContainers, AVectorAboveTheLargestAllocationIsRefusedBeforeAByteMoves) {
    VectorOfByte huge;
    huge.resize_uninitialised(MAX_ALLOCATION_SIZE + 1);
    ByteSink sink;
    Archive ar(&sink);
    EXPECT_THROW(ar << huge, RecordException);
    EXPECT_EQ(0, ar.GetNumBytesWritten());
}

TEST(ArchiveContainers, AStoredLengthAboveTheLargestAllocationIsRefusedBeforeMemoryIsTaken) {
    const Bytes bytes = Written([](Archive& ar) { Serialise_ssize_t(ar, MAX_ALLOCATION_SIZE + 1); });
    VectorOfByte x("keep", 4);
    EXPECT_THROW(InputArchive(bytes.data()) >> x, RecordException);
    EXPECT_EQ(4, x.size());
    EXPECT_EQ(1048576000, MAX_ALLOCATION_SIZE);
}

} // namespace
} // namespace quna
