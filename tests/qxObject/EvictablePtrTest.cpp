#include "qxObject/EvictablePtr.h"

#include "tests/qxObject/GcTestObjects.h"
#include "tests/support/ExpectAssertion.h"

#include <cstring>
#include <thread>

namespace quna {
namespace {

TEST(EvictablePtr, IsBoundWhenBothWordsAreSet) {
    NodeLog log;
    GcNode node(log);
    ptr<IObject> target;
    ptr<IObject> local(&node);
    EXPECT_FALSE(ReadEvictablePtr(target, local));
    EXPECT_FALSE(local);

    local = ptr<IObject>(&node);
    SetEvictablePtr(target, local);
    ptr<IObject> read;
    EXPECT_TRUE(ReadEvictablePtr(target, read));
    EXPECT_EQ(read.m_self, &node);
    EXPECT_EQ(read.m_table, local.m_table);

    target.m_table = nullptr;
    EXPECT_FALSE(ReadEvictablePtr(target, read));
    EXPECT_EQ(read.m_self, &node);
}

TEST(EvictablePtr, KeepsItsTable) {
    NodeLog log;
    GcNode node(log);
    ptr<IObject> target(&node);
    ptr<IObject> other(&node);
    other.m_table += 1;
    ExpectAssertion("tbl == localVar.m_table", [&] { SetEvictablePtr(target, other); });
    ptr<IObject> nothing;
    SetEvictablePtr(target, nothing);
    EXPECT_FALSE(target);
    SetEvictablePtr(target, other); // an empty one takes any
    EXPECT_EQ(target.m_table, other.m_table);
}

TEST(EvictablePtr, WordsAtOddAddressesAreCopiedWhole) {
    NodeLog log;
    GcNode node(log);
    const ptr<IObject> bound(&node);
    alignas(8) char record[32] = {};
    auto* const p = reinterpret_cast<AnyInterface*>(record + 3);
    StoreEvictableWords(p, bound);
    const AnyInterface words = LoadEvictableWords(p);
    EXPECT_EQ(words.m_self, bound.m_self);
    EXPECT_EQ(words.m_table, bound.m_table);
    void* self = nullptr;
    std::memcpy(&self, record + 3, sizeof self);
    EXPECT_EQ(self, &node);
}

TEST(EvictablePtrThreads, AReaderSeesNothingOrTheWholePointer) {
    NodeLog log;
    GcNode node(log);
    const ptr<IObject> bound(&node);
    for (int round = 0; round < 2000; ++round) {
        ptr<IObject> shared;
        std::thread binder([&] {
            ptr<IObject> local = bound;
            SetEvictablePtr(shared, local);
        });
        ptr<IObject> read;
        while (!ReadEvictablePtr(shared, read)) std::this_thread::yield();
        EXPECT_EQ(read.m_self, bound.m_self);
        EXPECT_EQ(read.m_table, bound.m_table);
        binder.join();
    }
}

} // namespace
} // namespace quna
