// The placeholder by itself: what it refuses, and loads that fail.
#include "qxLss/CorruptLSSException.h"
#include "qxPersistStore/src/DGIndepNodeForAsyncPref.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/AsyncBindFixture.h"

#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Node = DGIndepNodeForAsyncPref;

class AsyncBindNode : public AsyncBindFixture {
protected:
    // A placeholder that stands in no table. The test is its load thread and its dependency graph, so it has both of its
    // references.
    Node* NewNode(OID oid) { return new Node(Table(), oid); }

    // A load that fails on the thread that does it, and gives back the reference of its job all the same.
    void ExpectFailingLoad(OID oid, const std::function<void(Node&)>& load) {
        const CollectedTrace trace; // the failure is traced, too
        Node* const node = NewNode(oid);
        load(*node);
        node->DecRef();
        Table().Close(); // the placeholder has gone
        EXPECT_EQ(0, m_lss->NumOpenElements());
        EXPECT_EQ(0, NumLeaves());
    }
    void ExpectAssertionInLoad(OID oid, const std::string& text) {
        ExpectFailingLoad(oid, [&](Node& node) { ExpectAssertion(text, "src/ROT", [&] { node.AsyncLoad(); }); });
    }
};

TEST_F(AsyncBindNode, HasANameAndIsEvictable) {
    const OID oid(0x2a, 1);
    Node* const node = NewNode(oid);
    EXPECT_EQ(xstring("DGIndepNodeForAsyncPref:oid=00000001:0000002a"), node->Name());
    EXPECT_TRUE(node->IsEvictable());
    node->DecRef();
    node->DecRef();
    Table().Close();
    static_assert(Node::UR_PENDING == 0 && Node::UR_OBJECT_FOUND == 1);
    static_assert(Node::UR_OBJECT_DOES_NOT_EXIST == 2 && Node::UR_NODE_EVICTED == 3);
}

TEST_F(AsyncBindNode, NeedsAnOid) {
    ExpectAssertion("oid_", "src/ROT", [&] { NewNode(OID()); });
    Table().Close(); // it was not counted
}

TEST_F(AsyncBindNode, ChecksLockStateAndArguments) {
    Node* const node = NewNode(MissingOid());
    TestLeaf leaf;
    const auto expect = [](const char* text, auto action) { ExpectAssertion(text, "src/ROT", action); };
    expect("rot_.HasLock()", [&] { node->UpdateRot(); });
    expect("rot_.HasLock()", [&] { node->OnEvict(); });
    expect("po", [&] { node->SetObject(null); });
    expect("rot_.HasLock()", [&] { node->SetObject(&leaf); });
    {
        const SpaceScope scope(m_ps);
        expect("readyToUpdateRot_", [&] { node->UpdateRot(); });
        expect("GetAssociatedCSpace(po) == cspace", [&] { node->SetObject(&leaf); });
    }
    node->DecRef();
    node->DecRef();
    Table().Close();
}

TEST_F(AsyncBindNode, AnUpdateJobTakesTheLockSettlesTheNodeAndDropsItsReference) {
    Node* const node = NewNode(MissingOid());
    node->readyToUpdateRot_ = true; // the load is over and has found nothing
    node->AsyncUpdateRot();
    EXPECT_EQ(Node::UR_OBJECT_DOES_NOT_EXIST, node->updatedRot_.load());
    EXPECT_EQ(0, GetRecordedLockStatus(m_ps->GetCSpace()));
    node->DecRef(); // the last one
    Table().Close();
}

TEST_F(AsyncBindNode, ALoadThatTheStoreFailsIsAFailedCheck) {
    const OID unreadable = StoredLeaf();
    m_lss->FailOpen(unreadable, [] { throw FileException("read error", 5); });
    ExpectAssertionInLoad(unreadable, "0");
    const OID damaged = StoredLeaf();
    m_lss->FailOpen(damaged, [] { throw CorruptLSSException("wrong checksum"); });
    ExpectAssertionInLoad(damaged, "0");
    const OID halfReadable = StoredLeaf();
    m_lss->FailBuffer(halfReadable, [] { throw FileException("read error", 5); });
    ExpectAssertionInLoad(halfReadable, "0");
}

TEST_F(AsyncBindNode, AnEmptyElementIsAFailedCheck) {
    const OID empty = MissingOid();
    PutElement(*m_lss, empty, Bytes());
    ExpectAssertionInLoad(empty, "rob_.size > 0");
}

TEST_F(AsyncBindNode, WhatDeserialiseThrowsPassesThrough) {
    OID oid;
    {
        const SpaceScope scope(m_ps);
        TestThrower* const thrower = NewObject<TestThrower>();
        m_ps->MakeObjectPersist(thrower, false);
        oid = GetOid(thrower);
    }
    m_ps->WriteDirtyObjectsToLss(false);
    Collect(m_ps);
    const int numLive = TestThrower::s_numLive;
    TestThrower::s_throwInDeserialise = true;
    ExpectFailingLoad(oid, [](Node& node) { EXPECT_THROW(node.AsyncLoad(), std::runtime_error); });
    TestThrower::s_throwInDeserialise = false;
    EXPECT_EQ(numLive, TestThrower::s_numLive);
}

} // namespace
} // namespace quna
