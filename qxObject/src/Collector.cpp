#include "qxObject/src/Collector.h"

#include "qxObject/src/GcMarker.h"
#include "qxObject/src/ObjectClassName.h"
#include "qxObject/src/TouchClock.h"
#include "qxUtils/Assert.h"
#include "qxUtils/HPTime.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <vector>

namespace quna {

// A collection, all of it under one exclusive hold of the domain's lock:
//
//  1. Strong mark: roots, the domain's own objects and all that strong edges reach from them. Addresses of evictable
//     pointers met on the way are remembered, not followed.
//  2. Cache: when the budget decides, the remembered pointers are followed too, until nothing new turns up. If what that
//     adds is more than the budget, everything is unmarked, the strong part marked again, and the cached objects are
//     then taken most recently touched first, each with all that it holds strongly, up to 90% of the budget. (To mark
//     twice when the budget is exceeded is cheaper than to keep a list of all cached objects whenever it isn't.)
//  3. Dirty objects that nothing has reached yet are kept, with all they hold strongly.
//  4. The remembered pointers whose target goes are cleared.
//  5. OnGarbageCollect for every object that goes, while all of them still exist; then Destroy for every one.
//
// When everything was marked, 3 to 5 have nothing to do and are skipped: then no header is read a second time.
//
// An object that only evictable pointers reach has an identity by which it can be loaded again; nothing else is held by
// an evictable pointer. So the collector needs no knowledge of identities.

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/Collector";

constexpr int DIRTY_FLAG = 2;         // of objflags_: changes not yet written; set by the store
constexpr int EVICTED_FLAG = 1 << 30; // of objflags_ of a going object: an evictable pointer named it
constexpr ssize_t KEEP_OF_BUDGET_PERCENT = 90;
constexpr int64 HPTIME_TICKS_PER_MICROSEC = 10;
constexpr ssize_t PREFETCH_AHEAD = 16;

// A cached object as a candidate for staying. Fewer ticks since its last use sort first.
struct CacheEntry {
    uint32 age;
    uint32 size; // clamped; bytes
    ptr<IObject> object;
};

// The first failure among many calls that all have to be made.
class FirstFailure {
public:
    // Call inside a catch block.
    void Note(const ReflectedClass* rc) {
        ++m_count;
        if (m_text.empty())
            m_text = std::string("Destroy of an object of class ") + ObjectClassName(rc) +
                     " threw: " + CurrentExceptionText();
    }
    void Raise() const {
        if (m_count > 0) ThrowQunaAssertionError(m_text.c_str(), SOURCE_PATH, __LINE__);
    }

private:
    static std::string CurrentExceptionText() {
        try {
            throw;
        } catch (const std::exception& e) {
            return e.what();
        } catch (...) {
            return "an exception that is no std::exception";
        }
    }

    ssize_t m_count = 0;
    std::string m_text;
};

void DestroyObject(ptr<IObject> object, FirstFailure& failure) {
    const ReflectedClass* const rc = object->GetReflectedClass();
    try {
        object->Destroy();
    } catch (...) {
        failure.Note(rc);
    }
}

// A sum that stands for "without limit" where it doesn't fit.
ssize_t SaturatedSum(ssize_t x, ssize_t y) { return x > SSIZE_MAX - y ? SSIZE_MAX : x + y; }

class ScopedFlag {
public:
    explicit ScopedFlag(bool& flag) : m_flag(flag) { m_flag = true; }
    ScopedFlag(const ScopedFlag&) = delete;
    ScopedFlag& operator=(const ScopedFlag&) = delete;
    ~ScopedFlag() { m_flag = false; }

private:
    bool& m_flag;
};

} // namespace

// What a collection has chosen to end.
struct Collector::Going {
    PageSequence<ssize_t> candidates; // places in the list of what was unmarked; the dirty among them are marked by now
    ObjectPages objects;
    ssize_t bytes = 0;
    ssize_t numEvicted = 0;
};

void Collector::Collect(EGcCache cache) {
    QX_ASSERT(!m_collecting);
    const ScopedFlag collecting(m_collecting);
    const HPTime start = HPTime::GetCurrentTime();
    AdvanceTouchClock();

    GcMarker marker(m_cspace, m_objects.MarkValue());
    Going going;
    try {
        MarkAll(marker, cache);
        FindGoing(marker, going);
    } catch (...) {
        UnmarkAll(marker);
        throw;
    }
    m_objects.FlipMarkValue();
    RemoveFromList(marker, going);

    const ssize_t numGoing = going.objects.Size();
    try {
        for (ssize_t i = 0; i < numGoing; ++i) going.objects[i]->OnGarbageCollect();
    } catch (...) {
        PutBack(going);
        throw;
    }
    m_objects.AddBytes(-going.bytes);
    FirstFailure failure;
    for (ssize_t i = 0; i < numGoing; ++i) {
        if (i + PREFETCH_AHEAD < numGoing) __builtin_prefetch(going.objects[i + PREFETCH_AHEAD].m_self);
        DestroyObject(going.objects[i], failure);
    }
    NoteCollection(marker, going, (HPTime::GetCurrentTime() - start) / HPTIME_TICKS_PER_MICROSEC);
    failure.Raise();
}

void Collector::MarkAll(GcMarker& marker, EGcCache cache) {
    MarkRoots(marker);
    if (cache == EGcCache::LetGo) return;
    const ssize_t budget = m_budget.load(std::memory_order_relaxed);
    const ssize_t strongBytes = marker.BytesMarked();
    MarkCache(marker);
    if (marker.BytesMarked() - strongBytes <= budget) return;

    UnmarkAll(marker);
    marker.StopRemembering();
    marker.ResetFigures();
    MarkRoots(marker);
    MarkMostRecentlyUsed(marker, budget / 100 * KEEP_OF_BUDGET_PERCENT + budget % 100 * KEEP_OF_BUDGET_PERCENT / 100);
}

void Collector::MarkRoots(GcMarker& marker) {
    ObjectPages& own = m_objects.OwnObjects();
    for (ssize_t i = 0; i < own.Size(); ++i) marker.VisitObject(own[i]);
    for (const auto& [self, root] : m_objects.Roots()) {
        // A root need not be an object of the domain: one that is in none lives elsewhere, and its edges count.
        if (root->GetSysState().m_cspace)
            marker.VisitObject(root);
        else
            root->VisitObjects(marker);
    }
    marker.Drain();
}

void Collector::MarkCache(GcMarker& marker) {
    for (ssize_t i = 0; i < marker.NumEvictable();) {
        // In batches, so that the marker's look-ahead has something to look at.
        const ssize_t end = marker.NumEvictable();
        for (; i < end; ++i) {
            if (i + PREFETCH_AHEAD < end) __builtin_prefetch(marker.Evictable(i + PREFETCH_AHEAD));
            marker.VisitObject(AsIObject(LoadEvictableWords(marker.Evictable(i))));
        }
        marker.Drain();
    }
}

// Requires: the strong part is marked, nothing else is; every evictable pointer of the domain is remembered.
void Collector::MarkMostRecentlyUsed(GcMarker& marker, ssize_t limit) {
    std::vector<CacheEntry> cached;
    const int32 now = g_touchClock.load(std::memory_order_relaxed);
    for (ssize_t i = 0; i < marker.NumEvictable(); ++i) {
        const ptr<IObject> target = marker.EvictableTarget(i);
        if (!target) continue;
        ObjSysState& state = target->GetSysState();
        if (marker.IsMarked(state)) continue;
        marker.SetMarked(state, true); // so that each is taken once; undone below
        const uint32 age = static_cast<uint32>(now) - static_cast<uint32>(state.GetLastTouchedTime());
        cached.push_back({age, static_cast<uint32>(std::clamp<ssize_t>(EvictorSize(state), 0, UINT32_MAX)), target});
    }
    for (std::size_t i = 0; i < cached.size(); ++i) {
        if (i + PREFETCH_AHEAD < cached.size()) __builtin_prefetch(cached[i + PREFETCH_AHEAD].object.m_self, 1);
        marker.SetMarked(cached[i].object->GetSysState(), false);
    }
    std::sort(cached.begin(), cached.end(), [](const CacheEntry& x, const CacheEntry& y) { return x.age < y.age; });

    const ssize_t strongBytes = marker.BytesMarked();
    for (const CacheEntry& entry : cached) {
        if (marker.BytesMarked() - strongBytes + entry.size > limit) return;
        marker.VisitObject(entry.object);
        marker.Drain();
    }
}

void Collector::UnmarkAll(const GcMarker& marker) noexcept {
    for (ObjectPages* const pages : {&m_objects.Objects(), &m_objects.OwnObjects()}) {
        for (ssize_t i = 0; i < pages->Size(); ++i) {
            if (i + PREFETCH_AHEAD < pages->Size()) __builtin_prefetch((*pages)[i + PREFETCH_AHEAD].m_self, 1);
            marker.SetMarked((*pages)[i]->GetSysState(), false);
        }
    }
}

// Steps 3 and 4: settles which objects go, and clears the pointers to them. The list is not changed yet.
void Collector::FindGoing(GcMarker& marker, Going& going) {
    ObjectPages& objects = m_objects.Objects();
    const ssize_t count = objects.Size();
    if (marker.NumMarked() == m_objects.Count()) return;
    marker.ResumeRemembering(); // a dirty object that nothing reached is walked here for the first time
    for (ssize_t i = 0; i < count; ++i) {
        if (i + PREFETCH_AHEAD < count) __builtin_prefetch(objects[i + PREFETCH_AHEAD].m_self);
        const ObjSysState& state = objects[i]->GetSysState();
        if (marker.IsMarked(state)) continue;
        going.candidates.Push(i);
        if (state.GetFlag(DIRTY_FLAG)) marker.VisitObject(objects[i]);
    }
    marker.Drain();
    going.objects.Reserve(going.candidates.Size());
    for (ssize_t i = 0; i < marker.NumEvictable(); ++i) {
        const ptr<IObject> target = marker.EvictableTarget(i);
        if (!target || marker.IsMarked(target->GetSysState())) continue;
        target->GetSysState().SetFlag(EVICTED_FLAG);
        StoreEvictableWords(marker.Evictable(i), null);
    }
}

// Closes the gaps in the list by moving entries, without a look at the objects that stay.
void Collector::RemoveFromList(const GcMarker& marker, Going& going) noexcept {
    ObjectPages& objects = m_objects.Objects();
    const ssize_t numCandidates = going.candidates.Size();
    if (numCandidates == 0) return;
    ssize_t write = going.candidates[0];
    for (ssize_t k = 0; k < numCandidates; ++k) {
        const ssize_t place = going.candidates[k];
        const ssize_t next = k + 1 < numCandidates ? going.candidates[k + 1] : objects.Size();
        const ptr<IObject> object = objects[place];
        ObjSysState& state = object->GetSysState();
        if (marker.IsMarked(state)) {
            objects.Set(write++, object);
        } else {
            going.bytes += EvictorSize(state);
            if (state.GetFlag(EVICTED_FLAG)) ++going.numEvicted;
            going.objects.Append(object);
        }
        for (ssize_t i = place + 1; i < next; ++i) objects.Set(write++, objects[i]);
    }
    objects.Shrink(write);
    m_objects.UpdateCount();
}

void Collector::PutBack(const Going& going) {
    ObjectPages& objects = m_objects.Objects();
    objects.Reserve(going.objects.Size());
    for (ssize_t i = 0; i < going.objects.Size(); ++i) {
        ObjSysState& state = going.objects[i]->GetSysState();
        state.marked_ = !m_objects.MarkValue();
        state.ClearFlag(EVICTED_FLAG);
        objects.Append(going.objects[i]);
    }
    m_objects.UpdateCount();
}

void Collector::NoteCollection(const GcMarker& marker, const Going& going, int64 pauseMicros) {
    const ssize_t bytes = m_objects.Bytes();
    const ssize_t budget = m_budget.load(std::memory_order_relaxed);
    std::lock_guard guard(m_mutex);
    m_pressureThreshold.store(SaturatedSum(std::max(bytes, budget), budget / 4), std::memory_order_relaxed);
    ++m_stats.collections;
    m_stats.lastPauseMicros = pauseMicros;
    m_stats.longestPauseMicros = std::max(m_stats.longestPauseMicros, pauseMicros);
    m_stats.objectsMarked = marker.NumMarked();
    m_stats.objectsReclaimed += going.objects.Size();
    m_stats.objectsEvicted += going.numEvicted;
}

void Collector::DestroyAll() {
    QX_ASSERT(!m_collecting);
    const ScopedFlag collecting(m_collecting);
    FirstFailure failure;
    std::exception_ptr thrown;
    // A hook may still register an object.
    while (m_objects.Objects().Size() + m_objects.OwnObjects().Size() > 0) {
        const ssize_t numObjects = m_objects.Objects().Size();
        const ssize_t numOwn = m_objects.OwnObjects().Size();
        ObjectPages objects = std::move(m_objects.Objects());
        ObjectPages own = std::move(m_objects.OwnObjects());
        m_objects.Objects() = ObjectPages();
        m_objects.OwnObjects() = ObjectPages();
        m_objects.UpdateCount();
        const auto forAll = [&](const auto& act) {
            for (ssize_t i = 0; i < numObjects; ++i) act(objects[i]);
            for (ssize_t i = 0; i < numOwn; ++i) act(own[i]);
        };
        forAll([&](ptr<IObject> object) {
            try {
                object->OnGarbageCollect();
            } catch (...) {
                if (!thrown) thrown = std::current_exception();
            }
        });
        forAll([&](ptr<IObject> object) { DestroyObject(object, failure); });
    }
    if (thrown) std::rethrow_exception(thrown);
    failure.Raise();
}

void Collector::SetBudget(ssize_t bytes) {
    QX_ASSERT(bytes >= 0);
    std::lock_guard guard(m_mutex);
    m_budget.store(bytes, std::memory_order_relaxed);
    m_pressureThreshold.store(SaturatedSum(bytes, bytes / 4), std::memory_order_relaxed);
}

CSpaceGcStats Collector::GetStats() const {
    CSpaceGcStats stats;
    {
        std::lock_guard guard(m_mutex);
        stats = m_stats;
    }
    stats.bytesResident = m_objects.Bytes();
    return stats;
}

} // namespace quna
