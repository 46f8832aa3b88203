// Results of binding without blocking, and the application's part in it.
#pragma once

#include "qxObject/DGNode.h"
#include "qxObject/IObject.h"
#include "qxObject/Interface.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

enum class EAsyncBindResult : int32 {
    Bound = 0,        // the object is in memory and is in `po`
    Pending = 1,      // the load, or the application's fetch, is under way
    DoesNotExist = 2, // there is no such object
    NotHandled = 3,   // from a handler only: it does not deal with this OID; the same as DoesNotExist
};

// `po` is null except for Bound.
struct MAsyncBind {
    EAsyncBindResult result = EAsyncBindResult::DoesNotExist;
    ptr<IPersistable> po;

    EAsyncBindResult Getresult() const { return result; }
    void Setresult(EAsyncBindResult x) { result = x; }
    ptr<IPersistable> Getpo() const { return po; }
    void Setpo(ptr<IPersistable> x) { po = x; }

    // Makes stale what depends on the fields by their addresses.
    void EvictDgsNodes() const {
        DataSourceEvict(&result);
        DataSourceEvict(&po);
    }

    friend bool operator==(const MAsyncBind& x, const MAsyncBind& y) { return x.result == y.result && x.po == y.po; }
    friend bool operator!=(const MAsyncBind& x, const MAsyncBind& y) { return !(x == y); }
};

// What an application implements to serve OIDs that a space does not hold. Both operations are called with the
// CSpace lock of the space held.
struct IAsyncBindRequestHandler {
    struct FnTable {
        // The store holds no object for the OID. Pending: the application will make the object persistent under it.
        MAsyncBind (*BeginAsyncBindRequest)(void* self, OID oid);
        // The request that Begin answered with Pending is over.
        void (*EndAsyncBindRequest)(void* self, OID oid);
    };

    template <class T>
    struct QX_API Stubs {
        static MAsyncBind BeginAsyncBindRequest(void* self, OID oid) {
            return static_cast<T*>(self)->BeginAsyncBindRequest(oid);
        }
        static void EndAsyncBindRequest(void* self, OID oid) { static_cast<T*>(self)->EndAsyncBindRequest(oid); }
        static constexpr FnTable s_table = {&Stubs::BeginAsyncBindRequest, &Stubs::EndAsyncBindRequest};
        static const FnTable* GetTable() noexcept { return &s_table; }
    };

    template <class T>
        requires requires(T& handler, OID oid) { handler.BeginAsyncBindRequest(oid); }
    static IAsyncBindRequestHandler CoerceFrom(T* handler) noexcept {
        return IAsyncBindRequestHandler(handler, handler ? Stubs<T>::GetTable() : nullptr);
    }

    IAsyncBindRequestHandler() noexcept = default;
    IAsyncBindRequestHandler(void* self, const FnTable* table) noexcept : m_self(self), m_table(table) {}

    MAsyncBind BeginAsyncBindRequest(OID oid) const { return m_table->BeginAsyncBindRequest(m_self, oid); }
    void EndAsyncBindRequest(OID oid) const { m_table->EndAsyncBindRequest(m_self, oid); }
    const IAsyncBindRequestHandler* operator->() const noexcept { return this; }

    void* m_self = nullptr;
    const FnTable* m_table = nullptr;
};

QX_API const ReflectedInterface& _GetReflected(const IAsyncBindRequestHandler*);

} // namespace quna
