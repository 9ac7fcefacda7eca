#include "ZrUtility/ZrArray.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/failing_malloc.h"
#include "support/log_capture.h"
#include "support/log_categories.h"
#include "support/slots.h"

namespace {

using zr::test::call_slot;
using zr::test::FailingMalloc;
using zr::test::kContainersFailure;
using zr::test::kContainersInformation;
using zr::test::LogCapture;
using zr::test::LoggedRecord;

constexpr const char* kArraySource = ".\\ZrArray.cppzrwindowsmobile";

struct Record {
    int line;
    std::uint32_t category;
    std::vector<std::uintptr_t> arguments;

    friend bool operator==(const Record&, const Record&) = default;
};

Record grown(std::uintptr_t from, std::uintptr_t to) {
    return {68, kContainersInformation, {from, to}};
}
const Record kNoRoom{81, kContainersFailure, {}};
const Record kNotAppended{102, kContainersFailure, {}};

std::vector<Record> logged(const LogCapture& log) {
    std::vector<Record> records;
    for (const LoggedRecord& record : log.records()) {
        EXPECT_EQ(record.source, kArraySource);
        EXPECT_TRUE(record.data.empty());
        records.push_back({record.line, record.category, record.arguments});
    }
    return records;
}

using Records = std::vector<Record>;

void append(ZrArray& array, std::initializer_list<int> values) {
    for (const int value : values) {
        ASSERT_EQ(array.appendElement(&value), 1);
    }
}

std::vector<int> contents(ZrArray& array) {
    std::vector<int> values(array.getNumberOfElement());
    for (std::size_t i = 0; i < values.size(); ++i) {
        std::memcpy(&values[i], array.getElementByIndex(static_cast<int>(i)), sizeof(int));
    }
    return values;
}

bool isZero(const void* bytes, std::size_t count) {
    const auto* at = static_cast<const unsigned char*>(bytes);
    return std::all_of(at, at + count, [](unsigned char byte) { return byte == 0; });
}

TEST(ZrArray, StartsEmptyWithRoomForItsCapacity) {
    ZrArray array(8, 10);
    EXPECT_EQ(array.getNumberOfElement(), 0);
    EXPECT_EQ(array.getSizeOfElement(), 8);
    EXPECT_EQ(array.getTotalSize(), 80);
    EXPECT_EQ(array.getNumberOfBytes(), 0);
    ASSERT_NE(array.getArray(), nullptr);
    EXPECT_TRUE(isZero(array.getArray(), 80));
    EXPECT_EQ(array.getElementByIndex(3), static_cast<char*>(array.getArray()) + 24);
}

TEST(ZrArray, EleventhElementGrowsItByHalf) {
    ZrArray array(8, 10);
    const LogCapture log;
    for (std::int64_t value = 0; value < 10; ++value) {
        ASSERT_EQ(array.appendElement(&value), 1);
    }
    EXPECT_EQ(array.getTotalSize(), 80);
    EXPECT_EQ(logged(log), Records{});
    const std::int64_t last = 10;
    EXPECT_EQ(array.appendElement(&last), 1);
    EXPECT_EQ(array.getTotalSize(), 120);
    EXPECT_EQ(array.getNumberOfElement(), 11);
    EXPECT_EQ(array.getNumberOfBytes(), 88);
    EXPECT_EQ(logged(log), Records{grown(80, 120)});
    EXPECT_TRUE(isZero(array.getElementByIndex(11), 120 - 88));
}

TEST(ZrArray, GrowthIsAlwaysTheSame) {
    ZrArray array(4, 5);
    const LogCapture log;
    append(array, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    EXPECT_EQ(logged(log), (Records{grown(20, 28), grown(28, 36), grown(36, 44)}));
    EXPECT_EQ(contents(array), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

TEST(ZrArray, HalfOfOneElementIsOne) {
    for (const int capacity : {0, 1, 2, 3}) {
        ZrArray array(4, capacity);
        const LogCapture log;
        for (int value = 0; value <= capacity; ++value) {
            append(array, {value});
        }
        EXPECT_EQ(logged(log), Records{grown(4 * capacity, 4 * capacity + 4)});
        EXPECT_EQ(array.getTotalSize(), 4 * capacity + 4);
    }
}

TEST(ZrArray, FullFixedArrayReplacesItsLastElement) {
    int room[2] = {-1, -1};
    ZrArray array(room, sizeof(int), 0, sizeof room, false);
    const LogCapture log;
    append(array, {1, 2});
    EXPECT_EQ(logged(log), Records{});
    append(array, {3});
    EXPECT_EQ(logged(log), Records{kNoRoom});
    EXPECT_EQ(array.getNumberOfElement(), 2);
    EXPECT_EQ(contents(array), (std::vector<int>{1, 3}));
    EXPECT_EQ(array.acquireSlot(), &room[1]);
    EXPECT_EQ(room[1], 3);
    EXPECT_EQ(array.getArray(), room);
}

// What is left over at the end is not enough for an element.
TEST(ZrArray, PartOfAnElementIsNoRoom) {
    char room[11] = {};
    ZrArray array(room, sizeof(int), 0, sizeof room, false);
    append(array, {1, 2, 3});
    EXPECT_EQ(contents(array), (std::vector<int>{1, 3}));
    EXPECT_TRUE(isZero(room + 8, 3));
}

TEST(ZrArray, AdoptsElementsThatAreThere) {
    int room[4] = {7, 8, 9, 10};
    ZrArray array(room, sizeof(int), 2, sizeof room, false);
    EXPECT_EQ(contents(array), (std::vector<int>{7, 8}));
    auto* slot = static_cast<int*>(array.acquireSlot());
    EXPECT_EQ(slot, &room[2]);
    EXPECT_EQ(room[2], 0);
    EXPECT_EQ(room[3], 10);
}

TEST(ZrArray, GrowsAnAdoptedBufferThatItOwns) {
    auto* room = static_cast<int*>(std::malloc(3 * sizeof(int)));
    for (int i = 0; i < 3; ++i) {
        room[i] = i;
    }
    ZrArray array(room, sizeof(int), 3, 3 * sizeof(int), true);
    const LogCapture log;
    append(array, {3});
    EXPECT_EQ(logged(log), Records{grown(12, 16)});
    EXPECT_EQ(contents(array), (std::vector<int>{0, 1, 2, 3}));
}

TEST(ZrArray, SlotsAreZeroed) {
    ZrArray array(4, 4);
    append(array, {-1, -1});
    array.removeElement(1);
    auto* slot = static_cast<int*>(array.acquireSlot());
    EXPECT_EQ(slot, array.getElementByIndex(1));
    EXPECT_EQ(*slot, 0);
}

TEST(ZrArray, RemovingClosesTheGap) {
    ZrArray array(4, 4);
    append(array, {1, 2, 3});
    EXPECT_EQ(array.removeElement(0), 1);
    EXPECT_EQ(contents(array), (std::vector<int>{2, 3}));
    EXPECT_EQ(array.getNumberOfBytes(), 8);
    int vacated = 0;
    std::memcpy(&vacated, array.getElementByIndex(2), sizeof vacated);
    EXPECT_EQ(vacated, 3);
    append(array, {4});
    EXPECT_EQ(contents(array), (std::vector<int>{2, 3, 4}));
}

TEST(ZrArray, RefusesIndicesThatAreNotThere) {
    ZrArray array(4, 4);
    EXPECT_EQ(array.removeElement(0), 0);
    append(array, {1});
    const LogCapture log;
    for (const int index : {-1, 1, 2, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_EQ(array.removeElement(index), 0);
    }
    EXPECT_EQ(logged(log), Records{});
    EXPECT_EQ(contents(array), std::vector<int>{1});
}

TEST(ZrArray, ResetEmptiesAndZeroesTheWholeBuffer) {
    ZrArray array(4, 4);
    append(array, {1, 2, 3});
    array.removeElement(0);
    array.reset();
    EXPECT_EQ(array.getNumberOfElement(), 0);
    EXPECT_EQ(array.getTotalSize(), 16);
    EXPECT_TRUE(isZero(array.getArray(), 16));
    append(array, {4});
    EXPECT_EQ(contents(array), std::vector<int>{4});
}

TEST(ZrArray, DestroyedArrayHasNoBufferAndTakesNothing) {
    ZrArray array(4, 2);
    append(array, {1, 2});
    array.destroy();
    EXPECT_EQ(array.getArray(), nullptr);
    EXPECT_EQ(array.getElementByIndex(1), nullptr);
    EXPECT_EQ(array.getNumberOfElement(), 2);
    EXPECT_EQ(array.getTotalSize(), 8);
    EXPECT_EQ(array.removeElement(0), 0);
    const int value = 3;
    const LogCapture log;
    EXPECT_EQ(array.acquireSlot(), nullptr);
    EXPECT_EQ(array.appendElement(&value), 0);
    array.reset();
    EXPECT_EQ(array.getNumberOfElement(), 0);
    EXPECT_EQ(array.appendElement(&value), 0);
    EXPECT_EQ(logged(log), (Records{kNoRoom, kNoRoom, kNotAppended, kNoRoom, kNotAppended}));
    array.destroy();
}

TEST(ZrArray, DestroyFreesWhatIsNotOwned) {
    void* room = std::malloc(8);
    ZrArray array(room, 4, 0, 8, false);
    array.destroy();
    EXPECT_EQ(array.getArray(), nullptr);
}

TEST(ZrArray, ArrayWithoutAnyRoomTakesNothing) {
    const int value = 1;
    int room = 7;
    ZrArray none(nullptr, 4, 0, 0, false);
    ZrArray noRoom(&room, 4, 0, 3, false);
    ZrArray noBytes(0, 4);
    ZrArray negative(-4, 4);
    for (ZrArray* array : {&none, &noRoom, &noBytes, &negative}) {
        const LogCapture log;
        EXPECT_EQ(array->acquireSlot(), nullptr);
        EXPECT_EQ(array->appendElement(&value), 0);
        EXPECT_EQ(array->getNumberOfElement(), 0);
        array->reset();
        EXPECT_EQ(logged(log), (Records{kNoRoom, kNoRoom, kNotAppended}));
    }
    EXPECT_EQ(room & ~0xFFFFFF, 0);
}

TEST(ZrArray, CapacityThatNoNumberHoldsStartsWithoutRoom) {
    for (const int capacity : {-1, std::numeric_limits<int>::max()}) {
        ZrArray array(8, capacity);
        EXPECT_EQ(array.getTotalSize(), 0);
        const std::int64_t value = 5;
        EXPECT_EQ(array.appendElement(&value), 1);
        EXPECT_EQ(array.getTotalSize(), 8);
    }
}

// No growth beyond what a size can say: the buffer is not as large as it claims, so nothing may be written to it.
TEST(ZrArray, GrowthThatNoNumberHoldsIsRefused) {
    void* room = std::malloc(8);
    constexpr int kHuge = 1 << 29;
    ZrArray array(room, kHuge, 3, 3 * kHuge, true);
    const LogCapture log;
    EXPECT_EQ(array.acquireSlot(), array.getElementByIndex(2));
    EXPECT_EQ(logged(log), Records{kNoRoom});
    EXPECT_EQ(array.getNumberOfElement(), 3);
    EXPECT_EQ(array.getTotalSize(), 3 * kHuge);
}

TEST(ZrArray, StartsWithoutRoomWhenMemoryIsShort) {
    std::optional<ZrArray> array;
    const int value = 1;
    int appended = 0;
    const LogCapture log;
    {
        const FailingMalloc failing;
        array.emplace(4, 10);
        appended = array->appendElement(&value);
    }
    EXPECT_EQ(appended, 0);
    EXPECT_EQ(array->getArray(), nullptr);
    EXPECT_EQ(array->getTotalSize(), 0);
    EXPECT_EQ(logged(log), (Records{kNoRoom, kNotAppended}));
    append(*array, {1, 2});
    EXPECT_EQ(contents(*array), (std::vector<int>{1, 2}));
}

TEST(ZrArray, ReplacesItsLastElementWhenItCannotGrow) {
    ZrArray array(4, 2);
    append(array, {1, 2});
    const int value = 3;
    int appended = 0;
    void* slot = nullptr;
    const LogCapture log;
    {
        const FailingMalloc failing;
        appended = array.appendElement(&value);
        slot = array.acquireSlot();
    }
    EXPECT_EQ(appended, 1);
    EXPECT_EQ(slot, array.getElementByIndex(1));
    EXPECT_EQ(logged(log), (Records{kNoRoom, kNoRoom}));
    EXPECT_EQ(contents(array), (std::vector<int>{1, 3}));
    EXPECT_EQ(array.getTotalSize(), 8);
    append(array, {4});
    EXPECT_EQ(contents(array), (std::vector<int>{1, 3, 4}));
}

TEST(ZrArray, NothingIsAppendedForNull) {
    ZrArray array(4, 2);
    EXPECT_EQ(array.appendElement(nullptr), 0);
    EXPECT_EQ(array.getNumberOfElement(), 0);
}

TEST(ZrArray, AppendsAnElementOfItsOwn) {
    ZrArray array(4, 1);
    append(array, {42});
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(array.appendElement(array.getElementByIndex(i / 2)), 1);
    }
    EXPECT_EQ(contents(array), std::vector<int>(101, 42));
    int room = 7;
    ZrArray fixed(&room, 4, 1, 4, false);
    EXPECT_EQ(fixed.appendElement(&room), 1);
    EXPECT_EQ(room, 7);
}

// Only one of the two is destroyed: the other is laid in memory that is never destroyed.
TEST(ZrArray, CopiesShareTheBuffer) {
    ZrArray array(4, 4);
    append(array, {1});
    alignas(ZrArray) unsigned char room[sizeof(ZrArray)];
    auto* copy = new (room) ZrArray(array);
    EXPECT_EQ(copy->getArray(), array.getArray());
    append(array, {2});
    EXPECT_EQ(contents(*copy), std::vector<int>{1});
    append(*copy, {3});
    EXPECT_EQ(contents(array), (std::vector<int>{1, 3}));
    append(array, {4});
    *copy = array;
    EXPECT_EQ(contents(*copy), (std::vector<int>{1, 3, 4}));
    // The right to grow is copied as well.
    const LogCapture log;
    append(*copy, {5, 6});
    EXPECT_EQ(logged(log), Records{grown(16, 24)});
    array = *copy;
}

TEST(ZrArray, FieldsAndSlotsStandInOrder) {
    ZrArray array(4, 2);
    append(array, {1, 2});
    unsigned char* data = nullptr;
    unsigned char* next = nullptr;
    int sizes[3];
    const auto* fields = reinterpret_cast<const unsigned char*>(&array) + sizeof(void*);
    std::memcpy(&data, fields, sizeof data);
    std::memcpy(&next, fields + sizeof data, sizeof next);
    std::memcpy(sizes, fields + 2 * sizeof data, sizeof sizes);
    EXPECT_EQ(data, array.getArray());
    EXPECT_EQ(next, data + 8);
    EXPECT_EQ(sizes[0], 4);
    EXPECT_EQ(sizes[1], 2);
    EXPECT_EQ(sizes[2], 8);
    int growBy = 0;
    std::memcpy(&growBy, fields + 2 * sizeof data + sizeof sizes + sizeof(int), sizeof growBy);
    EXPECT_EQ(fields[2 * sizeof data + sizeof sizes], 1);
    EXPECT_EQ(growBy, 4);

    EXPECT_EQ((call_slot<int, int>(&array, 3, 0)), 1);  // removeElement
    EXPECT_EQ(contents(array), std::vector<int>{2});
    EXPECT_EQ((call_slot<void*>(&array, 2)), array.getElementByIndex(1));  // acquireSlot
    call_slot<void>(&array, 4);                                            // reset
    EXPECT_EQ(array.getNumberOfElement(), 0);
    call_slot<void>(&array, 5);  // destroy
    EXPECT_EQ(array.getArray(), nullptr);
}

// A derived class decides where its elements come from, and the others go by it.
class GivesNothing : public ZrArray {
public:
    GivesNothing() : ZrArray(4, 4) {}
    void* acquireSlot() override { return nullptr; }
};

TEST(ZrArray, AppendsThroughTheVirtualOperation) {
    GivesNothing array;
    const int value = 1;
    const LogCapture log;
    EXPECT_EQ(array.appendElement(&value), 0);
    EXPECT_EQ(logged(log), Records{kNotAppended});
}

// What an array is to be, said as simply as can be: the whole buffer, and how much of it is in use.
struct ArrayModel {
    std::vector<unsigned char> buffer;
    std::size_t elementSize;
    std::size_t count;
    std::size_t growBy;  // 0: fixed
    Records log;

    std::size_t used() const { return count * elementSize; }
    std::optional<std::size_t> acquire(bool memory) {
        if (buffer.size() - used() < elementSize && growBy != 0 && memory) {
            log.push_back(grown(buffer.size(), buffer.size() + growBy));
            buffer.resize(buffer.size() + growBy);
        }
        if (buffer.size() - used() < elementSize) {
            log.push_back(kNoRoom);
            if (count == 0) return {};
            return used() - elementSize;
        }
        ++count;
        std::fill_n(buffer.begin() + used() - elementSize, elementSize, 0);
        return used() - elementSize;
    }
    int append(const std::vector<unsigned char>& element, bool memory) {
        const auto slot = acquire(memory);
        if (!slot) {
            log.push_back(kNotAppended);
            return 0;
        }
        std::copy(element.begin(), element.end(), buffer.begin() + *slot);
        return 1;
    }
    int remove(int index) {
        if (index < 0 || static_cast<std::size_t>(index) >= count) return 0;
        const auto at = buffer.begin() + index * elementSize;
        std::copy(at + elementSize, buffer.begin() + used(), at);
        --count;
        return 1;
    }
};

void expectSame(ZrArray& array, const ArrayModel& model, const LogCapture& log) {
    ASSERT_EQ(array.getNumberOfElement(), model.count);
    ASSERT_EQ(array.getSizeOfElement(), model.elementSize);
    ASSERT_EQ(array.getTotalSize(), model.buffer.size());
    ASSERT_EQ(array.getNumberOfBytes(), model.used());
    if (!model.buffer.empty()) {
        ASSERT_EQ(std::memcmp(array.getArray(), model.buffer.data(), model.buffer.size()), 0);
        ASSERT_EQ(array.getElementByIndex(static_cast<int>(model.count)),
                  static_cast<unsigned char*>(array.getArray()) + model.used());
    }
    ASSERT_EQ(logged(log), model.log);
}

// One random operation on the array and on the model of it.
void step(ZrArray& array, ArrayModel& model, std::mt19937& random) {
    const bool memory = random() % 8 != 0;
    std::vector<unsigned char> element(model.elementSize);
    std::generate(element.begin(), element.end(), [&] { return static_cast<unsigned char>(random()); });
    const int index = static_cast<int>(random() % (model.count + 3)) - 1;
    switch (random() % 16) {
        case 0: {
            void* slot = nullptr;
            {
                const FailingMalloc failing(memory ? 1000 : 0);
                slot = array.acquireSlot();
            }
            const auto expected = model.acquire(memory);
            ASSERT_EQ(slot, expected ? static_cast<unsigned char*>(array.getArray()) + *expected : nullptr);
            return;
        }
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
            ASSERT_EQ(array.removeElement(index), model.remove(index));
            return;
        case 6:
            if (random() % 16 != 0) return;
            array.reset();
            model.count = 0;
            std::fill(model.buffer.begin(), model.buffer.end(), 0);
            return;
        default: {
            int appended = 0;
            {
                const FailingMalloc failing(memory ? 1000 : 0);
                appended = array.appendElement(element.data());
            }
            ASSERT_EQ(appended, model.append(element, memory));
        }
    }
}

void compare(ZrArray& array, ArrayModel model, std::mt19937& random) {
    for (int i = 0; i < 400; ++i) {
        model.log.clear();
        const LogCapture log;
        step(array, model, random);
        ASSERT_FALSE(testing::Test::HasFatalFailure());
        expectSame(array, model, log);
        ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
}

TEST(ZrArray, AgreesWithASimpleModelOverRandomOperations) {
    for (unsigned int seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const std::size_t elementSize = 1 + random() % 20;
        const std::size_t capacity = random() % 12;
        ZrArray owned(static_cast<int>(elementSize), static_cast<int>(capacity));
        compare(owned,
                {std::vector<unsigned char>(elementSize * capacity),
                 elementSize,
                 0,
                 std::max<std::size_t>(capacity / 2, 1) * elementSize,
                 {}},
                random);
        ASSERT_FALSE(HasFatalFailure());

        std::vector<unsigned char> room(elementSize * capacity + random() % elementSize);
        std::generate(room.begin(), room.end(), [&] { return static_cast<unsigned char>(random()); });
        const std::size_t count = random() % (capacity + 1);
        const ArrayModel model{room, elementSize, count, 0, {}};
        ZrArray fixed(room.data(), static_cast<int>(elementSize), static_cast<int>(count),
                      static_cast<int>(room.size()), false);
        compare(fixed, model, random);
        ASSERT_FALSE(HasFatalFailure());
    }
}

}  // namespace
