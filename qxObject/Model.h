// A model field that holds a value. qxObject/ModelField.h says what model fields are.
#pragma once

#include "qxObject/ModelField.h"

#include <concepts>
#include <memory>
#include <type_traits>
#include <utility>

namespace quna {

namespace detail {

template <class T>
concept HasArrow = requires(const T& x) {
    x.operator->();
};
template <class T>
concept OffsetInteger = std::is_integral_v<T> && !std::is_same_v<T, bool>;

} // namespace detail

// A value of type T, which may hold references. Assigning one queues the targets that go for deletion and adopts the
// new objects that come; a target that the old and the new value name stays as it is. An object that is persistent
// already may come, and Model<cref<X>> can be cleared: unlike ModelRef it tells nobody OnCreate.
template <class T, class Owner, FixedText NAME>
class Model : public ModelField<T, Owner, NAME> {
    using Base = ModelField<T, Owner, NAME>;

public:
    Model& operator=(const T& x) requires(!std::is_scalar_v<T>) {
        this->Assign(this->m_value, x, [&] { this->m_value = x; });
        return *this;
    }
    Model& operator=(T&& x) requires(!std::is_scalar_v<T>) {
        this->Assign(this->m_value, x, [&] { this->m_value = std::move(x); });
        return *this;
    }
    Model& operator=(T x) requires std::is_scalar_v<T> {
        this->AssignWithoutPrefs([&] { this->m_value = x; });
        return *this;
    }
    // What makes a T, another model field among them.
    template <class U>
        requires(!std::is_scalar_v<T> && !std::same_as<std::remove_cvref_t<U>, T> &&
                 !std::derived_from<std::remove_cvref_t<U>, Base> && std::convertible_to<U&&, T>)
    Model& operator=(U&& x) {
        T value(std::forward<U>(x));
        return *this = std::move(value);
    }
    template <IsModelField F>
        requires(std::is_scalar_v<T> && !std::derived_from<F, Base>)
    Model& operator=(const F& x) {
        const T value = x.Get();
        return *this = value;
    }
    Model& operator=(const Model& rhs) { return *this = rhs.m_value; } // NOLINT(bugprone-unhandled-self-assignment)

    const T& operator*() const noexcept { return this->m_value; }
    // The value's members; for a value that has an arrow itself, what that leads to.
    decltype(auto) operator->() const noexcept {
        if constexpr (detail::HasArrow<T>)
            return (this->m_value);
        else
            return std::addressof(this->m_value);
    }

    // An integer changes by an offset, which the hooks are told.
    Model& operator+=(T x) requires detail::OffsetInteger<T> {
        return Offset(static_cast<int64>(x), static_cast<T>(this->m_value + x));
    }
    Model& operator-=(T x) requires detail::OffsetInteger<T> {
        return Offset(static_cast<int64>(-static_cast<uint64>(x)), static_cast<T>(this->m_value - x));
    }
    Model& operator++() requires detail::OffsetInteger<T> { return *this += T{1}; }
    Model& operator--() requires detail::OffsetInteger<T> { return *this -= T{1}; }
    T operator++(int) requires detail::OffsetInteger<T> {
        const T before = this->m_value;
        ++*this;
        return before;
    }
    T operator--(int) requires detail::OffsetInteger<T> {
        const T before = this->m_value;
        --*this;
        return before;
    }

    // Of other types it is an assignment.
    template <class U>
        requires(!detail::OffsetInteger<T> && requires(T & value, const U& x) { value += x; })
    Model& operator+=(const U& x) {
        Change([&](T& value) { value += x; });
        return *this;
    }
    template <class U>
        requires(!detail::OffsetInteger<T> && requires(T & value, const U& x) { value -= x; })
    Model& operator-=(const U& x) {
        Change([&](T& value) { value -= x; });
        return *this;
    }

    // Changes the value where it stands, for values that are costly to copy: person->tags.Change([&](auto& tags) {
    // tags.erase(tag); }). Only for values without references.
    template <std::invocable<T&> F>
    void Change(F f) {
        static_assert(!Base::template HOLDS_PREFS<T>, "assign a value that holds references as a whole");
        this->AssignWithoutPrefs([&] { f(this->m_value); });
    }

private:
    friend Owner;
    Model() = default;
    // A plain value makes a field where the owner's class initialises it.
    template <class U>
        requires(std::convertible_to<U, T> && !std::derived_from<std::remove_cvref_t<U>, Base>)
    Model(U&& x) : Base(T(std::forward<U>(x))) {} // NOLINT(google-explicit-constructor)
    Model(const Model&) = default;
    Model(Model&&) = default;

    Model& Offset(int64 offset, T result) {
        if (IOperationCallBacks* const hooks = this->HooksForPlainChange()) {
            auto params = this->template ParamsFor<OffsetValue_params>(&this->m_value);
            params.offset = offset;
            hooks->OnOffsetValue(params);
        }
        this->m_value = result;
        return *this;
    }
};

} // namespace quna
