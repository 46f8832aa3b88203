// What the tests of asynchronous binding have in common.
#pragma once

#include "qxObject/DGDepNode.h"
#include "qxPersistStore/MAsyncBind.h"
#include "qxUtils/Event.h"
#include "tests/support/HoldingLss.h"
#include "tests/support/TestStore.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

inline std::ostream& operator<<(std::ostream& os, EAsyncBindResult result) {
    static constexpr ConstStringZ NAMES[] = {"Bound", "Pending", "DoesNotExist", "NotHandled"};
    return os << NAMES[static_cast<int32>(result)];
}

// An application's calculation that reads one object without blocking: it is told when its answer is out of date.
class AsyncReader : public DGDepNode {
public:
    AsyncReader(PSpace* ps, OID oid) : m_ps(ps), m_oid(oid) {}
    // A change may be under way on another thread.
    ~AsyncReader() noexcept(false) override { Detach(); }

    // The space is locked in any mode, and current.
    MAsyncBind Read() {
        m_changed.Reset();
        DGCalculation calculation(*this);
        const MAsyncBind answer = m_ps->AsyncBind2(m_oid);
        m_version = calculation.Finish();
        return answer;
    }
    bool IsStale() const { return m_version != Version(); }
    int NumChanges() const { return m_numChanges; }
    // No lock is held. Whoever made the change may still have the space locked.
    void WaitForChange() { m_changed.Wait(); }

    void OnEvict() const override {}
    xstring Name() const override { return "AsyncReader"; }
    void VisitContainingObject(IObjectVisitor&) const override {}
    void OnInvalidate() const override {
        ++m_numChanges;
        if (m_onChange) m_onChange();
        m_changed.Signal();
    }

    // Called in the middle of the change, under the lock of the thread that makes it.
    std::function<void()> m_onChange;

private:
    PSpace* const m_ps;
    const OID m_oid;
    uint64 m_version = 0;
    mutable std::atomic<int> m_numChanges{0};
    mutable ManualResetEvent m_changed;
};

// An application's handler, which does as it is told and notes what it was asked. It does not deal with an OID that it
// was told nothing about.
class TestHandler {
public:
    explicit TestHandler(PSpace* ps) : m_ps(ps) {}

    void Answer(OID oid, EAsyncBindResult result) {
        Answer(oid, [result](OID) { return MAsyncBind{result, null}; });
    }
    void Answer(OID oid, std::function<MAsyncBind(OID)> answer) {
        const std::lock_guard lock(m_mutex);
        m_answers[oid] = std::move(answer);
    }
    // Called at the end of every request.
    std::function<void(OID)> m_onEnd;

    int NumBegins(OID oid) const { return Count(m_numBegins, oid); }
    int NumEnds(OID oid) const { return Count(m_numEnds, oid); }
    void WaitForBegins(OID oid, int n) { WaitFor(m_numBegins, oid, n); }
    void WaitForEnds(OID oid, int n) { WaitFor(m_numEnds, oid, n); }
    std::thread::id ThreadOfLastEnd() const {
        const std::lock_guard lock(m_mutex);
        return m_threadOfLastEnd;
    }

    MAsyncBind BeginAsyncBindRequest(OID oid) {
        CheckContext();
        std::function<MAsyncBind(OID)> answer;
        {
            const std::lock_guard lock(m_mutex);
            ++m_numBegins[oid];
            const auto i = m_answers.find(oid);
            if (i != m_answers.end()) answer = i->second;
        }
        m_called.notify_all();
        return answer ? answer(oid) : MAsyncBind{EAsyncBindResult::NotHandled, null};
    }
    void EndAsyncBindRequest(OID oid) {
        CheckContext();
        {
            const std::lock_guard lock(m_mutex);
            ++m_numEnds[oid];
            m_threadOfLastEnd = std::this_thread::get_id();
        }
        m_called.notify_all();
        if (m_onEnd) m_onEnd(oid);
    }

private:
    void CheckContext() const {
        EXPECT_TRUE(m_ps->HaveReadOrWriteAccess());
        EXPECT_EQ(m_ps, GetThreadPSpace());
        EXPECT_EQ(m_ps->GetCSpace(), GetThreadCSpace());
    }
    int Count(const std::map<OID, int>& counts, OID oid) const {
        const std::lock_guard lock(m_mutex);
        const auto i = counts.find(oid);
        return i == counts.end() ? 0 : i->second;
    }
    void WaitFor(const std::map<OID, int>& counts, OID oid, int n) {
        std::unique_lock lock(m_mutex);
        m_called.wait(lock, [&] {
            const auto i = counts.find(oid);
            return i != counts.end() && i->second >= n;
        });
    }

    PSpace* const m_ps;
    mutable std::mutex m_mutex; // leaf lock; guards all below
    std::condition_variable m_called;
    std::map<OID, std::function<MAsyncBind(OID)>> m_answers;
    std::map<OID, int> m_numBegins;
    std::map<OID, int> m_numEnds;
    std::thread::id m_threadOfLastEnd;
};

// A store with a space whose asynchronous loads a test holds and releases. At its end it checks that nothing was left
// behind: no object, no open element.
class AsyncBindFixture : public ::testing::Test {
protected:
    AsyncBindFixture() {
        m_lss = std::make_unique<HoldingLss>(m_store->m_lss);
        m_store->m_lss = m_lss.get();
        m_ps = OpenSpace("s");
        m_barrier = OpenSpace("barrier");
        m_handler = std::make_unique<TestHandler>(m_ps);
    }
    void TearDown() override {
        m_lss->ReleaseAll();
        m_store.Close();
        EXPECT_EQ(m_numLeavesBefore, TestLeaf::s_numLive);
        EXPECT_EQ(0, m_lss->NumOpenElements());
    }

    PSpace* OpenSpace(ConstStringZ name) {
        PSpace* const ps = m_store.OpenSpace(name);
        SetMilliSecsPerGc(ps->GetCSpace(), 3600 * 1000); // a test says itself when objects are collected
        return ps;
    }
    ROT& Table() { return m_ps->rot_; }
    CSpace* Domain() { return m_ps->GetCSpace(); }
    int NumLeaves() const { return TestLeaf::s_numLive - m_numLeavesBefore; }

    // Written leaves that are not in memory. Their numbers are `first`, first + step ...
    std::vector<OID> StoredLeaves(PSpace* ps, int n, int32 first = 1, int32 step = 1) {
        std::vector<OID> oids;
        {
            const SpaceScope scope(ps);
            for (int i = 0; i < n; ++i) {
                TestLeaf* const leaf = NewObject<TestLeaf>(first + i * step);
                ps->MakeObjectPersist(leaf, false);
                oids.push_back(GetOid(leaf));
            }
        }
        ps->WriteDirtyObjectsToLss(false);
        Collect(ps);
        return oids;
    }
    OID StoredLeaf(int32 number = 1) { return StoredLeaves(m_ps, 1, number).front(); }
    // An OID under which the store holds nothing.
    OID MissingOid(PSpace* ps) {
        const SpaceScope scope(ps);
        return ps->AllocateOid(1, false);
    }
    OID MissingOid() { return MissingOid(m_ps); }
    void PutLeaf(OID oid, int8 number) {
        PutElement(*m_lss, oid,
                   Bytes{static_cast<octet_t>(m_store->GetCid(GetReflectedClass<TestLeaf>())), 1,
                         static_cast<octet_t>(number), 0, 0, 0, 0});
    }
    void Collect(PSpace* ps) {
        const SpaceScope scope(ps);
        SynchronousGc(ps->GetCSpace());
    }
    void SetHandler() {
        const SpaceScope scope(m_ps);
        m_ps->SetAsyncBindRequestHandler(m_handler.get());
    }

    MAsyncBind Bind(OID oid) {
        const SpaceScope scope(m_ps);
        return m_ps->AsyncBind2(oid);
    }
    EAsyncBindResult Ask(OID oid) { return Bind(oid).result; }
    // The number of the resident leaf, or 0.
    int32 NumberOf(OID oid) {
        const SpaceScope scope(m_ps);
        const auto* const leaf = static_cast<const TestLeaf*>(Table().FindResidentObject(oid).m_self);
        return leaf ? leaf->m_number : 0;
    }
    void EvictNodes() {
        const SpaceScope scope(m_ps);
        EvictAllDgsNodes(Domain());
    }

    // Holds the load thread itself; what is bound from now on waits in its queue. No element may be held.
    void HoldLoadThread() {
        m_barrierOid = MissingOid(m_barrier);
        m_lss->HoldOpen(m_barrierOid);
        const SpaceScope scope(m_barrier);
        m_barrier->AsyncBind2(m_barrierOid);
        m_lss->WaitUntilHeld(m_barrierOid);
    }
    void ReleaseLoadThread() { m_lss->Release(m_barrierOid); }
    // Waits until the load thread has ended every job that was queued so far. The caller may hold any lock.
    void WaitForLoads() {
        HoldLoadThread();
        ReleaseLoadThread();
    }
    // Waits until what was bound in the space so far is in its table, if it exists. The caller holds no lock, and no
    // load is held. It leaves a placeholder behind, for an OID of its own.
    void WaitForUpdates(PSpace* ps) {
        AsyncReader reader(ps, MissingOid(ps));
        {
            const SpaceScope scope(ps);
            EXPECT_EQ(EAsyncBindResult::Pending, reader.Read().result);
        }
        reader.WaitForChange();
        const SpaceScope scope(ps); // the last update has ended
    }
    void WaitForUpdates() { WaitForUpdates(m_ps); }
    // Waits until no placeholder is left. The caller holds no lock.
    void EndAllPlaceholders() {
        m_lss->ReleaseAll();
        EvictNodes();
        Table().Close();
    }

    const int m_numLeavesBefore = TestLeaf::s_numLive;
    std::unique_ptr<HoldingLss> m_lss;      // outlives the store
    std::unique_ptr<TestHandler> m_handler; // outlives the space
    TestStore m_store;
    PSpace* m_ps;
    PSpace* m_barrier; // another space, for HoldLoadThread
    OID m_barrierOid;
};

} // namespace quna
