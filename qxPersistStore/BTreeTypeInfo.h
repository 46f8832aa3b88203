// What the nodes of a tree must know about the types of its keys and payloads.
#pragma once

#include "qxObject/TypeOps.h"
#include "qxPersistStore/TypeOpsId.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>

namespace quna {

// Raw bytes of a key, a payload and the two kinds of entries. Declared, never defined: only the descriptor below gives
// them a size.
struct _Key;
struct _Payload;
struct _KeyAndCref;
struct _KeyAndPayload;

// The resolved descriptor.
struct CalculatedBTreeTypeInfo {
    const TypeOps* m_keyType = nullptr;     // null until resolved, never null after
    const TypeOps* m_payloadType = nullptr; // null in a set
    ssize_t m_keyAndCrefSize = 0;           // bytes of an entry of an InternalNode
    ssize_t m_keyAndPayloadSize = 0;        // bytes of an entry of a LeafNode
};

// What is persistent about the types, with a cache of the resolved form. A tree and each of its nodes hold one of their
// own, so that a node can be stored, visited and destroyed without its tree.
//
// Threads: several readers may resolve one descriptor at once under a shared lock. The cache is written under a lock of
//   its own, m_keyType last and with release; who finds m_keyType set reads the rest plainly.
class QX_API BTreeTypeInfo {
public:
    BTreeTypeInfo() noexcept = default;
    BTreeTypeInfo(TypeOpsId keyTid, TypeOpsId payloadTid) noexcept : m_keyTid(keyTid), m_payloadTid(payloadTid) {}
    BTreeTypeInfo(const BTreeTypeInfo& rhs) noexcept
        : m_keyTid(rhs.m_keyTid), m_payloadTid(rhs.m_payloadTid), m_bi(rhs.ResolvedOrNothing()) {}
    BTreeTypeInfo& operator=(const BTreeTypeInfo& rhs) noexcept {
        m_keyTid = rhs.m_keyTid;
        m_payloadTid = rhs.m_payloadTid;
        m_bi = rhs.ResolvedOrNothing();
        return *this;
    }

    // The first call looks the ids up in the store of the calling thread's space, which must be in force then.
    const CalculatedBTreeTypeInfo& GetCalculatedBTreeTypeInfo() const {
        if (IsResolved()) [[likely]]
            return m_bi;
        return Resolve();
    }

    // Sets the two entry sizes from the two types in m_bi.
    void InitSizes() const;

    bool IsResolved() const noexcept {
        return std::atomic_ref<const TypeOps*>(m_bi.m_keyType).load(std::memory_order_acquire) != nullptr;
    }

    TypeOpsId m_keyTid = 0;     // at least 1 in a tree that is used
    TypeOpsId m_payloadTid = 0; // 0: no payload, a set
    mutable CalculatedBTreeTypeInfo m_bi;

private:
    const CalculatedBTreeTypeInfo& Resolve() const;
    CalculatedBTreeTypeInfo ResolvedOrNothing() const noexcept {
        return IsResolved() ? m_bi : CalculatedBTreeTypeInfo();
    }
};

// The two ids, which open the record of the tree and of each node. Reading clears the cache first, so that a descriptor
// is always resolved from what is stored.
QX_API void SerialiseBTreeTypeInfo(Archive& ar, const BTreeTypeInfo& bti);
QX_API InputArchive DeserialiseBTreeTypeInfo(InputArchive ar, BTreeTypeInfo& bti);

} // namespace quna
