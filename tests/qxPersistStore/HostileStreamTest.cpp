// Identifiers and references as a stream or a file that lies would have them.
#include "qxPersistStore/OidSpaceMap.h"
#include "tests/support/TestStore.h"
#include "tests/support/TestTree.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

constexpr ConstStringZ PSPACE = "src/PSpace";
constexpr ConstStringZ OWN_RECORD = "!m_ps.IsOwnRecord(oid)";
constexpr ConstStringZ NEVER_GIVEN = "!IsOfOwnSpace(oid) || m_ps.GetLss()->IsAllocated(oid)";

class HostileStream : public ::testing::Test {
protected:
    HostileStream() {
        RegisterTreeTypes();
        m_ps = m_store.OpenSpace("s");
    }
    ~HostileStream() noexcept override {}

    void ExpectRefused(OID oid, ConstStringZ text) {
        TestLeaf* const leaf = NewObject<TestLeaf>(1);
        ExpectAssertion(text, PSPACE, [&] { m_ps->MakeObjectPersistWithGivenOID(leaf, oid, false); });
        EXPECT_FALSE(GetOid(leaf));
        EXPECT_EQ(0, m_ps->m_dos.NumDirtyObjects());
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
};

TEST_F(HostileStream, TheStoresOwnRecordsAreNoObjects) {
    const SpaceScope scope(m_ps);
    ExpectRefused(ROOT_PERSISTSTORE_OBJECT_SEID, OWN_RECORD);
    ExpectRefused(PSPACEMAP_SEID, OWN_RECORD);
    ExpectRefused(m_ps->m_roots.m_oid, OWN_RECORD);
    ExpectRefused(m_ps->m_roots.m_dqOid, OWN_RECORD);
}

TEST_F(HostileStream, NeitherAreThoseOfASpaceThatIsNotOpen) {
    PSpace* const other = m_store.OpenSpace("other");
    const OID roots = other->m_roots.m_oid;
    const OID queue = other->m_roots.m_dqOid;
    m_store.CloseSpace(other);
    const SpaceScope scope(m_ps);
    ExpectRefused(roots, OWN_RECORD);
    ExpectRefused(queue, OWN_RECORD);
}

TEST_F(HostileStream, AnIdentifierThatOurSpaceNeverGaveOutDoesNotSpendIt) {
    const SpaceScope scope(m_ps);
    ExpectRefused(OID(0xFFFFFFF0, 1), NEVER_GIVEN);
    ExpectRefused(OID(0x00100000, 1), NEVER_GIVEN);
    const OID given = m_ps->AllocateOid(1, false);
    EXPECT_LT(given.low_, 0x10000u);
    EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(1), given, false));
}

TEST_F(HostileStream, AForeignSpaceMayNameAnyIdentifier) {
    {
        const SpaceScope scope(m_ps);
        OidSpaceMap map;
        const OID oid(0xFFFFFFF0, map.GetOrCreateOidHigh(Guid{1, 2, 3, {}}));
        EXPECT_TRUE(m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(1), oid, false));
    }
    m_ps->WriteDirtyObjectsToLss(false);
    const SpaceScope scope(m_ps);
    EXPECT_LT(m_ps->AllocateOid(1, false).low_, 0x10000u);
}

// Both entries take 16 bytes, so that nothing but the types tells them apart.
TEST_F(HostileStream, ATreeDoesNotUseTheNodeOfAnotherAsItsOwn) {
    const SpaceScope scope(m_ps);
    BPlusTree guids(StoredInfo<Guid>());
    PutKey(guids, Guid{1, 2, 3, {}});
    BPlusTree numbers(StoredInfo<uint64, uint64>());
    numbers.m_root = guids.m_root;
    numbers.m_firstLeaf = guids.m_firstLeaf;
    numbers.m_lastLeaf = guids.m_lastLeaf;
    numbers.m_height = 0;
    numbers.m_size = 1;
    constexpr ConstStringZ TYPES = "types.m_keyType == bi.m_keyType && types.m_payloadType == bi.m_payloadType";
    ExpectAssertion(TYPES, "src/BPlusTree2", [&] { Has(numbers, uint64{1}); });
    ExpectAssertion(TYPES, "src/BPlusTree2", [&] { numbers.begin(); });
    ExpectAssertion(TYPES, "src/BPlusTree2", [&] { numbers.end(); });
    ExpectAssertion(TYPES, "src/BPlusTree2", [&] { numbers.Validate(); });
    EXPECT_TRUE(Has(guids, Guid{1, 2, 3, {}}));
}

} // namespace
} // namespace quna
