// The description of a C++ type as a byte code, made at its first use.
//
// DescriptionOf<T>() describes basic types, vectors, pairs, maps, sets, pointers, persistent references and every type
// with a record: TypeDescriber is specialised for each. CanDescribe<T> says whether there is one.
#pragma once

#include "qxObject/IObject.h"
#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedEnum.h"
#include "qxObject/ReflectedInterface.h"
#include "qxObject/ReflectedTypedef.h"
#include "qxObject/ReflectionByteCode.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Guid.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <map>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

namespace quna {

class OID;
template <class T>
class pref;
template <class T>
class cref;

// Collects a description.
class QX_API TypeDescriptionBuilder {
public:
    void Put(EByteCode code);
    // `name` lives for ever.
    void PutNamed(EByteCode code, ConstStringZ name);
    void PutMapOrSet(EByteCode code, PtrMapOrSetFns fns);

    // Valid as long as this builder lives unchanged.
    ReflectionByteCode GetDescription() const;

private:
    std::vector<octet_t> m_code;
    std::vector<ConstStringZ> m_names;
    std::vector<PtrMapOrSetFns> m_mapOrSetFns;
};

template <class T>
struct TypeDescriber;

template <class T>
concept CanDescribe = requires(TypeDescriptionBuilder& builder) {
    TypeDescriber<T>::Describe(builder);
};

// Lives for ever.
template <CanDescribe T>
ReflectionByteCode DescriptionOf() {
    static const TypeDescriptionBuilder* const builder = [] {
        auto* made = new TypeDescriptionBuilder;
        TypeDescriber<T>::Describe(*made);
        return made;
    }();
    return builder->GetDescription();
}

// &DescriptionOf<T>, or null when T has no description.
template <class T>
constexpr TypeDescriptionFn DescriptionFnOf() {
    if constexpr (CanDescribe<T>)
        return &DescriptionOf<T>;
    else
        return nullptr;
}

namespace detail {

template <EByteCode CODE>
struct BasicDescriber {
    static void Describe(TypeDescriptionBuilder& builder) { builder.Put(CODE); }
};

template <EByteCode CODE, class T>
struct WrappedDescriber {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.Put(CODE);
        TypeDescriber<T>::Describe(builder);
    }
};

template <class Container>
struct ContainerFns {
    static constexpr bool IS_MAP = requires { typename Container::mapped_type; };

    static ssize_t Size(const void* container) {
        return static_cast<ssize_t>(static_cast<const Container*>(container)->size());
    }
    static void ForEach(const void* container, MapOrSetFns::EntryFn entryFn, void* context) {
        for (const auto& entry : *static_cast<const Container*>(container)) {
            if constexpr (IS_MAP)
                entryFn(context, &entry.first, &entry.second);
            else
                entryFn(context, &entry, nullptr);
        }
    }
    static bool Insert(void* container, const void* key, const void* value) {
        const auto& typedKey = *static_cast<const typename Container::key_type*>(key);
        if constexpr (IS_MAP)
            return static_cast<Container*>(container)
                ->emplace(typedKey, *static_cast<const typename Container::mapped_type*>(value))
                .second;
        else
            return static_cast<Container*>(container)->insert(typedKey).second;
    }
    static void Clear(void* container) { static_cast<Container*>(container)->clear(); }

    static constexpr MapOrSetFns s_fns = {&Size, &ForEach, &Insert, &Clear};
};

template <class T>
concept ReflectedAsClass = requires {
    { _GetReflected(static_cast<const T*>(nullptr)) } -> std::same_as<const ReflectedClass&>;
};
template <class T>
concept ReflectedAsInterface = requires {
    { _GetReflected(static_cast<const T*>(nullptr)) } -> std::same_as<const ReflectedInterface&>;
};
template <class T>
concept ReflectedAsEnum = requires {
    { _GetReflected(static_cast<const T*>(nullptr)) } -> std::same_as<const ReflectedEnum&>;
};

template <class T>
concept CanWrap = !std::is_void_v<T> && CanDescribe<T>;

} // namespace detail

template <>
struct TypeDescriber<void> : detail::BasicDescriber<EByteCode::Void> {};
template <>
struct TypeDescriber<bool> : detail::BasicDescriber<EByteCode::Bool> {};
template <>
struct TypeDescriber<char> : detail::BasicDescriber<EByteCode::Char> {};
template <>
struct TypeDescriber<int8> : detail::BasicDescriber<EByteCode::Int8> {};
template <>
struct TypeDescriber<int16> : detail::BasicDescriber<EByteCode::Int16> {};
template <>
struct TypeDescriber<int32> : detail::BasicDescriber<EByteCode::Int32> {};
template <>
struct TypeDescriber<int64> : detail::BasicDescriber<EByteCode::Int64> {};
template <>
struct TypeDescriber<uint8> : detail::BasicDescriber<EByteCode::Uint8> {};
template <>
struct TypeDescriber<uint16> : detail::BasicDescriber<EByteCode::Uint16> {};
template <>
struct TypeDescriber<uint32> : detail::BasicDescriber<EByteCode::Uint32> {};
template <>
struct TypeDescriber<uint64> : detail::BasicDescriber<EByteCode::Uint64> {};
template <>
struct TypeDescriber<float32> : detail::BasicDescriber<EByteCode::Float32> {};
template <>
struct TypeDescriber<float64> : detail::BasicDescriber<EByteCode::Float64> {};
template <>
struct TypeDescriber<xstring> : detail::BasicDescriber<EByteCode::XString> {};
template <>
struct TypeDescriber<Guid> : detail::BasicDescriber<EByteCode::Guid> {};
template <>
struct TypeDescriber<OID> : detail::BasicDescriber<EByteCode::Oid> {};
template <>
struct TypeDescriber<ConstStringZ> : detail::BasicDescriber<EByteCode::StringZ> {};

template <CanDescribe T>
struct TypeDescriber<xvector<T>> : detail::WrappedDescriber<EByteCode::Vector, T> {};
template <CanDescribe T>
struct TypeDescriber<T*> : detail::WrappedDescriber<EByteCode::Pointer, T> {};
template <CanDescribe T>
struct TypeDescriber<T&> : detail::WrappedDescriber<EByteCode::Reference, T> {};
template <CanDescribe T>
struct TypeDescriber<const T> : detail::WrappedDescriber<EByteCode::Const, T> {};

template <CanDescribe A, CanDescribe B>
struct TypeDescriber<std::pair<A, B>> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.Put(EByteCode::Pair);
        TypeDescriber<A>::Describe(builder);
        TypeDescriber<B>::Describe(builder);
    }
};

template <CanDescribe K, CanDescribe V, class L>
struct TypeDescriber<std::map<K, V, L>> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutMapOrSet(EByteCode::Map, &detail::ContainerFns<std::map<K, V, L>>::s_fns);
        TypeDescriber<K>::Describe(builder);
        TypeDescriber<V>::Describe(builder);
    }
};

template <CanDescribe K, class L>
struct TypeDescriber<std::set<K, L>> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutMapOrSet(EByteCode::Set, &detail::ContainerFns<std::set<K, L>>::s_fns);
        TypeDescriber<K>::Describe(builder);
    }
};

// References and interface pointers name their target; it may be a type that is only declared.
template <class T>
struct TypeDescriber<pref<T>> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutNamed(EByteCode::Pref, GetReflectedInterface<T>().m_name);
    }
};
template <class T>
struct TypeDescriber<cref<T>> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutNamed(EByteCode::Cref, GetReflectedClass<T>().m_name);
    }
};
template <>
struct TypeDescriber<cref<void>> {
    static void Describe(TypeDescriptionBuilder& builder) { builder.PutNamed(EByteCode::Cref, "void"); }
};
template <detail::ReflectedAsInterface T>
struct TypeDescriber<ptr<T>> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutNamed(EByteCode::Ptr, GetReflectedInterface<T>().m_name);
    }
};
template <detail::ReflectedAsInterface T>
struct TypeDescriber<ptr<const T>> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.Put(EByteCode::Const);
        builder.PutNamed(EByteCode::Ptr, GetReflectedInterface<T>().m_name);
    }
};

template <class T>
    requires(!std::is_const_v<T> && detail::ReflectedAsClass<T>)
struct TypeDescriber<T> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutNamed(EByteCode::Class, GetReflectedClass<T>().m_name);
    }
};
template <class T>
    requires(!std::is_const_v<T> && detail::ReflectedAsInterface<T>)
struct TypeDescriber<T> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutNamed(EByteCode::Interface, GetReflectedInterface<T>().m_name);
    }
};
template <class T>
    requires(!std::is_const_v<T> && detail::ReflectedAsEnum<T>)
struct TypeDescriber<T> {
    static void Describe(TypeDescriptionBuilder& builder) {
        builder.PutNamed(EByteCode::Enum, _GetReflected(static_cast<const T*>(nullptr)).m_name);
    }
};

} // namespace quna
