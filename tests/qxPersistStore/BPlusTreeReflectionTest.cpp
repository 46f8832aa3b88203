// The records of the three classes in the registry.
#include "qxObject/ReflectedClass.h"
#include "qxObject/Registry.h"
#include "tests/support/TestStore.h"
#include "tests/support/TestTree.h"

#include <memory>

#include <gtest/gtest.h>

namespace quna {
namespace {

template <class X>
void ExpectRecord(ConstStringZ name, uint32 flags) {
    RegisterTestObjects();
    SCOPED_TRACE(name);
    const ReflectedClass& rc = GetReflectedClass<X>();
    EXPECT_STREQ(name, rc.m_name);
    EXPECT_EQ(flags, rc.m_flags);
    EXPECT_EQ(static_cast<ssize_t>(sizeof(X)), rc.m_size);
    EXPECT_EQ(&rc, FindReflectedClass(name));
    EXPECT_TRUE(rc.CanCreate());
    EXPECT_NE(nullptr, rc.m_IObjectFnTable);
    EXPECT_EQ(0, rc.m_numFields);
    EXPECT_EQ(0, rc.m_numModelFields);
    EXPECT_EQ(0, rc.m_numDependentFields);
    EXPECT_EQ(0, rc.m_numMethods);
    ASSERT_EQ(1, rc.m_numIndirectInterfaces);
    ASSERT_EQ(1, rc.m_numDirectInterfaces);
    EXPECT_STREQ("quna::IObject", rc.m_interfaces[0]);
    EXPECT_STREQ("quna::IPersistable", rc.m_interfaces[1]);
    EXPECT_EQ(&rc.m_ops, &GetTypeOps<X>());
}

template <class X>
void ExpectLifeOperationsOnly() {
    const TypeOps& ops = GetTypeOps<X>();
    EXPECT_EQ(static_cast<ssize_t>(sizeof(X)), ops.m_size);
    EXPECT_TRUE(ops.HasConstruct() && ops.HasCopyConstruct() && ops.HasAssign() && ops.HasDestruct());
    EXPECT_FALSE(ops.HasEqual() || ops.HasLess() || ops.HasPrint() || ops.HasSerialise() || ops.HasDeserialise());
    EXPECT_FALSE(ops.HasVisitObjects() || ops.HasVisitPrefs() || ops.HasLowerBound() || ops.HasUpperBound());
    EXPECT_FALSE(ops.m_ConstructVariableFromSelfFn || ops.m_ConstructSelfFromVariableFn ||
                 ops.m_AssignVariableFromSelfFn || ops.m_AssignSelfFromVariableFn);
}

template <class X>
X* Created() {
    const ptr<IObject> object = GetReflectedClass<X>().Create();
    EXPECT_TRUE(object);
    EXPECT_EQ(&GetReflectedClass<X>(), object->GetReflectedClass());
    return static_cast<X*>(object.m_self);
}

TEST(BPlusTreeReflection, TheTreeIsForApplications) { ExpectRecord<BPlusTree>("quna::BPlusTree", 1); }
TEST(BPlusTreeReflection, TheInternalNodeIsAPart) { ExpectRecord<InternalNode>("quna::InternalNode", 0); }
TEST(BPlusTreeReflection, TheLeafNodeIsAPart) { ExpectRecord<LeafNode>("quna::LeafNode", 0); }

TEST(BPlusTreeReflection, ValuesAreOnlyMadeCopiedAndEnded) {
    ExpectLifeOperationsOnly<BPlusTree>();
    ExpectLifeOperationsOnly<InternalNode>();
    ExpectLifeOperationsOnly<LeafNode>();
}

TEST(BPlusTreeReflection, TheFactoryMakesEmptyObjectsThatBelongToNoDomain) {
    const std::unique_ptr<BPlusTree> tree(Created<BPlusTree>());
    EXPECT_EQ(-1, tree->m_height);
    EXPECT_EQ(0, tree->m_bti.m_keyTid);
    EXPECT_EQ(nullptr, GetAssociatedCSpace(ptr<const IObject>(tree.get())));
    const std::unique_ptr<InternalNode> node(Created<InternalNode>());
    EXPECT_EQ(0, node->m_numKeyEntrys);
    const std::unique_ptr<LeafNode> leaf(Created<LeafNode>());
    EXPECT_EQ(0, leaf->m_entrys.size());
}

TEST(BPlusTreeReflection, TheyOfferPersistenceAndNoOtherInterface) {
    RegisterTestObjects();
    BPlusTree tree;
    LeafNode leaf;
    InternalNode node;
    EXPECT_TRUE(tree.QueryInterface(GetReflectedInterface<IPersistable>()).m_self == &tree);
    EXPECT_TRUE(leaf.QueryInterface(GetReflectedInterface<IPersistable>()).m_self == &leaf);
    EXPECT_TRUE(node.QueryInterface(GetReflectedInterface<IObject>()).m_self == &node);
    EXPECT_TRUE(tree.QueryInterface(GetReflectedInterface<IPrefVisitor>()).m_self == nullptr);
}

TEST(BPlusTreeReflection, RegisteringAgainIsRefused) {
    RegisterTestObjects();
    EXPECT_NE(NSE_OK, RegisterReflectedClass(&GetReflectedClass<LeafNode>(), Quna_Core_qxPersistStore_GetXTarget()));
}

} // namespace
} // namespace quna
