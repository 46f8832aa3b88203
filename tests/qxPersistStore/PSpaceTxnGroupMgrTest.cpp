#include "qxPersistStore/src/PSpaceTxnGroupMgr.h"

#include "qxPersistStore/src/PSpace.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestStore.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Spaces = std::vector<PSpace*>;

// Six spaces, each alone in its group, and a manager that the store does not know.
class PSpaceTxnGroupMgrTest : public testing::Test {
protected:
    PSpaceTxnGroupMgrTest() {
        for (int i = 0; i < 6; ++i) m_p.push_back(m_store.OpenSpace(("s" + std::to_string(i)).c_str()));
    }
    ~PSpaceTxnGroupMgrTest() override {
        for (PSpace* p : m_p) {
            p->m_nextInTxnGrp = p;
            p->m_inGrp = false;
        }
    }

    static Spaces Ring(PSpace* first) {
        Spaces ring{first};
        for (PSpace* p = first->m_nextInTxnGrp; p != first; p = p->m_nextInTxnGrp) ring.push_back(p);
        return ring;
    }

    Spaces Retrieve(const Spaces& given) {
        xvector<PSpace*> grp;
        for (PSpace* p : given) grp.push_back(p);
        m_mgr.RetrieveGroup(grp);
        for (const PSpace* p : m_p) EXPECT_FALSE(p->m_inGrp);
        return Spaces(grp.begin(), grp.end());
    }

    TestStore m_store;
    Spaces m_p;
    PSpaceTxnGroupMgr m_mgr;
};

TEST_F(PSpaceTxnGroupMgrTest, ASpaceIsAloneAtFirst) { EXPECT_EQ(Spaces{m_p[0]}, Ring(m_p[0])); }

TEST_F(PSpaceTxnGroupMgrTest, TheSecondGroupStandsRightBehindTheFirstSpace) {
    EXPECT_TRUE(m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]));
    EXPECT_TRUE(m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[2]));
    EXPECT_EQ((Spaces{m_p[0], m_p[2], m_p[1]}), Ring(m_p[0]));
}

TEST_F(PSpaceTxnGroupMgrTest, MergingASpaceWithItselfChangesNothing) {
    EXPECT_FALSE(m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[0]));
    EXPECT_EQ(Spaces{m_p[0]}, Ring(m_p[0]));
}

TEST_F(PSpaceTxnGroupMgrTest, MergingTwoSpacesOfOneGroupChangesNothing) {
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[2]);
    const Spaces ring = Ring(m_p[0]);
    EXPECT_FALSE(m_mgr.MergeTwoPSpaceTxnGroups(m_p[1], m_p[2]));
    EXPECT_FALSE(m_mgr.MergeTwoPSpaceTxnGroups(m_p[2], m_p[0]));
    EXPECT_EQ(ring, Ring(m_p[0]));
}

TEST_F(PSpaceTxnGroupMgrTest, GroupsOfTwoAndThreeMakeARingOfFive) {
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[2], m_p[3]);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[3], m_p[4]);
    EXPECT_TRUE(m_mgr.MergeTwoPSpaceTxnGroups(m_p[1], m_p[3]));
    EXPECT_EQ((Spaces{m_p[0], m_p[1], m_p[3], m_p[4], m_p[2]}), Ring(m_p[0]));
}

TEST_F(PSpaceTxnGroupMgrTest, RetrievingAGroupGivesEachMemberOnceAndDissolvesIt) {
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[2]); // the ring is 0, 2, 1
    EXPECT_EQ((Spaces{m_p[1], m_p[0], m_p[2]}), Retrieve({m_p[1]}));
    for (PSpace* p : m_p) EXPECT_EQ(Spaces{p}, Ring(p));
}

TEST_F(PSpaceTxnGroupMgrTest, TwoElementsOfOneRingComeFirstInTheirOrder) {
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[1], m_p[2]);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[2], m_p[3]);
    EXPECT_EQ((Spaces{m_p[2], m_p[0], m_p[3], m_p[1]}), Retrieve({m_p[2], m_p[0]}));
    for (PSpace* p : m_p) EXPECT_EQ(Spaces{p}, Ring(p));
}

TEST_F(PSpaceTxnGroupMgrTest, TheOthersFollowInRingOrderBehindAllThatWereGiven) {
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[2], m_p[3]);
    EXPECT_EQ((Spaces{m_p[3], m_p[0], m_p[5], m_p[2], m_p[1]}), Retrieve({m_p[3], m_p[0], m_p[5]}));
}

TEST_F(PSpaceTxnGroupMgrTest, ASecondRetrievalAddsOnlyWhatWasMergedSince) {
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]);
    xvector<PSpace*> grp;
    grp.push_back(m_p[0]);
    m_mgr.RetrieveGroup(grp);
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[1], m_p[4]);
    m_mgr.RetrieveGroup(grp);
    EXPECT_EQ((Spaces{m_p[0], m_p[1], m_p[4]}), Spaces(grp.begin(), grp.end()));
}

TEST_F(PSpaceTxnGroupMgrTest, TheSameSpaceTwiceIsRefusedAndLeavesNoMark) {
    m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], m_p[1]);
    ExpectAssertion("!grp[i]->m_inGrp", "src/PSpaceTxnGroupMgr", [&] { Retrieve({m_p[0], m_p[2], m_p[0]}); });
    ExpectAssertion("grp[i]", "src/PSpaceTxnGroupMgr", [&] { Retrieve({m_p[0], nullptr}); });
    EXPECT_EQ((Spaces{m_p[0], m_p[1]}), Ring(m_p[0]));
    EXPECT_EQ((Spaces{m_p[0], m_p[1]}), Retrieve({m_p[0]}));
}

TEST_F(PSpaceTxnGroupMgrTest, NullSpacesAreRefused) {
    ExpectAssertion("p1", "src/PSpaceTxnGroupMgr", [&] { m_mgr.MergeTwoPSpaceTxnGroups(nullptr, m_p[0]); });
    ExpectAssertion("p2", "src/PSpaceTxnGroupMgr", [&] { m_mgr.MergeTwoPSpaceTxnGroups(m_p[0], nullptr); });
}

} // namespace
} // namespace quna
