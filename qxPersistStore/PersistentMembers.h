// The short form of a persistent class: its record, its references and its fields, all from one list of members.
//
//     class Person : public PersistentObject<Person> {
//     public:
//         static constexpr auto Members() {
//             return MemberList(Member("name", &Person::m_name),
//                               Member("friends", &Person::m_friends),
//                               Member("born", &Person::m_born, 2),       // since schema 2
//                               Removed<int32>(1, 2),                     // an int32 in the records of schema 1 and 2
//                               Member("house", &Person::m_house).Parent());
//         }
//         xstring               m_name;
//         xvector<cref<Person>> m_friends;
//         int32                 m_born = 1970;
//         cref<House>           m_house;
//     };
//     QX_REFLECT_PERSISTENT_CLASS(Person, "demo::Person")
//
// and, once before a store is opened, `_Register_Person(target)`.
//
// Record: the schema tag, then the fields of that schema in the order of the list, each in its own serial form. The
// schema written is the newest that the list mentions. A reader of an older record leaves fields that it lacks as the
// class's constructor made them and skips those that the class no longer has. So a list only ever grows: a field is
// added with the next schema, and a removed field leaves a `Removed` in its place.
#pragma once

#include "qxObject/Members.h"
#include "qxObject/Reflect.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Schema.h"

#include <type_traits>

namespace quna {

template <HasMembers T>
void SerialiseMembers(Archive& ar, const T& object) {
    constexpr schema_t schema = LatestSchema<T>();
    SerialiseSchema(ar, schema);
    ForEachMember<T>([&](const auto& member) {
        using Field = typename std::remove_cvref_t<decltype(member)>::FieldType;
        static_assert(ValueOps<Field>::CAN_SERIALISE && ValueOps<Field>::CAN_DESERIALISE, "a field has no serial form");
        if (member.IsInSchema(schema)) ValueOps<Field>::Serialise(ar, object.*member.m_pointer);
    });
}

// Into a freshly constructed object.
template <HasMembers T>
InputArchive DeserialiseMembers(InputArchive ar, T& object) {
    schema_t schema = 0;
    ar = DeserialiseSchema(ar, LatestSchema<T>(), schema);
    ForEachEntry<T>([&](const auto& entry) {
        using Entry = std::remove_cvref_t<decltype(entry)>;
        if (!entry.IsInSchema(schema)) return;
        if constexpr (detail::IsRemovedMember<Entry>::value) {
            typename Entry::FieldType skipped{};
            ar = ValueOps<typename Entry::FieldType>::Deserialise(ar, skipped);
        } else {
            ar = ValueOps<typename Entry::FieldType>::Deserialise(ar, object.*entry.m_pointer);
        }
    });
    return ar;
}

namespace detail {

// Passes each reference on as one that owns nothing.
class AsParentPrefs : public IPrefVisitor {
public:
    explicit AsParentPrefs(IPrefVisitor& visitor) : m_visitor(visitor) {}
    void VisitPref(const prefbase& pref) override { m_visitor.VisitParentPref(pref); }
    void VisitParentPref(const prefbase& pref) override { m_visitor.VisitParentPref(pref); }

private:
    IPrefVisitor& m_visitor;
};

} // namespace detail

template <HasMembers T>
void VisitMemberPrefs(IPrefVisitor& visitor, const T& object) {
    ForEachMember<T>([&](const auto& member) {
        using Field = typename std::remove_cvref_t<decltype(member)>::FieldType;
        if constexpr (std::is_base_of_v<prefbase, Field>) {
            if (member.m_parent)
                visitor.VisitParentPref(object.*member.m_pointer);
            else
                visitor.VisitPref(object.*member.m_pointer);
        } else if constexpr (ValueOps<Field>::CAN_VISIT_PREFS) {
            detail::AsParentPrefs asParents(visitor);
            ValueOps<Field>::VisitPrefs(member.m_parent ? asParents : visitor, object.*member.m_pointer);
        }
    });
}

// The base of a persistent class that lists its members. What `X` declares itself, under the same name, wins.
template <class X>
class PersistentObject : public PersistableMixin<IObjectBaseMixin<X, EmptyBase>> {
public:
    void Serialise(Archive& ar) const { SerialiseMembers(ar, static_cast<const X&>(*this)); }
    InputArchive Deserialise(InputArchive ar) { return DeserialiseMembers(ar, static_cast<X&>(*this)); }
    void VisitPrefs(IPrefVisitor& visitor) const { VisitMemberPrefs(visitor, static_cast<const X&>(*this)); }
};

namespace detail {

inline constexpr ConstStringZ PERSISTABLE_NAMES[] = {"quna::IObject", "quna::IPersistable"};
inline constexpr InterfaceNames PERSISTABLE_INTERFACES = {PERSISTABLE_NAMES, 1, 1};

} // namespace detail

} // namespace quna

// QX_REFLECT_PERSISTENT_CLASS(Person, "demo::Person") is QX_REFLECT_CLASS with the interfaces of a persistent class.
#define QX_REFLECT_PERSISTENT_CLASS(X, NAME)                                                                           \
    QX_REFLECT_CLASS(X, NAME, ::quna::REFLECTED_CLASS_FOR_APPLICATIONS, ::quna::detail::PERSISTABLE_INTERFACES)
