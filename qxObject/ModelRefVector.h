// A model field that refers to several children, in order. qxObject/ModelField.h says what model fields are.
#pragma once

#include "qxObject/ModelVector.h"
#include "qxUtils/Assert.h"

#include <algorithm>
#include <concepts>
#include <type_traits>
#include <utility>

namespace quna {

namespace detail {

template <class P, class Ref>
concept MakesRef = !std::derived_from<P, Ref> && std::is_assignable_v<Ref&, const P&>;

template <class Ref, class P>
Ref RefTo(const P& x) {
    Ref ref;
    ref = x;
    return ref;
}

// References in an order in which the same target is found: by identity, or by the object where it has none yet.
template <class Ref>
class SortedRefs {
public:
    explicit SortedRefs(const xvector<Ref>& refs) {
        for (const Ref& ref : refs) m_keys.push_back(KeyOf(ref));
        std::sort(m_keys.begin(), m_keys.end());
    }
    bool Contains(const Ref& ref) const { return std::binary_search(m_keys.begin(), m_keys.end(), KeyOf(ref)); }

private:
    using Oid = decltype(std::declval<const Ref&>().GetOid());
    using Key = std::pair<Oid, const void*>;

    static Key KeyOf(const Ref& ref) {
        const Oid oid = ref.GetOid();
        return Key(oid, oid ? nullptr : Base(ref).GetBoundPtr().m_self);
    }
    // The typed forms have a GetBoundPtr of their own. A dependent name: the class belongs to the layer of the references.
    using Untyped = std::conditional_t<sizeof(Ref) != 0, prefbase, void>;
    static const Untyped& Base(const Untyped& ref) { return ref; }

    std::vector<Key> m_keys;
};

} // namespace detail

// References, of type Ref (cref<X> or pref<I>), to objects that the owner owns, in order.
//
// An object that comes into the field of a persistent owner becomes persistent and is told OnCreate; it must be new (the
// assertion "!GetOid(child)"). One that goes is queued for permanent deletion. Assigning the vector as a whole leaves
// alone what was there before: so are children put into another order. No element is null.
template <class Ref, class Owner, FixedText NAME>
class ModelRefVector : public ModelSequence<Ref, Owner, NAME> {
    using Base = ModelSequence<Ref, Owner, NAME>;

public:
    // Children that go are reported first, then those that come, one by one.
    ModelRefVector& operator=(const xvector<Ref>& x) {
        const xvector<Ref> src(x); // the field's own vector may be given
        for (const Ref& ref : src) QX_ASSERT_IN("ModelRefVector", ref);
        const detail::SortedRefs<Ref> wanted(src);
        for (ssize_t i = this->size() - 1; i >= 0; --i)
            if (!wanted.Contains(this->m_value[i])) erase(i);
        const detail::SortedRefs<Ref> present(this->m_value);
        for (ssize_t i = 0; i < src.size(); ++i)
            if (!present.Contains(src[i])) insert(std::min(i, this->size()), src[i]);
        if (!std::equal(src.begin(), src.end(), this->begin(), this->end()))
            this->AssignWithoutPrefs([&] { this->m_value = src; });
        return *this;
    }
    ModelRefVector& operator=(const ModelRefVector& rhs) { // NOLINT(bugprone-unhandled-self-assignment)
        return *this = rhs.m_value;
    }

    void push_back(const Ref& x) { insert(this->size(), x); }
    void insert(ssize_t i, const Ref& x) {
        QX_ASSERT_IN("ModelRefVector", this->IsRange(i, 0));
        QX_ASSERT_IN("ModelRefVector", x);
        const Ref src(x); // x may be an element
        // The child may take elements out while it is told OnCreate.
        const auto change = [&] { this->Insert(std::min(i, this->size()), &src, 1); };
        IOperationCallBacks* const hooks = GetOperationCallBacks();
        if (!hooks) {
            change();
        } else if constexpr (Base::Entry::OWNS_TARGETS) {
            auto params = this->template ParamsFor<CreateIntoMVector_params>(&this->m_value);
            params.i = i;
            params.src = &src;
            params.n = 1;
            hooks->OnCreateIntoMVector(params);
            change();
        } else {
            this->AssignWithoutPrefs(change);
        }
    }
    // Replaces a child.
    void Set(ssize_t i, const Ref& x) {
        QX_ASSERT_IN("ModelRefVector", this->IsRange(i, 1));
        QX_ASSERT_IN("ModelRefVector", x);
        if (this->m_value[i] == x) return;
        const Ref src(x); // x may be an element
        IOperationCallBacks* const hooks = GetOperationCallBacks();
        if (!hooks) {
            this->m_value[i] = src;
        } else if constexpr (Base::Entry::OWNS_TARGETS) {
            // Not in its place: the child may change this vector while it is told OnCreate, and so move the elements.
            const Ref old(this->m_value[i]);
            Ref place(old);
            auto params = this->template ParamsFor<AssignPref_params>(static_cast<prefbase*>(&place));
            params.src = &src;
            hooks->OnAssignPref(params);
            Replace(i, old, place);
        } else {
            this->AssignWithoutPrefs([&] { this->m_value[i] = src; });
        }
    }
    // The same with an object.
    template <detail::MakesRef<Ref> P>
    void push_back(const P& x) {
        push_back(detail::RefTo<Ref>(x));
    }
    template <detail::MakesRef<Ref> P>
    void insert(ssize_t i, const P& x) {
        insert(i, detail::RefTo<Ref>(x));
    }
    template <detail::MakesRef<Ref> P>
    void Set(ssize_t i, const P& x) {
        Set(i, detail::RefTo<Ref>(x));
    }

    void erase(ssize_t i, ssize_t n = 1) {
        QX_ASSERT_IN("ModelRefVector", this->IsRange(i, n));
        if (n == 0) return;
        const auto change = [&] { this->m_value.erase(this->m_value.begin() + i, this->m_value.begin() + i + n); };
        IOperationCallBacks* const hooks = GetOperationCallBacks();
        if (!hooks) {
            change();
        } else if constexpr (Base::Entry::OWNS_TARGETS) {
            auto params = this->template ParamsFor<DeleteFromMVector_params>(&this->m_value);
            params.i = i;
            params.n = n;
            hooks->OnDeleteFromMVector(params);
            change();
        } else {
            this->AssignWithoutPrefs(change);
        }
    }
    void pop_back() { erase(this->size() - 1); }
    void clear() { erase(0, this->size()); }

private:
    friend Owner;
    ModelRefVector() = default;
    ModelRefVector(const ModelRefVector&) = default;
    ModelRefVector(ModelRefVector&&) = default;

    // Puts `x` where `old` stands, which was at `i`; if it is gone, where it stood.
    void Replace(ssize_t i, const Ref& old, const Ref& x) {
        xvector<Ref>& v = this->m_value;
        Ref* place = i < v.size() && v[i] == old ? v.begin() + i : std::find(v.begin(), v.end(), old);
        if (place != v.end())
            *place = x;
        else
            this->Insert(std::min(i, v.size()), &x, 1);
    }
};

} // namespace quna
