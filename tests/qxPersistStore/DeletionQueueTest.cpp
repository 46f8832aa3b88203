#include "qxPersistStore/src/DeletionQueue.h"

#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/TestStore.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

Bytes RecordOf(const DeletionQueue& queue) {
    return Written([&](Archive& ar) { queue.Serialise(ar); });
}

TEST(DeletionQueue, AnEmptyOneIsItsSchemaAndTwoCounts) { EXPECT_EQ((Bytes{1, 0, 0}), RecordOf(DeletionQueue(true))); }

TEST(DeletionQueue, TheRecordHoldsBothQueuesButNoRequests) {
    DeletionQueue queue(true);
    queue.m_queue.push_back(OID(5, 1));
    queue.m_queue.push_back(OID(6, 1));
    queue.m_queue2.push_back(OID(7, 1));
    queue.m_deltaQueue.push_back(OID(8, 1));
    queue.m_deltaQueue2.push_back(OID(9, 1));
    const Bytes bytes = {1, 2, 1, 5, 1, 6, 1, 1, 7};
    EXPECT_EQ(bytes, RecordOf(queue));
    EXPECT_TRUE(queue.m_dirty); // serialising does not touch the flag

    DeletionQueue read(false);
    EXPECT_EQ(bytes.data() + bytes.size(), read.Deserialise(bytes.data()).ptr());
    ASSERT_EQ(2, read.m_queue.size());
    EXPECT_EQ(OID(5, 1), read.m_queue.front());
    EXPECT_EQ(OID(6, 1), read.m_queue.back());
    ASSERT_EQ(1, read.m_queue2.size());
    EXPECT_EQ(OID(7, 1), read.m_queue2.front());
    EXPECT_TRUE(read.HaveObjectsToDelete());
    EXPECT_FALSE(read.HaveRequests());
}

TEST(DeletionQueue, ANewSpacesQueueIsDirtyAndWrittenWithIt) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    EXPECT_TRUE(ps->m_dq.m_dirty);
    EXPECT_FALSE(ps->GetDQ().HaveObjectsToDelete());
    const OID oid = ps->m_roots.m_dqOid;
    store.CloseSpace(ps);
    EXPECT_EQ((Bytes{1, 0, 0}), store.Element(oid));
    EXPECT_FALSE(store.OpenSpace("s")->m_dq.m_dirty);
}

TEST(DeletionQueue, IsWrittenOnlyWhileItIsDirty) {
    TestStore store;
    PSpace* const ps = store.OpenSpace("s");
    RecordingLss& lss = store.Record();
    const SpaceScope scope(ps);
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    ps->WriteDQToLssIfDirty(*txn.Get());
    EXPECT_FALSE(ps->m_dq.m_dirty);
    ps->WriteDQToLssIfDirty(*txn.Get());
    EXPECT_EQ(1, lss.Count("write " + TextOfSeid(ps->m_roots.m_dqOid)));
}

TEST(DeletionQueue, ReadsItsRecordExactly) {
    TestStore store;
    ILogStructuredStore* const lss = store->GetLss();
    const OID oid = lss->AllocateSeid(1);
    DeletionQueue queue(false);
    ExpectAssertion("oid", "src/DeletionQueue", [&] { queue.ReadFromLss(lss, OID()); });
    ExpectAssertion("lss", "src/DeletionQueue", [&] { queue.ReadFromLss(nullptr, oid); });
    ExpectException<DerefDanglingOidException>("Dereferenced dangling OID = " + TextOfSeid(oid),
                                               [&] { queue.ReadFromLss(lss, oid); });
    PutElement(*lss, oid, {1, 0, 0, 0});
    ExpectAssertion("ar == rob.buffer + rob.size", "src/DeletionQueue", [&] { queue.ReadFromLss(lss, oid); });
    PutElement(*lss, oid, {1, 0xF0, 0xFF, 0xFF, 0xFF, 0xFF, 0});
    EXPECT_THROW(queue.ReadFromLss(lss, oid), RecordException);
    PutElement(*lss, oid, {1, 1, 1, 5, 0});
    queue.ReadFromLss(lss, oid);
    EXPECT_EQ(1, queue.m_queue.size());
    EXPECT_FALSE(queue.m_dirty);
}

TEST(DeletionQueue, IsWrittenThroughAnArchiveThatStores) {
    const DeletionQueue queue(true);
    Archive loading(static_cast<IOutputStream*>(nullptr));
    ExpectAssertion("ar.IsStoring()", "src/DeletionQueue", [&] { queue.Serialise(loading); });
}

} // namespace
} // namespace quna
