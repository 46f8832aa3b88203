// Classes for the tests of reflection: a shape with members and a bare object without.
#pragma once

#include "qxObject/Members.h"
#include "qxObject/Reflect.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <map>

namespace quna {

// In place of the references of the layer above, which this program does not have: what a description needs of them.
template <class T>
class pref {
    void* m_words[3] = {};
};
template <class T>
class cref {
    void* m_words[3] = {};
};

} // namespace quna

namespace demo {

// A plain structure that lists its members.
struct Point {
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("x", &Point::m_x), quna::Member("y", &Point::m_y));
    }

    quna::int32 m_x = 0;
    quna::int32 m_y = 0;
};
QX_REFLECT_CLASS(Point, "demo::Point")

enum class EColour : quna::uint8 {
    Red = 1,
    Green = 2
};

class Shape : public quna::IObjectBaseMixin<Shape, quna::EmptyBase> {
public:
    static constexpr auto Members() {
        using namespace quna;
        return MemberList(Member("name", &Shape::m_name), Member("points", &Shape::m_points), Removed<int64>(1, 1),
                          Member("colour", &Shape::m_colour, 2), Member("next", &Shape::m_next));
    }

    quna::xstring m_name;
    quna::xvector<Point> m_points;
    EColour m_colour = EColour::Red;
    quna::ptr<quna::IObject> m_next;
};
QX_REFLECT_CLASS(Shape, "demo::Shape", quna::REFLECTED_CLASS_FOR_APPLICATIONS)

// An interface that extends the root, and a class that offers it beside the root.
struct INumber : quna::IObjectForwards<INumber> {
    struct FnTable : quna::IObject::FnTable {
        int (*GetNumber)(const void* self);
    };

    template <class T>
    struct Stubs {
        static int GetNumber(const void* self) { return static_cast<const T*>(self)->GetNumber(); }
        static constexpr FnTable s_table = {quna::IObject::Stubs<T>::s_table, &Stubs::GetNumber};
    };

    template <quna::IObjectClass T>
        requires requires(const T& object) { object.GetNumber(); }
    static INumber CoerceFrom(T* object) { return INumber(object, object ? &Stubs<T>::s_table : nullptr); }

    INumber(void* self, const FnTable* table) : m_self(self), m_table(table) {}
    operator quna::IObject() const { return quna::IObject(m_self, m_table); }
    int GetNumber() const { return m_table->GetNumber(m_self); }

    void* m_self = nullptr;
    const FnTable* m_table = nullptr;
};

inline const quna::ReflectedInterface& _GetReflected(const INumber*) {
    static constexpr quna::ReflectedInterface RECORD = {"demo::INumber", 0, nullptr, 0, nullptr, 0};
    return RECORD;
}

class Number : public quna::IObjectBaseMixin<Number, quna::EmptyBase> {
public:
    quna::AnyInterface QueryInterface(const quna::ReflectedInterface& ri) {
        if (&ri == &quna::GetReflectedInterface<INumber>()) return quna::ptr<INumber>(this);
        return IObjectBaseMixin::QueryInterface(ri);
    }
    int GetNumber() const { return m_number; }

    int m_number = 42;
};
QX_REFLECT_CLASS(Number, "demo::Number")

} // namespace demo
