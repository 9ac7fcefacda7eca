#include "ZrUtility/ZrTypedList.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/failing_new.h"
#include "support/slots.h"

namespace {

using zr::test::call_slot;
using zr::test::FailingNew;
using List = ZrTypedList<std::string>;
using Iterator = ZrTypedIterator<std::string>;

std::string one = "one";
std::string two = "two";
std::string three = "three";

std::vector<std::string*> contents(List& list) {
    std::vector<std::string*> found;
    const std::unique_ptr<Iterator> iterator(list.iterator());
    while (iterator->hasNext()) {
        found.push_back(iterator->next());
    }
    EXPECT_EQ(iterator->next(), nullptr);
    return found;
}

TEST(ZrTypedList, ForwardsEveryOperation) {
    List list;
    EXPECT_EQ(list.getLastElement(), nullptr);
    list.appendElement(&one);
    list.appendElement(&three);
    EXPECT_EQ(list.insertElement(1, &two), 0);
    EXPECT_EQ(list.insertElement(3, &two), -1);
    EXPECT_EQ(contents(list), (std::vector<std::string*>{&one, &two, &three}));
    EXPECT_EQ(list.getNumberOfElement(), 3);
    EXPECT_EQ(list.getElementByIndex(1), &two);
    EXPECT_EQ(list.getElementByIndex(3), nullptr);
    EXPECT_EQ(list.getLastElement(), &three);
    EXPECT_EQ(list.indexOf(&three), 2);
    EXPECT_EQ(list.removeElement(&one), 1);
    EXPECT_EQ(list.removeElement(&one), 0);
    EXPECT_EQ(list.removeElement(1), &three);
    EXPECT_EQ(list.removeElement(1), nullptr);
    EXPECT_EQ(contents(list), std::vector<std::string*>{&two});
    list.clear();
    EXPECT_TRUE(contents(list).empty());
}

TEST(ZrTypedList, UntypedIteratorIsTheListsOwn) {
    List list;
    list.appendElement(&one);
    const std::unique_ptr<ZrIterator> iterator(list.untyped_iterator());
    EXPECT_EQ(iterator->next(), static_cast<void*>(&one));
    EXPECT_EQ(iterator->hasNext(), 0);
}

TEST(ZrTypedList, DoesNotReportAFailedAppend) {
    List list;
    {
        const FailingNew failing;
        list.appendElement(&one);
    }
    EXPECT_EQ(list.getNumberOfElement(), 0);
}

TEST(ZrTypedList, FailedIteratorLeaksNothing) {
    List list;
    list.appendElement(&one);
    const long before = zr::test::live_news();
    for (int successes = 0; successes < 2; ++successes) {
        Iterator* iterator = nullptr;
        {
            const FailingNew failing(successes);
            iterator = list.iterator();
        }
        EXPECT_EQ(iterator, nullptr);
        EXPECT_EQ(zr::test::live_news(), before);
    }
}

TEST(ZrTypedIterator, OwnsTheHeldIterator) {
    List list;
    const long before = zr::test::live_news();
    delete list.iterator();
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrTypedIterator, WithoutAnIteratorHasNothing) {
    Iterator iterator(nullptr);
    EXPECT_EQ(iterator.hasNext(), 0);
    EXPECT_EQ(iterator.next(), nullptr);
}

TEST(ZrTypedIterator, CopiesShareTheHeldIterator) {
    List list;
    list.appendElement(&one);
    list.appendElement(&two);
    const std::unique_ptr<Iterator> iterator(list.iterator());
    alignas(Iterator) unsigned char room[sizeof(Iterator)];
    auto* copy = new (room) Iterator(*iterator);  // never destroyed: only one of the two may be
    EXPECT_EQ(copy->next(), &one);
    EXPECT_EQ(iterator->next(), &two);
    EXPECT_EQ(copy->hasNext(), 0);
}

TEST(ZrTypedList, SlotsStandInOrder) {
    List list;
    call_slot<void>(&list, 2, &one);                          // appendElement
    EXPECT_EQ((call_slot<int>(&list, 3, 0, &two)), 0);        // insertElement
    EXPECT_EQ((call_slot<int>(&list, 4)), 2);                 // getNumberOfElement
    EXPECT_EQ((call_slot<std::string*>(&list, 5, 0)), &two);  // getElementByIndex
    EXPECT_EQ((call_slot<std::string*>(&list, 6)), &one);     // getLastElement
    EXPECT_EQ((call_slot<int>(&list, 10, &one)), 1);          // indexOf
    auto* typed = call_slot<Iterator*>(&list, 11);            // iterator
    EXPECT_EQ((call_slot<int>(typed, 2)), 1);                 // hasNext
    EXPECT_EQ((call_slot<std::string*>(typed, 3)), &two);     // next
    const long before = zr::test::live_news();
    call_slot<void>(typed, zr::test::deleting(0));
    EXPECT_EQ(zr::test::live_news(), before - 2);
    auto* untyped = call_slot<ZrIterator*>(&list, 12);  // untyped_iterator
    EXPECT_EQ(untyped->next(), static_cast<void*>(&two));
    delete untyped;
    EXPECT_EQ((call_slot<int>(&list, 7, &two)), 1);           // removeElement(item)
    EXPECT_EQ((call_slot<std::string*>(&list, 8, 0)), &one);  // removeElement(index)
    list.appendElement(&three);
    call_slot<void>(&list, 9);  // clear
    EXPECT_EQ(list.getNumberOfElement(), 0);
}

}  // namespace
