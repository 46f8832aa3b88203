// What can be done with a value of type T, decided at compile time: the operations from which TypeOps tables and the
// generated operations of classes are made.
//
// ValueOps<T>::CAN_EQUAL and its fellows say whether an operation exists; ValueOps<T>::Equal and its fellows do it. They
// come from T's own operators and members, and otherwise from the list of T's members. Vectors, pairs, maps and sets
// have an operation when their elements have it.
#pragma once

#include "qxObject/IObject.h"
#include "qxObject/IObjectVisitor.h"
#include "qxObject/MemberList.h"
#include "qxUtils/Archive.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Export.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "qxUtils/xostream.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <concepts>
#include <map>
#include <set>
#include <type_traits>
#include <utility>

namespace quna {

class IPrefVisitor;

namespace detail {

// A pointer has no value that could be stored or compared beyond this process, and it would pass for a bool.
template <class T>
concept PlainValue = !std::is_pointer_v<T> && !std::is_void_v<T> && !std::is_reference_v<T>;

template <class T>
concept OwnEqual = PlainValue<T> && requires(const T& x) {
    { x == x } -> std::convertible_to<bool>;
};
template <class T>
concept OwnLess = PlainValue<T> && requires(const T& x) {
    { x < x } -> std::convertible_to<bool>;
};
template <class T>
concept OwnPrint = PlainValue<T> && requires(xostream& os, const T& x) {
    { os << x } -> std::same_as<xostream&>;
};
template <class T>
concept SerialiseMember = requires(const T& x, Archive& ar) {
    x.Serialise(ar);
};
template <class T>
concept SerialiseOperator = PlainValue<T> && requires(const T& x, Archive& ar) {
    { ar << x } -> std::same_as<Archive&>;
};
template <class T>
concept DeserialiseMember = requires(T& x, InputArchive ar) {
    { x.Deserialise(ar) } -> std::convertible_to<InputArchive>;
};
template <class T>
concept DeserialiseOperator = PlainValue<T> && requires(T& x, InputArchive ar) {
    { ar >> x } -> std::same_as<InputArchive>;
};
template <class T>
concept VisitObjectsMember = requires(const T& x, IObjectVisitor& visitor) {
    x.VisitObjects(visitor);
};
template <class T>
concept VisitObjectsOperator = requires(const T& x, IObjectVisitor& visitor) {
    { visitor << x } -> std::same_as<IObjectVisitor&>;
};
template <class T>
concept VisitPrefsMember = requires(const T& x, IPrefVisitor& visitor) {
    x.VisitPrefs(visitor);
};
template <class T>
concept VisitPrefsOperator = requires(const T& x, IPrefVisitor& visitor) {
    { visitor << x } -> std::same_as<IPrefVisitor&>;
};

[[noreturn]] QX_API void ThrowVectorTooLarge(ssize_t numElements, ssize_t elementSize);

// The bytes of a vector in memory are limited as those of one item of a record.
template <class T>
void CheckVectorSize(ssize_t numElements) {
    if (numElements > MAX_ALLOCATION_SIZE / static_cast<ssize_t>(sizeof(T))) [[unlikely]]
        ThrowVectorTooLarge(numElements, static_cast<ssize_t>(sizeof(T)));
}

// Elements whose serial form is their memory.
template <class T>
inline constexpr bool IS_RAW = std::is_arithmetic_v<T> && !std::is_same_v<T, bool>;

} // namespace detail

template <class T>
struct ValueOps;

namespace detail {

// Whether every field of T has what `has` asks for; `has` is given the ValueOps of the field.
template <class T, class Has>
constexpr bool EveryMember(Has has) {
    bool every = true;
    ForEachMember<T>([&](const auto& member) {
        using Field = typename std::remove_cvref_t<decltype(member)>::FieldType;
        every = every && has(ValueOps<Field>());
    });
    return every;
}
template <class T, class Has>
constexpr bool SomeMember(Has has) {
    return !EveryMember<T>([&](auto ops) { return !has(ops); });
}

} // namespace detail

template <class T>
struct ValueOps {
    static constexpr bool FROM_MEMBERS = HasMembers<T>;

    static constexpr bool CanEqual() {
        if constexpr (detail::OwnEqual<T>)
            return true;
        else if constexpr (FROM_MEMBERS)
            return detail::EveryMember<T>([](auto ops) { return decltype(ops)::CAN_EQUAL; });
        else
            return false;
    }
    static constexpr bool CanLess() {
        if constexpr (detail::OwnLess<T>)
            return true;
        else if constexpr (FROM_MEMBERS)
            return detail::EveryMember<T>([](auto ops) { return decltype(ops)::CAN_LESS; });
        else
            return false;
    }
    static constexpr bool CanPrint() {
        if constexpr (detail::OwnPrint<T>)
            return true;
        else if constexpr (FROM_MEMBERS)
            return detail::EveryMember<T>([](auto ops) { return decltype(ops)::CAN_PRINT; });
        else
            return false;
    }
    static constexpr bool CanSerialise() {
        if constexpr (detail::SerialiseMember<T> || std::is_enum_v<T> || detail::SerialiseOperator<T>)
            return true;
        else if constexpr (FROM_MEMBERS && !IObjectClass<T>)
            return detail::EveryMember<T>([](auto ops) { return decltype(ops)::CAN_SERIALISE; });
        else
            return false;
    }
    static constexpr bool CanDeserialise() {
        if constexpr (detail::DeserialiseMember<T> || std::is_enum_v<T> || detail::DeserialiseOperator<T>)
            return true;
        else if constexpr (FROM_MEMBERS && !IObjectClass<T>)
            return detail::EveryMember<T>([](auto ops) { return decltype(ops)::CAN_DESERIALISE; });
        else
            return false;
    }
    static constexpr bool CanVisitObjects() {
        if constexpr (detail::VisitObjectsMember<T> || detail::VisitObjectsOperator<T>)
            return true;
        else if constexpr (FROM_MEMBERS)
            return detail::SomeMember<T>([](auto ops) { return decltype(ops)::CAN_VISIT_OBJECTS; });
        else
            return false;
    }
    static constexpr bool CanVisitPrefs() {
        if constexpr (detail::VisitPrefsMember<T> || detail::VisitPrefsOperator<T>)
            return true;
        else if constexpr (FROM_MEMBERS)
            return detail::SomeMember<T>([](auto ops) { return decltype(ops)::CAN_VISIT_PREFS; });
        else
            return false;
    }

    static constexpr bool CAN_EQUAL = CanEqual();
    static constexpr bool CAN_LESS = CanLess();
    static constexpr bool CAN_PRINT = CanPrint();
    static constexpr bool CAN_SERIALISE = CanSerialise();
    static constexpr bool CAN_DESERIALISE = CanDeserialise();
    static constexpr bool CAN_VISIT_OBJECTS = CanVisitObjects();
    static constexpr bool CAN_VISIT_PREFS = CanVisitPrefs();

    static bool Equal(const T& x, const T& y) {
        if constexpr (detail::OwnEqual<T>) {
            return x == y;
        } else {
            return AllMembers<T>([&](const auto& member) {
                return OpsOf<decltype(member)>::Equal(x.*member.m_pointer, y.*member.m_pointer);
            });
        }
    }

    // By the fields in order, when the type has no order of its own.
    static bool Less(const T& x, const T& y) {
        if constexpr (detail::OwnLess<T>) {
            return x < y;
        } else {
            bool less = false;
            AllMembers<T>([&](const auto& member) {
                using Ops = OpsOf<decltype(member)>;
                less = Ops::Less(x.*member.m_pointer, y.*member.m_pointer);
                return !less && !Ops::Less(y.*member.m_pointer, x.*member.m_pointer);
            });
            return less;
        }
    }

    static void Print(xostream& os, const T& x) {
        if constexpr (detail::OwnPrint<T>) {
            os << x;
        } else {
            ConstStringZ separator = "{";
            ForEachMember<T>([&](const auto& member) {
                os << separator << member.m_name << " = ";
                OpsOf<decltype(member)>::Print(os, x.*member.m_pointer);
                separator = ", ";
            });
            os << (NumMembers<T>() == 0 ? "{}" : "}");
        }
    }

    // An enum is stored as its underlying type. The fields of a plain structure are stored one behind the other; unlike
    // a persistent class it has no schema of its own.
    static void Serialise(Archive& ar, const T& x) {
        if constexpr (detail::SerialiseMember<T>) {
            x.Serialise(ar);
        } else if constexpr (std::is_enum_v<T>) {
            ar << static_cast<std::underlying_type_t<T>>(x);
        } else if constexpr (detail::SerialiseOperator<T>) {
            ar << x;
        } else {
            ForEachMember<T>([&](const auto& member) { OpsOf<decltype(member)>::Serialise(ar, x.*member.m_pointer); });
        }
    }

    static InputArchive Deserialise(InputArchive ar, T& x) {
        if constexpr (detail::DeserialiseMember<T>) {
            return x.Deserialise(ar);
        } else if constexpr (std::is_enum_v<T>) {
            std::underlying_type_t<T> value{};
            ar = ar >> value;
            x = static_cast<T>(value);
            return ar;
        } else if constexpr (detail::DeserialiseOperator<T>) {
            return ar >> x;
        } else {
            ForEachMember<T>(
                [&](const auto& member) { ar = OpsOf<decltype(member)>::Deserialise(ar, x.*member.m_pointer); });
            return ar;
        }
    }

    static void VisitObjects(IObjectVisitor& visitor, const T& x) {
        if constexpr (detail::VisitObjectsMember<T>) {
            x.VisitObjects(visitor);
        } else if constexpr (detail::VisitObjectsOperator<T>) {
            visitor << x;
        } else {
            VisitMemberObjects(visitor, x);
        }
    }

    static void VisitPrefs(IPrefVisitor& visitor, const T& x) {
        if constexpr (detail::VisitPrefsMember<T>) {
            x.VisitPrefs(visitor);
        } else if constexpr (detail::VisitPrefsOperator<T>) {
            visitor << x;
        } else {
            ForEachMember<T>([&](const auto& member) {
                using Ops = OpsOf<decltype(member)>;
                if constexpr (Ops::CAN_VISIT_PREFS) Ops::VisitPrefs(visitor, x.*member.m_pointer);
            });
        }
    }

private:
    template <class M>
    using OpsOf = ValueOps<typename std::remove_cvref_t<M>::FieldType>;
};

namespace detail {

// The operations of a container `C` of elements `E` that is walked with begin and end.
template <class C, class E>
struct RangeOps {
    using Ops = ValueOps<E>;
    static constexpr bool CAN_EQUAL = Ops::CAN_EQUAL;
    static constexpr bool CAN_LESS = Ops::CAN_LESS;
    static constexpr bool CAN_PRINT = Ops::CAN_PRINT;
    static constexpr bool CAN_SERIALISE = Ops::CAN_SERIALISE;
    static constexpr bool CAN_DESERIALISE = Ops::CAN_DESERIALISE;
    static constexpr bool CAN_VISIT_OBJECTS = Ops::CAN_VISIT_OBJECTS;
    static constexpr bool CAN_VISIT_PREFS = Ops::CAN_VISIT_PREFS;

    static bool Equal(const C& x, const C& y) {
        return x.size() == y.size() &&
               std::equal(x.begin(), x.end(), y.begin(), [](const E& a, const E& b) { return Ops::Equal(a, b); });
    }
    static bool Less(const C& x, const C& y) {
        return std::lexicographical_compare(x.begin(), x.end(), y.begin(), y.end(),
                                            [](const E& a, const E& b) { return Ops::Less(a, b); });
    }
    static void VisitObjects(IObjectVisitor& visitor, const C& x) {
        for (const E& element : x) Ops::VisitObjects(visitor, element);
    }
    static void VisitPrefs(IPrefVisitor& visitor, const C& x) {
        for (const E& element : x) Ops::VisitPrefs(visitor, element);
    }

protected:
    static void PrintElements(xostream& os, const C& x, char open, char close) {
        os << open;
        bool first = true;
        for (const E& element : x) {
            if (!first) os << ", ";
            first = false;
            Ops::Print(os, element);
        }
        os << close;
    }
    // The count, then the elements.
    static void SerialiseElements(Archive& ar, const C& x) {
        CheckVectorSize<E>(static_cast<ssize_t>(x.size()));
        Serialise_ssize_t(ar, static_cast<ssize_t>(x.size()));
        for (const E& element : x) Ops::Serialise(ar, element);
    }
};

// Reads the elements of an ordered container, whose writer's order is the container's, so that the hint is right.
template <class E, class C>
InputArchive DeserialiseOrdered(InputArchive ar, C& x) {
    ssize_t count = 0;
    ar = DeserialiseCount(ar, count);
    x.clear();
    for (ssize_t i = 0; i < count; ++i) {
        E element{};
        ar = ValueOps<E>::Deserialise(ar, element);
        x.insert(x.end(), std::move(element));
    }
    return ar;
}

} // namespace detail

template <class E>
struct ValueOps<xvector<E>> : detail::RangeOps<xvector<E>, E> {
    static void Print(xostream& os, const xvector<E>& x) { ValueOps::PrintElements(os, x, '[', ']'); }

    static void Serialise(Archive& ar, const xvector<E>& x) {
        if constexpr (detail::IS_RAW<E>) {
            detail::CheckVectorSize<E>(x.size());
            Serialise_ssize_t(ar, x.size());
            ar.Write(x.data(), x.m_buffer.size());
        } else {
            ValueOps::SerialiseElements(ar, x);
        }
    }

    static InputArchive Deserialise(InputArchive ar, xvector<E>& x) {
        ssize_t count = 0;
        ar = DeserialiseCount(ar, count);
        detail::CheckVectorSize<E>(count);
        if constexpr (detail::IS_RAW<E>) {
            const ssize_t numBytes = count * static_cast<ssize_t>(sizeof(E));
            CheckRecordRemaining(ar, numBytes);
            x.m_buffer.assign(ar.ptr(), numBytes);
            ar += numBytes;
        } else {
            x.clear();
            x.resize(count);
            for (E& element : x) ar = ValueOps<E>::Deserialise(ar, element);
        }
        return ar;
    }
};

template <class E, class L>
struct ValueOps<std::set<E, L>> : detail::RangeOps<std::set<E, L>, E> {
    static void Print(xostream& os, const std::set<E, L>& x) { ValueOps::PrintElements(os, x, '{', '}'); }
    static void Serialise(Archive& ar, const std::set<E, L>& x) { ValueOps::SerialiseElements(ar, x); }
    static InputArchive Deserialise(InputArchive ar, std::set<E, L>& x) { return detail::DeserialiseOrdered<E>(ar, x); }
};

template <class K, class V, class L>
struct ValueOps<std::map<K, V, L>> : detail::RangeOps<std::map<K, V, L>, std::pair<const K, V>> {
    static void Print(xostream& os, const std::map<K, V, L>& x) { ValueOps::PrintElements(os, x, '{', '}'); }
    static void Serialise(Archive& ar, const std::map<K, V, L>& x) { ValueOps::SerialiseElements(ar, x); }
    static InputArchive Deserialise(InputArchive ar, std::map<K, V, L>& x) {
        return detail::DeserialiseOrdered<std::pair<K, V>>(ar, x);
    }
    static constexpr bool CAN_DESERIALISE = ValueOps<std::pair<K, V>>::CAN_DESERIALISE;
};

// A map's entry has a constant key, which only a pair of its own can be read into.
template <class A, class B>
struct ValueOps<std::pair<A, B>> {
    using First = ValueOps<std::remove_const_t<A>>;
    using Second = ValueOps<B>;
    using Pair = std::pair<A, B>;
    static constexpr bool CAN_EQUAL = First::CAN_EQUAL && Second::CAN_EQUAL;
    static constexpr bool CAN_LESS = First::CAN_LESS && Second::CAN_LESS;
    static constexpr bool CAN_PRINT = First::CAN_PRINT && Second::CAN_PRINT;
    static constexpr bool CAN_SERIALISE = First::CAN_SERIALISE && Second::CAN_SERIALISE;
    static constexpr bool CAN_DESERIALISE = !std::is_const_v<A> && First::CAN_DESERIALISE && Second::CAN_DESERIALISE;
    static constexpr bool CAN_VISIT_OBJECTS = First::CAN_VISIT_OBJECTS || Second::CAN_VISIT_OBJECTS;
    static constexpr bool CAN_VISIT_PREFS = First::CAN_VISIT_PREFS || Second::CAN_VISIT_PREFS;

    static bool Equal(const Pair& x, const Pair& y) {
        return First::Equal(x.first, y.first) && Second::Equal(x.second, y.second);
    }
    static bool Less(const Pair& x, const Pair& y) {
        if (First::Less(x.first, y.first)) return true;
        return !First::Less(y.first, x.first) && Second::Less(x.second, y.second);
    }
    static void Print(xostream& os, const Pair& x) {
        First::Print(os, x.first);
        os << " : ";
        Second::Print(os, x.second);
    }
    static void Serialise(Archive& ar, const Pair& x) {
        First::Serialise(ar, x.first);
        Second::Serialise(ar, x.second);
    }
    static InputArchive Deserialise(InputArchive ar, Pair& x) {
        return Second::Deserialise(First::Deserialise(ar, x.first), x.second);
    }
    static void VisitObjects(IObjectVisitor& visitor, const Pair& x) {
        if constexpr (First::CAN_VISIT_OBJECTS) First::VisitObjects(visitor, x.first);
        if constexpr (Second::CAN_VISIT_OBJECTS) Second::VisitObjects(visitor, x.second);
    }
    static void VisitPrefs(IPrefVisitor& visitor, const Pair& x) {
        if constexpr (First::CAN_VISIT_PREFS) First::VisitPrefs(visitor, x.first);
        if constexpr (Second::CAN_VISIT_PREFS) Second::VisitPrefs(visitor, x.second);
    }
};

template <HasMembers T>
void VisitMemberObjects(IObjectVisitor& visitor, const T& object) {
    ForEachMember<T>([&](const auto& member) {
        using Ops = ValueOps<typename std::remove_cvref_t<decltype(member)>::FieldType>;
        if constexpr (Ops::CAN_VISIT_OBJECTS) Ops::VisitObjects(visitor, object.*member.m_pointer);
    });
}

} // namespace quna
