// Interface values: a self pointer and a pointer to a table of plain functions.
//
// An interface `I` is a struct with the two fields `m_self` and `m_table` (`const I::FnTable*`), members that forward to
// the table, and `CoerceFrom<C>(C*)`, which makes a value from an object of a class that implements it. The table of an
// interface that extends another derives from the other's table. `ptr<I>` is the pointer to an object seen through `I`:
// the same two words with the table's type forgotten, so that a pointer of any interface can be kept, compared and
// cleared in place as an `AnyInterface`.
//
// A pointer owns nothing and counts nothing; the collector of the object's domain ends the object.
#pragma once

#include "qxUtils/Export.h"

#include <concepts>
#include <cstddef>
#include <type_traits>

namespace quna {

struct ReflectedInterface;

// The type under which the address of a table is kept when its interface is not known. A table is never read through
// it: every reader casts the address back to the type of table it was made from, or to a base of that type.
using FunctionPointer = void (*)();

// The type of `null`, which converts to any `ptr`.
struct NullInterface {};

inline constexpr NullInterface null{};

// The untyped interface value. Null when `m_self` is null.
struct AnyInterface {
    constexpr AnyInterface() noexcept = default;
    constexpr AnyInterface(NullInterface) noexcept {}
    constexpr AnyInterface(std::nullptr_t) noexcept {}
    constexpr AnyInterface(void* self, const FunctionPointer* table) noexcept : m_self(self), m_table(table) {}

    constexpr explicit operator bool() const noexcept { return m_self != nullptr; }

    // Two values are equal when they are the same object, through whatever interface each sees it.
    friend constexpr bool operator==(const AnyInterface& a, const AnyInterface& b) noexcept {
        return a.m_self == b.m_self;
    }

    void* m_self = nullptr;
    const FunctionPointer* m_table = nullptr;
};

// The same for an object that may only be read.
struct AnyConstInterface {
    constexpr AnyConstInterface() noexcept = default;
    constexpr AnyConstInterface(NullInterface) noexcept {}
    constexpr AnyConstInterface(std::nullptr_t) noexcept {}
    constexpr AnyConstInterface(const void* self, const FunctionPointer* table) noexcept
        : m_self(self), m_table(table) {}
    constexpr AnyConstInterface(const AnyInterface& a) noexcept : m_self(a.m_self), m_table(a.m_table) {}

    constexpr explicit operator bool() const noexcept { return m_self != nullptr; }

    friend constexpr bool operator==(const AnyConstInterface& a, const AnyConstInterface& b) noexcept {
        return a.m_self == b.m_self;
    }

    const void* m_self = nullptr;
    const FunctionPointer* m_table = nullptr;
};

// A class whose objects `I::CoerceFrom` accepts.
template <class C, class I>
concept Implements = requires(C* object) {
    { I::template CoerceFrom<C>(object) } -> std::same_as<I>;
};

// `Derived` is `Base` itself or an interface that extends it.
template <class Derived, class Base>
concept ExtendsInterface = std::derived_from<typename Derived::FnTable, typename Base::FnTable>;

// A table's address with its type forgotten, and back. The second must name the type that the first was given, or a
// base of it.
template <class Table>
const FunctionPointer* ForgetTable(const Table* table) noexcept {
    return reinterpret_cast<const FunctionPointer*>(table);
}
template <class Table>
const Table* RecallTable(const FunctionPointer* table) noexcept {
    return reinterpret_cast<const Table*>(table);
}

// Pointer to an object seen through the interface `I`.
//
// `p->Operation()` goes through a temporary of type `I`, which holds copies of both words: an operation that clears or
// rebinds `p` itself does no harm to the call in progress.
template <class I>
class ptr : public AnyInterface {
public:
    using InterfaceType = I;

    constexpr ptr() noexcept = default;
    constexpr ptr(NullInterface) noexcept {}
    constexpr ptr(std::nullptr_t) noexcept {}

    // The table must be one of `I` or of an interface that extends it.
    constexpr ptr(void* self, const FunctionPointer* table) noexcept : AnyInterface(self, table) {}

    template <class Table>
        requires std::derived_from<Table, typename I::FnTable> ptr(void* self, const Table* table)
    noexcept : AnyInterface(self, ForgetTable(static_cast<const typename I::FnTable*>(table))) {}

    // From an interface value.
    template <class J>
        requires ExtendsInterface<J, I> ptr(const J& value)
    noexcept : ptr(value.m_self, value.m_table) {}

    template <class C>
        requires(!std::is_const_v<C> && Implements<C, I>)
    ptr(C* object)
    noexcept : ptr(I::template CoerceFrom<C>(object)) {}

    template <class J>
        requires(!std::is_const_v<J> && !std::same_as<I, J> && ExtendsInterface<J, I>)
    ptr(ptr<J> p)
    noexcept : ptr(p.m_self, p.Table()) {}

    const typename I::FnTable* Table() const noexcept { return RecallTable<typename I::FnTable>(m_table); }

    I operator*() const noexcept { return I(m_self, Table()); }
    I operator->() const noexcept { return I(m_self, Table()); }
};

// Pointer to an object that may only be read: offers the const operations of the interface `I`.
template <class I>
class ptr<const I> : public AnyConstInterface {
public:
    using InterfaceType = I;

    constexpr ptr() noexcept = default;
    constexpr ptr(NullInterface) noexcept {}
    constexpr ptr(std::nullptr_t) noexcept {}
    constexpr ptr(const void* self, const FunctionPointer* table) noexcept : AnyConstInterface(self, table) {}

    template <class Table>
        requires std::derived_from<Table, typename I::FnTable> ptr(const void* self, const Table* table)
    noexcept : AnyConstInterface(self, ForgetTable(static_cast<const typename I::FnTable*>(table))) {}

    template <class J>
        requires ExtendsInterface<J, I> ptr(const J& value)
    noexcept : ptr(value.m_self, value.m_table) {}

    template <class C>
        requires Implements<std::remove_const_t<C>, I> ptr(C* object)
    noexcept : ptr(I::template CoerceFrom<std::remove_const_t<C>>(const_cast<std::remove_const_t<C>*>(object))) {}

    template <class J>
        requires(!std::same_as<const I, J> && ExtendsInterface<std::remove_const_t<J>, I>)
    ptr(ptr<J> p)
    noexcept : ptr(p.m_self, p.Table()) {}

    const typename I::FnTable* Table() const noexcept { return RecallTable<typename I::FnTable>(m_table); }

    const I operator*() const noexcept { return I(const_cast<void*>(m_self), Table()); }
    const I operator->() const noexcept { return I(const_cast<void*>(m_self), Table()); }
};

// The record that describes the interface `I`; `_GetReflected(const I*)` is declared beside `I` and found through it.
template <class I>
const ReflectedInterface& GetReflectedInterface() {
    return _GetReflected(static_cast<const I*>(nullptr));
}

// The object of `p` as `I`, or null when `p` is null or its object does not offer `I`. `J` extends the root interface;
// the result is as const as `p`.
template <class I, class J>
auto qicast(ptr<J> p) {
    using Plain = std::remove_const_t<I>;
    using Result = std::conditional_t<std::is_const_v<I> || std::is_const_v<J>, ptr<const Plain>, ptr<Plain>>;
    if (!p) return Result();
    const auto answer = p->QueryInterface(GetReflectedInterface<Plain>());
    return Result(answer.m_self, answer.m_table);
}

} // namespace quna
