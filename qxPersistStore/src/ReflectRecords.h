// Building the library's own reflected records, one line an item.
//
//     constexpr ReflectedField FIELDS[] = {FIELD<&LssSettings::segmentSize, "segmentSize">};
//     constexpr ReflectedMethod METHODS[] = {METHOD<&PSpace::GetRoot, "GetRoot", "name">};
//     constexpr ReflectedGlobalFunction GET_ROOT = FUNCTION<&GetPSpaceRoot, "quna::GetPSpaceRoot", "name">;
#pragma once

#include "qxObject/FixedText.h"
#include "qxObject/ReflectFunction.h"
#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedMember.h"
#include "qxObject/TypeDescription.h"
#include "qxUtils/BasicTypes.h"

namespace quna {

namespace detail {

template <auto MEMBER>
struct MemberTraits;

template <class Class, class Field, Field Class::*MEMBER>
struct MemberTraits<MEMBER> {
    using FieldType = Field;
    static void* Address(void* object) { return &(static_cast<Class*>(object)->*MEMBER); }
};

template <auto F, FixedText... NAMES>
struct ArgumentsOf {
    static constexpr auto ARGS = DescribeArguments<F>(static_cast<ConstStringZ>(NAMES.text)...);
};

} // namespace detail

template <auto MEMBER, FixedText NAME>
inline constexpr ReflectedField FIELD = {NAME.text, DescriptionFnOf<typename detail::MemberTraits<MEMBER>::FieldType>(),
                                         &detail::MemberTraits<MEMBER>::Address, 1};

template <auto F, FixedText NAME, FixedText... ARGS>
inline constexpr ReflectedMethod METHOD = DescribeMethod<F>(NAME.text, detail::ArgumentsOf<F, ARGS...>::ARGS);

template <auto F, FixedText NAME, FixedText... ARGS>
inline constexpr ReflectedGlobalFunction FUNCTION = DescribeFunction<F>(NAME.text,
                                                                        detail::ArgumentsOf<F, ARGS...>::ARGS);

} // namespace quna
