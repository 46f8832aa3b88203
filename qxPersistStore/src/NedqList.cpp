#include "qxPersistStore/src/NedqList.h"

#include "qxPersistStore/src/DoubleLinkedList.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

namespace {

struct Texts {
    static constexpr ConstStringZ PATH = "src/DosWriter"; // the list is part of the writer
    static constexpr ConstStringZ NO_PREV = "!s->m_NedqListPtrs.prev";
    static constexpr ConstStringZ NO_NEXT = "!s->m_NedqListPtrs.next";
    static constexpr ConstStringZ LAST_HAS_NO_NEXT = "!m_last->m_NedqListPtrs.next";
    static constexpr ConstStringZ PREV_LINKS_TO_IT = "s->m_NedqListPtrs.prev->m_NedqListPtrs.next == s";
    static constexpr ConstStringZ NEXT_LINKS_TO_IT = "s->m_NedqListPtrs.next->m_NedqListPtrs.prev == s";
};

using List = DoubleLinkedList<&PSpace::m_NedqListPtrs, Texts>;

} // namespace

void NedqList::PushBack(PSpace* s) {
    const std::lock_guard lock(mutex_);
    List::PushBack(m_first, m_last, s);
}

void NedqList::Remove(PSpace* s) {
    const std::lock_guard lock(mutex_);
    List::Remove(m_first, m_last, s);
}

void NedqList::Clear() {
    const std::lock_guard lock(mutex_);
    List::Clear(m_first, m_last);
}

PSpace* NedqList::TryPopFront() {
    const std::lock_guard lock(mutex_);
    PSpace* s = m_first;
    if (s) List::Remove(m_first, m_last, s);
    return s;
}

bool NedqList::Contains(const PSpace* s) const {
    const std::lock_guard lock(mutex_);
    return s->m_NedqListPtrs.prev || s->m_NedqListPtrs.next || m_first == s;
}

} // namespace quna
