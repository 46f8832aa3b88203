#include "qxPersistStore/pref.h"

#include "qxObject/PrintInstance.h"
#include "qxObject/ReflectedClass.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxUtils/Tracer.h"
#include "qxUtils/xostream.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/pref";

bool IsEqualObjects(ptr<IPersistable> x, ptr<IPersistable> y) {
    const ReflectedClass* rcx = x->GetReflectedClass();
    QX_ASSERT(rcx);
    const ReflectedClass* rcy = y->GetReflectedClass();
    QX_ASSERT(rcy);
    if (rcx != rcy) return false;
    QX_ASSERT(rcx->m_ops.HasEqual());
    return rcx->m_ops.Equal(x.m_self, y.m_self);
}

bool IsLessObject(ptr<IPersistable> x, ptr<IPersistable> y) {
    const ReflectedClass* rcx = x->GetReflectedClass();
    QX_ASSERT(rcx);
    const ReflectedClass* rcy = y->GetReflectedClass();
    QX_ASSERT(rcy);
    QX_ASSERT(rcx == rcy);
    QX_ASSERT(rcx->m_ops.HasLess());
    return rcx->m_ops.Less(x.m_self, y.m_self);
}

// Destruction does nothing, but its slot is filled: it tells that references may not be copied as bytes.
constexpr TypeOps MakePrefTypeOps() {
    TypeOps ops = MakeTypeOps<prefbase>();
    ops.m_DestructArrayFn = &DestructArray<prefbase>;
    return ops;
}

constinit const TypeOps PREF_TYPE_OPS = MakePrefTypeOps();

} // namespace

// ---- Changing the target ----

void prefbase::Set2(ptr<IObject> p) {
    if (!p) {
        Clear();
        return;
    }
    const ptr<IPersistable> q = qicast<IPersistable>(p);
    QX_ASSERT(!p || q);
    Set(q);
}

// ---- Reading and binding ----

void prefbase::InitOidFrom(ptr<IPersistable> p) const {
    const OID targetOid = quna::GetOid(p);
    const OID oid = LoadOid();
    if (oid)
        QX_ASSERT_TEXT(oid == targetOid, "m_oid == quna::GetOid(p)");
    else if (targetOid)
        StoreOid(targetOid);
}

ptr<IPersistable> prefbase::GetTransient() const {
    ptr<IPersistable> p;
    if (!ReadBinding(p) || LoadOid()) return null;
    if (const OID oid = quna::GetOid(p)) {
        StoreOid(oid);
        return null;
    }
    return p;
}

// The object `p` that a binder found for this reference.
ptr<IPersistable> prefbase::Adopt(ptr<IPersistable> p) const {
    SetEvictablePtr(m_ptr, p);
    SetTouched(p);
    return p;
}

ptr<IPersistable> prefbase::BindThrough(ptr<IPersistable> (*binder)(OID)) const {
    if (ptr<IPersistable> p; ReadBinding(p)) {
        SetTouched(p);
        return p;
    }
    const OID oid = LoadOid();
    if (!oid) return null;
    const ptr<IPersistable> p = binder(oid);
    return p ? Adopt(p) : p;
}

ptr<IPersistable> prefbase::GetInMemory() const { return BindThrough(&BindObjectInMemoryGivenOid); }

ptr<IPersistable> prefbase::TryGet() const { return BindThrough(&TryBindObjectGivenOid); }

ptr<IPersistable> prefbase::AsyncGet() const { return BindThrough(&AsyncBindObjectInMemoryGivenOid); }

ptr<IPersistable> prefbase::GetMiss() const {
    const OID oid = LoadOid();
    if (!oid) return null;
    const ptr<IPersistable> p = BindObjectGivenOid(oid);
    QX_ASSERT(p);
    return Adopt(p);
}

void prefbase::ThrowNull() { throw DerefNullPrefException(); }

AnyInterface prefbase::Cast(ptr<IPersistable> p, const ReflectedInterface& ri) {
    if (!p) return null;
    return CastNonNull(p, ri);
}

AnyInterface prefbase::CastNonNull(ptr<IPersistable> p, const ReflectedInterface& ri) {
    QX_ASSERT(p);
    if (const AnyInterface q = p->QueryInterface(ri)) return q;
    const ReflectedClass* rc = p->GetReflectedClass();
    QX_ASSERT(rc);
    throw TypeMismatchException(*rc, ri);
}

// ---- Comparison ----

bool operator==(const prefbase& x, const prefbase& y) {
    const OID oidX = x.GetOid();
    const OID oidY = y.GetOid();
    if (oidX || oidY) return oidX == oidY;
    return x.LoadWords().m_self == y.LoadWords().m_self;
}

bool operator==(const prefbase& x, ptr<const IObject> q) {
    if (const ptr<IPersistable> p = x.GetBoundPtr()) return p.m_self == q.m_self;
    const OID oid = x.LoadOid();
    if (!q) return !oid;
    if (!oid) return false;
    const ptr<const IPersistable> r = qicast<IPersistable>(q);
    return r && GetOid(r) == oid;
}

bool IsEqualPrefdValues(prefbase x, prefbase y) {
    // Both loads come first, whatever the states: a dangling reference raises its exception either way.
    const ptr<IPersistable> px = x.Get();
    const ptr<IPersistable> py = y.Get();
    if (!x || !y) return !x && !y;
    return IsEqualObjects(px, py);
}

bool IsLessPrefdValues(prefbase x, prefbase y) {
    const ptr<IPersistable> px = x.Get();
    const ptr<IPersistable> py = y.Get();
    if (!x) return static_cast<bool>(y);
    if (!y) return false;
    return IsLessObject(px, py);
}

bool IsEqualNonNullPrefdValues(prefbase x, prefbase y) {
    QX_ASSERT(x);
    QX_ASSERT(y);
    const ptr<IPersistable> px = x.GetNotNull();
    const ptr<IPersistable> py = y.GetNotNull();
    return IsEqualObjects(px, py);
}

bool IsLessNonNullPrefdValues(prefbase x, prefbase y) {
    QX_ASSERT(x);
    QX_ASSERT(y);
    const ptr<IPersistable> px = x.GetNotNull();
    const ptr<IPersistable> py = y.GetNotNull();
    return IsLessObject(px, py);
}

bool IsEqualMVectors(const xvector<prefbase>& x, const xvector<prefbase>& y) {
    if (x.size() != y.size()) return false;
    for (ssize_t i = 0; i < x.size(); ++i)
        if (!IsEqualNonNullPrefdValues(x[i], y[i])) return false;
    return true;
}

// ---- Records, text, collector ----

void prefbase::Serialise(Archive& ar, bool) const {
    InitOid();
    const OID oid = LoadOid();
    const ptr<IPersistable> p = LoadWords();
    if (p.m_self && !oid) {
        TracerX trace;
        static_cast<xostream&>(trace) << "*** ERROR Object ";
        WriteIObjectPtr(trace, p);
        static_cast<xostream&>(trace) << " being written to disk without an oid\n";
    }
    QX_ASSERT_TEXT(!p.m_self || oid, "0");
    SerialiseOid(ar, oid);
}

InputArchive prefbase::Deserialise(InputArchive ar, bool) {
    m_ptr = null;
    return DeserialiseOid(ar, m_oid);
}

void prefbase::WriteToStream(xostream& os) const {
    InitOid();
    const OID oid = LoadOid();
    const ptr<IPersistable> p = GetBoundPtr();
    if (oid) {
        os << oid;
        if (p) os << ":";
    } else if (!p) {
        os << "null";
    }
    if (p) WriteIObjectPtr(os, p);
}

void prefbase::VisitObjects(IObjectVisitor& visitor) const {
    InitOid();
    if (LoadOid())
        visitor.VisitEvictablePtr(&m_ptr);
    else
        visitor.VisitObject(GetBoundPtr());
}

xostream& operator<<(xostream& os, const prefbase& r) {
    r.WriteToStream(os);
    return os;
}

void PrintPref(xostream& os, const prefbase* p) {
    const ptr<IPersistable> r = p->Get();
    if (!r) {
        os << "nul";
        return;
    }
    p->WriteToStream(os);
    os << " ";
    PrintInstance(os, r, PrintTypeSettings());
}

void SerialisePref(Archive& ar, const prefbase* p) { p->Serialise(ar, false); }

InputArchive DeserialisePref(InputArchive ar, prefbase* p) { return p->Deserialise(ar, false); }

const TypeOps* _GetTypeOps(const prefbase*) { return &PREF_TYPE_OPS; }

} // namespace quna
