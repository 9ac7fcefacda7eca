#include "ZrUtility/ZrCollections.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "ZrUtility/ZrLinkList.h"
#include "support/failing_new.h"

namespace {

using zr::test::FailingNew;

// A list that tells whether every iterator it gave was deleted, and when it is deleted itself.
class WatchedList : public ZrLinkList {
public:
    explicit WatchedList(int* deleted) : deleted_(deleted) {}
    ~WatchedList() override { ++*deleted_; }

private:
    int* deleted_;
};

void fill(ZrList& list, int count) {
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(list.appendElement(std::malloc(16)), 0);
    }
}

// That the items are freed, and once, is the leak checker's to tell; the rest is told here.
TEST(ZrCollections, FreesItemsAndKeepsNodes) {
    ZrLinkList list;
    fill(list, 10);
    list.appendElement(nullptr);
    const long before = zr::test::live_news();
    ZrCollections::freeListItems(&list);
    EXPECT_EQ(zr::test::live_news(), before);
    EXPECT_EQ(list.getNumberOfElement(), 11);
}

TEST(ZrCollections, EmptyListOnlyCostsItsIterator) {
    ZrLinkList list;
    const long before = zr::test::live_news();
    ZrCollections::freeListItems(&list);
    EXPECT_EQ(zr::test::live_news(), before);
    EXPECT_EQ(list.getNumberOfElement(), 0);
}

TEST(ZrCollections, DeletesTheListThroughItsDestructor) {
    int deleted = 0;
    const long before = zr::test::live_news();
    auto* list = new WatchedList(&deleted);
    fill(*list, 3);
    ZrCollections::deleteListAndFreeItems(list);
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(zr::test::live_news(), before);
}

// Items are freed even when there is no memory for an iterator.
TEST(ZrCollections, FreesItemsWithoutAnIterator) {
    ZrLinkList list;
    fill(list, 5);
    {
        const FailingNew failing;
        ZrCollections::freeListItems(&list);
    }
    EXPECT_EQ(list.getNumberOfElement(), 5);
}

}  // namespace
