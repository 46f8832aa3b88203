// Evictable pointers: a pointer to an object that the collector may clear, because its holder can find the object again.
//
// Several threads that hold their domain's shared lock may bind one evictable pointer while others read it. So the two
// words are reached only through the functions here: the binder stores m_self, then m_table with release; a reader loads
// m_table with acquire, then m_self, and takes the pointer for bound only when both are set. Two binders store the same
// two words, since an object has one table for an interface and a holder names one object. On x86-64 all of it is plain
// moves.
//
// Addresses that are no multiple of 8 occur where references stand in packed records. Such words can tear: they are
// written under an exclusive lock only, and here they are copied byte by byte.
#pragma once

#include "qxObject/Interface.h"
#include "qxUtils/Assert.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace quna {

namespace evictable {

inline bool IsAligned(const void* word) noexcept {
    return (reinterpret_cast<std::uintptr_t>(word) & (sizeof(void*) - 1)) == 0;
}

// `word` is the address of a pointer of type `P`.
template <class P>
P LoadWord(const char* word, std::memory_order order) noexcept {
    if (IsAligned(word)) [[likely]]
        return std::atomic_ref<P>(*reinterpret_cast<P*>(const_cast<char*>(word))).load(order);
    P value;
    std::memcpy(&value, word, sizeof value);
    return value;
}

template <class P>
void StoreWord(char* word, P value, std::memory_order order) noexcept {
    if (IsAligned(word)) [[likely]]
        std::atomic_ref<P>(*reinterpret_cast<P*>(word)).store(value, order);
    else
        std::memcpy(word, &value, sizeof value);
}

inline constexpr std::size_t TABLE_OFFSET = sizeof(void*);
static_assert(sizeof(AnyInterface) == 2 * sizeof(void*));

} // namespace evictable

// Both words of the evictable pointer at `source`. The result may have one word null: then the pointer is not bound.
inline AnyInterface LoadEvictableWords(const AnyInterface* source) noexcept {
    const char* const bytes = reinterpret_cast<const char*>(source);
    const auto table =
        evictable::LoadWord<const FunctionPointer*>(bytes + evictable::TABLE_OFFSET, std::memory_order_acquire);
    return AnyInterface(evictable::LoadWord<void*>(bytes, std::memory_order_relaxed), table);
}

inline void StoreEvictableWords(AnyInterface* target, const AnyInterface& value) noexcept {
    char* const bytes = reinterpret_cast<char*>(target);
    evictable::StoreWord<void*>(bytes, value.m_self, std::memory_order_relaxed);
    evictable::StoreWord<const FunctionPointer*>(bytes + evictable::TABLE_OFFSET, value.m_table,
                                                 std::memory_order_release);
}

// Copies both words of `source` into `localVar`. True when the pointer is bound.
template <class T>
bool ReadEvictablePtr(ptr<T>& source, ptr<T>& localVar) noexcept {
    const AnyInterface words = LoadEvictableWords(&source);
    localVar = ptr<T>(words.m_self, words.m_table);
    return words.m_self && words.m_table;
}

// Stores both words of `localVar` into `target`. The class of an object never changes, so a pointer that has a table
// already must get the same one, or null.
template <class T>
void SetEvictablePtr(ptr<T>& target, ptr<T>& localVar) {
    const FunctionPointer* const tbl = LoadEvictableWords(&target).m_table;
    if (tbl && localVar.m_table) QX_ASSERT_IN("EvictablePtr", tbl == localVar.m_table);
    StoreEvictableWords(&target, localVar);
}

} // namespace quna
