#include "ZrUtility/ZrLinkList.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "support/failing_new.h"
#include "support/slots.h"

namespace {

using zr::test::call_slot;
using zr::test::FailingNew;

int items[8];
void* const kA = &items[0];
void* const kB = &items[1];
void* const kC = &items[2];

std::vector<void*> contents(ZrList& list) {
    std::vector<void*> found;
    const std::unique_ptr<ZrIterator> iterator(list.iterator());
    while (iterator->hasNext()) {
        found.push_back(iterator->next());
    }
    return found;
}

void expectSame(ZrLinkList& list, const std::vector<void*>& model) {
    ASSERT_EQ(list.getNumberOfElement(), static_cast<int>(model.size()));
    EXPECT_EQ(contents(list), model);
    EXPECT_EQ(list.getLastElement(), model.empty() ? nullptr : model.back());
    for (std::size_t i = 0; i < model.size(); ++i) {
        EXPECT_EQ(list.getElementByIndex(static_cast<int>(i)), model[i]);
    }
    EXPECT_EQ(list.getElementByIndex(-1), nullptr);
    EXPECT_EQ(list.getElementByIndex(static_cast<int>(model.size())), nullptr);
}

TEST(ZrLinkList, StartsEmpty) {
    ZrLinkList list;
    expectSame(list, {});
    EXPECT_EQ(list.indexOf(kA), -1);
    EXPECT_EQ(list.removeElement(0), nullptr);
    EXPECT_EQ(list.removeElement(kA), 0);
    list.clear();
    expectSame(list, {});
}

TEST(ZrLinkList, EmptyListTakesAnyIndex) {
    for (const int index : {5, 0, -7}) {
        ZrLinkList list;
        EXPECT_EQ(list.insertElement(index, kA), 0);
        expectSame(list, {kA});
    }
}

TEST(ZrLinkList, InsertsBeforeAndNeverAtTheCount) {
    ZrLinkList list;
    list.appendElement(kA);
    list.appendElement(kB);
    EXPECT_EQ(list.insertElement(2, kC), -1);
    EXPECT_EQ(list.insertElement(-1, kC), -1);
    expectSame(list, {kA, kB});
    EXPECT_EQ(list.insertElement(1, kC), 0);
    expectSame(list, {kA, kC, kB});
    EXPECT_EQ(list.insertElement(0, kB), 0);
    expectSame(list, {kB, kA, kC, kB});
}

TEST(ZrLinkList, RemovingTheLastMovesTheTail) {
    ZrLinkList list;
    list.appendElement(kA);
    list.appendElement(kB);
    EXPECT_EQ(list.removeElement(1), kB);
    EXPECT_EQ(list.getLastElement(), kA);
    EXPECT_EQ(list.removeElement(0), kA);
    EXPECT_EQ(list.getLastElement(), nullptr);
    list.appendElement(kC);
    expectSame(list, {kC});
}

TEST(ZrLinkList, RemovesTheFirstOfTwins) {
    ZrLinkList list;
    for (void* item : {kA, kB, kA}) {
        list.appendElement(item);
    }
    EXPECT_EQ(list.removeElement(kA), 1);
    expectSame(list, {kB, kA});
    EXPECT_EQ(list.removeElement(kC), 0);
    expectSame(list, {kB, kA});
}

TEST(ZrLinkList, HoldsNullItems) {
    ZrLinkList list;
    list.appendElement(nullptr);
    list.appendElement(kA);
    list.appendElement(nullptr);
    EXPECT_EQ(list.indexOf(nullptr), 0);
    expectSame(list, {nullptr, kA, nullptr});
}

TEST(ZrLinkList, IteratorSeesWhatIsAppendedBeforeItsEnd) {
    ZrLinkList list;
    list.appendElement(kA);
    const std::unique_ptr<ZrIterator> iterator(list.iterator());
    list.appendElement(kB);
    EXPECT_EQ(iterator->next(), kA);
    EXPECT_EQ(iterator->next(), kB);
    EXPECT_EQ(iterator->hasNext(), 0);
    list.appendElement(kC);
    EXPECT_EQ(iterator->hasNext(), 0);
    EXPECT_EQ(iterator->next(), nullptr);
    EXPECT_EQ(iterator->next(), nullptr);
}

TEST(ZrLinkList, IteratorOutlivesRemovalOfOthers) {
    ZrLinkList list;
    for (void* item : {kA, kB, kC}) {
        list.appendElement(item);
    }
    const std::unique_ptr<ZrIterator> iterator(list.iterator());
    EXPECT_EQ(iterator->next(), kA);
    list.removeElement(kA);
    list.removeElement(kC);
    EXPECT_EQ(iterator->next(), kB);
    EXPECT_EQ(iterator->next(), nullptr);
}

TEST(ZrLinkList, FailsCleanlyWithoutMemory) {
    ZrLinkList list;
    list.appendElement(kA);
    ZrLinkList empty;
    int appended = 0;
    int inserted = 0;
    int insertedFirst = 0;
    ZrIterator* iterator = nullptr;
    {
        const FailingNew failing;
        appended = list.appendElement(kB);
        inserted = list.insertElement(0, kB);
        insertedFirst = empty.insertElement(0, kB);
        iterator = list.iterator();
    }
    EXPECT_EQ(appended, -1);
    EXPECT_EQ(inserted, -1);
    EXPECT_EQ(insertedFirst, -1);
    EXPECT_EQ(iterator, nullptr);
    expectSame(list, {kA});
    expectSame(empty, {});
}

TEST(ZrLinkList, GivesBackEveryNodeAndNoItem) {
    const long before = zr::test::live_news();
    {
        ZrLinkList cleared;
        ZrLinkList left;
        for (void*& item : std::vector<void*>(100, kA)) {
            cleared.appendElement(item);
            left.appendElement(item);
        }
        EXPECT_EQ(zr::test::live_news(), before + 200);
        cleared.clear();
        EXPECT_EQ(zr::test::live_news(), before + 100);
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

// Only the copy that lives on is cleared: the other is laid in memory that is never destroyed.
TEST(ZrLinkList, CopiesShareTheNodes) {
    ZrLinkList list;
    list.appendElement(kA);
    alignas(ZrLinkList) unsigned char room[sizeof(ZrLinkList)];
    auto* copy = new (room) ZrLinkList(list);
    list.appendElement(kB);
    EXPECT_EQ(copy->getNumberOfElement(), 1);
    EXPECT_EQ(contents(*copy), (std::vector<void*>{kA, kB}));
    *copy = list;
    EXPECT_EQ(copy->getNumberOfElement(), 2);
    EXPECT_EQ(copy->getLastElement(), kB);
}

class ListThatClearsByItself : public ZrLinkList {
public:
    int cleared = 0;

protected:
    void clearElements() override {
        ++cleared;
        ZrLinkList::clearElements();
    }
};

TEST(ZrLinkList, ClearGoesThroughTheVirtualOperation) {
    ListThatClearsByItself list;
    list.appendElement(kA);
    list.clear();
    EXPECT_EQ(list.cleared, 1);
    expectSame(list, {});
}

TEST(ZrLinkList, SlotsStandInOrder) {
    ListThatClearsByItself list;
    EXPECT_EQ((call_slot<int, void*>(&list, 2, kA)), 0);          // appendElement
    EXPECT_EQ((call_slot<int, int, void*>(&list, 3, 0, kB)), 0);  // insertElement
    EXPECT_EQ((call_slot<int>(&list, 4)), 2);                     // getNumberOfElement
    EXPECT_EQ((call_slot<void*, int>(&list, 5, 0)), kB);          // getElementByIndex
    EXPECT_EQ((call_slot<void*>(&list, 6)), kA);                  // getLastElement
    EXPECT_EQ((call_slot<int, void*>(&list, 10, kA)), 1);         // indexOf
    EXPECT_EQ((call_slot<int, void*>(&list, 7, kB)), 1);          // removeElement(item)
    EXPECT_EQ((call_slot<void*, int>(&list, 8, 0)), kA);          // removeElement(index)
    list.appendElement(kC);
    auto* iterator = call_slot<ZrIterator*>(&list, 11);  // iterator
    EXPECT_EQ((call_slot<int>(iterator, 2)), 1);         // hasNext
    EXPECT_EQ((call_slot<void*>(iterator, 3)), kC);      // next
    EXPECT_EQ((call_slot<int>(iterator, 2)), 0);
    const long before = zr::test::live_news();
    call_slot<void>(iterator, zr::test::deleting(0));
    EXPECT_EQ(zr::test::live_news(), before - 1);
    call_slot<void>(&list, 9);  // clear
    EXPECT_EQ(list.getNumberOfElement(), 0);
    call_slot<void>(&list, 12);  // clearElements
    EXPECT_EQ(list.cleared, 2);
}

// One random operation on the list and on the model of it.
void step(ZrLinkList& list, std::vector<void*>& model, std::mt19937& random) {
    const int count = static_cast<int>(model.size());
    void* item = &items[random() % std::size(items)];
    const int index = static_cast<int>(random() % (model.size() + 4)) - 2;
    const bool valid = index >= 0 && index < count;
    const auto at = model.begin() + (valid ? index : 0);
    const auto found = std::find(model.begin(), model.end(), item);
    switch (random() % 8) {
        case 0:
        case 1:
            ASSERT_EQ(list.appendElement(item), 0);
            model.push_back(item);
            return;
        case 2:
            ASSERT_EQ(list.insertElement(index, item), valid || count == 0 ? 0 : -1);
            if (valid || count == 0) model.insert(at, item);
            return;
        case 3:
            ASSERT_EQ(list.removeElement(index), valid ? *at : nullptr);
            if (valid) model.erase(at);
            return;
        case 4:
            ASSERT_EQ(list.removeElement(item), found != model.end() ? 1 : 0);
            if (found != model.end()) model.erase(found);
            return;
        case 5:
            ASSERT_EQ(list.indexOf(item), found != model.end() ? static_cast<int>(found - model.begin()) : -1);
            return;
        case 6:
            ASSERT_EQ(list.getElementByIndex(index), valid ? *at : nullptr);
            return;
        default:
            if (random() % 64 != 0) return;
            list.clear();
            model.clear();
    }
}

TEST(ZrLinkList, AgreesWithAVectorOverRandomOperations) {
    for (unsigned int seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        ZrLinkList list;
        std::vector<void*> model;
        for (int i = 0; i < 1000; ++i) {
            step(list, model, random);
            ASSERT_FALSE(HasFatalFailure());
            ASSERT_EQ(list.getLastElement(), model.empty() ? nullptr : model.back());
            if (i % 16 == 0) expectSame(list, model);
        }
        expectSame(list, model);
    }
}

}  // namespace
