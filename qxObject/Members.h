// The short declaration of a class: one line a field, from which equality, order, printing, visiting and the reflected
// fields are generated, and for a persistent class also its record (qxPersistStore/PersistentMembers.h).
//
//     class Person : public IObjectBaseMixin<Person, EmptyBase> {
//     public:
//         static constexpr auto Members() {
//             return MemberList(Member("name", &Person::m_name),
//                               Member("age", &Person::m_age, 2));      // exists since schema 2
//         }
//     private:
//         xstring m_name;
//         int32   m_age = 0;
//     };
//     QX_REFLECT_CLASS(Person, "demo::Person")                            // from qxObject/Reflect.h
//
// Members is public. Any of the generated operations can be written by hand instead: an operator or member that the
// class declares wins. A plain structure, which is no object, has them too and may be a member of others.
#pragma once

#include "qxObject/MemberList.h"
#include "qxObject/ValueOps.h"
