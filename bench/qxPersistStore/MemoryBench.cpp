// How many bytes does a resident object take beyond its own fields? Header, domain entry and table entry of 1 M clean
// objects, by the heap's own count. Limit: 140 bytes.
#include "bench/support/BenchObjects.h"

#include <cstdio>

#include <malloc.h>

int main() {
    using namespace quna;
    constexpr ssize_t NUM_OBJECTS = 1'000'000;
    constexpr ssize_t FIELD_BYTES = static_cast<ssize_t>(sizeof(BenchNode::m_words) + sizeof(BenchNode::m_next));
    const TempDir dir;
    MakeStoreOfNodes(dir / "store", NUM_OBJECTS);
    BenchStore store(dir / "store", OM_OPEN_EXISTING);
    const PSpaceTxn txn(SharedRead);
    const auto* root = static_cast<BenchRoot*>(GetPSpaceRoot("root").m_self);
    const struct mallinfo2 before = ::mallinfo2();
    for (const cref<BenchNode>& node : root->m_nodes) node.Get();
    const struct mallinfo2 after = ::mallinfo2();
    const auto used = static_cast<ssize_t>(after.uordblks + after.hblkhd - before.uordblks - before.hblkhd);
    std::printf("resident object: %.1f bytes in all, %zd of them its own fields, overhead %.1f bytes (limit 140)\n",
                static_cast<double>(used) / NUM_OBJECTS, FIELD_BYTES,
                static_cast<double>(used) / NUM_OBJECTS - FIELD_BYTES);
    return 0;
}
