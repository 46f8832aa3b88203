// What the kinds of model fields have in common. A model field is a field whose changes run through the operation hooks
// (qxObject/IOperationCallBacks.h), written as plain assignments:
//
//     class Person : public PersistentObject<Person> {
//     public:
//         static constexpr auto Members() {
//             return MemberList(Member("name", &Person::name), Member("pets", &Person::pets));
//         }
//         Model<xstring, Person, "name"> name;
//         ModelRefVector<cref<Pet>, Person, "pets"> pets;
//     };
//
//     person->name = "Ann";      // persistent: marks the person as dirty
//     person->pets.push_back(pet); // makes the pet persistent too
//
//     Model<T>             a value                    qxObject/Model.h
//     ModelVector<T>       a vector of values         qxObject/ModelVector.h
//     ModelSet<T>          a set of values            qxObject/ModelSet.h
//     ModelRef<Ref>        a reference to a child     qxObject/ModelRef.h
//     ModelRefVector<Ref>  references to children     qxObject/ModelRefVector.h
//     ModelRefSet<Ref>     the same, each once        qxObject/ModelRefSet.h
//
// A field names its owner's class and itself: by the name under which the class lists it. From the two follows, when the
// program is compiled, where in its owner the field stands; so a field is as large as its value, and finds its owner by
// a subtraction. It therefore lives as a member of its owner and nowhere else: only the owner's class can construct or
// copy one. A copy of the value is what Get() gives.
//
// A field that holds references owns their targets, unless the list marks it as Parent(): then a change marks the owner
// as changed and does nothing to the targets.
//
// Reading is that of a plain field and fires nothing; so do construction, copying of the whole owner, and reading a
// record. An exception out of a hook passes to the caller of the change, before which the field is unchanged unless a
// field says otherwise.
//
// Threads: as the owner: changes under the exclusive lock of its domain.
#pragma once

#include "qxObject/FixedText.h"
#include "qxObject/IObject.h"
#include "qxObject/IOperationCallBacks.h"
#include "qxObject/MemberList.h"
#include "qxObject/TypeDescription.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxObject/ValueOps.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/xostream.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace quna {

class prefbase;

namespace detail {

// Reading a record changes a field without firing anything.
struct ModelAccess {
    template <IsModelField F>
    static typename F::ModelValue& ValueOf(F& field) noexcept {
        return field.m_value;
    }
};

// The place of the entry `name` in the list of members, -1 when there is none; removed ones count, as they do in the
// list.
template <class Owner>
constexpr ssize_t EntryNamed(std::string_view name) {
    ssize_t found = -1;
    ssize_t place = 0;
    ForEachEntry<Owner>([&](const auto& entry) {
        if constexpr (!IsRemovedMember<std::remove_cvref_t<decltype(entry)>>::value)
            if (name == entry.m_name) found = place;
        ++place;
    });
    return found;
}

// The field `name` among the model fields of the class.
template <class Owner>
constexpr PseudoFieldId ModelFieldNumber(std::string_view name) {
    PseudoFieldId number = -1;
    bool found = false;
    ForEachMember<Owner>([&](const auto& member) {
        if (found || !IsModelField<typename std::remove_cvref_t<decltype(member)>::FieldType>) return;
        ++number;
        found = name == member.m_name;
    });
    return number;
}

// What the owner's list says about the model field `NAME`. Used when the owner is complete.
template <class Base, class Owner, FixedText NAME>
struct ModelEntry {
    static constexpr ssize_t PLACE = EntryNamed<Owner>(NAME.text);
    static_assert(PLACE >= 0, "the owner's Members() has no entry with the name of this model field");

    static constexpr auto ENTRY = std::get<static_cast<std::size_t>(PLACE < 0 ? 0 : PLACE)>(Owner::Members());
    using Field = typename decltype(ENTRY)::FieldType;
    static_assert(std::is_base_of_v<Base, Field>, "the entry with the name of this model field is another field");
    static_assert(sizeof(Field) == sizeof(typename Field::ModelValue));

    static constexpr PseudoFieldId NUMBER = ModelFieldNumber<Owner>(NAME.text);
    static constexpr bool OWNS_TARGETS = !ENTRY.m_parent;

    // A pointer to a data member is its distance from the beginning of the object, in the ABI of this platform.
    static std::ptrdiff_t Offset() noexcept {
        constexpr Field Owner::*POINTER = ENTRY.m_pointer;
        return std::bit_cast<std::ptrdiff_t>(POINTER);
    }
};

// Passes on those references of an old value whose targets the new value does not hold any more. A template, since the
// visitor belongs to the layer that has references.
template <class Visitor, class Pref>
class ReleasedPrefs final : public Visitor {
public:
    explicit ReleasedPrefs(Visitor& visitor) : m_visitor(visitor) {}

    void Keep(const Pref& pref) {
        if (const auto oid = pref.GetOid()) m_kept.push_back(oid);
    }
    void SortKept() { std::sort(m_kept.begin(), m_kept.end()); }

    void VisitPref(const Pref& pref) override {
        const auto oid = pref.GetOid();
        if (!oid || !std::binary_search(m_kept.begin(), m_kept.end(), oid)) m_visitor.VisitPref(pref);
    }
    void VisitParentPref(const Pref& pref) override { m_visitor.VisitParentPref(pref); }

private:
    Visitor& m_visitor;
    std::vector<decltype(std::declval<const Pref&>().GetOid())> m_kept;
};

template <class Visitor, class Pref>
class KeptPrefs final : public Visitor {
public:
    explicit KeptPrefs(ReleasedPrefs<Visitor, Pref>& released) : m_released(released) {}
    void VisitPref(const Pref& pref) override { m_released.Keep(pref); }
    void VisitParentPref(const Pref&) override {}

private:
    ReleasedPrefs<Visitor, Pref>& m_released;
};

// The references of values of type T, for the hooks around an assignment.
template <class T>
class ValuePrefs {
public:
    // While the old value is visited: the value that replaces it.
    class Incoming {
    public:
        explicit Incoming(const T* value) : m_previous(std::exchange(t_incoming, value)) {}
        Incoming(const Incoming&) = delete;
        Incoming& operator=(const Incoming&) = delete;
        ~Incoming() { t_incoming = m_previous; }

    private:
        const T* m_previous;
    };

    static void VisitOld(IPrefVisitor& visitor, const void* value) {
        using Visitor = std::conditional_t<sizeof(T) != 0, IPrefVisitor, void>; // dependent: known where T is
        using Pref = std::conditional_t<sizeof(T) != 0, prefbase, void>;
        ReleasedPrefs<Visitor, Pref> released(visitor);
        if (t_incoming) {
            KeptPrefs<Visitor, Pref> kept(released);
            ValueOps<T>::VisitPrefs(kept, *t_incoming);
            released.SortKept();
        }
        ValueOps<T>::VisitPrefs(released, *static_cast<const T*>(value));
    }
    static void VisitNew(IPrefVisitor& visitor, const void* value) {
        ValueOps<T>::VisitPrefs(visitor, *static_cast<const T*>(value));
    }

private:
    static inline thread_local const T* t_incoming = nullptr;
};

} // namespace detail

// The base of all model fields. `T` is the plain type that the field stands for: it has T's text, order, record and
// description.
template <class T, class Owner, FixedText NAME>
class ModelField {
public:
    using ModelValue = T;
    using ModelOwner = Owner;
    static constexpr ConstStringZ MODEL_NAME = NAME.text;

    const T& Get() const noexcept { return m_value; }
    operator const T&() const noexcept { return m_value; } // NOLINT(google-explicit-constructor): stands for its value

protected:
    ModelField() = default;
    explicit ModelField(const T& value) : m_value(value) {}
    explicit ModelField(T&& value) noexcept(std::is_nothrow_move_constructible_v<T>) : m_value(std::move(value)) {}
    ModelField(const ModelField&) = default;
    ModelField(ModelField&&) = default;
    ModelField& operator=(const ModelField&) = delete;
    ~ModelField() = default;

    using Entry = detail::ModelEntry<ModelField, Owner, NAME>;

    Owner* GetOwner() noexcept {
        return static_cast<Owner*>(static_cast<void*>(reinterpret_cast<std::byte*>(this) - Entry::Offset()));
    }
    template <class Params>
    Params ParamsFor(void* addr) {
        Params params;
        params.obj = ptr<IObject>(GetOwner());
        params.fid = Entry::NUMBER;
        params.addr = addr;
        return params;
    }
    // The hooks to be told of a change that touches no references, null when there is nobody to tell.
    IOperationCallBacks* HooksForPlainChange() { return GetCallBacksForPlainChange(GetOwner()->GetSysState()); }

    // Runs `change`, which makes the value at `place` (the field's own, or an element) what `incoming` is, between the
    // hooks of an assignment. A target that the old and the new value hold stays.
    template <class V, class Change>
    void Assign(V& place, const V& incoming, Change change) {
        if constexpr (HOLDS_PREFS<V>) {
            if constexpr (Entry::OWNS_TARGETS) {
                IOperationCallBacks* const hooks = GetOperationCallBacks();
                if (!hooks) return change();
                auto params = ParamsFor<AssignValue_params>(&place);
                params.visitPrefsFn = &detail::ValuePrefs<V>::VisitOld;
                {
                    const typename detail::ValuePrefs<V>::Incoming scope(&incoming);
                    hooks->OnBeforeAssignValue(params);
                }
                change();
                params.visitPrefsFn = &detail::ValuePrefs<V>::VisitNew;
                hooks->OnAfterAssignValueWithPrefs(params);
                return;
            }
        }
        AssignWithoutPrefs(&place, change);
    }

    // The same for a change that touches no references, whatever it is.
    template <class Change>
    void AssignWithoutPrefs(void* place, Change change) {
        IOperationCallBacks* const hooks = HooksForPlainChange();
        if (!hooks) return change();
        const auto params = ParamsFor<AssignValue_params>(place);
        hooks->OnBeforeAssignValue(params);
        change();
        hooks->OnAfterAssignValueWithoutPrefs(params);
    }
    template <class Change>
    void AssignWithoutPrefs(Change change) {
        AssignWithoutPrefs(&m_value, change);
    }

    template <class V>
    static constexpr bool HOLDS_PREFS = ValueOps<V>::CAN_VISIT_PREFS;

    // How the hooks see the references in the field's elements: null when they are not to.
    template <class E>
    static constexpr VisitPrefsInArrayFn ElementPrefsFn() {
        if constexpr (HOLDS_PREFS<E>)
            return Entry::OWNS_TARGETS ? &VisitPrefsInArray<E> : nullptr;
        else
            return nullptr;
    }

    T m_value{};

private:
    friend detail::ModelAccess;
};

template <IsModelField F, class U>
    requires(!IsModelField<U> && requires(const typename F::ModelValue& x, const U& y) { x == y; })
bool operator==(const F& x, const U& y) { return x.Get() == y; }
template <IsModelField F, IsModelField G>
    requires requires(const typename F::ModelValue& x, const typename G::ModelValue& y) { x == y; }
bool operator==(const F& x, const G& y) { return x.Get() == y.Get(); }

template <IsModelField F>
    requires(ValueOps<typename F::ModelValue>::CAN_PRINT)
xostream& operator<<(xostream& os, const F& x) {
    ValueOps<typename F::ModelValue>::Print(os, x.Get());
    return os;
}

template <IsModelField F>
struct ValueOps<F> {
    using Ops = ValueOps<typename F::ModelValue>;
    static constexpr bool CAN_EQUAL = Ops::CAN_EQUAL;
    static constexpr bool CAN_LESS = Ops::CAN_LESS;
    static constexpr bool CAN_PRINT = Ops::CAN_PRINT;
    static constexpr bool CAN_SERIALISE = Ops::CAN_SERIALISE;
    static constexpr bool CAN_DESERIALISE = Ops::CAN_DESERIALISE;
    static constexpr bool CAN_VISIT_OBJECTS = Ops::CAN_VISIT_OBJECTS;
    static constexpr bool CAN_VISIT_PREFS = Ops::CAN_VISIT_PREFS;

    static bool Equal(const F& x, const F& y) { return Ops::Equal(x.Get(), y.Get()); }
    static bool Less(const F& x, const F& y) { return Ops::Less(x.Get(), y.Get()); }
    static void Print(xostream& os, const F& x) { Ops::Print(os, x.Get()); }
    static void Serialise(Archive& ar, const F& x) { Ops::Serialise(ar, x.Get()); }
    static InputArchive Deserialise(InputArchive ar, F& x) {
        return Ops::Deserialise(ar, detail::ModelAccess::ValueOf(x));
    }
    static void VisitObjects(IObjectVisitor& visitor, const F& x) { Ops::VisitObjects(visitor, x.Get()); }
    static void VisitPrefs(IPrefVisitor& visitor, const F& x) { Ops::VisitPrefs(visitor, x.Get()); }
};

template <IsModelField F>
    requires CanDescribe<typename F::ModelValue>
struct TypeDescriber<F> : TypeDescriber<typename F::ModelValue> {
};

} // namespace quna
