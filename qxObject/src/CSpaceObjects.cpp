#include "qxObject/src/CSpaceObjects.h"

#include "qxObject/CSpace.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CSpace";

} // namespace

void ObjectPages::AddPage() { m_pages.push_back(std::make_unique<Page>()); }

void ObjectPages::Reserve(ssize_t count) {
    while (m_size + count > static_cast<ssize_t>(m_pages.size()) * PAGE_ENTRIES) AddPage();
}

void ObjectPages::Shrink(ssize_t size) noexcept {
    m_size = size;
    m_pages.resize(static_cast<std::size_t>((size + PAGE_ENTRIES - 1) / PAGE_ENTRIES));
}

// Under an exclusive lock nobody else is here; the mutex is for the others.
void CSpaceObjects::Register(ptr<IObject> object) {
    std::unique_lock guard(m_mutex, std::defer_lock);
    if (!HaveExclusiveLock(&m_cspace)) guard.lock();
    Adopt(object);
    m_objects.Append(object);
    UpdateCount();
}

void CSpaceObjects::RegisterOwn(ptr<IObject> object) {
    std::unique_lock guard(m_mutex, std::defer_lock);
    if (!HaveExclusiveLock(&m_cspace)) guard.lock();
    m_own.Reserve(1);
    if (object->GetSysState().m_cspace == &m_cspace) {
        QX_ASSERT(HaveExclusiveLock(&m_cspace));
        if (!TakeOffList(object)) return;
    } else {
        Adopt(object);
    }
    m_own.Append(object);
    UpdateCount();
}

void CSpaceObjects::Adopt(ptr<IObject> object) {
    ObjSysState& state = object->GetSysState();
    QX_ASSERT(!state.m_cspace);
    m_objects.Reserve(1);
    state.m_cspace = &m_cspace;
    state.marked_ = !m_markValue;
    state.SetLastTouchedTime(g_touchClock.load(std::memory_order_relaxed));
    if (const ssize_t size = EvictorSize(state); size != 0) AddBytes(size); // a new object has none yet
}

// The object is usually the newest.
bool CSpaceObjects::TakeOffList(ptr<IObject> object) {
    for (ssize_t i = m_objects.Size() - 1; i >= 0; --i) {
        if (m_objects[i].m_self != object.m_self) continue;
        m_objects.Set(i, m_objects[m_objects.Size() - 1]);
        m_objects.Shrink(m_objects.Size() - 1);
        return true;
    }
    return false;
}

void CSpaceObjects::AddRoot(ptr<const IObject> object) {
    std::lock_guard guard(m_mutex);
    m_roots.emplace(object.m_self, object);
}

void CSpaceObjects::RemoveRoot(ptr<const IObject> object) {
    std::lock_guard guard(m_mutex);
    m_roots.erase(object.m_self);
}

void CSpaceObjects::TransferFrom(CSpaceObjects& from) {
    const ssize_t count = from.m_objects.Size();
    m_objects.Reserve(count);
    m_roots.reserve(m_roots.size() + from.m_roots.size());
    ssize_t bytes = 0;
    for (ssize_t i = 0; i < count; ++i) {
        const ptr<IObject> object = from.m_objects[i];
        ObjSysState& state = object->GetSysState();
        state.m_cspace = &m_cspace;
        state.marked_ = !m_markValue;
        bytes += EvictorSize(state);
        m_objects.Append(object);
    }
    from.m_objects.Shrink(0);
    from.UpdateCount();
    UpdateCount();
    from.AddBytes(-bytes);
    AddBytes(bytes);
    for (auto i = from.m_roots.begin(); i != from.m_roots.end();) {
        const auto next = std::next(i);
        if (i->second->GetSysState().m_cspace == &m_cspace) m_roots.insert(from.m_roots.extract(i));
        i = next;
    }
}

} // namespace quna
