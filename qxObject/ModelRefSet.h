// A model field that refers to several children, each once. qxObject/ModelField.h says what model fields are.
#pragma once

#include "qxObject/ModelRefVector.h"
#include "qxUtils/Assert.h"

#include <algorithm>

namespace quna {

// References, of type Ref (cref<X> or pref<I>), to objects that the owner owns, none of them twice and none null. They
// stand in the order in which they came, and have the record of a vector: an order by identity would change when
// transient children become persistent.
//
// What comes and goes is treated as by ModelRefVector. Looking for an element compares all of them: a set of more than
// some hundreds belongs into a map of its own (qxPersistStore/PMap.h).
template <class Ref, class Owner, FixedText NAME>
class ModelRefSet : public ModelSequence<Ref, Owner, NAME> {
    using Base = ModelSequence<Ref, Owner, NAME>;

public:
    // Children that go are reported first, then those that come.
    ModelRefSet& operator=(const xvector<Ref>& x) {
        const xvector<Ref> src(x); // the field's own vector may be given
        const detail::SortedRefs<Ref> wanted(src);
        xvector<Ref> gone;
        for (const Ref& ref : *this)
            if (!wanted.Contains(ref)) gone.push_back(ref);
        Erase(gone);
        for (const Ref& ref : src) insert(ref);
        return *this;
    }
    ModelRefSet& operator=(const ModelRefSet& rhs) { // NOLINT(bugprone-unhandled-self-assignment)
        return *this = rhs.m_value;
    }

    bool contains(const Ref& x) const { return std::find(this->begin(), this->end(), x) != this->end(); }

    // False when it is there already.
    bool insert(const Ref& x) {
        QX_ASSERT_IN("ModelRefSet", x);
        if (contains(x)) return false;
        const Ref src(x);
        const auto change = [&] { this->m_value.push_back(src); };
        IOperationCallBacks* const hooks = GetOperationCallBacks();
        if (!hooks) {
            change();
        } else if constexpr (Base::Entry::OWNS_TARGETS) {
            auto params = this->template ParamsFor<InsertIntoMSet_params>(&this->m_value);
            params.src = &src;
            params.n = 1;
            hooks->OnInsertIntoMSet(params);
            change();
        } else {
            this->AssignWithoutPrefs(change);
        }
        return true;
    }

    // False when it is not there.
    bool erase(const Ref& x) {
        if (!contains(x)) return false;
        Erase(xvector<Ref>{x});
        return true;
    }
    void clear() { Erase(xvector<Ref>(this->m_value)); }

    // The same with an object.
    template <detail::MakesRef<Ref> P>
    bool contains(const P& x) const {
        return contains(detail::RefTo<Ref>(x));
    }
    template <detail::MakesRef<Ref> P>
    bool insert(const P& x) {
        return insert(detail::RefTo<Ref>(x));
    }
    template <detail::MakesRef<Ref> P>
    bool erase(const P& x) {
        return erase(detail::RefTo<Ref>(x));
    }

private:
    friend Owner;
    ModelRefSet() = default;
    ModelRefSet(const ModelRefSet&) = default;
    ModelRefSet(ModelRefSet&&) = default;

    // Elements of the set.
    void Erase(const xvector<Ref>& gone) {
        if (gone.empty()) return;
        const detail::SortedRefs<Ref> sorted(gone);
        const auto change = [&] {
            xvector<Ref>& v = this->m_value;
            v.erase(std::remove_if(v.begin(), v.end(), [&](const Ref& ref) { return sorted.Contains(ref); }), v.end());
        };
        IOperationCallBacks* const hooks = GetOperationCallBacks();
        if (!hooks) {
            change();
        } else if constexpr (Base::Entry::OWNS_TARGETS) {
            auto params = this->template ParamsFor<DeleteFromMSet_params>(&this->m_value);
            params.src = gone.data();
            params.n = gone.size();
            hooks->OnDeleteFromMSet(params);
            change();
        } else {
            this->AssignWithoutPrefs(change);
        }
    }
};

} // namespace quna
