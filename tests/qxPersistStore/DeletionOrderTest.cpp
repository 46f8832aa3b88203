// In which order what is deleted leaves queue and store.
#include "tests/support/DeletionFixture.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

class DeletionOrder : public DeletionFixture {};

// The process may die between the batch and the write of the dirty set: then the durable request must still be there, or be
// done.
TEST_F(DeletionOrder, ASubtreeLeavesTheDurableQueueWithItsElementWhenItWasDeletedAtOnceSince) {
    const OID oid = WrittenTrees(1).front();
    Request(oid);
    Accumulate();
    {
        const SpaceScope scope(m_ps);
        m_ps->SyncPermanentlyDeleteObject(m_ps->BindObject(oid));
    }
    EXPECT_TRUE(Batch());
    EXPECT_EQ((Bytes{1, 0, 0}), Image());
    EXPECT_FALSE(m_store.Has(oid));
    WriteSpace();
    EXPECT_FALSE(m_store.Has(oid));
}

} // namespace
} // namespace quna
