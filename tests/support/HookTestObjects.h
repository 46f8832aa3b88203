// A parent and its children for tests of the operation hooks.
#pragma once

#include "qxObject/IOperationCallBacks.h"
#include "qxObject/Reflect.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxUtils/Schema.h"
#include "qxUtils/xvector.h"
#include "tests/support/TestObjects.h"

#include <functional>
#include <mutex>

namespace quna {

// Has each kind of field that the hooks tell apart.
//
// Record: schema 1, the number (4), the reference, the number of references in the vector (variable length), each of them.
class TestHookParent : public PersistableMixin<IObjectBaseMixin<TestHookParent, EmptyBase>> {
public:
    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_number << m_ref;
        Serialise_ssize_t(ar, m_refs.size());
        for (const pref<IPersistable>& r : m_refs) ar << r;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema) >> m_number >> m_ref;
        ssize_t n = 0;
        ar = DeserialiseCount(ar, n);
        m_refs.resize(n);
        for (pref<IPersistable>& r : m_refs) ar = ar >> r;
        return ar;
    }
    void VisitPrefs(IPrefVisitor& visitor) const {
        visitor << m_ref;
        for (const pref<IPersistable>& r : m_refs) visitor << r;
    }
    void VisitObjects(IObjectVisitor& visitor) const {
        visitor << m_ref;
        for (const pref<IPersistable>& r : m_refs) visitor << r;
    }

    int32 m_number = 0;
    pref<IPersistable> m_ref;
    xvector<pref<IPersistable>> m_refs;
};
QX_REFLECT_PERSISTENT_CLASS(TestHookParent, "test::HookParent")

// Notes what OnCreate finds.
//
// Record: schema 1, the reference to what is below.
class TestHookChild : public PersistableMixin<IObjectBaseMixin<TestHookChild, EmptyBase>> {
public:
    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_below;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema) >> m_below;
    }
    void VisitPrefs(IPrefVisitor& visitor) const { visitor << m_below; }
    void VisitObjects(IObjectVisitor& visitor) const { visitor << m_below; }
    void OnCreate(bool created) {
        ++m_numOnCreate;
        m_createdArgument = created;
        m_oidInOnCreate = GetOid(this);
        if (m_onCreate) m_onCreate();
    }

    cref<TestHookChild> m_below;
    int m_numOnCreate = 0;
    bool m_createdArgument = false;
    OID m_oidInOnCreate;
    std::function<void()> m_onCreate;
};
QX_REFLECT_PERSISTENT_CLASS(TestHookChild, "test::HookChild")

inline void RegisterHookTestObjects() {
    RegisterTestObjects();
    static std::once_flag once;
    std::call_once(once, [] {
        static constexpr dsTarget TARGET = {"Quna/Tests/Hooks", nullptr, 0, nullptr, 0};
        XTarget* const target = RegisterTarget(TARGET);
        _Register_TestHookParent(target);
        _Register_TestHookChild(target);
    });
}

} // namespace quna
