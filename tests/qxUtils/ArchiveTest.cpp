#include "qxUtils/Archive.h"

#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxUtils/ByteSink.h"
#include "tests/support/ExpectAssertion.h"

#include <cstring>
#include <stdexcept>

#include <gtest/gtest.h>

namespace quna {
namespace {

// Opens the protected fields of the writing half.
class ArchiveWithFields : public Archive {
public:
    using Archive::Archive;
    octet_t* Buffer() { return m_writeBuffer; }
    void SetPos(octet_t* pos) { m_pos = pos; }
};

class MemoryInput : public IInputStream {
public:
    explicit MemoryInput(Bytes bytes, ssize_t mostPerRead = 1 << 20)
        : m_bytes(std::move(bytes)), m_mostPerRead(mostPerRead) {}
    ssize_t ReadStream(void* buffer, ssize_t n) override {
        const ssize_t left = static_cast<ssize_t>(m_bytes.size()) - m_pos;
        const ssize_t taken = std::min({n, left, m_mostPerRead});
        std::memcpy(buffer, m_bytes.data() + m_pos, static_cast<std::size_t>(taken));
        m_pos += taken;
        return taken;
    }

private:
    Bytes m_bytes;
    ssize_t m_mostPerRead;
    ssize_t m_pos = 0;
};

TEST(Archive, WritesScalarsAsTheirOwnLittleEndianBytes) {
    const Bytes bytes = Written([](Archive& ar) {
        ar << int8{-2} << uint8{7} << int16{-2} << uint16{0x1234} << int32{-2} << uint32{0x12345678} << int64{-2}
           << uint64{0x123456789abcdef0} << float32{1.5f} << float64{-2.0} << 'c' << true << false;
    });
    const Bytes expected = {0xfe, 7,    0xfe, 0xff, 0x34, 0x12, 0xfe, 0xff, 0xff, 0xff, 0x78, 0x56, 0x34, 0x12, 0xfe,
                            0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xf0, 0xde, 0xbc, 0x9a, 0x78, 0x56, 0x34, 0x12,
                            0,    0,    0xc0, 0x3f, 0,    0,    0,    0,    0,    0,    0,    0xc0, 'c',  1,    0};
    EXPECT_EQ(expected, bytes);
}

TEST(Archive, StartsEmptyWithoutAHook) {
    ByteSink sink;
    Archive ar(&sink);
    EXPECT_EQ(0, ar.NumBufferedWrites());
    EXPECT_EQ(0, ar.GetNumBytesWritten());
    EXPECT_EQ(0, ar.GetNumBytesWrittenToStream());
    EXPECT_EQ(nullptr, ar.m_oidHighSerialiser);
    EXPECT_EQ(nullptr, ar.m_oidHighDeserialiser);
    EXPECT_TRUE(ar.HaveOutputStream());
    EXPECT_EQ(&sink, ar.GetOutputStream());
    EXPECT_FALSE(ar.HaveInputStream());
    EXPECT_TRUE(ar.IsStoring());
    EXPECT_FALSE(ar.IsLoading());
}

TEST(Archive, KeepsExactly4096SingleBytesAndFlushesBeforeTheNext) {
    ByteSink sink;
    Archive ar(&sink);
    for (int i = 0; i < 4096; ++i) ar << static_cast<uint8>(i);
    EXPECT_TRUE(sink.m_writes.empty());
    EXPECT_EQ(4096, ar.NumBufferedWrites());
    EXPECT_EQ(4096, ar.GetNumBytesWritten());
    EXPECT_EQ(0, ar.GetNumBytesWrittenToStream());

    ar << uint8{1};
    EXPECT_EQ(std::vector<ssize_t>{4096}, sink.m_writes);
    EXPECT_EQ(1, ar.NumBufferedWrites());
    EXPECT_EQ(4097, ar.GetNumBytesWritten());
    EXPECT_EQ(4096, ar.GetNumBytesWrittenToStream());
}

TEST(Archive, AValueThatFillsTheBufferToItsLastByteDoesNotFlush) {
    ByteSink sink;
    Archive ar(&sink);
    for (int i = 0; i < 4092; ++i) ar << uint8{0};
    ar << uint32{0x01020304};
    EXPECT_TRUE(sink.m_writes.empty());
    EXPECT_EQ(4096, ar.NumBufferedWrites());
}

TEST(Archive, AValueIsNeverSplitByAFlush) {
    ByteSink sink;
    ArchiveWithFields ar(&sink);
    for (int i = 0; i < 4093; ++i) ar << uint8{0};
    ar << uint32{0x04030201};
    EXPECT_EQ(std::vector<ssize_t>{4093}, sink.m_writes);
    EXPECT_EQ(4, ar.NumBufferedWrites());
    const Bytes head(ar.Buffer(), ar.Buffer() + 4);
    EXPECT_EQ((Bytes{1, 2, 3, 4}), head);
}

TEST(Archive, AGuidWith15BytesOfRoomFlushesFirstAndLiesWholeAtTheStart) {
    ByteSink sink;
    ArchiveWithFields ar(&sink);
    for (int i = 0; i < 4096 - 15; ++i) ar << uint8{0};
    const Guid guid = CreateGuid();
    ar << guid;
    EXPECT_EQ(std::vector<ssize_t>{4096 - 15}, sink.m_writes);
    EXPECT_EQ(16, ar.NumBufferedWrites());
    EXPECT_EQ(0, std::memcmp(ar.Buffer(), &guid, 16));
}

TEST(Archive, AGuidWith16BytesOfRoomDoesNotFlush) {
    ByteSink sink;
    Archive ar(&sink);
    for (int i = 0; i < 4096 - 16; ++i) ar << uint8{0};
    ar << CreateGuid();
    EXPECT_TRUE(sink.m_writes.empty());
    EXPECT_EQ(4096, ar.NumBufferedWrites());
}

TEST(Archive, ChecksItsPositionBeforeItWritesAValue) {
    ByteSink sink;
    ArchiveWithFields ar(&sink);
    const auto expectRefused = [&](octet_t* pos) {
        ar.SetPos(pos);
        ExpectAssertion("m_writeBuffer <= m_pos && m_pos <= m_writeBuffer+ARCHIVE_BUFSIZE", [&] { ar << uint8{1}; });
        ar.SetPos(ar.Buffer());
    };
    // Volatile, so that the compiler does not see positions outside the object and warn of them.
    volatile ssize_t before = -1;
    volatile ssize_t behind = ARCHIVE_BUFSIZE + 1;
    expectRefused(ar.Buffer() + before);
    expectRefused(ar.Buffer() + behind);
    EXPECT_TRUE(sink.m_bytes.empty());
}

TEST(Archive, FlushHandsTheBytesOnAndFlushesTheStream) {
    ByteSink sink;
    Archive ar(&sink);
    ar << uint8{1} << uint8{2};
    ar.FlushBuffer();
    EXPECT_EQ((Bytes{1, 2}), sink.m_bytes);
    EXPECT_EQ(0, sink.m_numFlushes);
    ar << uint8{3};
    ar.Flush();
    EXPECT_EQ((Bytes{1, 2, 3}), sink.m_bytes);
    EXPECT_EQ(1, sink.m_numFlushes);
    EXPECT_EQ(3, ar.GetNumBytesWrittenToStream());
    EXPECT_EQ(0, ar.NumBufferedWrites());
}

TEST(Archive, ClearingTheBufferDropsWhatIsNotYetHandedOn) {
    ByteSink sink;
    {
        Archive ar(&sink);
        ar << uint8{1};
        ar.FlushBuffer();
        ar << uint8{2};
        ar.ClearWriteBuffer();
        EXPECT_EQ(1, ar.GetNumBytesWritten());
        ar << uint8{3};
        ar.ClearWriteBufferAndNumBytesWritten();
        EXPECT_EQ(0, ar.GetNumBytesWritten());
    }
    EXPECT_EQ((Bytes{1}), sink.m_bytes);
}

TEST(Archive, WritesBytesOfAnyLengthInOrder) {
    Bytes expected;
    const Bytes bytes = Written([&](Archive& ar) {
        for (const ssize_t n : {0, 1, 4095, 4096, 4097, 100000, 3, 8192}) {
            Bytes block(static_cast<std::size_t>(n));
            for (ssize_t i = 0; i < n; ++i) block[static_cast<std::size_t>(i)] = static_cast<octet_t>(i * 7 + n);
            ar.Write(block.data(), n);
            expected.insert(expected.end(), block.begin(), block.end());
            EXPECT_EQ(static_cast<int64>(expected.size()), ar.GetNumBytesWritten());
        }
    });
    EXPECT_EQ(expected, bytes);
}

TEST(Archive, RoomThatWasReservedIsCommittedAsFarAsItWasUsed) {
    const Bytes bytes = Written([](Archive& ar) {
        octet_t* p = ar.BeginWrite(10);
        *p++ = 5;
        *p++ = 6;
        ar.EndWrite(p);
    });
    EXPECT_EQ((Bytes{5, 6}), bytes);
}

TEST(Archive, CopiesAStreamWholeOrInPart) {
    Bytes source(10000);
    for (std::size_t i = 0; i < source.size(); ++i) source[i] = static_cast<octet_t>(i % 251);
    ByteSink sink;
    {
        Archive ar(&sink);
        MemoryInput whole(source, 1000);
        EXPECT_EQ(10000, ar.WriteStream(&whole));
        EXPECT_EQ(0, ar.WriteStream(&whole));
        MemoryInput part(source, 1000);
        EXPECT_EQ(5001, ar.WriteStream(&part, 5001));
        EXPECT_EQ(4999, ar.WriteStream(&part, 9999));
    }
    Bytes twice = source;
    twice.insert(twice.end(), source.begin(), source.end());
    EXPECT_EQ(twice, sink.m_bytes);
}

TEST(Archive, DroppedWhileAnExceptionPassesHandsNothingMoreToTheStream) {
    ByteSink sink;
    try {
        Archive ar(&sink);
        ar << uint8{1};
        throw std::runtime_error("halfway");
    } catch (const std::runtime_error&) {
    }
    EXPECT_TRUE(sink.m_bytes.empty());
}

TEST(Archive, BuiltWhileAnExceptionPassesStillFlushes) {
    ByteSink sink;
    struct WritesInDestructor {
        ByteSink& m_sink;
        ~WritesInDestructor() {
            Archive ar(&m_sink);
            ar << uint8{9};
        }
    };
    try {
        WritesInDestructor w{sink};
        throw std::runtime_error("passing");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ((Bytes{9}), sink.m_bytes);
}

TEST(Archive, ASinksFailureReachesTheWriter) {
    class Full : public IOutputStream {
    public:
        void WriteStream(const void*, ssize_t) override { throw FileException("full"); }
        void FlushStream() override {}
    } full;
    EXPECT_THROW(
        {
            Archive ar(&full);
            for (int i = 0; i < 5000; ++i) ar << uint8{0};
        },
        FileException);
    EXPECT_THROW(
        {
            Archive ar(&full);
            ar << uint8{0};
        },
        FileException);
}

TEST(Archive, AnotherStreamCanTakeOver) {
    ByteSink first;
    ByteSink second;
    Archive ar(&first);
    ar << uint8{1};
    ar.FlushBuffer();
    ar.SetOutputStream(&second);
    ar << uint8{2};
    ar.FlushBuffer();
    EXPECT_EQ((Bytes{1}), first.m_bytes);
    EXPECT_EQ((Bytes{2}), second.m_bytes);
    ar.SetOutputStream(nullptr);
    EXPECT_FALSE(ar.IsStoring());
}

TEST(ArchiveReading, ReadsExactlyFromAStreamOrSaysThatItEnded) {
    MemoryInput input({1, 2, 3, 4, 5}, 2);
    Archive ar(&input);
    EXPECT_TRUE(ar.IsLoading());
    EXPECT_FALSE(ar.IsStoring());
    octet_t buffer[8] = {};
    ar.Read(buffer, 3);
    EXPECT_EQ(3, buffer[2]);
    EXPECT_THROW(ar.Read(buffer, 3), RecordException);
}

TEST(ArchiveReading, TryReadGivesWhatIsLeft) {
    MemoryInput input({1, 2, 3}, 1);
    Archive ar(&input);
    octet_t buffer[8] = {};
    EXPECT_EQ(3, ar.TryRead(buffer, 8));
    EXPECT_EQ(0, ar.TryRead(buffer, 8));
}

TEST(ArchiveReading, BytesPutBackComeBeforeTheStream) {
    MemoryInput input({5, 6, 7});
    Archive ar(&input);
    const octet_t front[] = {1, 2};
    ar.InsertAtFront(front, 2);
    EXPECT_EQ(2, ar.NumBufferedReads());
    octet_t buffer[4] = {};
    ar.Read(buffer, 3);
    EXPECT_EQ(1, buffer[0]);
    EXPECT_EQ(5, buffer[2]);
    ar.Skip(1);
    ar.Read(buffer, 1);
    EXPECT_EQ(7, buffer[0]);
    ar.InsertAtFront(front, 2);
    ar.ClearReadBuffer();
    EXPECT_EQ(0, ar.NumBufferedReads());
    EXPECT_EQ(0, ar.TryRead(buffer, 4));
}

TEST(InputArchive, IsTakenByValueAndReturnedAdvanced) {
    const Bytes bytes = Written([](Archive& ar) { ar << uint32{5} << int64{-3} << Guid_NULL << true; });
    uint32 a = 0;
    int64 b = 0;
    Guid c;
    bool d = false;
    const InputArchive start(bytes.data());
    const InputArchive end = start >> a >> b >> c >> d;
    EXPECT_EQ(bytes.data(), start.ptr());
    EXPECT_EQ(bytes.data() + bytes.size(), end.ptr());
    EXPECT_EQ(5u, a);
    EXPECT_EQ(-3, b);
    EXPECT_EQ(Guid_NULL, c);
    EXPECT_TRUE(d);
}

TEST(InputArchive, MovesForthAndBack) {
    const octet_t bytes[] = {0, 1, 2, 3};
    InputArchive ar(bytes);
    ar += 3;
    ar -= 1;
    EXPECT_EQ(bytes + 2, ar.ptr());
    EXPECT_EQ(bytes + 2, static_cast<const octet_t*>(ar));
    EXPECT_EQ(sizeof(void*), sizeof(InputArchive));
}

TEST(InputArchive, ParsesARecordAtAnAddressOfAnyAlignment) {
    const Bytes bytes = Written([](Archive& ar) {
        ar << uint16{0x1234} << uint32{0x12345678} << int64{-5} << float64{2.5} << xstring("text");
    });
    for (std::size_t offset = 0; offset < 8; ++offset) {
        Bytes shifted(offset);
        shifted.insert(shifted.end(), bytes.begin(), bytes.end());
        uint16 a = 0;
        uint32 b = 0;
        int64 c = 0;
        float64 d = 0;
        xstring e;
        const InputArchive end = InputArchive(shifted.data() + offset) >> a >> b >> c >> d >> e;
        EXPECT_EQ(shifted.data() + shifted.size(), end.ptr());
        EXPECT_EQ(0x1234, a);
        EXPECT_EQ(0x12345678u, b);
        EXPECT_EQ(-5, c);
        EXPECT_EQ(2.5, d);
        EXPECT_EQ(xstring("text"), e);
    }
}

TEST(InputArchive, AnyByteButZeroIsTrue) {
    const octet_t bytes[] = {0, 2, 255};
    bool a = true;
    bool b = false;
    bool c = false;
    InputArchive(bytes) >> a >> b >> c;
    EXPECT_FALSE(a);
    EXPECT_TRUE(b);
    EXPECT_TRUE(c);
}

} // namespace
} // namespace quna
