#include "qxPersistStore/src/DirtyPSpaceList.h"

#include "qxPersistStore/src/NedqList.h"
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/TestStore.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using Spaces = std::vector<PSpace*>;

// What differs between the two lists.
struct OfDirtySpaces {
    using List = DirtyPSpaceList;
    static constexpr ListPtrs<PSpace> PSpace::*LINKS = &PSpace::m_DirtyPSpaceListPtrs;
    static constexpr const char* NAME = "m_DirtyPSpaceListPtrs";
    static constexpr const char* PATH = "src/DirtyPSpaceList";
};
struct OfNedqSpaces {
    using List = NedqList;
    static constexpr ListPtrs<PSpace> PSpace::*LINKS = &PSpace::m_NedqListPtrs;
    static constexpr const char* NAME = "m_NedqListPtrs";
    static constexpr const char* PATH = "src/DosWriter";
};

// Five spaces, and a list that the store does not know.
template <class Kind>
class PSpaceListTest : public testing::Test {
protected:
    PSpaceListTest() {
        for (int i = 0; i < 5; ++i) m_p.push_back(m_store.OpenSpace(("s" + std::to_string(i)).c_str()));
    }
    ~PSpaceListTest() override {
        m_list.Clear();
        for (PSpace* p : m_p) p->*Kind::LINKS = ListPtrs<PSpace>();
    }

    // The list, walked in both directions.
    Spaces Content() {
        Spaces content;
        PSpace* last = nullptr;
        for (PSpace* p = m_list.Front(); p; p = (p->*Kind::LINKS).next) {
            EXPECT_EQ(last, (p->*Kind::LINKS).prev);
            content.push_back(p);
            last = p;
        }
        EXPECT_EQ(last, m_list.Back());
        EXPECT_EQ(content.empty(), m_list.empty());
        return content;
    }
    void PushAll() {
        for (PSpace* p : m_p) m_list.PushBack(p);
    }

    TestStore m_store;
    Spaces m_p;
    // Owned by pointer: the destructor of a list may throw, that of a test may not.
    const std::unique_ptr<typename Kind::List> m_ownedList = std::make_unique<typename Kind::List>();
    typename Kind::List& m_list = *m_ownedList;
};

using Kinds = testing::Types<OfDirtySpaces, OfNedqSpaces>;
TYPED_TEST_SUITE(PSpaceListTest, Kinds, );

TYPED_TEST(PSpaceListTest, KeepsTheOrderOfPushing) {
    EXPECT_EQ(Spaces{}, this->Content());
    this->PushAll();
    EXPECT_EQ(this->m_p, this->Content());
}

TYPED_TEST(PSpaceListTest, RemovesAtTheFrontInTheMiddleAndAtTheBack) {
    Spaces& p = this->m_p;
    this->PushAll();
    this->m_list.Remove(p[2]);
    EXPECT_EQ((Spaces{p[0], p[1], p[3], p[4]}), this->Content());
    this->m_list.Remove(p[0]);
    EXPECT_EQ((Spaces{p[1], p[3], p[4]}), this->Content());
    this->m_list.Remove(p[4]);
    EXPECT_EQ((Spaces{p[1], p[3]}), this->Content());
    this->m_list.PushBack(p[2]);
    EXPECT_EQ((Spaces{p[1], p[3], p[2]}), this->Content());
    EXPECT_EQ(nullptr, (p[0]->*TypeParam::LINKS).next);
}

TYPED_TEST(PSpaceListTest, RemovingTheOnlyElementLeavesAnEmptyList) {
    this->m_list.PushBack(this->m_p[0]);
    this->m_list.Remove(this->m_p[0]);
    EXPECT_EQ(nullptr, this->m_list.Front());
    EXPECT_EQ(nullptr, this->m_list.Back());
}

TYPED_TEST(PSpaceListTest, ClearUnlinksAll) {
    this->PushAll();
    this->m_list.Clear();
    EXPECT_EQ(Spaces{}, this->Content());
    for (PSpace* p : this->m_p) {
        EXPECT_EQ(nullptr, (p->*TypeParam::LINKS).prev);
        EXPECT_EQ(nullptr, (p->*TypeParam::LINKS).next);
    }
}

TYPED_TEST(PSpaceListTest, TakesTheFirstOffUntilThereIsNone) {
    this->PushAll();
    for (PSpace* p : this->m_p) EXPECT_EQ(p, this->m_list.TryPopFront());
    EXPECT_EQ(nullptr, this->m_list.TryPopFront());
    EXPECT_TRUE(this->m_list.empty());
}

TYPED_TEST(PSpaceListTest, RefusesToPushWhatIsOnTheList) {
    const std::string name = TypeParam::NAME;
    Spaces& p = this->m_p;
    this->PushAll();
    ExpectAssertion("s", TypeParam::PATH, [&] { this->m_list.PushBack(nullptr); });
    ExpectAssertion("!s->" + name + ".prev", TypeParam::PATH, [&] { this->m_list.PushBack(p[4]); });
    ExpectAssertion("!s->" + name + ".next", TypeParam::PATH, [&] { this->m_list.PushBack(p[0]); });
    EXPECT_EQ(p, this->Content());
}

TYPED_TEST(PSpaceListTest, RefusesToRemoveWhatIsNotOnTheList) {
    const std::string name = TypeParam::NAME;
    Spaces& p = this->m_p;
    ExpectAssertion("s", TypeParam::PATH, [&] { this->m_list.Remove(nullptr); });
    ExpectAssertion("m_first == s", TypeParam::PATH, [&] { this->m_list.Remove(p[0]); });
    this->m_list.PushBack(p[0]);
    this->m_list.PushBack(p[1]);
    ExpectAssertion("m_first == s", TypeParam::PATH, [&] { this->m_list.Remove(p[2]); });
    (p[2]->*TypeParam::LINKS).prev = p[0];
    ExpectAssertion("s->" + name + ".prev->" + name + ".next == s", TypeParam::PATH,
                    [&] { this->m_list.Remove(p[2]); });
    (p[2]->*TypeParam::LINKS).prev = nullptr;
    (p[0]->*TypeParam::LINKS).next = p[2];
    ExpectAssertion("s->" + name + ".next->" + name + ".prev == s", TypeParam::PATH,
                    [&] { this->m_list.Remove(p[0]); });
    (p[0]->*TypeParam::LINKS).next = nullptr;
    ExpectAssertion("m_last == s", TypeParam::PATH, [&] { this->m_list.Remove(p[0]); });
    (p[0]->*TypeParam::LINKS).next = p[1];
    EXPECT_EQ((Spaces{p[0], p[1]}), this->Content());
}

TYPED_TEST(PSpaceListTest, ALastElementWithANextIsFound) {
    const std::string name = TypeParam::NAME;
    Spaces& p = this->m_p;
    this->m_list.PushBack(p[0]);
    (p[0]->*TypeParam::LINKS).next = p[1];
    ExpectAssertion("!m_last->" + name + ".next", TypeParam::PATH, [&] { this->m_list.PushBack(p[2]); });
    (p[0]->*TypeParam::LINKS).next = nullptr;
}

class DirtyPSpaceListTest : public PSpaceListTest<OfDirtySpaces> {};

TEST_F(DirtyPSpaceListTest, IsCopiedInItsOrder) {
    PushAll();
    xdeque<PSpace*, 512> copy;
    m_list.CopyIntoDeque(copy);
    EXPECT_EQ(m_p, Spaces(copy.begin(), copy.end()));
    EXPECT_EQ(m_p, Content());
}

TEST_F(DirtyPSpaceListTest, EndingWithASpaceOnItFails) {
    ExpectAssertion("m_first == __null", "src/DirtyPSpaceList", [&] {
        DirtyPSpaceList list;
        list.PushBack(m_p[0]);
    });
}

class NedqListTest : public PSpaceListTest<OfNedqSpaces> {};

TEST_F(NedqListTest, KnowsItsMembersAlsoASingleOne) {
    EXPECT_FALSE(m_list.Contains(m_p[0]));
    m_list.PushBack(m_p[0]);
    EXPECT_TRUE(m_list.Contains(m_p[0]));
    EXPECT_FALSE(m_list.Contains(m_p[1]));
    m_list.PushBack(m_p[1]);
    EXPECT_TRUE(m_list.Contains(m_p[0]));
    EXPECT_TRUE(m_list.Contains(m_p[1]));
    m_list.Remove(m_p[0]);
    EXPECT_FALSE(m_list.Contains(m_p[0]));
}

} // namespace
} // namespace quna
