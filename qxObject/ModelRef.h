// A model field that refers to a child. qxObject/ModelField.h says what model fields are.
#pragma once

#include "qxObject/ModelField.h"

#include <concepts>
#include <type_traits>

namespace quna {

// A reference, of type Ref (cref<X> or pref<I>), to an object that the owner owns.
//
// Assigning an object to the field of a persistent owner makes the object persistent and tells it OnCreate; it must be
// new (the assertion "!GetOid(child)"), and can't be null ("child"). The child that was there is queued for permanent
// deletion. Assigning the object that is there already changes nothing. Where a reference is to be cleared, or to take
// objects that are persistent, use Model<Ref>; where it owns nothing, mark the field as Parent() in the owner's list.
template <class Ref, class Owner, FixedText NAME>
class ModelRef : public ModelField<Ref, Owner, NAME> {
    using Base = ModelField<Ref, Owner, NAME>;

public:
    ModelRef& operator=(const Ref& x) {
        Set(x);
        return *this;
    }
    ModelRef& operator=(const ModelRef& rhs) {
        return *this = rhs.m_value;
    } // NOLINT(bugprone-unhandled-self-assignment)
    // What can be assigned to a Ref: an object, or null.
    template <class P>
        requires(!std::derived_from<P, Ref> && !std::derived_from<P, Base> && std::is_assignable_v<Ref&, const P&>)
    ModelRef& operator=(const P& x) {
        Ref src;
        src = x;
        Set(src);
        return *this;
    }

    // The target's members: loads it.
    const Ref& operator->() const noexcept { return this->m_value; }
    decltype(auto) operator*() const { return *this->m_value; }
    explicit operator bool() const { return static_cast<bool>(this->m_value); }

private:
    friend Owner;
    ModelRef() = default;
    ModelRef(const ModelRef&) = default;
    ModelRef(ModelRef&&) = default;

    void Set(const Ref& src) {
        if (this->m_value == src) return;
        IOperationCallBacks* const hooks = GetOperationCallBacks();
        if (!hooks) {
            this->m_value = src;
        } else if constexpr (Base::Entry::OWNS_TARGETS) {
            auto params = this->template ParamsFor<AssignPref_params>(static_cast<prefbase*>(&this->m_value));
            params.src = &src;
            hooks->OnAssignPref(params); // stores it too
        } else {
            this->AssignWithoutPrefs([&] { this->m_value = src; });
        }
    }
};

} // namespace quna
