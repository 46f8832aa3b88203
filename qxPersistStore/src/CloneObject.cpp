// Deep copies: new, transient objects with copies of all that they own.
//
// Depth first and in pre-order, each child with its whole subtree before the next, on a stack of our own: chains may be
// as long as memory lasts. What has been made belongs to the collector at once, so giving up halfway frees nothing.
#include "qxObject/CSpace.h"
#include "qxObject/DollarNew.h"
#include "qxObject/ReflectedClass.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"

#include <bit>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <vector>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CloneObject";

// A copy, and the class of both.
struct Copy {
    ptr<IPersistable> m_object;
    const ReflectedClass* m_class = nullptr;
};

struct FreeBytes {
    void operator()(void* bytes) const noexcept { ::operator delete(bytes); }
};

ptr<IPersistable> AsPersistable(ptr<IObject> object) {
    const ptr<IPersistable> po = qicast<IPersistable>(object);
    QX_ASSERT(po);
    return po;
}

// The object alone, with references that equal its own. Null when its class can't be copied.
Copy CopyObject(ptr<IPersistable> po) {
    QX_ASSERT(po);
    QX_ASSERT(po->RepresentsSubTree());
    const ReflectedClass* const rc = po->GetReflectedClass();
    if (!rc || !rc->m_ops.HasCopyConstruct()) return {};
    QX_ASSERT(rc->m_size > 0);
    // The collector ends objects with `delete`.
    std::unique_ptr<void, FreeBytes> bytes(::operator new(static_cast<std::size_t>(rc->m_size)));
    rc->m_ops.CopyConstructVariable(bytes.get(), po.m_self);
    const ptr<IObject> object(bytes.release(), rc->m_IObjectFnTable);
    RegisterOrDestroy(object);
    return {AsPersistable(object), rc};
}

// A reference of a copy, which its child's copy is to replace.
//
// One inside the copy's own bytes is changed where it is. Others may have been shown from a place that is gone by now (an
// entry of a tree node at an unaligned address): these are changed by a second visit, when all children have been copied.
struct Reference {
    const prefbase* m_place; // null for one of the others
    prefbase m_value;        // of the others: what it names, and after its turn the child's copy
};

// A copy whose children are being copied.
struct Frame {
    ptr<IPersistable> m_copy;
    const void* m_source; // self pointer of the object that it is a copy of
    std::size_t m_first;  // its references in the list of all; those of a frame stand behind those of its parents
    std::size_t m_next;   // the first that has not been followed
    bool m_isRevisited;   // has references that a second visit changes
};

// Lists the references of a new copy and aims those to its parent at the parent's copy.
class Visitor final : public IPrefVisitor {
public:
    Visitor(const Copy& copy, ptr<IPersistable> parent, std::vector<Reference>& references)
        : c_(copy.m_object), m_parent(parent), m_references(references),
          m_end(static_cast<const char*>(c_.m_self) + copy.m_class->m_size) {}

    void VisitPref(const prefbase& pref) override {
        if (!pref) return;
        if (StandsInCopy(&pref)) {
            m_references.push_back({&pref, prefbase()});
        } else {
            m_references.push_back({nullptr, pref});
            m_hasOthers = true;
        }
    }
    // The top object's own parent is no part of the copy.
    void VisitParentPref(const prefbase& pref) override {
        if (m_parent) const_cast<prefbase&>(pref).Set(m_parent);
    }

    bool HasOthers() const { return m_hasOthers; }

private:
    bool StandsInCopy(const void* place) const {
        return !std::less<>()(place, c_.m_self) && std::less<>()(place, m_end);
    }

    const ptr<IPersistable> c_;
    const ptr<IPersistable> m_parent;
    std::vector<Reference>& m_references;
    const void* const m_end; // of the copy's own bytes
    bool m_hasOthers = false;
};

// The second visit, which sees the same references in the same order.
class SecondVisitor final : public IPrefVisitor {
public:
    SecondVisitor(const Reference* begin, const Reference* end) : m_next(begin), m_end(end) {}

    void VisitPref(const prefbase& pref) override {
        if (!pref) return;
        QX_ASSERT(m_next != m_end);
        const Reference& reference = *m_next++;
        if (reference.m_place) return;
        if (const ptr<IPersistable> copy = reference.m_value.GetBoundPtr()) const_cast<prefbase&>(pref).Set(copy);
    }
    void VisitParentPref(const prefbase&) override {}

private:
    const Reference* m_next;
    const Reference* m_end;
};

class DeepCopier {
public:
    ptr<IPersistable> Run(ptr<IPersistable> po) {
        const Copy top = CopyObject(po);
        if (!top.m_object) return null;
        Enter(top, po.m_self, null);
        while (!m_frames.empty()) {
            if (m_frames.back().m_next == m_references.size())
                Leave();
            else if (!FollowNext())
                return null;
        }
        return top.m_object;
    }

private:
    void Enter(const Copy& copy, const void* source, ptr<IPersistable> parent) {
        const std::size_t first = m_references.size();
        Visitor visitor(copy, parent, m_references);
        copy.m_object->VisitPrefs(visitor);
        if (m_references.size() > first) m_frames.push_back({copy.m_object, source, first, first, visitor.HasOthers()});
    }

    void Leave() {
        const Frame& frame = m_frames.back();
        if (frame.m_isRevisited) {
            SecondVisitor visitor(m_references.data() + frame.m_first, m_references.data() + m_references.size());
            frame.m_copy->VisitPrefs(visitor);
        }
        m_references.resize(frame.m_first);
        m_frames.pop_back();
    }

    // False when the child can't be copied.
    bool FollowNext() {
        Frame& frame = m_frames.back();
        Reference& reference = m_references[frame.m_next++];
        const ptr<IPersistable> child = reference.m_place ? reference.m_place->Get() : reference.m_value.Get();
        if (!child) return true;
        AssertOwnsNotItself(child);
        const Copy copy = CopyObject(child);
        if (!copy.m_object) return false;
        (reference.m_place ? const_cast<prefbase&>(*reference.m_place) : reference.m_value).Set(copy.m_object);
        Enter(copy, child.m_self, frame.m_copy);
        return true;
    }

    // An object that owns itself, through others, would be copied without end. Only one of the objects above the child is
    // looked at, the one at the highest power of two: a walk that goes on for ever goes round the same circle for ever, and
    // meets it there.
    void AssertOwnsNotItself(ptr<IPersistable> child) const {
        const bool ownsItself = child.m_self == m_frames[std::bit_floor(m_frames.size()) - 1].m_source;
        QX_ASSERT(!ownsItself);
    }

    std::vector<Frame> m_frames; // from the top to the copy that is being worked on
    std::vector<Reference> m_references;
};

} // namespace

ptr<IPersistable> SynchronousDeepCopyPersistableObject(ptr<IPersistable> po) { return DeepCopier().Run(po); }

} // namespace quna
