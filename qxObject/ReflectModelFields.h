// The reflected model fields of a class, and the getters and setters through which they are read and changed by name.
#pragma once

#include "qxObject/MemberList.h"
#include "qxObject/ReflectedMember.h"
#include "qxObject/TypeDescription.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <array>
#include <cstddef>
#include <new>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace quna::detail {

template <class T, std::size_t INDEX>
void* FieldAddress(void* object) {
    constexpr auto member = std::get<INDEX>(T::Members());
    return const_cast<void*>(static_cast<const void*>(&(static_cast<T*>(object)->*member.m_pointer)));
}

// "Get" or "Set" and the field's name: Getname, Setname.
template <class Field>
constexpr auto AccessorName(std::string_view verb) {
    constexpr std::string_view NAME = Field::MODEL_NAME;
    std::array<char, NAME.size() + 4> text{};
    for (std::size_t i = 0; i < 3; ++i) text[i] = verb[i];
    for (std::size_t i = 0; i < NAME.size(); ++i) text[i + 3] = NAME[i];
    return text;
}

// The field of `T` at a place in its list of members.
template <class T, std::size_t INDEX>
struct ModelAccessors {
    using Field = typename std::tuple_element_t<INDEX, decltype(T::Members())>::FieldType;
    using Value = typename Field::ModelValue;

    static constexpr auto GETTER_NAME = AccessorName<Field>("Get");
    static constexpr auto SETTER_NAME = AccessorName<Field>("Set");
    static constexpr ReflectedArgument SETTER_ARGS[] = {{"x", DescriptionFnOf<Value>()}};

    static void Get(void* result, void* const* args) {
        constexpr auto member = std::get<INDEX>(T::Members());
        ::new (result) Value((*static_cast<const T* const*>(args[0])->*member.m_pointer).Get());
    }
    // By assignment, so that the hooks see it.
    static void Set(void*, void* const* args) {
        constexpr auto member = std::get<INDEX>(T::Members());
        *static_cast<T* const*>(args[0])->*member.m_pointer = *static_cast<const Value*>(args[1]);
    }

    static constexpr ReflectedMethod GETTER = {GETTER_NAME.data(), DescriptionFnOf<Value>(), nullptr, 0, &Get};
    static constexpr ReflectedMethod SETTER = {SETTER_NAME.data(), &DescriptionOf<void>, SETTER_ARGS, 1, &Set};
};

template <HasMembers T>
constexpr std::size_t NumModelFields() {
    std::size_t n = 0;
    ForEachMember<T>([&](const auto& member) {
        n += IsModelField<typename std::remove_cvref_t<decltype(member)>::FieldType> ? 1U : 0U;
    });
    return n;
}

// One of each class in the process.
template <HasMembers T>
struct QX_API ModelFieldsOf {
    static constexpr std::size_t NUM_ENTRIES = std::tuple_size_v<decltype(T::Members())>;
    using Places = std::make_index_sequence<NUM_ENTRIES>;

    template <std::size_t INDEX>
    static constexpr bool IS_MODEL =
        IsModelField<typename std::tuple_element_t<INDEX, decltype(T::Members())>::FieldType>;
    static constexpr std::size_t NUM_FIELDS = NumModelFields<T>();

    template <std::size_t INDEX>
    static constexpr void AddField(std::array<ReflectedField, NUM_FIELDS>& fields, std::size_t& n) {
        if constexpr (IS_MODEL<INDEX>) {
            constexpr auto entry = std::get<INDEX>(T::Members());
            using Field = typename decltype(entry)::FieldType;
            static_assert(std::is_same_v<typename Field::ModelOwner, T>, "a model field names another class");
            static_assert(std::string_view(entry.m_name) == Field::MODEL_NAME,
                          "a model field is listed by another name");
            fields[n++] =
                ReflectedField{entry.m_name, DescriptionFnOf<Field>(), &FieldAddress<T, INDEX>, entry.m_firstSchema};
        }
    }
    template <std::size_t... INDEXES>
    static constexpr auto MakeFields(std::index_sequence<INDEXES...>) {
        std::array<ReflectedField, NUM_FIELDS> fields{};
        [[maybe_unused]] std::size_t n = 0;
        (AddField<INDEXES>(fields, n), ...);
        return fields;
    }
    static constexpr auto s_fields = MakeFields(Places());

    // The getter and the setter of each field, in the order of the fields.
    template <std::size_t INDEX>
    static constexpr void AddMethods(std::array<ReflectedMethod, 2 * NUM_FIELDS>& methods, std::size_t& n) {
        if constexpr (IS_MODEL<INDEX>) {
            methods[n++] = ModelAccessors<T, INDEX>::GETTER;
            methods[n++] = ModelAccessors<T, INDEX>::SETTER;
        }
    }
    template <std::size_t... INDEXES>
    static constexpr auto MakeMethods(std::index_sequence<INDEXES...>) {
        std::array<ReflectedMethod, 2 * NUM_FIELDS> methods{};
        [[maybe_unused]] std::size_t n = 0;
        (AddMethods<INDEXES>(methods, n), ...);
        return methods;
    }
    static constexpr auto s_methods = MakeMethods(Places());
};

} // namespace quna::detail
