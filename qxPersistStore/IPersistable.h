// The interface of a persistent class, and the mixin that gives a plain class its defaults.
//
// A persistent class X is a plain class on mixins, with nothing virtual but the destructor:
//
//     class X : public PersistableMixin<IObjectBaseMixin<X, EmptyBase>> { ... };
//
// It writes its body in Serialise, reads it in Deserialise and reports its references in VisitPrefs, by declaring
// members of these names, which hide the defaults. Deserialise may not bind a reference, look at another object or mark
// anything dirty.
#pragma once

#include "qxObject/IObject.h"
#include "qxPersistStore/OID.h"
#include "qxPersistStore/ReachablePrefVisitors.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"

#include <concepts>

namespace quna {

class IPrefVisitor;
struct ReflectedClass;
struct ReflectedInterface;

// The durable identity of one object. Reflected as "quna::PersistObjState".
//
// m_oid is null from construction until the object becomes persistent, and is set once: when the object is made
// persistent, or when it is loaded, before its Deserialise runs.
struct PersistObjState {
    OID m_oid;
};

// The form that an object holds. Identity is not part of an object's value: a copy starts without one, and assigning a
// value leaves the target's own identity alone.
struct PersistObjState_2 : PersistObjState {
    PersistObjState_2() noexcept {}
    PersistObjState_2(const PersistObjState_2&) noexcept : PersistObjState() {}
    PersistObjState_2& operator=(const PersistObjState_2&) noexcept { return *this; }
};

// The bits of ObjSysState::objflags_ that belong to the store. The lock of the object's domain is their only guard.
inline constexpr int PERSISTABLE_DIRTY = 2;          // in the dirty object set, or about to be
inline constexpr int PERSISTABLE_DELETE_VISITED = 4; // reached by the deletion walk; never cleared
inline constexpr int PERSISTABLE_DELETED = 8;        // permanently deleted, though still in memory

// A class whose objects are persistable.
template <class C>
concept PersistableClass = IObjectClass<C> && requires(const C& object) {
    { object.GetPersistObjState() } -> std::same_as<PersistObjState&>;
};

// The interface. Extends IObject: its table begins with the whole table of the root interface.
struct IPersistable : IObjectForwards<IPersistable> {
    struct FnTable : IObject::FnTable {
        void (*VisitPrefs)(const void* self, IPrefVisitor& visitor);
        bool (*RepresentsSubTree)(const void* self);
        void (*Serialise)(const void* self, Archive& ar);
        InputArchive (*Deserialise)(void* self, InputArchive ar);
        void (*OnCreate)(void* self, bool created);
        PersistObjState& (*GetPersistObjState)(const void* self);
    };

    // The table for the class `T`: one in the whole process, since tables are compared by address across libraries.
    template <class T>
    struct QX_API Stubs {
        static void VisitPrefs(const void* self, IPrefVisitor& visitor) {
            static_cast<const T*>(self)->VisitPrefs(visitor);
        }
        static bool RepresentsSubTree(const void* self) { return static_cast<const T*>(self)->RepresentsSubTree(); }
        static void Serialise(const void* self, Archive& ar) { static_cast<const T*>(self)->Serialise(ar); }
        static InputArchive Deserialise(void* self, InputArchive ar) { return static_cast<T*>(self)->Deserialise(ar); }
        static void OnCreate(void* self, bool created) { static_cast<T*>(self)->OnCreate(created); }
        static PersistObjState& GetPersistObjState(const void* self) {
            return static_cast<const T*>(self)->GetPersistObjState();
        }

        static constexpr FnTable s_table = {IObject::Stubs<T>::s_table, &Stubs::VisitPrefs,  &Stubs::RepresentsSubTree,
                                            &Stubs::Serialise,          &Stubs::Deserialise, &Stubs::OnCreate,
                                            &Stubs::GetPersistObjState};

        static const FnTable* GetTable() noexcept { return &s_table; }
    };

    // Both words are null for a null object.
    template <PersistableClass T>
    static IPersistable CoerceFrom(T* object) noexcept {
        return IPersistable(object, object ? Stubs<T>::GetTable() : nullptr);
    }

    IPersistable() noexcept = default;
    IPersistable(void* self, const FnTable* table) noexcept : m_self(self), m_table(table) {}

    // The same two words: a table of this interface is a table of the root interface.
    operator IObject() const noexcept { return IObject(m_self, m_table); }

    // Reports every persistent reference that the object holds, each once, in the class's own order.
    void VisitPrefs(IPrefVisitor& visitor) const { m_table->VisitPrefs(m_self, visitor); }

    // True when the object owns what its references reach, so that it can be copied or deleted as a unit with it.
    bool RepresentsSubTree() const { return m_table->RepresentsSubTree(m_self); }

    // Writes the object's body, which begins with a schema tag. Runs in the background writer too.
    void Serialise(Archive& ar) const { m_table->Serialise(m_self, ar); }

    // Reads the body into a freshly constructed object; references come back unbound.
    InputArchive Deserialise(InputArchive ar) { return m_table->Deserialise(m_self, ar); }

    // Called once when a new object, which has its OID by then, has become part of the persistent world; never on
    // loading. The store passes true.
    void OnCreate(bool created) { m_table->OnCreate(m_self, created); }

    // Writable through const pointers too: identity stands beside the object's value.
    PersistObjState& GetPersistObjState() const { return m_table->GetPersistObjState(m_self); }

    void* m_self = nullptr;
    const FnTable* m_table = nullptr;
};

// The records of the interface, "quna::IPersistable", and of the identity, "quna::PersistObjState".
QX_API const ReflectedInterface& _GetReflected(const IPersistable*);
QX_API const ReflectedClass& _GetReflected(const PersistObjState*);

// The object's identity, null while it is transient. `po` is not null: nothing tests it.
inline OID GetOid(ptr<const IPersistable> po) { return po->GetPersistObjState().m_oid; }

// True when the object has changes that are not written. `po` is not null.
inline bool IsPersistableDirty(ptr<const IPersistable> po) { return po->GetSysState().GetFlag(PERSISTABLE_DIRTY); }

// Finds the object's space and tells it; returns quietly when the object is in none.
QX_API void MarkPersistentAsDirtyWithoutTrace(ptr<const IPersistable> po);
QX_API void OnGarbageCollectPersistable(ptr<IPersistable> po);

namespace detail {

// Fails the assertion "!IsDirty()"; while an exception is passing, traces it instead.
QX_API void ReportDirtyObjectDestroyed(const void* object);

} // namespace detail

// The base of a persistable class: IPersistable's defaults for the class at the end of `Base`, which is
// IObjectBaseMixin<X, EmptyBase>. X hides a default by declaring a member of the same name; X provides Serialise and
// Deserialise.
template <class Base>
class PersistableMixin : public Base {
public:
    PersistableMixin() = default;
    PersistableMixin(const PersistableMixin&) = default;
    PersistableMixin& operator=(const PersistableMixin&) = default;

    // An object must not go before its changes are written.
    virtual ~PersistableMixin() noexcept(false) {
        if (IsDirty()) [[unlikely]]
            detail::ReportDirtyObjectDestroyed(this);
    }

    AnyInterface QueryInterface(const ReflectedInterface& ri) {
        if (&ri == &GetReflectedInterface<IPersistable>()) return ptr<IPersistable>(FinalObject());
        return Base::QueryInterface(ri);
    }

    PersistObjState& GetPersistObjState() const noexcept { return m_persistObjState; }
    void OnGarbageCollect() { OnGarbageCollectPersistable(ptr<IPersistable>(FinalObject())); }
    bool IsDirty() const { return this->GetSysState().GetFlag(PERSISTABLE_DIRTY); }
    void OnCreate(bool) {}
    void VisitPrefs(IPrefVisitor&) const {}
    bool RepresentsSubTree() const { return true; }

    // Marking an object that is dirty already costs a bit test and no call.
    void MarkAsDirtyWithoutTrace() const {
        if (!IsDirty()) MarkPersistentAsDirtyWithoutTrace(ptr<const IPersistable>(FinalObject()));
    }

    mutable PersistObjState_2 m_persistObjState;

private:
    // A dependent name, so that X need not be complete here.
    auto* FinalObject() { return static_cast<typename Base::FinalType*>(this); }
    auto* FinalObject() const { return static_cast<const typename Base::FinalType*>(this); }
};

} // namespace quna
