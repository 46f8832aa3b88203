// A space whose loads a test can hold up, and a handler that answers as it is told.
#pragma once

#include "qxObject/DGWatcher.h"
#include "qxPersistStore/src/DGIndepNodeForAsyncPref.h"
#include "tests/support/TestStore.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

// Stands in front of reading an element. Elements that are held wait until they are released.
class ReadGate {
public:
    void Pass(Seid seid) {
        std::unique_lock lock(m_mutex);
        ++m_numReads[seid];
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_held.count(seid) == 0; });
    }
    void Hold(Seid seid) {
        const std::lock_guard lock(m_mutex);
        m_held.insert(seid);
    }
    void Release(Seid seid) {
        const std::lock_guard lock(m_mutex);
        m_held.erase(seid);
        m_changed.notify_all();
    }
    void ReleaseAll() {
        const std::lock_guard lock(m_mutex);
        m_held.clear();
        m_changed.notify_all();
    }
    // Waits until somebody has begun to read the element.
    void AwaitRead(Seid seid) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_numReads.count(seid) > 0; });
    }
    int NumReads(Seid seid) {
        const std::lock_guard lock(m_mutex);
        const auto i = m_numReads.find(seid);
        return i == m_numReads.end() ? 0 : i->second;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::set<Seid> m_held;
    std::map<Seid, int> m_numReads;
};

// Answers DoesNotExist unless told otherwise.
struct AnsweringHandler {
    MAsyncBind BeginAsyncBindRequest(OID oid) {
        ++m_numBegun;
        return m_onBegin ? m_onBegin(oid) : MAsyncBind();
    }
    void EndAsyncBindRequest(OID oid) {
        ++m_numEnded;
        if (m_onEnd) m_onEnd(oid);
    }

    std::function<MAsyncBind(OID)> m_onBegin;
    std::function<void(OID)> m_onEnd;
    std::atomic<int> m_numBegun{0};
    std::atomic<int> m_numEnded{0};
};

inline MAsyncBind BindAnswer(EAsyncBindResult result, ptr<IPersistable> po = null) {
    MAsyncBind bind;
    bind.result = result;
    bind.po = po;
    return bind;
}

class GatedSpaceFixture : public ::testing::Test {
protected:
    GatedSpaceFixture() : m_ps(m_store.OpenSpace("s")) {
        m_store.Record().m_onRead = [this](Seid seid) {
            m_gate.Pass(seid);
            if (m_onRead) m_onRead(seid);
        };
    }
    ~GatedSpaceFixture() override { m_gate.ReleaseAll(); }

    // A clean object on disk that nothing keeps in memory.
    OID StoredLeaf(int32 number, PSpace* ps = nullptr) {
        if (!ps) ps = m_ps;
        OID oid;
        {
            const SpaceScope scope(ps);
            TestLeaf* const leaf = NewObject<TestLeaf>(number);
            ps->MakeObjectPersist(leaf, false);
            oid = GetOid(leaf);
        }
        ps->WriteDirtyObjectsToLss(false);
        SynchronousGc(ps->GetCSpace());
        return oid;
    }
    // An identifier under which nothing was written.
    OID Missing() {
        const SpaceScope scope(m_ps);
        return m_ps->AllocateOid(1, false);
    }
    void SetHandler(AnsweringHandler* handler) {
        const SpaceScope scope(m_ps);
        m_ps->SetAsyncBindRequestHandler(handler);
    }
    MAsyncBind Ask(OID oid, ECSpaceLockMode mode = Exclusive) {
        const SpaceScope scope(m_ps, mode);
        return m_ps->AsyncBind2(oid);
    }
    // Asks again whenever there is news, until the answer is other than Pending.
    MAsyncBind AwaitAnswer(OID oid, PSpace* ps = nullptr, ECSpaceLockMode mode = Exclusive) {
        if (!ps) ps = m_ps;
        DGWatchQueue news;
        const DGWatcher watcher(
            "test", [] {}, news);
        for (;;) {
            {
                const SpaceScope scope(ps, mode);
                const MAsyncBind bind = watcher.Watch([&] { return ps->AsyncBind2(oid); });
                if (bind.result != EAsyncBindResult::Pending) return bind;
            }
            EXPECT_TRUE(news.Wait(60'000)) << "no news of " << TextOfSeid(oid);
            news.Deliver();
        }
    }
    // Returns when every load that was asked for before is over. The caller may hold the lock.
    void AwaitLoadThread() {
        const SpaceScope scope(m_ps);
        const OID marker = m_ps->AllocateOid(1, true);
        m_ps->AsyncBind2(marker);
        m_gate.AwaitRead(marker);
    }
    void EvictNodes() {
        const SpaceScope scope(m_ps);
        EvictAllDgsNodes(m_ps->GetCSpace());
    }

    ReadGate m_gate;
    std::function<void(Seid)> m_onRead; // behind the gate; may throw
    TestStore m_store;
    PSpace* m_ps;
};

inline int32 LeafNumber(ptr<IPersistable> po) { return static_cast<TestLeaf*>(po.m_self)->m_number; }

} // namespace quna
