#include "qxPersistStore/src/DirtyPSpaceList.h"

#include "qxPersistStore/src/DoubleLinkedList.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Tracer.h"

#include <exception>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/DirtyPSpaceList";

struct Texts {
    static constexpr ConstStringZ PATH = SOURCE_PATH;
    static constexpr ConstStringZ NO_PREV = "!s->m_DirtyPSpaceListPtrs.prev";
    static constexpr ConstStringZ NO_NEXT = "!s->m_DirtyPSpaceListPtrs.next";
    static constexpr ConstStringZ LAST_HAS_NO_NEXT = "!m_last->m_DirtyPSpaceListPtrs.next";
    static constexpr ConstStringZ PREV_LINKS_TO_IT = "s->m_DirtyPSpaceListPtrs.prev->m_DirtyPSpaceListPtrs.next == s";
    static constexpr ConstStringZ NEXT_LINKS_TO_IT = "s->m_DirtyPSpaceListPtrs.next->m_DirtyPSpaceListPtrs.prev == s";
};

using List = DoubleLinkedList<&PSpace::m_DirtyPSpaceListPtrs, Texts>;

} // namespace

DirtyPSpaceList::~DirtyPSpaceList() noexcept(false) {
    if (std::uncaught_exceptions() > 0) {
        if (m_first || m_last) TracerX() << "DirtyPSpaceList: *** ERROR : spaces are still on the list\n";
        return;
    }
    QX_ASSERT_TEXT(m_first == nullptr, "m_first == __null");
    QX_ASSERT_TEXT(m_last == nullptr, "m_last == __null");
}

void DirtyPSpaceList::PushBack(PSpace* s) {
    const std::lock_guard lock(mutex_);
    List::PushBack(m_first, m_last, s);
}

void DirtyPSpaceList::Remove(PSpace* s) {
    const std::lock_guard lock(mutex_);
    List::Remove(m_first, m_last, s);
}

void DirtyPSpaceList::Clear() {
    const std::lock_guard lock(mutex_);
    List::Clear(m_first, m_last);
}

PSpace* DirtyPSpaceList::TryPopFront() {
    const std::lock_guard lock(mutex_);
    PSpace* s = m_first;
    if (s) List::Remove(m_first, m_last, s);
    return s;
}

void DirtyPSpaceList::CopyIntoDeque(xdeque<PSpace*, 512>& out) const {
    const std::lock_guard lock(mutex_);
    for (PSpace* s = m_first; s; s = s->m_DirtyPSpaceListPtrs.next) out.push_back(s);
}

} // namespace quna
