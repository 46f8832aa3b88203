#include "qxPersistStore/src/BTreeNodes.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/BPlusTree2";

} // namespace

void* detail::LoadChild(const void* place, const void* table) {
    ptr<IPersistable> po;
    if (evictable::IsAligned(place)) {
        po = static_cast<const prefbase*>(place)->Get();
    } else {
        const prefbase copy = LoadPref(place);
        po = copy.Get();
        if (po && HaveExclusiveLockedCSpace()) StorePref(const_cast<void*>(place), copy);
    }
    if (!po) return nullptr;
    QX_ASSERT_TEXT(static_cast<const void*>(po.m_table) == table, "node");
    return po.m_self;
}

} // namespace quna
