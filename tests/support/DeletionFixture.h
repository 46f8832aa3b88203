// What the tests of permanent deletion have in common.
#pragma once

#include "qxPersistStore/src/DeletionQueue.h"
#include "qxPersistStore/src/DosWriter.h"
#include "tests/support/DeletionTestObjects.h"
#include "tests/support/TestStore.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

// A store with one space that a test deletes from, batch by batch.
class DeletionFixture : public ::testing::Test {
protected:
    using Texts = std::vector<std::string>;

    static std::string Write(Seid seid) { return "write " + TextOfSeid(seid); }
    static std::string Delete(Seid seid) { return "delete " + TextOfSeid(seid); }

    DeletionFixture() {
        RegisterDeletionTestObjects();
        m_ps = Open();
    }
    PSpace* Open(ConstStringZ name = "s") {
        PSpace* const ps = m_store.OpenSpace(name);
        SetMilliSecsPerGc(ps->GetCSpace(), 3600 * 1000); // a test says itself when objects are collected
        return ps;
    }
    void Reopen() {
        m_store.Reopen();
        m_ps = Open();
    }
    DosWriter& Writer() { return m_store->m_dosWriter; }
    DeletionQueue& Queue() { return m_ps->m_dq; }
    OID DqOid() { return m_ps->m_roots.m_dqOid; }
    void WriteSpace() { m_ps->WriteDirtyObjectsToLss(false); }
    bool Batch() { return Writer().DeleteSomeObjects(); }
    void Collect() {
        const SpaceScope scope(m_ps);
        SynchronousGc(m_ps->GetCSpace());
    }

    // The following need the space locked.
    TestBranch* NewBranch(bool isSubTree, const std::vector<TestBranch*>& children = {}) {
        return NewObject<TestBranch>(isSubTree, children);
    }
    TestBranch* Persist(TestBranch* branch) {
        m_ps->MakeObjectPersist(branch, true);
        return branch;
    }

    // A written subtree root of its own with `numParts` objects below it that are none.
    OID WrittenTree(int numParts) {
        const SpaceScope scope(m_ps);
        std::vector<TestBranch*> parts;
        for (int i = 0; i < numParts; ++i) parts.push_back(NewBranch(false));
        return GetOid(Persist(NewBranch(true, parts)));
    }
    std::vector<OID> WrittenTrees(int n, int numParts = 0) {
        std::vector<OID> oids;
        for (int i = 0; i < n; ++i) oids.push_back(WrittenTree(numParts));
        WriteSpace();
        return oids;
    }
    void Request(OID oid) {
        const SpaceScope scope(m_ps);
        m_ps->AsyncPermanentlyDeleteSubTree(m_ps->BindObject(oid));
    }
    void RequestOne(OID oid) {
        const SpaceScope scope(m_ps);
        m_ps->AsyncPermanentlyDeleteObject(m_ps->BindObject(oid));
    }
    // As the writer does for each member of a group; the image is written too.
    void Accumulate() {
        {
            const SpaceScope scope(m_ps);
            m_ps->m_dos.MarkAsDirty();
        }
        WriteSpace();
    }
    bool IsResident(OID oid) {
        const SpaceScope scope(m_ps);
        return static_cast<bool>(m_ps->BindObjectIfMemoryResident(oid));
    }
    static Texts Deletions(const Texts& log) {
        Texts deletions;
        for (const std::string& text : log)
            if (text.starts_with("delete ")) deletions.push_back(text);
        return deletions;
    }
    static Texts DeletionsOf(const std::vector<OID>& oids) {
        Texts deletions;
        for (const OID oid : oids) deletions.push_back(Delete(oid));
        return deletions;
    }
    Bytes Image() { return m_store.Element(DqOid()); }

    TestStore m_store;
    PSpace* m_ps = nullptr;
};

} // namespace quna
