// One entry of an internal node outside any node: how a separator and its child travel from a split to the parent.
#pragma once

#include "qxPersistStore/BTreeEntries.h"
#include "qxPersistStore/src/FixedOrHeapAllocatedBuffer.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Export.h"

namespace quna {

// Ownership: of the key in it, until release: the caller then moves the bytes into a node.
class QX_API KeyAndCrefSlot {
public:
    explicit KeyAndCrefSlot(const CalculatedBTreeTypeInfo& bi) : m_bi(bi), m_buffer(GetKeyAndCrefSize(bi)) {}
    ~KeyAndCrefSlot() {
        if (m_p) DestructKeyAndCref(m_bi, m_p);
    }
    KeyAndCrefSlot(const KeyAndCrefSlot&) = delete;
    KeyAndCrefSlot& operator=(const KeyAndCrefSlot&) = delete;

    bool empty() const { return !m_p; }

    // The caller makes the entry in place. The key must not throw any more: see FillWithCopyOf.
    _KeyAndCref* fill() {
        QX_ASSERT_IN("src/BPlusTree2", !m_p);
        m_p = reinterpret_cast<_KeyAndCref*>(m_buffer.m_buffer);
        return m_p;
    }
    // Fills the slot with a copy of the key and a null reference; stays empty when the copying throws.
    void FillWithCopyOf(const _Key* key) {
        QX_ASSERT_IN("src/BPlusTree2", !m_p);
        CopyConstructKey(m_bi, reinterpret_cast<_Key*>(m_buffer.m_buffer), key);
        StorePref(member_cref(m_bi, fill()), cref<void>());
    }
    _KeyAndCref* contents() const {
        QX_ASSERT_IN("src/BPlusTree2", m_p);
        return m_p;
    }
    _KeyAndCref* release() {
        QX_ASSERT_IN("src/BPlusTree2", m_p);
        _KeyAndCref* const p = m_p;
        m_p = nullptr;
        return p;
    }

    const CalculatedBTreeTypeInfo& m_bi;
    FixedOrHeapAllocatedBuffer<256> m_buffer;
    _KeyAndCref* m_p = nullptr; // null while the slot is empty
};

} // namespace quna
