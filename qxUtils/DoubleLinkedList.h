// The links of an element of an intrusive, doubly linked list.
#pragma once

namespace quna {

// A member of the element, one for each list that the element can be on. Both are null whenever the element is not on
// the list; they are also null for an element that is alone on it. Guarded by whatever guards the list.
template <class T>
struct ListPtrs {
    T* prev = nullptr;
    T* next = nullptr;
};

} // namespace quna
