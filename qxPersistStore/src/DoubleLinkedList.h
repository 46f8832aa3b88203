// The steps of an intrusive, doubly linked list of spaces. DirtyPSpaceList and NedqList share them; what differs is
// the member of PSpace that holds the links, and so the texts of the assertions.
#pragma once

#include "qxPersistStore/src/PSpace.h"
#include "qxUtils/Assert.h"
#include "qxUtils/DoubleLinkedList.h"

namespace quna {

// `Texts` names the path and the texts that mention the links.
template <ListPtrs<PSpace> PSpace::*LINKS, class Texts>
struct DoubleLinkedList {
    static constexpr ConstStringZ SOURCE_PATH = Texts::PATH;

    // `s` is not on the list. That it is the only element cannot be seen here.
    static void PushBack(PSpace*& m_first, PSpace*& m_last, PSpace* s) {
        QX_ASSERT(s);
        QX_ASSERT_TEXT(!(s->*LINKS).prev, Texts::NO_PREV);
        QX_ASSERT_TEXT(!(s->*LINKS).next, Texts::NO_NEXT);
        if (m_last) {
            QX_ASSERT(m_first);
            QX_ASSERT_TEXT(!(m_last->*LINKS).next, Texts::LAST_HAS_NO_NEXT);
            (m_last->*LINKS).next = s;
            (s->*LINKS).prev = m_last;
        } else {
            QX_ASSERT(!m_first);
            m_first = s;
        }
        m_last = s;
    }

    // `s` is on the list. Nothing is changed when a check fails.
    static void Remove(PSpace*& m_first, PSpace*& m_last, PSpace* s) {
        QX_ASSERT(s);
        PSpace* const prev = (s->*LINKS).prev;
        PSpace* const next = (s->*LINKS).next;
        if (prev)
            QX_ASSERT_TEXT((prev->*LINKS).next == s, Texts::PREV_LINKS_TO_IT);
        else
            QX_ASSERT(m_first == s);
        if (next)
            QX_ASSERT_TEXT((next->*LINKS).prev == s, Texts::NEXT_LINKS_TO_IT);
        else
            QX_ASSERT(m_last == s);
        (prev ? (prev->*LINKS).next : m_first) = next;
        (next ? (next->*LINKS).prev : m_last) = prev;
        s->*LINKS = ListPtrs<PSpace>();
    }

    static void Clear(PSpace*& m_first, PSpace*& m_last) {
        for (PSpace* s = m_first; s;) {
            PSpace* const next = (s->*LINKS).next;
            s->*LINKS = ListPtrs<PSpace>();
            s = next;
        }
        m_first = nullptr;
        m_last = nullptr;
    }
};

} // namespace quna
