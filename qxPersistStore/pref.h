// Persistent references: how one persistable object points at another.
//
// A reference holds the target's OID, which is what reaches the disk, and a cached pointer to the target, which is what
// makes following it cheap. Either may be absent:
//
//   m_oid   m_ptr   meaning
//   null    null    the null reference
//   null    set     bound to a transient object, or to a persistent one whose OID has not been copied in yet
//   set     null    persistent, unbound: as it comes from disk, or after the collector let the target go
//   set     set     persistent and bound
//
// prefbase is the untyped form, with all logic; pref<T> is a typed shell for an interface T, cref<T> for a class T.
// A reference names an object of the same space: which space an OID is looked up in is decided by the thread's current
// PSpace.
//
// Threads: a reference belongs to the domain of the object that holds it. Changing its target takes the exclusive lock.
//   Under a shared lock the const operations may still fill in the cached half, several threads at once, so all words
//   are reached as atomics; threads that race store the same values. The collector clears the pointer under the
//   exclusive lock.
#pragma once

#include "qxObject/CSpace.h"
#include "qxObject/EvictablePtr.h"
#include "qxObject/IObject.h"
#include "qxObject/IObjectVisitor.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/safe_bool.h"
#include "qxUtils/xvector.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <type_traits>

namespace quna {

class xostream;
struct ReflectedInterface;
struct TypeOps;

// The four binders look an OID, which is not null, up in the space of the calling thread.
QX_API ptr<IPersistable> BindObjectGivenOid(OID oid);              // loads; DerefDanglingOidException if it is gone
QX_API ptr<IPersistable> TryBindObjectGivenOid(OID oid);           // loads; null if it is gone
QX_API ptr<IPersistable> BindObjectInMemoryGivenOid(OID oid);      // never loads; null if it is not resident
QX_API ptr<IPersistable> AsyncBindObjectInMemoryGivenOid(OID oid); // null at once unless resident; may start a load

// Words that stand at an address which is no multiple of 8 are reached through LoadPref and StorePref only, never
// through a member function.
class QX_API prefbase : public safe_bool<prefbase> {
public:
    constexpr prefbase() noexcept = default;
    prefbase(const prefbase& rhs) noexcept : m_oid(rhs.LoadOid()), m_ptr(rhs.GetBoundPtr()) {}
    prefbase& operator=(const prefbase& rhs) noexcept {
        const OID oid = rhs.LoadOid();
        const ptr<IPersistable> p = rhs.GetBoundPtr();
        StoreWords(oid, p);
        return *this;
    }

    // --- Changing the target ---

    void Clear() noexcept { StoreWords(OID(), null); }
    void SetOid(OID oid) noexcept { StoreWords(oid, null); }
    // The target's OID is read when it is needed.
    void Set(ptr<IPersistable> p) noexcept { StoreWords(OID(), p); }
    // Clears for null. Fails the assertion "!p || q" if the object does not offer IPersistable.
    void Set2(ptr<IObject> p);
    void ClearOidOnly() noexcept { StoreOid(OID()); }
    void ClearPtrOnly() noexcept { m_ptr = null; }

    // --- Reading without binding ---

    // True for a reference to something, bound or not.
    bool boolean_test() const noexcept { return LoadWords().m_self != nullptr || LoadOid(); }

    // Takes the target's OID over, if the target is bound and has one.
    void InitOid() const {
        if (ptr<IPersistable> p; ReadBinding(p)) InitOidFrom(p);
    }

    OID GetOid() const {
        InitOid();
        return LoadOid();
    }

    bool IsBound() const noexcept {
        ptr<IPersistable> p;
        return ReadBinding(p);
    }

    // The cached pointer as it stands; null unless bound.
    ptr<IPersistable> GetBoundPtr() const noexcept {
        ptr<IPersistable> p;
        return ReadBinding(p) ? p : ptr<IPersistable>();
    }

    // The target if it is a transient object, otherwise null.
    ptr<IPersistable> GetTransient() const;

    // --- Binding: the target, or null for a null reference. Each marks the target as touched. ---

    // Loads. A dangling OID raises DerefDanglingOidException.
    ptr<IPersistable> Get() const {
        ptr<IPersistable> p;
        if (ReadBinding(p)) [[likely]] {
            SetTouched(p);
            return p;
        }
        return GetMiss();
    }
    // Never loads: null when the object is not resident.
    ptr<IPersistable> GetInMemory() const;
    // Loads; null when the object does not exist.
    ptr<IPersistable> TryGet() const;
    // Does not wait for the disk: null unless the object is bound, and a load may have been started.
    ptr<IPersistable> AsyncGet() const;
    // As Get; a null reference raises DerefNullPrefException.
    ptr<IPersistable> GetNotNull() const {
        const ptr<IPersistable> p = Get();
        if (!p) [[unlikely]]
            ThrowNull();
        return p;
    }

    // The same, seen through an interface. TypeMismatchException if the target does not offer it.
    AnyInterface qiGetBoundPtr(const ReflectedInterface& ri) const { return Cast(GetBoundPtr(), ri); }
    AnyInterface qiGetInMemory(const ReflectedInterface& ri) const { return Cast(GetInMemory(), ri); }
    AnyInterface qiGet(const ReflectedInterface& ri) const { return Cast(Get(), ri); }
    AnyInterface qiTryGet(const ReflectedInterface& ri) const { return Cast(TryGet(), ri); }
    AnyInterface qiAsyncGet(const ReflectedInterface& ri) const { return Cast(AsyncGet(), ri); }
    AnyInterface qiGetNotNull(const ReflectedInterface& ri) const { return CastNonNull(GetNotNull(), ri); }

    // `p` as the interface; null gives null. TypeMismatchException if the object does not offer it.
    static AnyInterface Cast(ptr<IPersistable> p, const ReflectedInterface& ri);
    static AnyInterface CastNonNull(ptr<IPersistable> p, const ReflectedInterface& ri);

    // By OID: all transient targets count as null.
    bool operator<(const prefbase& rhs) const { return GetOid() < rhs.GetOid(); }

    // --- Records, text, collector. The flag has no meaning; callers pass false. ---

    // The form of the OID. A transient target would be lost: it is traced, and the assertion "0" fails.
    void Serialise(Archive& ar, bool flag) const;
    // Comes back unbound.
    InputArchive Deserialise(InputArchive ar, bool flag);

    // oid[":" pointer], pointer, or "null".
    void WriteToStream(xostream& os) const;

    // A target with an OID can be loaded again, so the edge is evictable; a transient one has no other existence, so
    // the edge is strong. The address of m_ptr that the visitor gets is in this object.
    void VisitObjects(IObjectVisitor& visitor) const;

private:
    friend prefbase LoadPref(const void* address) noexcept;
    friend void StorePref(void* address, const prefbase& value) noexcept;
    friend bool ShouldStoreVisited(const prefbase& before, const prefbase& after) noexcept;
    friend QX_API bool operator==(const prefbase& x, const prefbase& y);
    friend QX_API bool operator==(const prefbase& x, ptr<const IObject> q);
    template <class T>
    friend class cref;

    prefbase(OID oid, ptr<IPersistable> p) noexcept : m_oid(oid), m_ptr(p) {}

    // Both words as they stand, bound or not: ReadEvictablePtr for a pointer that is known to be aligned, so that the
    // bound path of Get is two loads and two tests.
    ptr<IPersistable> LoadWords() const noexcept {
        const auto* table = std::atomic_ref<const FunctionPointer*>(m_ptr.m_table).load(std::memory_order_acquire);
        return ptr<IPersistable>(std::atomic_ref<void*>(m_ptr.m_self).load(std::memory_order_relaxed), table);
    }
    bool ReadBinding(ptr<IPersistable>& p) const noexcept {
        p = LoadWords();
        return p.m_self && p.m_table;
    }
    OID LoadOid() const noexcept {
        return OID(Seid(std::atomic_ref<uint64>(m_oid.value_).load(std::memory_order_relaxed)));
    }
    void StoreOid(OID oid) const noexcept {
        std::atomic_ref<uint64>(m_oid.value_).store(oid.value_, std::memory_order_relaxed);
    }
    // Only with the exclusive lock.
    void StoreWords(OID oid, ptr<IPersistable> p) noexcept {
        m_oid = oid;
        m_ptr = p;
    }

    void InitOidFrom(ptr<IPersistable> p) const;
    ptr<IPersistable> GetMiss() const;
    ptr<IPersistable> BindThrough(ptr<IPersistable> (*binder)(OID)) const;
    ptr<IPersistable> Adopt(ptr<IPersistable> p) const;
    [[noreturn]] static void ThrowNull();

    mutable OID m_oid;
    mutable ptr<IPersistable> m_ptr; // evictable
};
static_assert(sizeof(prefbase) == 24);

// Equal when both name the same object: by OID where there is one, otherwise by the object itself.
QX_API bool operator==(const prefbase& x, const prefbase& y);
// Binds nothing.
QX_API bool operator==(const prefbase& x, ptr<const IObject> q);

// Compare the objects that two references name, by the operations of their class; they load. Null sorts before all.
// Objects of different classes are unequal; ordering them is a fault ("rcx == rcy").
QX_API bool IsEqualPrefdValues(prefbase x, prefbase y);
QX_API bool IsLessPrefdValues(prefbase x, prefbase y);
// For references that are not null ("x", "y").
QX_API bool IsEqualNonNullPrefdValues(prefbase x, prefbase y);
QX_API bool IsLessNonNullPrefdValues(prefbase x, prefbase y);
// Pair by pair, in order. A null element is a fault unless the sizes differ.
QX_API bool IsEqualMVectors(const xvector<prefbase>& x, const xvector<prefbase>& y);

inline Archive& operator<<(Archive& ar, const prefbase& r) {
    r.Serialise(ar, false);
    return ar;
}
inline InputArchive operator>>(InputArchive ar, prefbase& r) { return r.Deserialise(ar, false); }
inline IObjectVisitor& operator<<(IObjectVisitor& visitor, const prefbase& r) {
    r.VisitObjects(visitor);
    return visitor;
}
QX_API xostream& operator<<(xostream& os, const prefbase& r);

// The hooks through which reflection handles references. PrintPref loads the target and prints it behind the
// reference; a null reference is "nul", those three letters.
QX_API void PrintPref(xostream& os, const prefbase* p);
QX_API void SerialisePref(Archive& ar, const prefbase* p);
QX_API InputArchive DeserialisePref(InputArchive ar, prefbase* p);

// The operations on references in arrays, which may lie at any address.
QX_API const TypeOps* _GetTypeOps(const prefbase*);

// References in packed records may stand at any address. At an address that is no multiple of 8 the words can tear, so
// nothing is written there but under the exclusive lock: bind and ask a copy. Moving the 24 bytes moves the reference.
inline prefbase LoadPref(const void* address) noexcept {
    if (evictable::IsAligned(address)) return *static_cast<const prefbase*>(address);
    uint64 oid = 0;
    void* words[2] = {};
    std::memcpy(&oid, address, sizeof oid);
    std::memcpy(words, static_cast<const char*>(address) + sizeof oid, sizeof words);
    return prefbase(OID(Seid(oid)), ptr<IPersistable>(words[0], static_cast<const FunctionPointer*>(words[1])));
}

// Requires the exclusive lock, or that nobody else can reach the place.
inline void StorePref(void* address, const prefbase& value) noexcept {
    const uint64 oid = value.LoadOid().value_;
    const ptr<IPersistable> p = value.GetBoundPtr();
    const void* words[2] = {p.m_self, p.m_table};
    std::memcpy(address, &oid, sizeof oid);
    std::memcpy(static_cast<char*>(address) + sizeof oid, words, sizeof words);
}

// Whether a visitor aimed a reference elsewhere, as the deep copy does. A cached half that was filled in is no change:
// a copy of a packed reference does not go back to its place for it.
inline bool ShouldStoreVisited(const prefbase& before, const prefbase& after) noexcept {
    const ptr<IPersistable> p = before.LoadWords();
    const ptr<IPersistable> q = after.LoadWords();
    const OID oid = before.LoadOid();
    if (oid == after.LoadOid()) return p.m_self != q.m_self && (p.m_self || !oid);
    return oid || !p.m_self || p.m_self != q.m_self;
}

// A reference to an object seen through the interface T.
template <class T>
class pref : public prefbase {
public:
    pref() noexcept = default;
    pref(ptr<T> p) { Set(p); } // NOLINT(google-explicit-constructor): a reference stands for the pointer

    pref& operator=(ptr<T> p) {
        Set(p);
        return *this;
    }
    pref& operator=(NullInterface) noexcept {
        Clear();
        return *this;
    }
    pref& operator=(std::nullptr_t) noexcept {
        Clear();
        return *this;
    }

    // An interface that does not extend IPersistable is asked for it, and must offer it.
    void Set(ptr<T> p) {
        if constexpr (ExtendsInterface<T, IPersistable>)
            prefbase::Set(p);
        else
            prefbase::Set2(p);
    }

    ptr<T> GetBoundPtr() const { return Typed(qiGetBoundPtr(GetReflectedInterface<T>())); }
    ptr<T> GetInMemory() const { return Typed(qiGetInMemory(GetReflectedInterface<T>())); }
    ptr<T> Get() const { return Typed(qiGet(GetReflectedInterface<T>())); }
    ptr<T> GetNotNull() const { return Typed(qiGetNotNull(GetReflectedInterface<T>())); }
    ptr<T> TryGet() const { return Typed(qiTryGet(GetReflectedInterface<T>())); }
    ptr<T> AsyncGet() const { return Typed(qiAsyncGet(GetReflectedInterface<T>())); }

    T operator*() const { return *GetNotNull(); }
    ptr<T> operator->() const { return GetNotNull(); }

private:
    static ptr<T> Typed(const AnyInterface& p) noexcept { return ptr<T>(p.m_self, p.m_table); }
};

// A reference to an object of the class T. Needs no query: the target's self pointer is the T.
template <class T>
class cref : public prefbase {
public:
    cref() noexcept = default;
    cref(T* p) { Set(p); } // NOLINT(google-explicit-constructor): a reference stands for the pointer

    cref& operator=(T* p) {
        Set(p);
        return *this;
    }
    cref& operator=(NullInterface) noexcept {
        Clear();
        return *this;
    }
    cref& operator=(std::nullptr_t) noexcept {
        Clear();
        return *this;
    }

    void Set(T* p) { prefbase::Set(IPersistable::CoerceFrom<T>(p)); }

    T* GetBoundPtr() const { return Typed(prefbase::GetBoundPtr()); }
    T* GetInMemory() const { return Typed(prefbase::GetInMemory()); }
    T* TryGet() const { return Typed(prefbase::TryGet()); }
    T* AsyncGet() const { return Typed(prefbase::AsyncGet()); }

    // The class is known, so touching the target costs no call through its table.
    T* Get() const {
        ptr<IPersistable> p;
        if (this->ReadBinding(p)) [[likely]] {
            T* const object = Typed(p);
            object->GetSysState().SetLastTouchedTime(g_touchClock.load(std::memory_order_relaxed));
            return object;
        }
        return Typed(this->GetMiss());
    }
    T* GetNotNull() const {
        T* const object = Get();
        if (!object) [[unlikely]]
            this->ThrowNull();
        return object;
    }

    T& operator*() const { return *GetNotNull(); }
    T* operator->() const { return GetNotNull(); }

private:
    static T* Typed(ptr<IPersistable> p) noexcept { return static_cast<T*>(p.m_self); }
};

// A reference to an object whose class is known only to the code that follows it.
template <>
class cref<void> : public prefbase {
public:
    cref() noexcept = default;

    // Clears: the only pointer that can be given without its class is null ("!p").
    cref& operator=(void* p) {
        QX_ASSERT_IN("src/pref", !p);
        Clear();
        return *this;
    }
    cref& operator=(NullInterface) noexcept {
        Clear();
        return *this;
    }

    template <class U>
    void Set(U* p) {
        prefbase::Set(IPersistable::CoerceFrom<U>(p));
    }

    void* GetBoundPtr() const { return prefbase::GetBoundPtr().m_self; }
    void* GetInMemory() const { return prefbase::GetInMemory().m_self; }
    void* Get() const { return prefbase::Get().m_self; }
    void* GetNotNull() const { return prefbase::GetNotNull().m_self; }
    void* TryGet() const { return prefbase::TryGet().m_self; }
    void* AsyncGet() const { return prefbase::AsyncGet().m_self; }
};

static_assert(sizeof(cref<void>) == sizeof(prefbase));

} // namespace quna
