#include "qxUtils/DoubleLinkedList.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

struct Element {
    ListPtrs<Element> m_links;
};

TEST(ListPtrs, StartAsThoseOfAnElementOnNoList) {
    const Element e;
    EXPECT_EQ(nullptr, e.m_links.prev);
    EXPECT_EQ(nullptr, e.m_links.next);
    EXPECT_EQ(2 * sizeof(void*), sizeof(e.m_links));
}

} // namespace
} // namespace quna
