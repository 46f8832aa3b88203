// A child that changes its parent's fields while it is told of its creation.
#include "qxObject/ModelRef.h"
#include "qxObject/ModelRefSet.h"
#include "qxObject/ModelRefVector.h"
#include "tests/support/TestStore.h"

#include <functional>
#include <mutex>
#include <optional>
#include <utility>

#include <gtest/gtest.h>

namespace quna {

class TestKid : public PersistentObject<TestKid> {
public:
    static constexpr auto Members() { return MemberList(Member("number", &TestKid::m_number)); }
    void OnCreate(bool) {
        if (m_onCreate) m_onCreate();
    }
    int32 m_number = 0;
    std::function<void()> m_onCreate; // not part of the record
};
QX_REFLECT_PERSISTENT_CLASS(TestKid, "test::Kid")

class TestFamily : public PersistentObject<TestFamily> {
public:
    static constexpr auto Members() {
        return MemberList(Member("eldest", &TestFamily::eldest), Member("kids", &TestFamily::kids),
                          Member("friends", &TestFamily::friends));
    }
    ModelRef<cref<TestKid>, TestFamily, "eldest"> eldest;
    ModelRefVector<cref<TestKid>, TestFamily, "kids"> kids;
    ModelRefSet<cref<TestKid>, TestFamily, "friends"> friends;
};
QX_REFLECT_PERSISTENT_CLASS(TestFamily, "test::Family")

namespace {

class ModelFieldsReentrance : public ::testing::Test {
protected:
    ModelFieldsReentrance() {
        RegisterTestObjects();
        static std::once_flag once;
        std::call_once(once, [] {
            static constexpr dsTarget TARGET = {"Quna/Tests/Family", nullptr, 0, nullptr, 0};
            XTarget* const target = RegisterTarget(TARGET);
            _Register_TestKid(target);
            _Register_TestFamily(target);
        });
        m_ps = m_store.OpenSpace("s", OM_OPEN_ALWAYS, CreateCSpace());
        m_scope.emplace(m_ps);
        m_family = NewObject<TestFamily>();
        m_ps->AddRoot("family", m_family);
    }
    ~ModelFieldsReentrance() noexcept override { m_scope.reset(); }

    TestKid* NewKid(std::function<void()> onCreate = {}) {
        auto* const kid = NewObject<TestKid>();
        kid->m_onCreate = std::move(onCreate);
        return kid;
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
    std::optional<SpaceScope> m_scope;
    TestFamily* m_family = nullptr; // persistent
};

TEST_F(ModelFieldsReentrance, AReplacementMayBringSiblingsThatMoveTheVector) {
    m_family->kids.push_back(NewKid());
    TestKid* const kid = NewKid([&] {
        for (int i = 0; i < 100; ++i) m_family->kids.push_back(NewKid());
    });
    m_family->kids.Set(0, kid);
    ASSERT_EQ(101, m_family->kids.size());
    EXPECT_EQ(kid, m_family->kids[0].Get());
}

TEST_F(ModelFieldsReentrance, ANewElementMayBringOthersAlong) {
    TestKid* const kid = NewKid([&] {
        for (int i = 0; i < 100; ++i) m_family->kids.push_back(NewKid());
    });
    m_family->kids.insert(0, kid);
    EXPECT_EQ(101, m_family->kids.size());
    EXPECT_EQ(kid, m_family->kids[0].Get());
    TestKid* const friendly = NewKid([&] { m_family->friends.insert(NewKid()); });
    m_family->friends.insert(friendly);
    EXPECT_EQ(2, m_family->friends.size());
    EXPECT_TRUE(m_family->friends.contains(friendly));
}

TEST_F(ModelFieldsReentrance, ANewElementMaySendOthersAway) {
    for (int i = 0; i < 3; ++i) m_family->kids.push_back(NewKid());
    TestKid* const kid = NewKid([&] { m_family->kids.clear(); });
    m_family->kids.push_back(kid);
    ASSERT_EQ(1, m_family->kids.size());
    EXPECT_EQ(kid, m_family->kids[0].Get());
}

TEST_F(ModelFieldsReentrance, AReplacementTakesThePlaceOfTheChildThatItReplaces) {
    for (int i = 0; i < 3; ++i) m_family->kids.push_back(NewKid());
    TestKid* const first = m_family->kids[0].Get();
    TestKid* inserted = nullptr;
    TestKid* const kid = NewKid([&] { m_family->kids.insert(0, inserted = NewKid()); });
    m_family->kids.Set(1, kid);
    ASSERT_EQ(4, m_family->kids.size());
    EXPECT_EQ(inserted, m_family->kids[0].Get());
    EXPECT_EQ(first, m_family->kids[1].Get());
    EXPECT_EQ(kid, m_family->kids[2].Get());
}

TEST_F(ModelFieldsReentrance, AChildMayFillAnotherFieldOfItsParent) {
    TestKid* const kid = NewKid([&] { m_family->kids.push_back(NewKid()); });
    m_family->eldest = kid;
    EXPECT_EQ(kid, m_family->eldest.Get().Get());
    EXPECT_EQ(1, m_family->kids.size());
}

} // namespace
} // namespace quna
