// The root interface of the object system, the system record that every object carries, and the mixin that implements
// the interface for a plain class.
#pragma once

#include "qxObject/Interface.h"
#include "qxObject/MemberList.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>
#include <concepts>

namespace quna {

class CSpace;
class IObjectVisitor;
class IPrefVisitor;
struct ReflectedClass;

// The system record of an object: what its domain and its collector keep about it.
//
// Threads: m_cspace, marked_ and objflags_ change only under an exclusive lock of the object's domain or before a second
//   thread can reach the object, without atomics. m_size and the touch time may change under a shared lock: the size is
//   reached through std::atomic_ref, by the domain alone; the touch time through its two functions.
struct ObjSysState {
    bool GetFlag(int flag) const noexcept { return (objflags_ & static_cast<uint32>(flag)) != 0; }
    void SetFlag(int flag) noexcept { objflags_ |= static_cast<uint32>(flag); }
    void ClearFlag(int flag) noexcept { objflags_ &= ~static_cast<uint32>(flag); }
    void SetFlag(int flag, bool value) noexcept { value ? SetFlag(flag) : ClearFlag(flag); }

    int32 GetLastTouchedTime() const noexcept {
        return std::atomic_ref<int32>(const_cast<int32&>(m_lastTouchedTime)).load(std::memory_order_relaxed);
    }
    // Stores only when the value differs: a hot object that many threads read keeps its cache line shared.
    void SetLastTouchedTime(int32 time) noexcept {
        std::atomic_ref<int32> touched(m_lastTouchedTime);
        if (touched.load(std::memory_order_relaxed) != time) touched.store(time, std::memory_order_relaxed);
    }

    CSpace* m_cspace = nullptr;  // the domain, null until the object is registered; not owned
    bool marked_ = false;        // reached by the collection that runs now
    uint32 objflags_ = 0;        // flag bits; 2, 4 and 8 belong to the persistent store
    ssize_t m_size = 0;          // bytes that the evictor counts for the object
    int32 m_lastTouchedTime = 0; // in ticks of the collector's epoch
};

// The record as it stands in an object. It describes the object, not its value, so copying an object does not copy it.
struct ObjSysState_2 : ObjSysState {
    ObjSysState_2() noexcept {}
    ObjSysState_2(const ObjSysState_2&) noexcept : ObjSysState() {}
    ObjSysState_2& operator=(const ObjSysState_2&) noexcept { return *this; }
};

// The operations that every interface inherits from the root, forwarded to the table of `I`. An interface value derives
// from it; it is empty and adds nothing to the two words.
template <class I>
struct IObjectForwards {
    AnyInterface QueryInterface(const ReflectedInterface& ri) { return Table().QueryInterface(Self(), ri); }
    AnyConstInterface QueryInterface(const ReflectedInterface& ri) const { return Table().QueryInterface(Self(), ri); }
    AnyInterface BindInterface(const ReflectedInterface& ri) { return Table().BindInterface(Self(), ri); }
    AnyConstInterface BindInterface(const ReflectedInterface& ri) const { return Table().BindInterface(Self(), ri); }

    const ReflectedClass* GetReflectedClass() const { return Table().GetReflectedClass(Self()); }
    void VisitObjects(IObjectVisitor& visitor) const { Table().VisitObjects(Self(), visitor); }
    void OnGarbageCollect() { Table().OnGarbageCollect(Self()); }
    void Destroy() { Table().Destroy(Self()); }
    // The record is system state beside the object's value: it is reached, and changed, through const pointers too.
    ObjSysState& GetSysState() const { return Table().GetSysState(Self()); }

    // Ends the chain that begins at ptr<I>::operator->.
    I* operator->() noexcept { return static_cast<I*>(this); }
    const I* operator->() const noexcept { return static_cast<const I*>(this); }

    explicit operator bool() const noexcept { return Self() != nullptr; }

private:
    const auto& Table() const { return *static_cast<const I&>(*this).m_table; }
    void* Self() const { return static_cast<const I&>(*this).m_self; }
};

// A class that provides the operations of the root interface; interface values themselves are not objects.
template <class C>
concept IObjectClass = !std::is_const_v<C> && !requires {
    typename C::FnTable;
}
&&requires(C& object) {
    { object.GetSysState() } -> std::same_as<ObjSysState&>;
};

// The root interface.
struct IObject : IObjectForwards<IObject> {
    struct FnTable {
        AnyInterface (*QueryInterface)(void* self, const ReflectedInterface& ri);
        AnyInterface (*BindInterface)(void* self, const ReflectedInterface& ri);
        const ReflectedClass* (*GetReflectedClass)(const void* self);
        void (*VisitObjects)(const void* self, IObjectVisitor& visitor);
        void (*OnGarbageCollect)(void* self);
        void (*Destroy)(void* self);
        ObjSysState& (*GetSysState)(void* self);
    };

    // The table for the class `T`. There is one of each class in the whole process: tables are compared by address
    // across libraries. Each entry calls the member that is visible in `T`, so a class replaces a default of its mixin
    // by declaring a member of the same name.
    //
    // The table of an interface that extends this one begins with a copy: `FnTable{IObject::Stubs<T>::s_table, ...}`.
    template <class T>
    struct QX_API Stubs {
        static AnyInterface QueryInterface(void* self, const ReflectedInterface& ri) {
            return static_cast<T*>(self)->QueryInterface(ri);
        }
        static AnyInterface BindInterface(void* self, const ReflectedInterface& ri) {
            return static_cast<T*>(self)->BindInterface(ri);
        }
        static const ReflectedClass* GetReflectedClass(const void* self) {
            return static_cast<const T*>(self)->GetReflectedClass();
        }
        static void VisitObjects(const void* self, IObjectVisitor& visitor) {
            static_cast<const T*>(self)->VisitObjects(visitor);
        }
        static void OnGarbageCollect(void* self) { static_cast<T*>(self)->OnGarbageCollect(); }
        static void Destroy(void* self) { static_cast<T*>(self)->Destroy(); }
        static ObjSysState& GetSysState(void* self) { return static_cast<T*>(self)->GetSysState(); }

        static constexpr FnTable s_table = {&Stubs::QueryInterface, &Stubs::BindInterface,    &Stubs::GetReflectedClass,
                                            &Stubs::VisitObjects,   &Stubs::OnGarbageCollect, &Stubs::Destroy,
                                            &Stubs::GetSysState};

        static const FnTable* GetTable() noexcept { return &s_table; }
    };

    // Both words are null for a null object.
    template <IObjectClass T>
    static IObject CoerceFrom(T* object) noexcept {
        return IObject(object, object ? Stubs<T>::GetTable() : nullptr);
    }

    IObject() noexcept = default;
    IObject(void* self, const FnTable* table) noexcept : m_self(self), m_table(table) {}

    void* m_self = nullptr;
    const FnTable* m_table = nullptr;
};

// The record of the root interface, named "quna::IObject".
QX_API const ReflectedInterface& _GetReflected(const IObject*);

// The record that describes the class `T`; `_GetReflected(const T*)` is declared beside `T` and found through it.
template <class T>
const ReflectedClass& GetReflectedClass() {
    return _GetReflected(static_cast<const T*>(nullptr));
}

// An untyped pointer as the root interface. `p` must be null or come from a `ptr` to an interface that extends IObject,
// whose table therefore begins with IObject's.
inline ptr<IObject> AsIObject(const AnyInterface& p) noexcept { return ptr<IObject>(p.m_self, p.m_table); }
inline ptr<const IObject> AsIObject(const AnyConstInterface& p) noexcept {
    return ptr<const IObject>(p.m_self, p.m_table);
}

// Sets or clears a flag bit of the object. Requires the exclusive lock of its domain.
inline void SetIObjectFlag(ptr<const IObject> object, int flag, bool value) {
    object->GetSysState().SetFlag(flag, value);
}

// The end of a chain of mixins: what a class reports when it has nothing to report.
class EmptyBase {
public:
    void VisitObjects(IObjectVisitor&) const {}
    void VisitPrefs(IPrefVisitor&) const {}
    void EvictDgsNodes() const {}
};

// Reports what the fields of an object hold. Defined in qxObject/ValueOps.h, which comes with qxObject/Members.h.
template <HasMembers T>
void VisitMemberObjects(IObjectVisitor& visitor, const T& object);

// Implements IObject for the plain class `Final`, which derives from it, directly or through further mixins. Nothing is
// virtual but the destructor: `Final` or a mixin between replaces a default by declaring a member of the same name, and
// the table binds to the most derived one when it is generated.
//
// `_GetReflected(const Final*)` must be declared beside `Final`; a class without a record hides GetReflectedClass.
template <class Final, class Base>
class IObjectBaseMixin : public Base {
public:
    using FinalType = Final;

    IObjectBaseMixin() = default;
    IObjectBaseMixin(const IObjectBaseMixin&) = default;
    IObjectBaseMixin& operator=(const IObjectBaseMixin&) = default;

    // Destructors below may assert.
    virtual ~IObjectBaseMixin() noexcept(false) {}

    // A new object on the heap, not yet registered with any domain. The collector ends it with Destroy.
    static ptr<IObject> sfnCreateInstance() { return ptr<IObject>(new Final); }

    AnyInterface QueryInterface(const ReflectedInterface& ri) {
        if (&ri == &GetReflectedInterface<IObject>()) return ptr<IObject>(static_cast<Final*>(this));
        return null;
    }
    AnyInterface BindInterface(const ReflectedInterface& ri) { return static_cast<Final*>(this)->QueryInterface(ri); }

    const ReflectedClass* GetReflectedClass() const { return &quna::GetReflectedClass<Final>(); }

    // Every field, if the class lists its members; otherwise nothing.
    void VisitObjects(IObjectVisitor& visitor) const {
        if constexpr (HasMembers<Final>)
            VisitMemberObjects(visitor, static_cast<const Final&>(*this));
        else
            Base::VisitObjects(visitor);
    }

    void OnGarbageCollect() {}
    void Destroy() { delete static_cast<Final*>(this); }

    ObjSysState& GetSysState() const noexcept { return m_objSysState; }

    mutable ObjSysState_2 m_objSysState;
};

} // namespace quna
