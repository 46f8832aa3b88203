// Identifiers on their way between two stores: the bytes, the history that writer and reader keep, and what each refuses.
#include "qxObject/WCSpace.h"
#include "qxPersistStore/OidHighReader.h"
#include "qxPersistStore/OidHighWriter.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxUtils/RecordLimits.h"
#include "tests/support/TestStore.h"

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ WRITER = "src/OidHighWriter";
constexpr ConstStringZ READER = "src/OidHighReader";

constexpr Guid GuidOf(uint32 first) { return Guid{first, 0x1122, 0x3344, {1, 2, 3, 4, 5, 6, 7, 8}}; }
constexpr Guid A = GuidOf(0xA);
constexpr Guid B = GuidOf(0xB);

Bytes GuidBytes(octet_t first) { return {first, 0, 0, 0, 0x22, 0x11, 0x44, 0x33, 1, 2, 3, 4, 5, 6, 7, 8}; }
Bytes Introduction(octet_t high, octet_t guid) { return Bytes{0xFF, high} + GuidBytes(guid); }

std::string Joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) all += text;
    return all;
}

// Locks a domain without a space, which is all that a writer needs, and a reader that meets known spaces only.
class OidHighContract : public ::testing::Test {
protected:
    OidHighContract() = default;
    ~OidHighContract() noexcept override {}

    // A stream with room behind it, its limits published.
    class Stream {
    public:
        explicit Stream(Bytes bytes) : m_size(static_cast<ssize_t>(bytes.size())), m_bytes(std::move(bytes)) {
            m_bytes.resize(m_bytes.size() + RECORD_SLACK, 0xEE);
            m_limits.emplace(m_bytes.data(), m_bytes.data() + m_size);
            m_at = InputArchive(m_bytes.data());
        }
        OID Read(OidHighReader& reader) {
            OID oid(77, 77);
            m_at = reader.DeserialiseOid(m_at, oid);
            return oid;
        }
        ssize_t Position() const { return m_at.ptr() - m_bytes.data(); }
        bool AtEnd() const { return Position() == m_size; }
        InputArchive m_at = InputArchive(nullptr);

    private:
        ssize_t m_size;
        Bytes m_bytes;
        std::optional<RecordLimitsScope> m_limits;
    };

    static Bytes Sent(OidHighWriter& writer, const std::vector<OID>& oids) {
        return Written([&](Archive& ar) {
            for (const OID oid : oids) writer.SerialiseOid(ar, oid);
        });
    }

    CSpaceCreator m_cs;
    DeclareThreadPtr<CSpace> m_current{m_cs.Get()};
    OidSpaceMap m_map; // the sender's, or the receiver's
};

// ---- Writing ----------------------------------------------------------------------------------------------------------

TEST_F(OidHighContract, TheFirstIdentifierOfASpaceCarriesItsNameAndLaterOnesAreAsUsual) {
    const CSpaceLock lock(m_cs, SharedRead); // any mode will do
    m_map.Add(5, A);
    m_map.Add(6, B);
    OidHighWriter writer(&m_map);
    EXPECT_EQ(0, writer.GetNumGuidsSent());
    const Bytes expected = Bytes{0} + Introduction(5, 0xA) + Bytes{9} + Bytes{5, 10} + Introduction(6, 0xB) +
                           Bytes{0x81, 0x00} + Bytes{5, 11, 0};
    EXPECT_EQ(expected, Sent(writer, {OID(), OID(9, 5), OID(10, 5), OID(256, 6), OID(11, 5), OID()}));
    EXPECT_EQ(2, writer.GetNumGuidsSent());
    EXPECT_EQ((Bytes{5, 12}), Sent(writer, {OID(12, 5)})); // the history is the writer's, not the archive's
    EXPECT_EQ(2, writer.GetNumGuidsSent());
}

TEST_F(OidHighContract, ANullHighHalfIsOneZeroWhateverTheLowHalf) {
    const CSpaceLock lock(m_cs, SharedRead);
    OidHighWriter writer(nullptr); // needs no map for it
    EXPECT_EQ((Bytes{0, 0}), Sent(writer, {OID(), OID(5, 0)}));
    EXPECT_EQ(0, writer.GetNumGuidsSent());
}

TEST_F(OidHighContract, TheNumber255IsAnOrdinaryOne) {
    EXPECT_EQ(255, SEND_GUID_ESCAPE);
    const CSpaceLock lock(m_cs, Exclusive);
    m_map.Add(255, A);
    OidHighWriter writer(&m_map);
    const Bytes bytes = Sent(writer, {OID(1, 255), OID(2, 255)});
    EXPECT_EQ((Bytes{0xFF, 0x80, 0xFF} + GuidBytes(0xA) + Bytes{1, 0x80, 0xFF, 2}), bytes);
    OidHighReader reader(&m_map);
    Stream stream(bytes);
    EXPECT_EQ(OID(1, 255), stream.Read(reader));
    EXPECT_EQ(OID(2, 255), stream.Read(reader));
    EXPECT_TRUE(stream.AtEnd());
    EXPECT_EQ(1, reader.GetNumGuidsSent());
}

TEST_F(OidHighContract, AnArchiveWithTheWriterTranslatesWhateverIsWrittenToIt) {
    const CSpaceLock lock(m_cs, SharedRead);
    m_map.Add(5, A);
    OidHighWriter writer(&m_map);
    const Bytes bytes = Written([&](Archive& ar) {
        ar.m_oidHighSerialiser = &writer;
        prefbase r;
        r.SetOid(OID(9, 5));
        ar << OID() << OID(8, 5) << r << prefbase();
        const uint32 high = 5;
        static_cast<IItemSerialiser&>(writer).SerialiseItem(ar, &high);
        SerialiseOidHigh(ar, 0);
    });
    EXPECT_EQ((Bytes{0} + Introduction(5, 0xA) + Bytes{8, 5, 9, 0, 5, 0}), bytes);
}

TEST_F(OidHighContract, TheWriterNeedsALock) {
    m_map.Add(5, A);
    OidHighWriter writer(&m_map);
    const auto refused = [&](OID oid) {
        EXPECT_TRUE(Written([&](Archive& ar) {
                        ExpectAssertion("HaveLockedCSpace()", WRITER, [&] { writer.SerialiseOid(ar, oid); });
                        EXPECT_EQ(0, ar.GetNumBytesWritten());
                    }).empty());
    };
    refused(OID(1, 5));
    refused(OID()); // for null too
    {
        const CSpaceLock lock(m_cs, SharedRead);
        const DeclareThreadPtr<CSpace> none(nullptr);
        refused(OID(1, 5));
    }
    const CSpaceLock lock(m_cs, SharedRead);
    EXPECT_EQ(Introduction(5, 0xA) + Bytes{1}, Sent(writer, {OID(1, 5)})) << "a refused call leaves no trace";
}

TEST_F(OidHighContract, AWriterWithoutAMapRemembersTheNumberAllTheSame) {
    const CSpaceLock lock(m_cs, SharedRead);
    OidHighWriter writer(nullptr);
    EXPECT_TRUE(Written([&](Archive& ar) {
                    ExpectAssertion("m_oidSpaceMap", WRITER, [&] { writer.SerialiseOidHigh(ar, 5); });
                }).empty());
    m_map.Add(5, A);
    writer.SetOidSpaceMap(&m_map);
    EXPECT_EQ((Bytes{5, 1}), Sent(writer, {OID(1, 5)}));
    EXPECT_EQ(0, writer.GetNumGuidsSent());
}

TEST_F(OidHighContract, ASpaceWithoutANameIsTracedWithTheMap) {
    const CSpaceLock lock(m_cs, SharedRead);
    m_map.Add(5, A);
    OidHighWriter writer(&m_map);
    {
        const CollectedTrace trace;
        EXPECT_TRUE(Written([&](Archive& ar) {
                        ExpectAssertion("0", WRITER, [&] { writer.SerialiseOid(ar, OID(1, 0x1234)); });
                    }).empty());
        StringStream map;
        m_map.Write(map);
        EXPECT_EQ("Oid space map: " + std::string(map.c_str()) + "\nERROR: Cannot find OidHigh = 00001234\n",
                  Joined(trace.Texts()));
        EXPECT_EQ(1u, trace.Texts().size()) << "so that no other thread's text comes between";
    }
    EXPECT_EQ(0, writer.GetNumGuidsSent());
    EXPECT_EQ((Bytes{0x92, 0x34, 1}), Sent(writer, {OID(1, 0x1234)})); // it counts as introduced
}

// ---- The reader's table -----------------------------------------------------------------------------------------------

TEST(OidHighConversionMapContract, MapsWhatItWasToldAndZero) {
    OidHighConversionMap map;
    OidHigh local = 99;
    EXPECT_TRUE(map.MapRemoteOidHighToLocalOidHigh(0, local));
    EXPECT_EQ(0u, local);
    map.Add(5, 7);
    map.Add(0x1F, 7); // two numbers of the sender may be one here
    EXPECT_TRUE(map.MapRemoteOidHighToLocalOidHigh(5, local));
    EXPECT_EQ(7u, local);
    const CollectedTrace trace;
    local = 99;
    EXPECT_FALSE(map.MapRemoteOidHighToLocalOidHigh(0xAB, local));
    EXPECT_EQ(99u, local);
    EXPECT_EQ(
        std::vector<std::string>{"OidHighConversionMap: *** ERROR : Received unknown remote OidHigh = 000000ab\n"},
        trace.Texts());
}

TEST(OidHighConversionMapContract, RefusesZeroAndASecondIntroduction) {
    OidHighConversionMap map;
    ExpectAssertion("remoteOidHigh", READER, [&] { map.Add(0, 0); });
    ExpectAssertion("localOidHigh", READER, [&] { map.Add(5, 0); });
    map.Add(5, 7);
    ExpectAssertion("map_.find(remoteOidHigh) == map_.end()", READER, [&] { map.Add(5, 8); });
    OidHigh local = 0;
    EXPECT_TRUE(map.MapRemoteOidHighToLocalOidHigh(5, local));
    EXPECT_EQ(7u, local);
}

TEST(OidHighConversionMapContract, PrintsItsPairs) {
    OidHighConversionMap map;
    const auto text = [&] {
        StringStream os;
        map.Write(os);
        return std::string(os.c_str());
    };
    EXPECT_EQ("{}", text());
    map.Add(0x1F, 1);
    EXPECT_EQ("{(0000001f,00000001)}", text());
    map.Add(5, 7);
    EXPECT_EQ("{(00000005,00000007),(0000001f,00000001)}", text());
}

// ---- Reading ----------------------------------------------------------------------------------------------------------

TEST_F(OidHighContract, TheReaderGivesItsOwnNumberAndTheSendersLowHalf) {
    const CSpaceLock lock(m_cs, Exclusive);
    m_map.Add(70, A);
    OidHighReader reader(&m_map);
    Stream stream(Bytes{0} + Introduction(5, 0xA) + Bytes{9, 5, 10, 0});
    EXPECT_EQ(OID(), stream.Read(reader));
    EXPECT_EQ(0, reader.GetNumGuidsSent());
    EXPECT_EQ(OID(9, 70), stream.Read(reader));
    EXPECT_EQ(OID(10, 70), stream.Read(reader));
    EXPECT_EQ(OID(), stream.Read(reader));
    EXPECT_TRUE(stream.AtEnd());
    EXPECT_EQ(1, reader.GetNumGuidsSent());
    EXPECT_EQ(1, m_map.size());
}

TEST_F(OidHighContract, TheThreadsHookTranslatesWhateverIsReadOnThisThreadOnly) {
    const CSpaceLock lock(m_cs, Exclusive);
    m_map.Add(70, A);
    OidHighReader reader(&m_map);
    Stream stream(Introduction(5, 0xA) + Bytes{9, 5, 10, 0});
    SetThreadOidHighDeserialiser(&reader);
    OID oid;
    prefbase r, null;
    stream.m_at = stream.m_at >> oid >> r >> null;
    std::thread([] {
        EXPECT_EQ(nullptr, GetThreadOidHighDeserialiser());
        Bytes bytes{5, 9};
        bytes.resize(bytes.size() + RECORD_SLACK);
        OID untranslated;
        DeserialiseOid(InputArchive(bytes.data()), untranslated);
        EXPECT_EQ(OID(9, 5), untranslated);
    }).join();
    SetThreadOidHighDeserialiser(nullptr);
    EXPECT_EQ(OID(9, 70), oid);
    EXPECT_EQ(OID(10, 70), r.GetOid());
    EXPECT_FALSE(null);
    EXPECT_TRUE(stream.AtEnd());
}

TEST_F(OidHighContract, TheReaderNeedsTheExclusiveLock) {
    m_map.Add(70, A);
    OidHighReader reader(&m_map);
    Stream stream(Introduction(5, 0xA) + Bytes{9});
    const auto refused = [&] {
        ExpectAssertion("HaveExclusiveLockedCSpace()", READER, [&] { stream.Read(reader); });
        EXPECT_EQ(0, stream.Position());
    };
    refused();
    {
        const CSpaceLock lock(m_cs, SharedRead);
        refused();
    }
    const CSpaceLock lock(m_cs, Exclusive);
    {
        const DeclareThreadPtr<CSpace> none(nullptr);
        refused();
    }
    EXPECT_EQ(OID(9, 70), stream.Read(reader));
    EXPECT_EQ(1, reader.GetNumGuidsSent());
}

TEST_F(OidHighContract, ANumberThatWasNotIntroducedIsTracedAndRefused) {
    const CSpaceLock lock(m_cs, Exclusive);
    OidHighReader reader(&m_map);
    Stream stream({5, 9});
    OidHigh high = 99;
    const CollectedTrace trace;
    ExpectAssertion("m_oidHighConversionMap.MapRemoteOidHighToLocalOidHigh(remoteOidHigh, localOidHigh)", READER,
                    [&] { reader.DeserialiseOidHigh(stream.m_at, high); });
    EXPECT_EQ(99u, high);
    EXPECT_EQ(
        std::vector<std::string>{"OidHighConversionMap: *** ERROR : Received unknown remote OidHigh = 00000005\n"},
        trace.Texts());
}

TEST_F(OidHighContract, ZeroIsNeverIntroducedAndNothingTwice) {
    const CSpaceLock lock(m_cs, Exclusive);
    m_map.Add(70, A);
    m_map.Add(71, B);
    OidHighReader reader(&m_map);
    Stream zero(Introduction(0, 0xA));
    ExpectAssertion("remoteOidHigh", READER, [&] { zero.Read(reader); });
    EXPECT_EQ(0, reader.GetNumGuidsSent());
    {
        Stream stream(Introduction(5, 0xA) + Bytes{9});
        stream.Read(reader);
    }
    Stream again(Introduction(5, 0xB) + Bytes{9});
    ExpectAssertion("map_.find(remoteOidHigh) == map_.end()", READER, [&] { again.Read(reader); });
    Stream later({5, 10});
    EXPECT_EQ(OID(10, 70), later.Read(reader)); // the first introduction holds
}

TEST_F(OidHighContract, BytesThatAreNoIdentifierEndInAnException) {
    const CSpaceLock lock(m_cs, Exclusive);
    m_map.Add(70, A);
    const auto endsBadly = [&](const Bytes& bytes) {
        OidHighReader reader(&m_map);
        Stream stream(bytes);
        try {
            stream.Read(reader);
            return !stream.AtEnd(); // seen by whoever knows the end
        } catch (const IException&) {
            return true;
        }
    };
    for (int first = 0xF1; first < 0xFF; ++first) EXPECT_TRUE(endsBadly({static_cast<octet_t>(first), 0, 0, 0, 0}));
    for (int second = 0xF1; second <= 0xFF; ++second) // an escape behind the escape is no number either
        EXPECT_TRUE(endsBadly(Bytes{0xFF, static_cast<octet_t>(second)} + GuidBytes(0xA) + Bytes{9}));
    const Bytes whole = Introduction(5, 0xA) + Bytes{9};
    for (std::size_t n = 0; n < whole.size(); ++n) {
        SCOPED_TRACE(n);
        EXPECT_TRUE(endsBadly(Bytes(whole.begin(), whole.begin() + static_cast<ssize_t>(n))));
    }
    EXPECT_FALSE(endsBadly(whole));
}

TEST_F(OidHighContract, AReadersFailureLeavesTheIdentifierAlone) {
    const CSpaceLock lock(m_cs, Exclusive);
    OidHighReader reader(&m_map);
    Stream stream(Introduction(5, 0xA) + Bytes{9}); // a new space, and the thread has none to take a number from
    OidHigh high = 99;
    ExpectAssertion("p", "src/OidSpaceMap", [&] { reader.DeserialiseOidHigh(stream.m_at, high); });
    EXPECT_EQ(99u, high);
    EXPECT_EQ(0, m_map.size());
}

// ---- Between stores ---------------------------------------------------------------------------------------------------

class OidHighOfStoresContract : public ::testing::Test {
protected:
    struct Side {
        Side() : m_ps(m_store.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace())) {
            const SpaceScope scope(m_ps);
            m_map = NewObject<OidSpaceMap>();
            m_ps->AddRoot("spaces", m_map);
        }
        TestStore m_store;
        PSpace* m_ps;
        OidSpaceMap* m_map;
    };
    Side m_here;
    Side m_there;
};

TEST_F(OidHighOfStoresContract, ANewSpaceGetsANumberAndComesBackUnderTheOldOne) {
    Guid guid;
    Bytes bytes;
    {
        const SpaceScope scope(m_here.m_ps);
        m_here.m_map->GetOrCreateOidSpaceGuid(1, guid);
        OidHighWriter writer(m_here.m_map);
        bytes = Written([&](Archive& ar) { writer.SerialiseOid(ar, OID(9, 1)); });
    }
    OID there;
    Bytes back;
    {
        const SpaceScope scope(m_there.m_ps);
        bytes.resize(bytes.size() + RECORD_SLACK);
        OidHighReader reader(m_there.m_map);
        reader.DeserialiseOid(InputArchive(bytes.data()), there);
        EXPECT_EQ(9u, there.low_);
        EXPECT_NE(1u, there.high_) << "that is a space of the receiver's own";
        EXPECT_EQ(there.high_, m_there.m_map->GetOidHigh(guid));
        EXPECT_TRUE(m_there.m_map->IsDirty());
        OidHighWriter writer(m_there.m_map);
        back = Written([&](Archive& ar) { writer.SerialiseOid(ar, there); });
    }
    const SpaceScope scope(m_here.m_ps);
    back.resize(back.size() + RECORD_SLACK);
    OidHighReader reader(m_here.m_map);
    OID home;
    reader.DeserialiseOid(InputArchive(back.data()), home);
    EXPECT_EQ(OID(9, 1), home);
    EXPECT_EQ(1, m_here.m_map->size());
}

TEST_F(OidHighOfStoresContract, TheBodyOfAnObjectIsTranslatedWithItsReferences) {
    Bytes bytes;
    OidLow low = 0;
    {
        const SpaceScope scope(m_here.m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(5);
        TestNode* const node = NewObject<TestNode>("n", std::initializer_list<ptr<IPersistable>>{leaf, null, leaf});
        m_here.m_ps->AddRoot("n", node);
        low = GetOid(leaf).low_;
        Guid guid;
        m_here.m_map->GetOrCreateOidSpaceGuid(GetOid(leaf).high_, guid);
        OidHighWriter writer(m_here.m_map);
        bytes = Written([&](Archive& ar) {
            ar.m_oidHighSerialiser = &writer;
            node->Serialise(ar);
        });
        EXPECT_EQ(1, writer.GetNumGuidsSent());
    }
    const SpaceScope scope(m_there.m_ps);
    const ssize_t size = static_cast<ssize_t>(bytes.size());
    bytes.resize(bytes.size() + RECORD_SLACK);
    TestNode node;
    OidHighReader reader(m_there.m_map);
    SetThreadOidHighDeserialiser(&reader);
    const InputArchive end = node.Deserialise(InputArchive(bytes.data()));
    SetThreadOidHighDeserialiser(nullptr);
    EXPECT_EQ(size, end.ptr() - bytes.data());
    ASSERT_EQ(3, node.m_children.size());
    EXPECT_EQ(1, m_there.m_map->size());
    const OidHigh high = m_there.m_map->GetOidHighToGuidMap().begin()->first;
    EXPECT_EQ(OID(low, high), node.m_children[0].GetOid());
    EXPECT_FALSE(node.m_children[1]);
    EXPECT_EQ(OID(low, high), node.m_children[2].GetOid());
    EXPECT_FALSE(node.m_next);
    EXPECT_EQ(1, reader.GetNumGuidsSent());
}

} // namespace
} // namespace quna
