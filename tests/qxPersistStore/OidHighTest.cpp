#include "qxPersistStore/OidHighReader.h"
#include "qxPersistStore/OidHighWriter.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "tests/support/TestStore.h"

#include <memory>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr OidSpaceGuid GUID_A = {0x00010203, 0x0405, 0x0607, {0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f}};
constexpr OidSpaceGuid GUID_B = {0xffeeddcc, 0xbbaa, 0x9988, {0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00}};
const Bytes BYTES_OF_A = {0x03, 0x02, 0x01, 0x00, 0x05, 0x04, 0x07, 0x06, 8, 9, 10, 11, 12, 13, 14, 15};
const Bytes BYTES_OF_B = {0xcc, 0xdd, 0xee, 0xff, 0xaa, 0xbb, 0x88, 0x99, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0};

// A stream that is received, with bytes behind it that a reader must leave alone.
class Received {
public:
    explicit Received(const Bytes& bytes) : m_bytes(bytes + Bytes(RECORD_SLACK, octet_t{0x7F})), m_size(bytes.size()) {}

    template <class Read>
    void Next(Read&& read) {
        m_used = static_cast<std::size_t>(read(InputArchive(m_bytes.data() + m_used)).ptr() - m_bytes.data());
    }
    OID NextOid(OidHighReader& reader) {
        OID oid(77, 88);
        Next([&](InputArchive ar) { return reader.DeserialiseOid(ar, oid); });
        return oid;
    }
    bool AtEnd() const { return m_used == m_size; }

private:
    Bytes m_bytes;
    std::size_t m_size;
    std::size_t m_used = 0;
};

// What only needs a lock: a writer and a reader in the same store.
class OidHighStream : public ::testing::Test {
protected:
    OidHighStream() : m_ps(m_store.OpenSpace("s")), m_scope(std::make_unique<SpaceScope>(m_ps)) {
        m_local.Add(1, GUID_B);
    }

    Bytes Sent(OidHighWriter& writer, std::initializer_list<OID> oids) {
        return Written([&](Archive& ar) {
            for (const OID oid : oids) writer.SerialiseOid(ar, oid);
        });
    }
    OID Read(OidHighReader& reader, const Bytes& bytes) {
        Received received(bytes);
        const OID oid = received.NextOid(reader);
        EXPECT_TRUE(received.AtEnd());
        return oid;
    }
    // The text of the assertion that reading the bytes fails; the trace on the way is dropped.
    void ExpectRefused(ConstStringZ text, const Bytes& bytes) {
        OidHighReader reader(&m_local);
        const CollectedTrace trace;
        ExpectAssertion(text, "src/OidHighReader", [&] {
            Received received(bytes);
            received.NextOid(reader);
        });
    }

    TestStore m_store;
    PSpace* m_ps;

    // Behind pointers since their destructors may throw, which this class's may not. The maps are transient.
    const std::unique_ptr<SpaceScope> m_scope;
    const std::unique_ptr<OidSpaceMap> m_remoteOwner = std::make_unique<OidSpaceMap>();
    const std::unique_ptr<OidSpaceMap> m_localOwner = std::make_unique<OidSpaceMap>();
    OidSpaceMap& m_remote = *m_remoteOwner; // the sender's
    OidSpaceMap& m_local = *m_localOwner;   // the receiver's
};

// ---- The bytes ------------------------------------------------------------------------------------------------------

TEST_F(OidHighStream, TheFirstUseOfASpaceIntroducesIt) {
    m_remote.Add(7, GUID_A);
    OidHighWriter writer(&m_remote);
    EXPECT_EQ(Bytes({0xFF, 7}) + BYTES_OF_A + Bytes({5}), Sent(writer, {OID(5, 7)}));
    EXPECT_EQ(1, writer.GetNumGuidsSent());
}

TEST_F(OidHighStream, AnIntroducedSpaceCostsWhatItCostsUntranslated) {
    m_remote.Add(7, GUID_A);
    m_remote.Add(300, GUID_B);
    OidHighWriter writer(&m_remote);
    Sent(writer, {OID(5, 7), OID(5, 300)});
    for (const OID oid : {OID(5, 7), OID(0, 7), OID(0xFFFFFFFF, 300), OID(128, 300), OID()})
        EXPECT_EQ(BytesOfOid(oid), Sent(writer, {oid}));
    EXPECT_EQ(2, writer.GetNumGuidsSent());
}

TEST_F(OidHighStream, ASpaceCostsSeventeenBytesAndItsNumberOnce) {
    for (const OidHigh oh : {1u, 127u, 128u, 300u, 0x4000u, 0x200000u, 0xFFFFFFFFu}) {
        OidSpaceMap map;
        map.Add(oh, GUID_A);
        OidHighWriter writer(&map);
        const std::size_t plain = BytesOfOid(OID(9, oh)).size();
        EXPECT_EQ(17 + plain, Sent(writer, {OID(9, oh)}).size()) << oh;
        EXPECT_EQ(plain, Sent(writer, {OID(9, oh)}).size()) << oh;
    }
}

TEST_F(OidHighStream, EverySpaceIsIntroducedWhereItFirstOccurs) {
    m_remote.Add(7, GUID_A);
    m_remote.Add(300, GUID_B);
    OidHighWriter writer(&m_remote);
    EXPECT_EQ(Bytes({0xFF, 7}) + BYTES_OF_A + Bytes({1, 7, 2, 0xFF, 0x81, 0x2C}) + BYTES_OF_B +
                  Bytes({3, 7, 4, 0x81, 0x2C, 5}),
              Sent(writer, {OID(1, 7), OID(2, 7), OID(3, 300), OID(4, 7), OID(5, 300)}));
    EXPECT_EQ(2, writer.GetNumGuidsSent());
}

TEST_F(OidHighStream, NullIsOneZeroByteAndReadsBackAsNull) {
    OidHighWriter writer(nullptr); // it needs no map
    EXPECT_EQ(Bytes{0}, Sent(writer, {OID()}));
    EXPECT_EQ(0, writer.GetNumGuidsSent());
    EXPECT_TRUE(writer.m_sentOidHighs.empty());
    OidHighReader reader(nullptr);
    EXPECT_EQ(OID(), Read(reader, {0}));
    EXPECT_EQ(0, reader.GetNumGuidsSent());
}

TEST_F(OidHighStream, ALowHalfWithoutASpaceIsNotSent) {
    OidHighWriter writer(&m_remote);
    EXPECT_EQ(Bytes{0}, Sent(writer, {OID(5, 0)}));
}

TEST_F(OidHighStream, TheNumber255IsAnOrdinaryValue) {
    m_remote.Add(255, GUID_A);
    OidHighWriter writer(&m_remote);
    const Bytes bytes = Sent(writer, {OID(5, 255), OID(6, 255)});
    EXPECT_EQ(Bytes({0xFF, 0x80, 0xFF}) + BYTES_OF_A + Bytes({5, 0x80, 0xFF, 6}), bytes);
    m_local.Add(40, GUID_A);
    OidHighReader reader(&m_local);
    Received received(bytes);
    EXPECT_EQ(OID(5, 40), received.NextOid(reader));
    EXPECT_EQ(OID(6, 40), received.NextOid(reader));
    EXPECT_TRUE(received.AtEnd());
    static_assert(SEND_GUID_ESCAPE == 255 && sizeof(SEND_GUID_ESCAPE) == 1);
}

// ---- Translation ----------------------------------------------------------------------------------------------------

TEST_F(OidHighStream, AKnownSpaceReadsBackWithTheReceiversNumber) {
    m_remote.Add(7, GUID_A);
    m_local.Add(40, GUID_A);
    OidHighWriter writer(&m_remote);
    OidHighReader reader(&m_local);
    Received received(Sent(writer, {OID(5, 7), OID(6, 7), OID(), OID(0, 7)}));
    EXPECT_EQ(OID(5, 40), received.NextOid(reader));
    EXPECT_EQ(OID(6, 40), received.NextOid(reader));
    EXPECT_EQ(OID(), received.NextOid(reader));
    EXPECT_EQ(OID(0, 40), received.NextOid(reader));
    EXPECT_TRUE(received.AtEnd());
    EXPECT_EQ(1, writer.GetNumGuidsSent());
    EXPECT_EQ(1, reader.GetNumGuidsSent());
    EXPECT_EQ(2, m_local.size());
}

TEST_F(OidHighStream, AnUnknownSpaceGetsANewNumberOfTheReceiver) {
    m_remote.Add(7, GUID_A);
    OidHighWriter writer(&m_remote);
    OidHighReader reader(&m_local);
    const OID oid = Read(reader, Sent(writer, {OID(5, 7)}));
    EXPECT_EQ(5u, oid.low_);
    EXPECT_EQ(m_local.GetOidHigh(GUID_A), oid.high_);
    EXPECT_NE(0u, oid.high_);
    EXPECT_NE(m_ps->GetOidHighForOidAllocations(), oid.high_);
    EXPECT_EQ(oid.high_ + 1, m_store->GetLss()->AllocateSeidHigh()); // from the store's own allocator
}

TEST_F(OidHighStream, NumbersOfOneSideThatMeanOtherSpacesOnTheOtherDontMix) {
    m_remote.Add(1, GUID_A); // here 1 is B
    m_remote.Add(2, GUID_B);
    m_local.Add(2, GUID_A);
    OidHighWriter writer(&m_remote);
    OidHighReader reader(&m_local);
    Received received(Sent(writer, {OID(5, 1), OID(5, 2), OID(6, 1)}));
    EXPECT_EQ(OID(5, 2), received.NextOid(reader));
    EXPECT_EQ(OID(5, 1), received.NextOid(reader));
    EXPECT_EQ(OID(6, 2), received.NextOid(reader));
    EXPECT_TRUE(received.AtEnd());
}

TEST_F(OidHighStream, AStreamMaySplitBetweenPiecesAndIntroducesNothingAgain) {
    m_remote.Add(7, GUID_A);
    OidHighWriter writer(&m_remote);
    OidHighReader reader(&m_local);
    const OID first = Read(reader, Sent(writer, {OID(5, 7)}));
    const Bytes second = Sent(writer, {OID(6, 7)});
    EXPECT_EQ((Bytes{7, 6}), second);
    EXPECT_EQ(OID(6, first.high_), Read(reader, second));
    EXPECT_EQ(1, reader.GetNumGuidsSent());
}

TEST_F(OidHighStream, ManySpacesInAnyOrderAreEachIntroducedOnce) {
    constexpr OidHigh NUM_SPACES = 100;
    for (OidHigh oh = 2; oh < 2 + NUM_SPACES; ++oh) {
        OidSpaceGuid guid;
        m_remote.GetOrCreateOidSpaceGuid(oh, guid);
        m_local.Add(10000 - oh, guid);
    }
    OidHighWriter writer(&m_remote);
    OidHighReader reader(&m_local);
    std::mt19937 random(20240611);
    for (int i = 0; i < 5000; ++i) {
        const auto oh = static_cast<OidHigh>(random() % (NUM_SPACES + 1));
        const OID oid = oh == 0 ? OID() : OID(static_cast<OidLow>(i), oh + 1);
        const Bytes bytes = Sent(writer, {oid});
        EXPECT_EQ(oh == 0 ? OID() : OID(oid.low_, 10000 - oid.high_), Read(reader, bytes));
    }
    EXPECT_EQ(NUM_SPACES, writer.GetNumGuidsSent());
    EXPECT_EQ(NUM_SPACES, reader.GetNumGuidsSent());
    EXPECT_EQ(std::size_t{NUM_SPACES}, writer.m_sentOidHighs.size());
    EXPECT_EQ(std::size_t{NUM_SPACES}, reader.m_oidHighConversionMap.map_.size());
}

TEST_F(OidHighStream, AMapCanBeGivenLater) {
    m_remote.Add(7, GUID_A);
    m_local.Add(40, GUID_A);
    OidHighWriter writer(nullptr);
    OidHighReader reader(nullptr);
    writer.SetOidSpaceMap(&m_remote);
    reader.SetOidSpaceMap(&m_local);
    EXPECT_EQ(OID(5, 40), Read(reader, Sent(writer, {OID(5, 7)})));
}

// ---- Refusals -------------------------------------------------------------------------------------------------------

TEST_F(OidHighStream, AStreamWhoseFirstMentionOfANumberIsNoIntroductionIsRefused) {
    OidHighReader reader(&m_local);
    const CollectedTrace trace;
    OID oid(77, 88);
    OidHigh high = 88;
    const Bytes bytes = Bytes({0x81, 0x2C, 5}) + Bytes(64);
    constexpr ConstStringZ TEXT = "m_oidHighConversionMap.MapRemoteOidHighToLocalOidHigh(remoteOidHigh, localOidHigh)";
    ExpectAssertion(TEXT, "src/OidHighReader", [&] { reader.DeserialiseOidHigh(bytes.data(), high); });
    ExpectAssertion(TEXT, "src/OidHighReader", [&] { reader.DeserialiseOid(bytes.data(), oid); });
    EXPECT_EQ(88u, high);
    EXPECT_EQ(OID(77, 88), oid);
    const std::string text = "OidHighConversionMap: *** ERROR : Received unknown remote OidHigh = 0000012c\n";
    EXPECT_EQ((std::vector<std::string>{text, text}), trace.Texts());
    EXPECT_EQ(0, reader.GetNumGuidsSent());
}

TEST_F(OidHighStream, AnIntroductionOfZeroIsRefused) {
    ExpectRefused("remoteOidHigh", Bytes({0xFF, 0}) + BYTES_OF_A + Bytes({5}));
    EXPECT_EQ(1, m_local.size()); // nothing was learnt
}

TEST_F(OidHighStream, ASecondIntroductionOfANumberIsRefused) {
    m_local.Add(40, GUID_A);
    const Bytes twice = Bytes({0xFF, 7}) + BYTES_OF_A + Bytes({5, 0xFF, 7}) + BYTES_OF_B + Bytes({5});
    OidHighReader reader(&m_local);
    Received received(twice);
    EXPECT_EQ(OID(5, 40), received.NextOid(reader));
    ExpectAssertion("map_.find(remoteOidHigh) == map_.end()", "src/OidHighReader", [&] { received.NextOid(reader); });
    OidHigh local = 0;
    EXPECT_TRUE(reader.m_oidHighConversionMap.MapRemoteOidHighToLocalOidHigh(7, local)); // the map is as it was
    EXPECT_EQ(40u, local);
}

TEST_F(OidHighStream, AnIntroductionToAReaderWithoutAMapIsRefused) {
    OidHighReader reader(nullptr);
    Received received(Bytes({0xFF, 7}) + BYTES_OF_A + Bytes({5}));
    ExpectAssertion("m_oidSpaceMap", "src/OidHighReader", [&] { received.NextOid(reader); });
}

TEST_F(OidHighStream, BytesThatOpenNoValueAreRefused) {
    OidHighReader reader(&m_local);
    for (int first = 0xF1; first <= 0xFE; ++first) {
        Received received({static_cast<octet_t>(first), 0, 0, 0, 0});
        EXPECT_THROW(received.NextOid(reader), RecordException) << first;
    }
    Received received({0xFF, 0xFF, 7, 0, 0, 0}); // an escape behind an escape
    EXPECT_THROW(received.NextOid(reader), RecordException);
}

TEST_F(OidHighStream, AnIntroductionThatIsCutOffIsRefusedWithinItsRecord) {
    const Bytes whole = Bytes({0xFF, 7}) + BYTES_OF_A + Bytes({5});
    for (std::size_t size = 0; size < whole.size(); ++size) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        cut.resize(size + static_cast<std::size_t>(RECORD_SLACK));
        const octet_t* const end = cut.data() + size;
        const RecordLimitsScope limits(cut.data(), end);
        OidHighReader reader(&m_local);
        OID oid;
        try { // a small overrun is seen by whoever owns the record; 0 introduced by the slack fails at once
            EXPECT_GT(reader.DeserialiseOid(cut.data(), oid).ptr(), end) << size;
        } catch (const QunaAssertionError& e) {
            EXPECT_STREQ("remoteOidHigh", e.GetText()) << size;
        }
    }
}

TEST_F(OidHighStream, AWriterTracesTheMapWhenASpaceHasNoName) {
    m_remote.Add(7, GUID_A);
    OidHighWriter writer(&m_remote);
    const CollectedTrace trace;
    EXPECT_EQ(Bytes{}, Written([&](Archive& ar) {
                  ExpectAssertion("0", "src/OidHighWriter", [&] { writer.SerialiseOid(ar, OID(5, 42)); });
              }));
    EXPECT_EQ(std::vector<std::string>{"Oid space map: OidSpaceMap\n"
                                       "    {(00000007,00010203-0405-0607-0809-0a0b0c0d0e0f)}\n"
                                       "    {(00010203-0405-0607-0809-0a0b0c0d0e0f,00000007)}\n"
                                       "\n"
                                       "ERROR: Cannot find OidHigh = 0000002a\n"},
              trace.Texts());
    EXPECT_TRUE(writer.m_sentOidHighs.contains(42)); // the writer is of no further use
    EXPECT_EQ(0, writer.GetNumGuidsSent());
}

TEST_F(OidHighStream, AWriterWithoutAMapFailsAtTheFirstSpace) {
    OidHighWriter writer(nullptr);
    EXPECT_EQ(Bytes{}, Written([&](Archive& ar) {
                  ExpectAssertion("m_oidSpaceMap", "src/OidHighWriter", [&] { writer.SerialiseOidHigh(ar, 7); });
              }));
    EXPECT_TRUE(writer.m_sentOidHighs.contains(7));
}

TEST(OidHighLocks, TheWriterNeedsALockAndTheReaderAnExclusiveOne) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    OidSpaceMap map;
    map.Add(7, GUID_A);
    OidHighWriter writer(&map);
    OidHighReader reader(&map);
    const Bytes stream = Bytes({0xFF, 7}) + BYTES_OF_A + Bytes(64);
    OidHigh high = 88;
    const auto writes = [&] { return Written([&](Archive& ar) { writer.SerialiseOidHigh(ar, 7); }); };
    const auto expectNoWriting = [&] { ExpectAssertion("HaveLockedCSpace()", "src/OidHighWriter", writes); };
    const auto expectNoReading = [&] {
        ExpectAssertion("HaveExclusiveLockedCSpace()", "src/OidHighReader",
                        [&] { reader.DeserialiseOidHigh(stream.data(), high); });
    };
    expectNoWriting(); // no domain at all
    expectNoReading();
    {
        const ThreadPSpaceScope pair(ps, ps->GetCSpace());
        expectNoWriting(); // not locked
        expectNoReading();
    }
    EXPECT_TRUE(writer.m_sentOidHighs.empty());
    {
        const SpaceScope scope(ps, SharedRead);
        EXPECT_EQ(Bytes({0xFF, 7}) + BYTES_OF_A, writes());
        expectNoReading();
    }
    EXPECT_EQ(88u, high);
    EXPECT_EQ(0, reader.GetNumGuidsSent());
    const SpaceScope scope(ps, Exclusive);
    EXPECT_EQ(Bytes({7}), writes());
    EXPECT_EQ(stream.data() + 18, reader.DeserialiseOidHigh(stream.data(), high).ptr());
    EXPECT_EQ(7u, high);
}

// ---- The conversion map ---------------------------------------------------------------------------------------------

TEST(OidHighConversionMap, GivesTheLocalNumberOfARemoteOne) {
    OidHighConversionMap map;
    map.Add(7, 40);
    map.Add(40, 7);
    OidHigh local = 0;
    EXPECT_TRUE(map.MapRemoteOidHighToLocalOidHigh(7, local));
    EXPECT_EQ(40u, local);
    EXPECT_TRUE(map.MapRemoteOidHighToLocalOidHigh(40, local));
    EXPECT_EQ(7u, local);
}

TEST(OidHighConversionMap, ZeroStandsForItselfWithoutIntroduction) {
    const OidHighConversionMap map;
    OidHigh local = 88;
    EXPECT_TRUE(map.MapRemoteOidHighToLocalOidHigh(0, local));
    EXPECT_EQ(0u, local);
}

TEST(OidHighConversionMap, AnUnknownNumberIsTracedAndLeavesTheResultAlone) {
    const OidHighConversionMap map;
    const CollectedTrace trace;
    OidHigh local = 88;
    EXPECT_FALSE(map.MapRemoteOidHighToLocalOidHigh(7, local));
    EXPECT_EQ(88u, local);
    EXPECT_EQ(
        std::vector<std::string>{"OidHighConversionMap: *** ERROR : Received unknown remote OidHigh = 00000007\n"},
        trace.Texts());
}

TEST(OidHighConversionMap, RefusesZeroOnEitherSideAndASecondMeaning) {
    OidHighConversionMap map;
    ExpectAssertion("remoteOidHigh", "src/OidHighReader", [&] { map.Add(0, 7); });
    ExpectAssertion("remoteOidHigh", "src/OidHighReader", [&] { map.Add(0, 0); });
    ExpectAssertion("localOidHigh", "src/OidHighReader", [&] { map.Add(7, 0); });
    map.Add(7, 40);
    ExpectAssertion("map_.find(remoteOidHigh) == map_.end()", "src/OidHighReader", [&] { map.Add(7, 41); });
    EXPECT_EQ((OidHighConversionMap::MAP{{7, 40}}), map.map_);
}

TEST(OidHighConversionMap, PrintsItsPairsInOneLine) {
    OidHighConversionMap map;
    StringStream empty;
    map.Write(empty);
    EXPECT_STREQ("{}", empty.c_str());
    map.Add(0x2a, 1);
    map.Add(7, 0xfedcba98);
    StringStream os;
    map.Write(os);
    EXPECT_STREQ("{(00000007,fedcba98),(0000002a,00000001)}", os.c_str());
}

// ---- The hooks ------------------------------------------------------------------------------------------------------

TEST_F(OidHighStream, AHookInAnArchiveTranslatesReferencesInsideBodies) {
    m_remote.Add(1, GUID_A); // the number of this store
    m_local.Add(40, GUID_A);
    TestNode* const inner = NewObject<TestNode>("inner");
    TestNode* const outer =
        NewObject<TestNode>("outer", std::initializer_list<ptr<IPersistable>>{inner, nullptr, inner});
    m_ps->MakeObjectPersist(outer, true);
    OidHighWriter writer(&m_remote);
    const Bytes body = Written([&](Archive& ar) {
        const OidHighWriterScope scope(ar, writer);
        outer->Serialise(ar);
    });
    const OID oid = GetOid(inner);
    EXPECT_EQ(Bytes({1}) + BytesOfString("outer") + Bytes({0, 3, 0xFF, 1}) + BYTES_OF_A +
                  Written([&](Archive& ar) { SerialiseCompressedOidPart(ar, oid.low_); }) + Bytes({0}) +
                  BytesOfOid(oid),
              body);

    OidHighReader reader(&m_local);
    TestNode copy;
    Received received(body);
    {
        const OidHighReaderScope scope(reader);
        received.Next([&](InputArchive ar) { return copy.Deserialise(ar); });
    }
    EXPECT_TRUE(received.AtEnd());
    ASSERT_EQ(3, copy.m_children.size());
    EXPECT_EQ(OID(oid.low_, 40), copy.m_children[0].GetOid());
    EXPECT_EQ(OID(), copy.m_children[1].GetOid());
    EXPECT_EQ(OID(oid.low_, 40), copy.m_children[2].GetOid());
}

TEST_F(OidHighStream, AScopePutsTheHooksBackAsTheyWere) {
    OidHighWriter outer(&m_remote);
    OidHighWriter inner(&m_remote);
    Written([&](Archive& ar) {
        {
            const OidHighWriterScope a(ar, outer);
            EXPECT_EQ(&outer, ar.m_oidHighSerialiser);
            try {
                const OidHighWriterScope b(ar, inner);
                EXPECT_EQ(&inner, ar.m_oidHighSerialiser);
                throw std::runtime_error("stop");
            } catch (const std::runtime_error&) {
            }
            EXPECT_EQ(&outer, ar.m_oidHighSerialiser);
        }
        EXPECT_EQ(nullptr, ar.m_oidHighSerialiser);
    });
    OidHighReader outerReader(&m_local);
    OidHighReader innerReader(&m_local);
    {
        const OidHighReaderScope a(outerReader);
        EXPECT_EQ(&outerReader, GetThreadOidHighDeserialiser());
        {
            const OidHighReaderScope b(innerReader);
            EXPECT_EQ(&innerReader, GetThreadOidHighDeserialiser());
        }
        EXPECT_EQ(&outerReader, GetThreadOidHighDeserialiser());
    }
    EXPECT_EQ(nullptr, GetThreadOidHighDeserialiser());
}

TEST_F(OidHighStream, AReaderAsksItselfThroughItsHook) {
    class Shifted : public OidHighReader {
    public:
        using OidHighReader::OidHighReader;
        InputArchive DeserialiseOidHigh(InputArchive ar, OidHigh& high) override {
            ar = DeserialiseCompressedOidPart(ar, high);
            if (high != 0) high += 1000;
            return ar;
        }
    } reader(nullptr);
    EXPECT_EQ(OID(5, 1007), Read(reader, {7, 5}));
    EXPECT_EQ(OID(), Read(reader, {0}));
}

TEST(OidHighThreads, OthersReadLocalRecordsWhileOneThreadDecodesAForeignStream) {
    constexpr int NUM_READS = 2000;
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    const Bytes local = Bytes({7, 5}) + Bytes(64);
    std::atomic<bool> stop = false;
    std::thread other([&] {
        while (!stop) {
            OID oid;
            (void)(InputArchive(local.data()) >> oid);
            EXPECT_EQ(OID(5, 7), oid);
        }
    });
    {
        const SpaceScope scope(ps);
        OidSpaceMap map;
        map.Add(40, GUID_A);
        const Bytes foreign = Bytes({0xFF, 7}) + BYTES_OF_A + Bytes(64);
        for (int i = 0; i < NUM_READS; ++i) {
            OidHighReader reader(&map);
            const OidHighReaderScope hook(reader);
            OidHigh high = 0;
            DeserialiseOidHigh(foreign.data(), high);
            OID oid;
            (void)(InputArchive(local.data()) >> oid);
            EXPECT_EQ(OID(5, 40), oid);
        }
    }
    stop = true;
    other.join();
}

// ---- Two stores -----------------------------------------------------------------------------------------------------

// A store with one space and its named map of identifier spaces.
class Side {
public:
    Side() : m_ps(m_store.OpenSpace("s")) {
        const SpaceScope scope(m_ps);
        m_map = static_cast<OidSpaceMap*>(BootstrapPSpaceRoot2(GetReflectedClass<OidSpaceMap>(), "oid spaces"));
        AddGcRoot(m_map);
        m_map->GetOrCreateOidSpaceGuid(m_ps->GetOidHighForOidAllocations(), m_guid);
    }
    Goid GoidOf(OID oid) const {
        OidSpaceGuid guid;
        return m_map->GetOidSpaceGuid(oid.high_, guid) ? Goid(guid, oid.low_) : Goid();
    }

    TestStore m_store;
    PSpace* m_ps;
    OidSpaceMap* m_map = nullptr;
    OidSpaceGuid m_guid;
};

TEST(OidHighBetweenStores, AnIdentifierComesHomeAsItWas) {
    Side home;
    Side away;
    OID oid;
    Goid goid;
    Bytes out;
    {
        const SpaceScope scope(home.m_ps);
        TestLeaf* const leaf = NewObject<TestLeaf>(31);
        home.m_ps->MakeObjectPersist(leaf, false);
        oid = GetOid(leaf);
        goid = home.GoidOf(oid);
        OidHighWriter writer(home.m_map);
        out = Written([&](Archive& ar) {
            const OidHighWriterScope hook(ar, writer);
            ar << oid;
        });
    }
    OID guest;
    Bytes back;
    {
        const SpaceScope scope(away.m_ps);
        OidHighReader reader(away.m_map);
        guest = Received(out).NextOid(reader);
        EXPECT_NE(oid.high_, guest.high_);
        EXPECT_EQ(goid, away.GoidOf(guest));
        EXPECT_FALSE(away.m_ps->TryBindObject(guest)); // a name of something that is elsewhere
        OidHighWriter writer(away.m_map);
        back = Written([&](Archive& ar) { writer.SerialiseOid(ar, guest); });
    }
    const SpaceScope scope(home.m_ps);
    OidHighReader reader(home.m_map);
    const OID returned = Received(back).NextOid(reader);
    EXPECT_EQ(oid, returned);
    EXPECT_TRUE(home.m_ps->BindObjectIfMemoryResident(returned));
    EXPECT_EQ(1, home.m_map->size()); // home has learnt no new space
}

} // namespace
} // namespace quna
