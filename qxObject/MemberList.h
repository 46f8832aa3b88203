// The list of a class's members: how it is written and walked. qxObject/Members.h says what it is for.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <algorithm>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

namespace quna {

// One field: its name, where it is, and the numbers of the first and the last schema whose records hold it.
template <class Class, class Field>
struct ClassMember {
    using ClassType = Class;
    using FieldType = Field;

    // Its records may be read, but new ones are written without it.
    constexpr ClassMember Until(schema_t lastSchema) const {
        ClassMember removed = *this;
        removed.m_lastSchema = lastSchema;
        return removed;
    }
    // The field's references own nothing, as that to a parent does not: walks over what the object owns do not follow
    // them.
    constexpr ClassMember Parent() const {
        ClassMember parent = *this;
        parent.m_parent = true;
        return parent;
    }
    constexpr bool IsInSchema(schema_t schema) const {
        return m_firstSchema <= schema && (m_lastSchema == 0 || schema <= m_lastSchema);
    }

    ConstStringZ m_name;
    Field Class::*m_pointer;
    schema_t m_firstSchema;
    schema_t m_lastSchema = 0; // 0: no end
    bool m_parent = false;
};

template <class Class, class Field>
constexpr ClassMember<Class, Field> Member(ConstStringZ name, Field Class::*pointer, schema_t sinceSchema = 1) {
    return ClassMember<Class, Field>{name, pointer, sinceSchema};
}

// A field that the class no longer has, of which older records still hold a value of type `Field`, from the schema
// `sinceSchema` to the schema `lastSchema`. Reading skips it. It stands in the list where the field stood.
template <class Field>
struct RemovedMember {
    using FieldType = Field;

    constexpr bool IsInSchema(schema_t schema) const { return m_firstSchema <= schema && schema <= m_lastSchema; }

    schema_t m_firstSchema;
    schema_t m_lastSchema;
};

template <class Field>
constexpr RemovedMember<Field> Removed(schema_t sinceSchema, schema_t lastSchema) {
    return RemovedMember<Field>{sinceSchema, lastSchema};
}

template <class... Entries>
constexpr std::tuple<Entries...> MemberList(Entries... entries) {
    return std::tuple<Entries...>(entries...);
}

// A class that declares its members.
template <class T>
concept HasMembers = std::is_class_v<T> && requires {
    std::tuple_size<decltype(T::Members())>::value;
};

// A field whose changes run through the operation hooks: qxObject/ModelField.h.
template <class F>
concept IsModelField = std::is_class_v<F> && requires {
    typename F::ModelValue;
    typename F::ModelOwner;
    F::MODEL_NAME;
};

namespace detail {

template <class Entry>
struct IsRemovedMember : std::false_type {};
template <class Field>
struct IsRemovedMember<RemovedMember<Field>> : std::true_type {};

} // namespace detail

// Calls f(entry) for each entry of the list, removed ones included, in order.
template <HasMembers T, class F>
constexpr void ForEachEntry(F&& f) {
    constexpr auto members = T::Members();
    std::apply([&](const auto&... entries) { (f(entries), ...); }, members);
}

// Calls f(member) for each field that the class has, in order.
template <HasMembers T, class F>
constexpr void ForEachMember(F&& f) {
    ForEachEntry<T>([&](const auto& entry) {
        if constexpr (!detail::IsRemovedMember<std::remove_cvref_t<decltype(entry)>>::value) f(entry);
    });
}

// As ForEachMember, until f(member) is false; the result says whether every call was true.
template <HasMembers T, class F>
constexpr bool AllMembers(F&& f) {
    bool all = true;
    ForEachMember<T>([&](const auto& member) {
        if (all) all = f(member);
    });
    return all;
}

template <HasMembers T>
constexpr ssize_t NumMembers() {
    ssize_t n = 0;
    ForEachMember<T>([&](const auto&) { ++n; });
    return n;
}

// The newest schema that the list mentions: the one that is written. Removing a field makes a new schema too.
template <HasMembers T>
constexpr schema_t LatestSchema() {
    schema_t latest = 1;
    ForEachEntry<T>([&](const auto& entry) {
        latest = std::max({latest, entry.m_firstSchema, entry.m_lastSchema == 0 ? 1 : entry.m_lastSchema + 1});
    });
    return latest;
}

} // namespace quna
