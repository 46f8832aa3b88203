// A model field that holds a set of values. qxObject/ModelField.h says what model fields are.
#pragma once

#include "qxObject/ModelField.h"

#include <set>
#include <utility>

namespace quna {

// An ordered set of values that hold no references. A change is reported as one of the set's value, and in between as
// what it is, by OnSetInsert and OnSetDelete.
template <class T, class Owner, FixedText NAME>
class ModelSet : public ModelField<std::set<T>, Owner, NAME> {
    using Base = ModelField<std::set<T>, Owner, NAME>;

public:
    using const_iterator = typename std::set<T>::const_iterator;

    ModelSet& operator=(const std::set<T>& x) {
        this->AssignWithoutPrefs([&] { this->m_value = x; });
        return *this;
    }
    ModelSet& operator=(std::set<T>&& x) {
        this->AssignWithoutPrefs([&] { this->m_value = std::move(x); });
        return *this;
    }
    ModelSet& operator=(const ModelSet& rhs) {
        return *this = rhs.m_value;
    } // NOLINT(bugprone-unhandled-self-assignment)

    ssize_t size() const { return static_cast<ssize_t>(this->m_value.size()); }
    bool empty() const { return this->m_value.empty(); }
    const_iterator begin() const { return this->m_value.begin(); }
    const_iterator end() const { return this->m_value.end(); }
    bool contains(const T& x) const { return this->m_value.contains(x); }

    // False when it is there already.
    bool insert(const T& x) {
        if (contains(x)) return false;
        this->AssignWithoutPrefs([&] {
            Report(&IOperationCallBacks::OnSetInsert, x);
            this->m_value.insert(x);
        });
        return true;
    }
    // False when it is not there.
    bool erase(const T& x) {
        const auto found = this->m_value.find(x);
        if (found == this->m_value.end()) return false;
        this->AssignWithoutPrefs([&] {
            Report(&IOperationCallBacks::OnSetDelete, *found);
            this->m_value.erase(found);
        });
        return true;
    }
    void clear() {
        if (!empty()) *this = std::set<T>();
    }

private:
    static_assert(!Base::template HOLDS_PREFS<T>, "references belong in a ModelRefSet");

    friend Owner;
    ModelSet() = default;
    ModelSet(const std::set<T>& x) : Base(x) {} // NOLINT(google-explicit-constructor)
    ModelSet(const ModelSet&) = default;
    ModelSet(ModelSet&&) = default;

    // `addr` names the element, not the set.
    void Report(void (IOperationCallBacks::*operation)(const AssignValue_params&), const T& element) {
        if (IOperationCallBacks* const hooks = this->HooksForPlainChange())
            (hooks->*operation)(this->template ParamsFor<AssignValue_params>(const_cast<T*>(&element)));
    }
};

} // namespace quna
