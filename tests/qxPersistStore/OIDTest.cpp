#include "qxPersistStore/OID.h"

#include "qxObject/TypeOps.h"
#include "qxUtils/Archive.h"
#include "qxUtils/xostream.h"

#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// Keeps what is written, followed by bytes that a reader must not take for its own.
class Sink final : public IOutputStream {
public:
    void WriteStream(const void* bytes, ssize_t n) override {
        const auto* p = static_cast<const octet_t*>(bytes);
        m_bytes.insert(m_bytes.end(), p, p + n);
    }
    void FlushStream() override {}

    std::vector<octet_t> m_bytes;
};

std::vector<octet_t> Serialised(OID oid, IItemSerialiser* hook = nullptr) {
    Sink sink;
    {
        Archive ar(&sink);
        ar.m_oidHighSerialiser = hook;
        ar << oid;
    }
    return sink.m_bytes;
}

// The OID at the start of `bytes`, read over an old value; `used` is the number of bytes taken.
OID Deserialised(std::vector<octet_t> bytes, ssize_t& used) {
    bytes.insert(bytes.end(), 64, octet_t{0x7F});
    OID oid(77, 88);
    const InputArchive end = InputArchive(bytes.data()) >> oid;
    used = end.ptr() - bytes.data();
    return oid;
}

using Bytes = std::vector<octet_t>;

TEST(OID, IsNullUntilItIsGivenAValue) {
    EXPECT_FALSE(OID());
    EXPECT_FALSE(OID(nullptr));
    EXPECT_FALSE(OID(null));
    EXPECT_FALSE(OID(Seid()));
    OID oid(5, 7);
    EXPECT_TRUE(oid);
    EXPECT_EQ(5u, oid.low_);
    EXPECT_EQ(7u, oid.high_);
    EXPECT_EQ(0x0000000700000005u, oid.value_);
    oid.SetNull();
    EXPECT_FALSE(oid);
}

TEST(OID, WithALowHalfOfZeroIsNotNull) {
    EXPECT_TRUE(OID(0, 1));
    EXPECT_TRUE(OID(1, 0));
}

TEST(OID, IsOrderedByTheHighHalfFirst) {
    EXPECT_LT(OID(9, 6), OID(5, 7));
    EXPECT_LT(OID(4, 7), OID(5, 7));
    EXPECT_LT(OID(1, 0x7FFFFFFF), OID(0, 0x80000000));
    EXPECT_EQ(OID(5, 7), OID(5, 7));
    EXPECT_NE(OID(5, 7), OID(5, 8));
}

TEST(OID, AddsNothingToASeid) {
    static_assert(sizeof(OID) == 8 && sizeof(Seid) == 8);
    static_assert(std::is_base_of_v<Seid, OID>);
    static_assert(std::is_trivially_copyable_v<OID>);
    const Seid seid = OID(5, 7);
    EXPECT_EQ(Seid(5, 7), seid);
}

TEST(OID, TheFixedRecordsComeFirst) {
    EXPECT_EQ(ROOT_SEID, ROOT_PERSISTSTORE_OBJECT_SEID);
    EXPECT_EQ(Seid(0, 1), ROOT_PERSISTSTORE_OBJECT_SEID);
    EXPECT_EQ(Seid(1, 1), PSPACEMAP_SEID);
}

TEST(OID, PrintsInTheSeidForm) {
    StringStream os;
    os << OID(0x2a, 1);
    EXPECT_STREQ("00000001:0000002a", os.c_str());
}

TEST(OID, IsWrittenAsItsHalvesHighFirst) {
    EXPECT_EQ((Bytes{0x01, 0x05}), Serialised(OID(5, 1)));
    EXPECT_EQ((Bytes{0x01, 0x00}), Serialised(OID(0, 1)));
    EXPECT_EQ((Bytes{0x01, 0x81, 0x00}), Serialised(OID(256, 1)));
    EXPECT_EQ((Bytes{0xF0, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0, 0xFF, 0xFF, 0xFF, 0xFF}),
              Serialised(OID(0xFFFFFFFF, 0xFFFFFFFF)));
}

TEST(OID, RoundTrips) {
    for (const OID oid : {OID(0, 1), OID(5, 1), OID(127, 128), OID(70000, 3), OID(0xFFFFFFFF, 0xFFFFFFFF)}) {
        const Bytes bytes = Serialised(oid);
        ssize_t used = 0;
        EXPECT_EQ(oid, Deserialised(bytes, used));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), used);
    }
}

TEST(OID, NullIsOneZeroByteAndOverwritesBothHalves) {
    EXPECT_EQ(Bytes{0x00}, Serialised(OID()));
    ssize_t used = 0;
    EXPECT_EQ(OID(), Deserialised({0x00}, used));
    EXPECT_EQ(1, used);
}

TEST(OID, ALowHalfWithoutAHighHalfIsNotWritten) {
    EXPECT_EQ(Bytes{0x00}, Serialised(OID(5, 0)));
    ssize_t used = 0;
    EXPECT_FALSE(Deserialised(Serialised(OID(5, 0)), used));
}

// Writes nothing but a mark, and notes the halves that it was given.
class HighHook final : public IItemSerialiser {
public:
    explicit HighHook(bool writes) : m_writes(writes) {}
    void SerialiseItem(Archive& ar, const void* item) override {
        m_seen.push_back(*static_cast<const OidHigh*>(item));
        if (m_writes) ar << octet_t{0xEE};
    }

    std::vector<OidHigh> m_seen;
    const bool m_writes;
};

TEST(OID, AHookOnTheArchiveAloneDecidesTheBytesOfTheHighHalf) {
    HighHook hook(true);
    EXPECT_EQ((Bytes{0xEE, 0x05}), Serialised(OID(5, 7), &hook));
    EXPECT_EQ(Bytes{0xEE}, Serialised(OID(), &hook));
    EXPECT_EQ((std::vector<OidHigh>{7, 0}), hook.m_seen);
}

TEST(OID, AHookThatWritesNothingLeavesNothing) {
    HighHook hook(false);
    EXPECT_EQ(Bytes{0x05}, Serialised(OID(5, 7), &hook));
    EXPECT_EQ(Bytes{}, Serialised(OID(5, 0), &hook));
}

// Takes one byte and gives a high half of its own.
class HighReader final : public IOidHighDeserialiser {
public:
    explicit HighReader(OidHigh high) : m_high(high) {}
    InputArchive DeserialiseOidHigh(InputArchive ar, OidHigh& oidHigh) override {
        oidHigh = m_high;
        return ar.ptr() + 1;
    }

private:
    const OidHigh m_high;
};

class ThreadHook {
public:
    explicit ThreadHook(IOidHighDeserialiser* hook) { SetThreadOidHighDeserialiser(hook); }
    ThreadHook(const ThreadHook&) = delete;
    ThreadHook& operator=(const ThreadHook&) = delete;
    ~ThreadHook() { SetThreadOidHighDeserialiser(nullptr); }
};

TEST(OID, TheThreadHookReadsTheHighHalfOnly) {
    HighReader reader(42);
    const ThreadHook scope(&reader);
    ssize_t used = 0;
    EXPECT_EQ(OID(5, 42), Deserialised({0xEE, 0x05}, used));
    EXPECT_EQ(2, used);
}

TEST(OID, AHighHalfOfZeroFromTheThreadHookIsNullWithoutReadingOn) {
    HighReader reader(0);
    const ThreadHook scope(&reader);
    ssize_t used = 0;
    EXPECT_EQ(OID(), Deserialised({0xEE, 0x05}, used));
    EXPECT_EQ(1, used);
}

TEST(OID, TheReadHookIsNullInANewThread) {
    HighReader reader(1);
    const ThreadHook scope(&reader);
    EXPECT_EQ(&reader, GetThreadOidHighDeserialiser());
    EXPECT_EQ(&reader, tls_OidHighDeserialiser);
    std::thread([] { EXPECT_EQ(nullptr, GetThreadOidHighDeserialiser()); }).join();
}

TEST(OID, ItsOperationsConstructNullAndCopyByValueAtAnyAddress) {
    const TypeOps& ops = GetTypeOps<OID>();
    EXPECT_EQ(8, ops.m_size);
    alignas(8) octet_t memory[64];
    std::fill(std::begin(memory), std::end(memory), octet_t{0xAB});
    ops.ConstructArray(memory + 1, 11, 3);
    const OID value(5, 7);
    ops.AssignVariable(memory + 12, &value);
    EXPECT_TRUE(ops.Equal(memory + 12, &value));
    EXPECT_FALSE(ops.Equal(memory + 1, memory + 12));
    EXPECT_TRUE(ops.Less(memory + 1, memory + 12));
    const OID zero;
    EXPECT_TRUE(ops.Equal(memory + 23, &zero));
    EXPECT_EQ(0xAB, memory[9]);
}

} // namespace
} // namespace quna
