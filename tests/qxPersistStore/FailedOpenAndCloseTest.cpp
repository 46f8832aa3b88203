// Spaces whose opening or closing fails: nothing may dangle, and the name must stay usable.
#include "qxObject/CSpace.h"
#include "qxObject/DollarNew.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxUtils/AutoCloser.h"
#include "tests/support/TestStore.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

TEST(FailedOpenAndClose, ASpaceWhoseObjectsFailToGoIsClosedAllTheSame) {
    TestStore store;
    PSpace* const pspace = store.OpenSpace("s");
    store.Forget(pspace);
    {
        const SpaceScope scope(pspace);
        auto* const thrower = NewObject<TestThrower>();
        pspace->AddRoot("thrower", ptr<IPersistable>(thrower));
    }
    const CollectedTrace trace;
    TestThrower::s_throwInSerialise = true;
    EXPECT_ANY_THROW(pspace->WriteDirtyObjectsToLss(false)); // leaves the object dirty and in no set
    TestThrower::s_throwInSerialise = false;
    // The space can't go cleanly any more, since the object's changes are lost; but it goes.
    EXPECT_ANY_THROW(pspace->Close());
    store.CloseSpace(store.OpenSpace("s", OM_OPEN_ALWAYS));
}

TEST(FailedOpenAndClose, ObjectsOfADomainWhoseSpaceFailedToOpenGoQuietly) {
    TestStore store;
    PSpace* const pspace = store.OpenSpace("s");
    const OID oid = pspace->m_roots.m_oid;
    store.CloseSpace(pspace);
    DeleteElement(*store->GetLss(), oid);
    CSpace* const cs = CreateCSpace();
    TestLeaf* leaf = nullptr;
    {
        const CSpaceLock lock(cs, Exclusive);
        leaf = new TestLeaf(1);
        RegisterGcObject(cs, ptr<IObject>(leaf));
        AddGcRoot(cs, ptr<const IObject>(leaf));
    }
    EXPECT_THROW(store->OpenPSpace("s", OM_OPEN_ALWAYS, cs), DerefDanglingOidException);
    EXPECT_EQ(nullptr, GetPSpaceOfCSpace(cs));
    EXPECT_EQ(nullptr, GetAssociatedPSpace(ptr<const IObject>(leaf)));
    ExpectAssertion("!GetPtrSlot(m_cspace,PTR_SLOT_PSpace)", "src/PSpace",
                    [&] { store->OpenPSpace("t", OM_OPEN_ALWAYS, cs); });
    RemoveGcRoot(cs, ptr<const IObject>(leaf));
    SynchronousGc(cs);
    Destroy(cs);
}

TEST(FailedOpenAndClose, ANullRootFailsTheCheckOfItsDomain) {
    TestStore store;
    PSpace* const pspace = store.OpenSpace("s");
    const SpaceScope scope(pspace);
    ExpectAssertion("GetAssociatedCSpace(root) == m_cspace", "src/PSpace", [&] { pspace->AddRoot("root", null); });
}

TEST(FailedOpenAndClose, ATransactionIsOwnedThroughTheOpaqueClass) {
    TestStore store;
    const AutoCloser2<PersistStoreTxn> txn(OpenTxn(store.Get(), nullptr, 0));
    EXPECT_EQ(store.Get(), GetPersistStore(txn.Get()));
}

TEST(FailedOpenAndClose, ANewObjectIsRegisteredFromTheStart) {
    TestStore store;
    PSpace* const pspace = store.OpenSpace("s");
    const SpaceScope scope(pspace);
    const auto* const leaf = DollarNew<TestLeaf>(7);
    EXPECT_EQ(pspace->GetCSpace(), GetAssociatedCSpace(ptr<const IObject>(leaf)));
}

} // namespace
} // namespace quna
