// A tree of objects for tests of permanent deletion: each says for itself whether it is a subtree of its own.
#pragma once

#include "qxObject/Reflect.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxUtils/Schema.h"
#include "qxUtils/xvector.h"
#include "tests/support/TestObjects.h"

#include <mutex>
#include <vector>

namespace quna {

// Record: schema 1, whether it is a subtree, its number, the parent, the number of children and each child.
class TestBranch : public PersistableMixin<IObjectBaseMixin<TestBranch, EmptyBase>>,
                   public CountsItsObjects<TestBranch> {
public:
    TestBranch() = default;
    TestBranch(bool isSubTree, const std::vector<TestBranch*>& children) : m_isSubTree(isSubTree) {
        for (TestBranch* const child : children) AddChild(child);
    }

    void AddChild(TestBranch* child) {
        m_children.push_back(cref<TestBranch>(child));
        if (child) child->m_parent = this;
    }

    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_isSubTree << m_number << m_parent;
        Serialise_ssize_t(ar, m_children.size());
        for (const cref<TestBranch>& child : m_children) ar << child;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema) >> m_isSubTree >> m_number >> m_parent;
        ssize_t n = 0;
        ar = DeserialiseCount(ar, n);
        m_children.resize(n);
        for (cref<TestBranch>& child : m_children) ar = ar >> child;
        return ar;
    }
    void VisitPrefs(IPrefVisitor& visitor) const {
        visitor.VisitParentPref(m_parent);
        for (const cref<TestBranch>& child : m_children) visitor << child;
        ++s_numVisits;
    }
    void VisitObjects(IObjectVisitor& visitor) const {
        visitor << m_parent;
        for (const cref<TestBranch>& child : m_children) visitor << child;
    }
    bool RepresentsSubTree() const { return m_isSubTree; }

    bool m_isSubTree = true;
    int32 m_number = 0;
    cref<TestBranch> m_parent;
    xvector<cref<TestBranch>> m_children;
    static inline std::atomic<int64> s_numVisits{0}; // of VisitPrefs
};
QX_REFLECT_PERSISTENT_CLASS(TestBranch, "test::Branch")

inline void RegisterDeletionTestObjects() {
    RegisterTestObjects();
    static std::once_flag once;
    std::call_once(once, [] {
        static constexpr dsTarget TARGET = {"Quna/Tests/Deletion", nullptr, 0, nullptr, 0};
        _Register_TestBranch(RegisterTarget(TARGET));
    });
}

} // namespace quna
