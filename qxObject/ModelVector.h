// A model field that holds a vector of values. qxObject/ModelField.h says what model fields are.
#pragma once

#include "qxObject/ModelField.h"
#include "qxUtils/Assert.h"
#include "qxUtils/xvector.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace quna {

// A vector's reading half, for fields that hold vectors.
template <class E, class Owner, FixedText NAME>
class ModelSequence : public ModelField<xvector<E>, Owner, NAME> {
public:
    ssize_t size() const { return this->m_value.size(); }
    bool empty() const { return this->m_value.empty(); }
    const E* begin() const { return this->m_value.begin(); }
    const E* end() const { return this->m_value.end(); }
    const E& operator[](ssize_t i) const { return this->m_value[i]; }
    const E& front() const { return this->m_value.front(); }
    const E& back() const { return this->m_value.back(); }

protected:
    ModelSequence() = default;
    explicit ModelSequence(const xvector<E>& x) : ModelField<xvector<E>, Owner, NAME>(x) {}
    ModelSequence(const ModelSequence&) = default;
    ModelSequence(ModelSequence&&) = default;
    ModelSequence& operator=(const ModelSequence&) = delete;
    ~ModelSequence() = default;

    // `n` elements from `src`, which lie elsewhere, become elements i to i + n - 1.
    void Insert(ssize_t i, const E* src, ssize_t n) {
        xvector<E>& v = this->m_value;
        const ssize_t oldSize = v.size();
        v.append(src, n);
        std::rotate(v.begin() + i, v.begin() + oldSize, v.end());
    }
    bool IsRange(ssize_t i, ssize_t n) const { return 0 <= i && 0 <= n && i <= size() - n; }
};

// Elements may hold references: those that come are adopted, those that go are queued for deletion, as by Model<E>. An
// element is changed by assigning a new one with Set, so that moving one about is a matter of assigning the vector as
// a whole: targets that the old and the new vector name stay.
template <class E, class Owner, FixedText NAME>
class ModelVector : public ModelSequence<E, Owner, NAME> {
    using Base = ModelSequence<E, Owner, NAME>;

public:
    ModelVector& operator=(const xvector<E>& x) {
        this->Assign(this->m_value, x, [&] { this->m_value = x; });
        return *this;
    }
    ModelVector& operator=(xvector<E>&& x) {
        this->Assign(this->m_value, x, [&] { this->m_value = std::move(x); });
        return *this;
    }
    ModelVector& operator=(const ModelVector& rhs) { // NOLINT(bugprone-unhandled-self-assignment)
        return *this = rhs.m_value;
    }

    void push_back(const E& x) { insert(this->size(), x); }
    void insert(ssize_t i, const E& x) {
        QX_ASSERT_IN("ModelVector", this->IsRange(i, 0));
        ReportCreate(i, &x, 1);
        this->m_value.insert(this->m_value.begin() + i, x); // x may be an element
    }
    // The elements from `src` lie elsewhere.
    void insert(ssize_t i, const E* src, ssize_t n) {
        QX_ASSERT_IN("ModelVector", this->IsRange(i, 0));
        if (n <= 0) return;
        ReportCreate(i, src, n);
        this->Insert(i, src, n);
    }
    void append(const E* src, ssize_t n) { insert(this->size(), src, n); }

    void Set(ssize_t i, const E& x) {
        QX_ASSERT_IN("ModelVector", this->IsRange(i, 1));
        E& place = this->m_value[i];
        this->Assign(place, x, [&] { place = x; });
    }

    void erase(ssize_t i, ssize_t n = 1) {
        QX_ASSERT_IN("ModelVector", this->IsRange(i, n));
        if (n == 0) return;
        ReportDelete(i, n);
        E* const first = this->m_value.begin() + i;
        this->m_value.erase(first, first + n);
    }
    void pop_back() { erase(this->size() - 1); }
    void clear() { erase(0, this->size()); }
    void resize(ssize_t n) {
        QX_ASSERT_IN("ModelVector", n >= 0);
        if (n < this->size()) return erase(n, this->size() - n);
        const xvector<E> fresh(n - this->size());
        append(fresh.data(), fresh.size());
    }

private:
    friend Owner;
    ModelVector() = default;
    // Not explicit: a plain value makes a field where the owner's class initialises it.
    ModelVector(const xvector<E>& x) : Base(x) {} // NOLINT(google-explicit-constructor)
    ModelVector(const ModelVector&) = default;
    ModelVector(ModelVector&&) = default;

    static constexpr ssize_t ELEMENT_SIZE = static_cast<ssize_t>(sizeof(E)); // NOLINT(bugprone-sizeof-expression)

    IOperationCallBacks* Hooks() {
        if constexpr (Base::template HOLDS_PREFS<E>)
            return GetOperationCallBacks();
        else
            return this->HooksForPlainChange();
    }
    void ReportCreate(ssize_t i, const E* src, ssize_t n) {
        IOperationCallBacks* const hooks = Hooks();
        if (!hooks) return;
        auto params = this->template ParamsFor<CreateIntoVector_params>(&this->m_value);
        params.i = i;
        params.src = src;
        params.n = n;
        params.visitPrefsInArrayFn = this->template ElementPrefsFn<E>();
        params.elementSize = ELEMENT_SIZE;
        hooks->OnCreateIntoVector(params);
    }
    void ReportDelete(ssize_t i, ssize_t n) {
        IOperationCallBacks* const hooks = Hooks();
        if (!hooks) return;
        auto params = this->template ParamsFor<DeleteFromVector_params>(&this->m_value);
        params.i = i;
        params.n = n;
        params.visitPrefsInArrayFn = this->template ElementPrefsFn<E>();
        params.elementSize = ELEMENT_SIZE;
        hooks->OnDeleteFromVector(params);
    }
};

} // namespace quna
