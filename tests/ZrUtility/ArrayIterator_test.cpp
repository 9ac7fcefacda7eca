#include "ZrUtility/ArrayIterator.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "ZrUtility/ZrArray.h"
#include "support/slots.h"

namespace {

using zr::test::call_slot;

std::vector<void*> walk(ZrIterator& iterator) {
    std::vector<void*> found;
    while (iterator.hasNext()) {
        EXPECT_EQ(iterator.hasNext(), 1);
        found.push_back(iterator.next());
    }
    EXPECT_EQ(iterator.hasNext(), 0);
    return found;
}

TEST(ArrayIterator, YieldsTheAddressOfEachElement) {
    int values[3] = {1, 2, 3};
    ArrayIterator iterator(values, sizeof(int), 3);
    EXPECT_EQ(walk(iterator), (std::vector<void*>{&values[0], &values[1], &values[2]}));
}

TEST(ArrayIterator, HasNothingInAnEmptyArray) {
    int values[1] = {1};
    for (const int count : {0, -1}) {
        ArrayIterator elements(values, sizeof(int), count);
        EXPECT_EQ(walk(elements), std::vector<void*>{});
        ArrayIterator nowhere(nullptr, sizeof(int), count);
        EXPECT_EQ(walk(nowhere), std::vector<void*>{});
        PointerArrayIterator pointers(nullptr, count);
        EXPECT_EQ(walk(pointers), std::vector<void*>{});
    }
}

TEST(ArrayIterator, WalksAZrArray) {
    std::mt19937 random(1);
    for (int size = 1; size < 12; ++size) {
        ZrArray array(size, 3);
        const int count = static_cast<int>(random() % 50);
        std::vector<void*> expected;
        for (int i = 0; i < count; ++i) {
            array.acquireSlot();
        }
        for (int i = 0; i < count; ++i) {
            expected.push_back(array.getElementByIndex(i));
        }
        ArrayIterator iterator(array.getArray(), array.getSizeOfElement(), array.getNumberOfElement());
        EXPECT_EQ(walk(iterator), expected);
    }
}

TEST(PointerArrayIterator, YieldsThePointersInOrder) {
    int a = 0;
    int b = 0;
    void* pointers[4] = {&b, nullptr, &a, &b};
    PointerArrayIterator iterator(pointers, 4);
    EXPECT_EQ(walk(iterator), (std::vector<void*>{&b, nullptr, &a, &b}));
}

TEST(PointerArrayIterator, LooksAtTheArrayWhenAsked) {
    int a = 0;
    int b = 0;
    void* pointers[2] = {&a, &a};
    PointerArrayIterator iterator(pointers, 2);
    EXPECT_EQ(iterator.next(), &a);
    pointers[1] = &b;
    EXPECT_EQ(iterator.next(), &b);
}

TEST(ArrayIterator, CopiesGoTheirOwnWay) {
    int values[3] = {1, 2, 3};
    ArrayIterator iterator(values, sizeof(int), 3);
    iterator.next();
    ArrayIterator copy(iterator);
    EXPECT_EQ(walk(copy), (std::vector<void*>{&values[1], &values[2]}));
    EXPECT_EQ(iterator.next(), &values[1]);
    copy = iterator;
    EXPECT_EQ(walk(copy), std::vector<void*>{&values[2]});

    void* pointers[2] = {&values[0], &values[1]};
    PointerArrayIterator one(pointers, 2);
    one.next();
    PointerArrayIterator other(one);
    EXPECT_EQ(other.next(), &values[1]);
    other = one;
    EXPECT_EQ(other.next(), &values[1]);
}

TEST(ArrayIterator, SlotsStandInOrder) {
    int value = 1;
    void* pointer = &value;
    ArrayIterator elements(&pointer, sizeof pointer, 1);
    EXPECT_EQ((call_slot<int>(&elements, 2)), 1);
    EXPECT_EQ((call_slot<void*>(&elements, 3)), &pointer);
    PointerArrayIterator pointers(&pointer, 1);
    EXPECT_EQ((call_slot<int>(&pointers, 2)), 1);
    EXPECT_EQ((call_slot<void*>(&pointers, 3)), &value);
    EXPECT_EQ((call_slot<int>(&pointers, 2)), 0);
}

// As a caller does who was handed an iterator.
TEST(ArrayIterator, IsDeletedThroughItsBase) {
    int values[2] = {1, 2};
    const std::unique_ptr<ZrIterator> iterator = std::make_unique<ArrayIterator>(values, sizeof(int), 2);
    EXPECT_EQ(walk(*iterator).size(), 2u);
}

}  // namespace
