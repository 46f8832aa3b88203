// What the tests of the operation hooks have in common: every operation with arguments that it accepts.
#pragma once

#include "tests/support/HookTestObjects.h"
#include "tests/support/TestStore.h"

#include <functional>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

inline void VisitOne(IPrefVisitor& visitor, const void* value) { visitor << *static_cast<const prefbase*>(value); }
inline void VisitArray(IPrefVisitor& visitor, const void* array, ssize_t elementSize, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i)
        visitor << *reinterpret_cast<const prefbase*>(static_cast<const char*>(array) + i * elementSize);
}
inline constexpr ssize_t PREF_SIZE = 24;

template <class Params>
Params Of(ptr<IObject> obj, void* addr) {
    Params params;
    params.obj = obj;
    params.addr = addr;
    return params;
}

class OperationHooksFixture : public ::testing::Test {
protected:
    OperationHooksFixture() {
        RegisterHookTestObjects();
        m_ps = Open("s");
    }
    // A space whose objects nobody collects but the test.
    PSpace* Open(ConstStringZ name) { return m_store.OpenSpace(name, OM_OPEN_ALWAYS, CreateCSpace()); }
    static IOperationCallBacks& Hooks() { return *GetOperationCallBacks(); }

    // A persistent parent that is written and clean.
    TestHookParent* CleanParent(const std::function<void(TestHookParent&)>& fill = {}, ConstStringZ name = "parent") {
        TestHookParent* parent = nullptr;
        {
            const SpaceScope scope(m_ps);
            parent = NewObject<TestHookParent>();
            if (fill) fill(*parent);
            EXPECT_TRUE(m_ps->AddRoot(name, parent));
        }
        m_ps->WriteDirtyObjectsToLss(false);
        EXPECT_FALSE(parent->IsDirty());
        return parent;
    }
    std::vector<OID> Requested(const PSpace* ps) const {
        const DeletionQueue::OIDS& queue = ps->m_dq.m_deltaQueue;
        return std::vector<OID>(queue.begin(), queue.end());
    }
    std::vector<OID> Requested() const { return Requested(m_ps); }

    // ---- Each operation, with arguments that it accepts: m_src is the reference that comes or goes ----

    struct Operation {
        ConstStringZ m_name;
        bool m_resolves; // looks at the object's identity
        bool m_marks;    // marks a persistent object dirty
        std::function<void(ptr<IObject>)> m_run;
    };
    std::vector<Operation> Operations() {
        m_vector.clear();
        m_vector.push_back(pref<IPersistable>());
        return {
            {"OnBeforeAssignValue", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<AssignValue_params>(obj, &m_src);
                 params.visitPrefsFn = &VisitOne;
                 Hooks().OnBeforeAssignValue(params);
             }},
            {"OnAfterAssignValueWithoutPrefs", false, false,
             [this](ptr<IObject> obj) {
                 Hooks().OnAfterAssignValueWithoutPrefs(Of<AssignValue_params>(obj, &m_number));
             }},
            {"OnAfterAssignValueWithPrefs", true, false,
             [this](ptr<IObject> obj) {
                 auto params = Of<AssignValue_params>(obj, &m_src);
                 params.visitPrefsFn = &VisitOne;
                 Hooks().OnAfterAssignValueWithPrefs(params);
             }},
            {"OnAssignPref", true, true,
             [this](ptr<IObject> obj) {
                 m_field.Clear();
                 auto params = Of<AssignPref_params>(obj, &m_field);
                 params.src = &m_src;
                 Hooks().OnAssignPref(params);
             }},
            {"OnOffsetValue", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<OffsetValue_params>(obj, &m_number);
                 params.offset = 5;
                 Hooks().OnOffsetValue(params);
             }},
            {"OnCreateIntoVector", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<CreateIntoVector_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 params.visitPrefsInArrayFn = &VisitArray;
                 params.elementSize = PREF_SIZE;
                 Hooks().OnCreateIntoVector(params);
             }},
            {"OnDeleteFromVector", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<DeleteFromVector_params>(obj, &m_vector);
                 params.n = 1;
                 params.visitPrefsInArrayFn = &VisitArray;
                 params.elementSize = PREF_SIZE;
                 Hooks().OnDeleteFromVector(params);
             }},
            {"OnCreateIntoMVector", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<CreateIntoMVector_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 Hooks().OnCreateIntoMVector(params);
             }},
            {"OnDeleteFromMVector", true, true,
             [this](ptr<IObject> obj) {
                 m_vector[0] = pref<IPersistable>(m_src.GetBoundPtr());
                 auto params = Of<DeleteFromMVector_params>(obj, &m_vector);
                 params.n = 1;
                 Hooks().OnDeleteFromMVector(params);
             }},
            {"OnSetInsert", false, false,
             [this](ptr<IObject> obj) { Hooks().OnSetInsert(Of<AssignValue_params>(obj, &m_number)); }},
            {"OnSetDelete", false, false,
             [this](ptr<IObject> obj) { Hooks().OnSetDelete(Of<AssignValue_params>(obj, &m_number)); }},
            {"OnInsertIntoMSet", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<InsertIntoMSet_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 Hooks().OnInsertIntoMSet(params);
             }},
            {"OnDeleteFromMSet", true, true,
             [this](ptr<IObject> obj) {
                 auto params = Of<DeleteFromMSet_params>(obj, &m_vector);
                 params.src = &m_src;
                 params.n = 1;
                 Hooks().OnDeleteFromMSet(params);
             }},
        };
    }

    // ---- Single operations with the arguments that matter ----

    static void AssignPref(TestHookParent* parent, prefbase& field, const prefbase& src) {
        auto params = Of<AssignPref_params>(parent, &field);
        params.src = &src;
        Hooks().OnAssignPref(params);
    }
    static void CreateIntoMVector(TestHookParent* parent, const std::vector<prefbase>& src) {
        auto params = Of<CreateIntoMVector_params>(parent, &parent->m_refs);
        params.src = src.data();
        params.n = static_cast<ssize_t>(src.size());
        Hooks().OnCreateIntoMVector(params);
    }
    static void DeleteFromMVector(TestHookParent* parent, ssize_t i, ssize_t n) {
        auto params = Of<DeleteFromMVector_params>(parent, &parent->m_refs);
        params.i = i;
        params.n = n;
        Hooks().OnDeleteFromMVector(params);
    }
    static void InsertIntoMSet(TestHookParent* parent, const std::vector<prefbase>& src) {
        auto params = Of<InsertIntoMSet_params>(parent, nullptr);
        params.src = src.data();
        params.n = static_cast<ssize_t>(src.size());
        Hooks().OnInsertIntoMSet(params);
    }
    static DeleteFromVector_params DeletionFromVector(TestHookParent* parent, ssize_t i, ssize_t n) {
        auto params = Of<DeleteFromVector_params>(parent, &parent->m_refs);
        params.i = i;
        params.n = n;
        params.visitPrefsInArrayFn = &VisitArray;
        params.elementSize = PREF_SIZE;
        return params;
    }
    static prefbase RefTo(ptr<IPersistable> po) {
        prefbase r;
        r.Set(po);
        return r;
    }

    TestStore m_store;
    PSpace* m_ps = nullptr;
    int32 m_number = 0;
    prefbase m_src;
    prefbase m_field;
    xvector<pref<IPersistable>> m_vector;
};

} // namespace quna
