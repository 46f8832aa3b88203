#include "qxUtils/RecordLimits.h"

#include "qxUtils/Archive.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Archivexdeque.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Schema.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "tests/qxUtils/ByteSink.h"

#include <map>
#include <memory>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

// A record as a store hands it out: in memory of exactly its size and the slack behind it, so that the address
// sanitizer sees every read beyond.
class Record {
public:
    explicit Record(const Bytes& bytes)
        : m_size(static_cast<ssize_t>(bytes.size())),
          m_memory(new octet_t[static_cast<std::size_t>(m_size + RECORD_SLACK)]) {
        std::copy(bytes.begin(), bytes.end(), m_memory.get());
        std::fill_n(m_memory.get() + m_size, RECORD_SLACK, octet_t{0xA5});
    }
    const octet_t* Begin() const { return m_memory.get(); }
    const octet_t* End() const { return m_memory.get() + m_size; }
    octet_t* Slack() { return m_memory.get() + m_size; }

private:
    ssize_t m_size;
    std::unique_ptr<octet_t[]> m_memory;
};

TEST(RecordLimits, AWholeRecordParsesAsWithoutThem) {
    const std::map<xstring, uint64> map = {{"one", 1}, {"two", 2}};
    const Record record(Written([&](Archive& ar) {
        SerialiseSchema(ar, 1);
        ar << map << xstring("tail");
    }));
    const RecordLimitsScope limits(record.Begin(), record.End());
    int schema = 0;
    std::map<xstring, uint64> read;
    xstring tail;
    const InputArchive end = DeserialiseSchema(record.Begin(), 1, schema) >> read >> tail;
    EXPECT_EQ(record.End(), end.ptr());
    EXPECT_EQ(map, read);
    EXPECT_EQ(xstring("tail"), tail);
}

TEST(RecordLimits, ALengthBeyondTheRecordsEndIsRefused) {
    const Record record({5, 'a', 'b', 'c', 'd'});
    const RecordLimitsScope limits(record.Begin(), record.End());
    xstring x("kept");
    EXPECT_THROW(InputArchive(record.Begin()) >> x, RecordException);
    EXPECT_EQ(xstring("kept"), x);
}

TEST(RecordLimits, ACountBeyondTheRecordsEndIsRefusedBeforeMemoryIsTaken) {
    const Record record(Written([](Archive& ar) { Serialise_ssize_t(ar, 0xffffffff); }));
    const RecordLimitsScope limits(record.Begin(), record.End());
    std::map<uint8, uint8> map;
    EXPECT_THROW(InputArchive(record.Begin()) >> map, RecordException);
    xdeque<uint8, 512> deque;
    EXPECT_THROW(InputArchive(record.Begin()) >> deque, RecordException);
    EXPECT_EQ(0, deque.size());
}

TEST(RecordLimits, ASmallOverrunIsLeftToTheOwnersCheckOfTheEnd) {
    const Record record({1, 2, 3});
    const RecordLimitsScope limits(record.Begin(), record.End());
    uint32 x = 0;
    const InputArchive end = InputArchive(record.Begin()) >> x;
    EXPECT_EQ(record.End() + 1, end.ptr());
}

TEST(RecordLimits, ASmallSkipBeyondTheEndIsLeftToTheOwnersCheckOfTheEnd) {
    const Record record({1, 2, 3});
    const RecordLimitsScope limits(record.Begin(), record.End());
    InputArchive ar(record.Begin());
    ar += 4;
    EXPECT_EQ(record.End() + 1, ar.ptr());
    EXPECT_THROW(ar += RECORD_SLACK, RecordException);
    EXPECT_THROW(ar += ssize_t{1} << 40, RecordException);
    EXPECT_THROW(ar += -1, RecordException);
    EXPECT_EQ(record.End() + 1, ar.ptr());
}

TEST(RecordLimits, ReadingOnBeyondTheSlackIsRefused) {
    const Record record({1});
    const RecordLimitsScope limits(record.Begin(), record.End());
    InputArchive ar(record.Begin());
    const auto readOn = [&] {
        for (int i = 0; i < 1000; ++i) {
            uint8 x = 0;
            ar = ar >> x;
        }
    };
    EXPECT_THROW(readOn(), RecordException);
    EXPECT_LE(ar.ptr(), record.End() + RECORD_SLACK);
}

TEST(RecordLimits, ReadsOfEverySizeStopWithinTheSlack) {
    const auto runOut = [](auto readOne) {
        const Record record({1, 1, 1});
        const RecordLimitsScope limits(record.Begin(), record.End());
        InputArchive ar(record.Begin());
        EXPECT_THROW(for (int i = 0; i < 1000; ++i) ar = readOne(ar), RecordException);
    };
    runOut([](InputArchive ar) {
        uint16 x = 0;
        return ar >> x;
    });
    runOut([](InputArchive ar) {
        uint64 x = 0;
        return ar >> x;
    });
    runOut([](InputArchive ar) {
        Guid x;
        return ar >> x;
    });
    runOut([](InputArchive ar) {
        bool x = false;
        return ar >> x;
    });
    runOut([](InputArchive ar) {
        xstring x;
        return ar >> x;
    });
    runOut([](InputArchive ar) {
        uint32 x = 0;
        return InputArchive(DeserialiseVariableLengthUint(ar, x));
    });
    runOut([](InputArchive ar) {
        uint32 x = 0;
        bool escaped = false;
        return InputArchive(DeserialiseVariableLengthUint(ar, x, escaped));
    });
    runOut([](InputArchive ar) {
        struct Big {
            octet_t m_bytes[40];
        } x;
        return InputArchive(DeserialisePod(ar.ptr(), x));
    });
    runOut([](InputArchive ar) { return ar += 7; });
}

TEST(RecordLimits, TheSlackMayHoldAnyBytes) {
    for (const octet_t fill : Bytes{0x00, 0x7f, 0x80, 0xdf, 0xef, 0xf0, 0xf1, 0xff}) {
        Record record({1});
        std::fill_n(record.Slack(), RECORD_SLACK, fill);
        const RecordLimitsScope limits(record.Begin(), record.End());
        std::map<uint32, xstring> map;
        EXPECT_THROW(
            {
                const InputArchive end = InputArchive(record.Begin()) >> map;
                if (end.ptr() != record.End()) throw RecordException("overrun seen by the owner");
            },
            RecordException);
    }
}

TEST(RecordLimits, HostileBytesEndInAnExceptionOrInACheckOfTheEnd) {
    std::mt19937 random(42);
    for (int round = 0; round < 20000; ++round) {
        Bytes bytes(random() % 40);
        for (octet_t& b : bytes) b = static_cast<octet_t>(random() % 3 == 0 ? random() : random() % 8);
        const Record record(bytes);
        const RecordLimitsScope limits(record.Begin(), record.End());
        try {
            int schema = 0;
            std::map<xstring, std::pair<uint64, xstring>> map;
            xdeque<uint32, 16> deque;
            xstring tail;
            DeserialiseSchema(record.Begin(), 3, schema) >> map >> deque >> tail;
        } catch (const RecordException& e) {
            ASSERT_STRNE("", e.what());
        }
    }
}

TEST(RecordLimits, NestAndComeBack) {
    const Record outer({9, 'a'});
    const Record inner({1, 'b'});
    const RecordLimitsScope outerLimits(outer.Begin(), outer.End());
    {
        const RecordLimitsScope innerLimits(inner.Begin(), inner.End());
        xstring x;
        InputArchive(inner.Begin()) >> x;
        EXPECT_EQ(xstring("b"), x);
    }
    xstring y;
    EXPECT_THROW(InputArchive(outer.Begin()) >> y, RecordException);
}

TEST(RecordLimits, AreThoseOfOneThread) {
    const Record record({9, 'a'});
    const RecordLimitsScope limits(record.Begin(), record.End());
    std::thread([] { EXPECT_EQ(0u, tls_recordLimits.end); }).join();
    EXPECT_NE(0u, tls_recordLimits.end);
}

TEST(RecordLimits, ComeBackWhenAnExceptionPasses) {
    const Record record({9});
    try {
        const RecordLimitsScope limits(record.Begin(), record.End());
        throw RecordException("x");
    } catch (const RecordException&) {
    }
    EXPECT_EQ(0u, tls_recordLimits.end);
}

} // namespace
} // namespace quna
