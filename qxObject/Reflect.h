// Making the record of a class, in one line beside the class.
#pragma once

#include "qxObject/IObject.h"
#include "qxObject/MemberList.h"
#include "qxObject/ReflectModelFields.h"
#include "qxObject/ReflectedClass.h"
#include "qxObject/Registry.h"
#include "qxObject/TypeDescription.h"
#include "qxObject/TypeOps.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <array>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

namespace quna {

// The interfaces of a class, as its record lists them.
struct InterfaceNames {
    const ConstStringZ* m_names = nullptr;
    ssize_t m_numIndirect = 0;
    ssize_t m_numDirect = 0;
};

namespace detail {

inline constexpr ConstStringZ IOBJECT_NAMES[] = {"quna::IObject"};
inline constexpr InterfaceNames IOBJECT_INTERFACES = {IOBJECT_NAMES, 0, 1};

// The reflected fields of a class that declares its members: one of each class in the process.
template <HasMembers T>
struct QX_API FieldsOf {
    static constexpr std::size_t NUM_ENTRIES = std::tuple_size_v<decltype(T::Members())>;

    template <std::size_t INDEX>
    static constexpr void AddField(std::array<ReflectedField, NUM_ENTRIES>& fields, std::size_t& n) {
        constexpr auto entry = std::get<INDEX>(T::Members());
        using Entry = std::remove_cvref_t<decltype(entry)>;
        if constexpr (!IsRemovedMember<Entry>::value)
            fields[n++] = ReflectedField{entry.m_name, DescriptionFnOf<typename Entry::FieldType>(),
                                         &FieldAddress<T, INDEX>, entry.m_firstSchema};
    }
    template <std::size_t... INDEXES>
    static constexpr auto Make(std::index_sequence<INDEXES...>) {
        std::array<ReflectedField, NUM_ENTRIES> fields{};
        std::size_t n = 0;
        (AddField<INDEXES>(fields, n), ...);
        return fields;
    }
    static constexpr auto s_fields = Make(std::make_index_sequence<NUM_ENTRIES>());
};

template <class T>
concept HasCreateFn = requires {
    { T::sfnCreateInstance() } -> std::same_as<ptr<IObject>>;
};

} // namespace detail

// The record of `T`, by what T can do: an instance can be created if T has sfnCreateInstance and a default constructor,
// and the fields are those of its list of members. Of model fields there is a getter and a setter each, as methods.
template <class T>
constexpr ReflectedClass MakeReflectedClass(ConstStringZ name, uint32 flags = 0,
                                            InterfaceNames interfaces = detail::IOBJECT_INTERFACES) {
    ReflectedClass rc;
    rc.m_name = name;
    rc.m_flags = flags;
    rc.m_size = static_cast<ssize_t>(sizeof(T));
    rc.m_ops = MakeTypeOps<T>();
    if constexpr (HasMembers<T>) {
        rc.m_fields = detail::FieldsOf<T>::s_fields.data();
        rc.m_numFields = NumMembers<T>();
        using ModelFields = detail::ModelFieldsOf<T>;
        if constexpr (ModelFields::NUM_FIELDS > 0) {
            rc.m_modelFields = ModelFields::s_fields.data();
            rc.m_numModelFields = static_cast<ssize_t>(ModelFields::s_fields.size());
            rc.m_methods = ModelFields::s_methods.data();
            rc.m_numMethods = static_cast<ssize_t>(ModelFields::s_methods.size());
        }
    }
    if constexpr (IObjectClass<T>) {
        if constexpr (std::is_default_constructible_v<T> && detail::HasCreateFn<T>)
            rc.m_createFn = &T::sfnCreateInstance;
        rc.m_IObjectFnTable = &IObject::Stubs<T>::s_table;
        rc.m_interfaces = interfaces.m_names;
        rc.m_numIndirectInterfaces = interfaces.m_numIndirect;
        rc.m_numDirectInterfaces = interfaces.m_numDirect;
    }
    return rc;
}

// Enter a record, and fail an assertion if the registry refuses it.
QX_API void RegisterOrThrow(const ReflectedClass& record, XTarget* target);
QX_API void RegisterOrThrow(const ReflectedInterface& record, XTarget* target);
QX_API void RegisterOrThrow(const ReflectedEnum& record, XTarget* target);
QX_API void RegisterOrThrow(const ReflectedTypedef& record, XTarget* target);
QX_API void RegisterOrThrow(const ReflectedGlobalFunction& record, XTarget* target);

// Makes the operations of a vector, pair, map or set known, so that they are found by description.
template <class T>
void RegisterTypeOpsOf() {
    if constexpr (requires { _GetTypeOps(static_cast<const T*>(nullptr)); })
        RegisterTypeOps(DescriptionOf<T>(), &GetTypeOps<T>());
    else
        RegisterTypeOps(DescriptionOf<T>(), &detail::TypeOpsOf<T>::s_ops);
}

} // namespace quna

// QX_REFLECT_CLASS(Person, "demo::Person"), in the header, in Person's namespace, behind the class, expands to
//     inline const ReflectedClass& _GetReflected(const Person*)     its record, constant-initialised
//     inline const TypeOps*        _GetTypeOps(const Person*)
//     inline void                  _Register_Person(XTarget* target)
// Further arguments go to MakeReflectedClass. A class that crosses libraries needs default visibility itself (QX_API).
#define QX_REFLECT_CLASS(X, ...)                                                                                       \
    [[maybe_unused]] inline QX_API const ::quna::ReflectedClass& _GetReflected(const X*) {                             \
        static constexpr ::quna::ReflectedClass RECORD = ::quna::MakeReflectedClass<X>(__VA_ARGS__);                   \
        return RECORD;                                                                                                 \
    }                                                                                                                  \
    [[maybe_unused]] inline QX_API const ::quna::TypeOps* _GetTypeOps(const X* x) { return &_GetReflected(x).m_ops; }  \
    [[maybe_unused]] inline QX_API void _Register_##X(::quna::XTarget* target) {                                       \
        ::quna::RegisterOrThrow(_GetReflected(static_cast<const X*>(nullptr)), target);                                \
    }
