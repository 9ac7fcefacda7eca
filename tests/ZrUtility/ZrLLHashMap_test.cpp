#include "ZrUtility/ZrLLHashMap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <new>
#include <random>
#include <vector>

#include "ZrUtility/ZrLOHashMap.h"
#include "hash_map_model.h"
#include "log_tape.h"
#include "support/failing_new.h"
#include "support/slots.h"

namespace {

using zr::test::all;
using zr::test::as;
using zr::test::call_slot;
using zr::test::FailingNew;
using zr::test::growth;
using zr::test::HashMapModel;
using zr::test::LogTape;
using zr::test::TapedRecord;

constexpr const char* kMapSource = ".\\ZrLLHashMap.cppzrwindowsmobile";

// The map's data, in the order in which it is laid out.
struct MapFields {
    void* table;
    void** keys;
    void** values;
    unsigned char* states;
    int count;
    int threshold;
    int capacity;
    int columns;
};
static_assert(sizeof(MapFields) == sizeof(ZrLLHashMap));

MapFields fieldsOf(const ZrLLHashMap& map) {
    MapFields fields{};
    std::memcpy(&fields, static_cast<const void*>(&map), sizeof fields);
    return fields;
}

TEST(ZrLLHashMap, GrowsBeforeItPassesItsThreshold) {
    LogTape tape;
    ZrLLHashMap map(4);
    EXPECT_EQ(fieldsOf(map).threshold, 3);
    for (int key = 1; key <= 3; ++key) {
        EXPECT_EQ(map.put(as(key), as(key * 10)), nullptr);
    }
    EXPECT_EQ(fieldsOf(map).capacity, 4);
    EXPECT_EQ(tape.take(), std::vector<TapedRecord>{});
    EXPECT_EQ(map.put(as(4), as(40)), nullptr);
    EXPECT_EQ(fieldsOf(map).capacity, 9);
    EXPECT_EQ(fieldsOf(map).threshold, 6);
    EXPECT_EQ(tape.take(), std::vector{growth(4, 9)});
    EXPECT_EQ(map.size(), 4);
    for (int key = 1; key <= 4; ++key) {
        EXPECT_EQ(map.get(as(key)), as(key * 10));
    }
    EXPECT_EQ(ZrLLHashMap::_loadFactor, 75);
}

TEST(ZrLLHashMap, ReplacingCanMakeItGrowToo) {
    LogTape tape;
    ZrLLHashMap map(4);
    for (int key = 1; key <= 3; ++key) {
        map.put(as(key), as(key * 10));
    }
    EXPECT_EQ(map.put(as(2), as(21)), as(20));
    EXPECT_EQ(map.size(), 3);
    EXPECT_EQ(map.get(as(2)), as(21));
    EXPECT_EQ(tape.take(), std::vector{growth(4, 9)});
}

TEST(ZrLLHashMap, GrowsFromOneSlotAndFromNone) {
    for (const int capacity : {1, 0, -5}) {
        ZrLLHashMap map(capacity);
        for (int key = 0; key < 100; ++key) {
            EXPECT_EQ(map.put(as(key), as(key + 1)), nullptr);
        }
        EXPECT_EQ(map.size(), 100);
        for (int key = 0; key < 100; ++key) {
            EXPECT_EQ(map.get(as(key)), as(key + 1));
        }
        EXPECT_EQ(map.get(as(100)), nullptr);
    }
}

TEST(ZrLLHashMap, AZeroValueIsThereAllTheSame) {
    ZrLLHashMap map(4);
    EXPECT_FALSE(map.containsKey(as(0)));
    map.put(as(0), nullptr);
    EXPECT_EQ(map.get(as(0)), nullptr);
    EXPECT_TRUE(map.containsKey(as(0)));
    EXPECT_EQ(map.size(), 1);
    EXPECT_EQ(map.remove(as(0)), nullptr);
    EXPECT_FALSE(map.containsKey(as(0)));
}

TEST(ZrLLHashMap, TakesARemovedSlotAgain) {
    ZrLLHashMap map(7);
    map.put(as(1), as(10));  // slot 1
    map.put(as(8), as(80));  // slot 1, then (1 + 17) % 7 = 4
    EXPECT_EQ(fieldsOf(map).keys[4], as(8));
    EXPECT_EQ(map.remove(as(1)), as(10));
    EXPECT_EQ(fieldsOf(map).states[1] & 3, 2);
    EXPECT_EQ(map.get(as(8)), as(80));
    EXPECT_EQ(map.put(as(8), as(81)), as(80));
    EXPECT_EQ(fieldsOf(map).values[4], as(81));
    map.put(as(15), as(150));  // slot 1
    EXPECT_EQ(fieldsOf(map).keys[1], as(15));
    EXPECT_EQ(fieldsOf(map).states[1] & 3, 1);
    EXPECT_EQ(map.size(), 2);
}

TEST(ZrLLHashMap, FindsNegativeKeys) {
    ZrLLHashMap map(10);
    map.put(as(-5), as(1));
    EXPECT_EQ(map.get(as(-5)), as(1));
    // The sign bit cleared, -5 is 2147483643.
    EXPECT_EQ(fieldsOf(map).keys[2147483643 % 10], as(-5));
    map.put(as(2147483643), as(2));
    EXPECT_EQ(map.get(as(-5)), as(1));
    EXPECT_EQ(map.get(as(2147483643)), as(2));
}

TEST(ZrLLHashMap, TellsWideKeysApart) {
    if (sizeof(void*) == 4) GTEST_SKIP() << "no such keys";
    ZrLLHashMap map(4);
    std::map<std::intptr_t, std::intptr_t> model;
    std::mt19937_64 random(1);
    for (int i = 0; i < 3000; ++i) {
        const auto low = static_cast<std::intptr_t>(random() % 8);
        const auto key = static_cast<std::intptr_t>(random() % 512) * (std::intptr_t{1} << (32 + i % 16)) + low;
        EXPECT_EQ(map.put(as(key), as(i + 1)), as(model[key]));
        model[key] = i + 1;
        ASSERT_EQ(map.get(as(key)), as(i + 1));
    }
    EXPECT_EQ(map.size(), static_cast<int>(model.size()));
    for (const auto& [key, value] : model) {
        EXPECT_EQ(map.get(as(key)), as(value));
    }
    // The same low half, and the rest is the sign or not.
    const auto unsignedKey = static_cast<std::intptr_t>(0xFFFFFFFB);
    ZrLLHashMap signs(10);
    signs.put(as(-5), as(1));
    EXPECT_FALSE(signs.containsKey(as(unsignedKey)));
    signs.put(as(unsignedKey), as(2));
    EXPECT_EQ(signs.get(as(-5)), as(1));
    EXPECT_EQ(fieldsOf(signs).keys[2147483643 % 10], as(-5));
    EXPECT_EQ(signs.size(), 2);
}

// Keys that are no more than their upper halves must not all be looked for in the same places.
TEST(ZrLLHashMap, SpreadsWideKeys) {
    if (sizeof(void*) == 4) GTEST_SKIP() << "no such keys";
    ZrLLHashMap map(1001);
    for (int key = 1; key <= 100; ++key) {
        map.put(as(static_cast<std::intptr_t>(std::int64_t{key} * (std::int64_t{1} << 32))), as(key));
    }
    const MapFields fields = fieldsOf(map);
    int homes = 0;
    for (int slot = 0; slot < fields.capacity; ++slot) {
        homes += fields.states[slot] > 3 ? 1 : 0;
    }
    EXPECT_GT(homes, 80);
}

TEST(ZrLLHashMap, IteratesInTheOrderOfItsSlots) {
    ZrLLHashMap map(100);
    for (const int key : {42, 7, 99, 0}) {
        map.put(as(key), as(key + 1000));
    }
    EXPECT_EQ(all(map.keys()), (std::vector{as(0), as(7), as(42), as(99)}));
    EXPECT_EQ(all(map.values()), (std::vector{as(1000), as(1007), as(1042), as(1099)}));
}

TEST(ZrLLHashMap, IteratorsReadTheMapInPlace) {
    ZrLLHashMap map(100);
    for (const int key : {1, 50, 60}) {
        map.put(as(key), as(key));
    }
    const std::unique_ptr<ZrIterator> iterator(map.values());
    EXPECT_EQ(iterator->hasNext(), 1);
    EXPECT_EQ(iterator->hasNext(), 1);
    EXPECT_EQ(iterator->next(), as(1));
    map.remove(as(50));
    map.put(as(60), as(61));
    map.put(as(70), as(70));
    EXPECT_EQ(iterator->next(), as(61));
    EXPECT_EQ(iterator->hasNext(), 1);
    map.remove(as(70));
    EXPECT_EQ(iterator->hasNext(), 0);
    EXPECT_EQ(iterator->next(), nullptr);
    map.put(as(99), as(99));
    // The position had come to the end.
    EXPECT_EQ(iterator->hasNext(), 0);
    EXPECT_EQ(iterator->next(), nullptr);
}

TEST(ZrLLHashMap, IteratorsStandWhereTheyHaveLooked) {
    ZrLLHashMap map(17);
    for (const int key : {3, 5, 16}) {
        map.put(as(key), as(key));
    }
    const std::unique_ptr<ZrIterator> iterator(map.values());
    EXPECT_EQ(iterator->hasNext(), 1);
    map.put(as(1), as(1));  // behind the position
    map.put(as(4), as(4));
    map.remove(as(3));
    EXPECT_EQ(iterator->next(), as(4));
    map.put(as(4), as(44));
    EXPECT_EQ(iterator->hasNext(), 1);
    map.remove(as(5));
    map.put(as(7), as(7));
    map.put(as(8), as(8));
    EXPECT_EQ(iterator->next(), as(7));
    EXPECT_EQ(iterator->next(), as(8));
    EXPECT_EQ(iterator->next(), as(16));
    EXPECT_EQ(iterator->next(), nullptr);
    EXPECT_EQ(iterator->hasNext(), 0);
}

// A removed key's slot is not taken for that of the key 0, nor for its own.
TEST(ZrLLHashMap, AKeyOf0IsToldFromASlotThatIsNotInUse) {
    ZrLLHashMap map(10);
    EXPECT_FALSE(map.containsKey(nullptr));
    map.put(nullptr, as(5));
    map.put(as(10), as(6));  // the next slot of the same search
    EXPECT_EQ(map.remove(nullptr), as(5));
    EXPECT_FALSE(map.containsKey(nullptr));
    EXPECT_EQ(map.get(nullptr), nullptr);
    EXPECT_EQ(map.get(as(10)), as(6));
    EXPECT_EQ(map.remove(as(10)), as(6));
    EXPECT_FALSE(map.containsKey(as(10)));
    map.put(as(10), as(7));
    map.clear();
    EXPECT_FALSE(map.containsKey(as(10)));
    EXPECT_EQ(map.get(as(10)), nullptr);
    EXPECT_FALSE(map.containsKey(nullptr));
}

TEST(ZrLLHashMap, HasNoEntries) {
    LogTape tape;
    ZrLLHashMap map(4);
    EXPECT_EQ(map.entries(), nullptr);
    ZrLOHashMap objects(4);
    EXPECT_EQ(objects.entries(), nullptr);
    const TapedRecord record{kMapSource, 153, 0xA80004, {}, {}};
    EXPECT_EQ(tape.take(), (std::vector{record, record}));
}

class MapThatClearsByItself : public ZrLLHashMap {
public:
    MapThatClearsByItself() : ZrLLHashMap(100) {}
    int seen = -1;

protected:
    void clearElements() override { seen = size(); }
};

TEST(ZrLLHashMap, ClearGoesThroughTheVirtualOperation) {
    MapThatClearsByItself map;
    map.put(as(1), as(10));
    map.put(as(2), as(20));
    map.remove(as(2));
    map.clear();
    EXPECT_EQ(map.seen, 1);
    EXPECT_EQ(map.size(), 0);
    EXPECT_EQ(map.get(as(1)), nullptr);
    EXPECT_EQ(all(map.keys()), std::vector<void*>{});
    for (int slot = 0; slot < 100; ++slot) {
        EXPECT_EQ(fieldsOf(map).states[slot], 0);
    }
    EXPECT_EQ(fieldsOf(map).capacity, 100);
}

TEST(ZrLLHashMap, SlotsStandInOrder) {
    MapThatClearsByItself map;
    EXPECT_EQ((call_slot<void*, void*, void*>(&map, 2, as(1), as(10))), nullptr);  // put
    EXPECT_EQ((call_slot<void*, void*>(&map, 3, as(1))), as(10));                  // get
    EXPECT_TRUE((call_slot<bool, void*>(&map, 5, as(1))));                         // containsKey
    EXPECT_EQ((call_slot<int>(&map, 6)), 1);                                       // size
    EXPECT_EQ(all(call_slot<ZrIterator*>(&map, 7)), std::vector{as(1)});           // keys
    EXPECT_EQ(all(call_slot<ZrIterator*>(&map, 8)), std::vector{as(10)});          // values
    EXPECT_EQ((call_slot<ZrIterator*>(&map, 9)), nullptr);                         // entries
    EXPECT_EQ((call_slot<void*, void*>(&map, 4, as(1))), as(10));                  // remove
    call_slot<void>(&map, 10);                                                     // clear
    EXPECT_EQ(map.seen, 0);
    map.put(as(1), as(1));
    call_slot<void>(&map, 11);  // clearElements
    EXPECT_EQ(map.seen, 1);
    auto* gone = new MapThatClearsByItself;
    const long before = zr::test::live_news();
    call_slot<void>(gone, zr::test::deleting(0));
    EXPECT_LT(zr::test::live_news(), before);
}

// Only the copy that lives on frees the slots: the other is laid in memory that is never destroyed.
TEST(ZrLLHashMap, CopiesShareTheSlots) {
    const long before = zr::test::live_news();
    {
        ZrLLHashMap map(10);
        map.put(as(1), as(10));
        alignas(ZrLLHashMap) unsigned char room[sizeof(ZrLLHashMap)];
        auto* copy = new (room) ZrLLHashMap(map);
        map.put(as(2), as(20));
        EXPECT_EQ(copy->size(), 1);
        EXPECT_EQ(copy->get(as(2)), as(20));
        *copy = map;
        EXPECT_EQ(copy->size(), 2);
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrLLHashMap, ACopyThatCountsWrongDropsWhatFindsNoSlot) {
    const long before = zr::test::live_news();
    {
        ZrLLHashMap map(4);
        alignas(ZrLLHashMap) unsigned char room[2][sizeof(ZrLLHashMap)];
        auto* one = new (room[0]) ZrLLHashMap(map);
        auto* other = new (room[1]) ZrLLHashMap(map);
        for (int key = 1; key <= 3; ++key) {
            EXPECT_EQ(map.put(as(key), as(key * 10)), nullptr);
        }
        EXPECT_EQ(one->put(as(4), as(40)), nullptr);
        EXPECT_EQ(one->get(as(4)), as(40));
        // All four slots are in use now, and to this copy the map is empty.
        EXPECT_EQ(other->put(as(5), as(50)), nullptr);
        EXPECT_FALSE(other->containsKey(as(5)));
        EXPECT_EQ(other->size(), 0);
        EXPECT_EQ(other->put(as(4), as(44)), as(40));
        EXPECT_EQ(map.get(as(3)), as(30));
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrLLHashMap, WithoutMemoryItStaysAsItIs) {
    LogTape tape;
    const long before = zr::test::live_news();
    {
        ZrLLHashMap map(4);
        for (int key = 1; key <= 3; ++key) {
            map.put(as(key), as(key * 10));
        }
        void* put[4];
        ZrIterator* iterators[2];
        {
            const FailingNew failing;
            put[0] = map.put(as(4), as(40));  // the last slot
            put[1] = map.put(as(5), as(50));  // no slot
            put[2] = map.put(as(2), as(21));
            put[3] = map.get(as(6));
            iterators[0] = map.keys();
            iterators[1] = map.values();
        }
        EXPECT_EQ(put[0], nullptr);
        EXPECT_EQ(put[1], nullptr);
        EXPECT_EQ(put[2], as(20));
        EXPECT_EQ(put[3], nullptr);
        EXPECT_EQ(iterators[0], nullptr);
        EXPECT_EQ(iterators[1], nullptr);
        EXPECT_EQ(tape.take(), (std::vector{growth(4, 9), growth(4, 9), growth(4, 9)}));
        EXPECT_EQ(map.size(), 4);
        EXPECT_EQ(map.get(as(4)), as(40));
        EXPECT_FALSE(map.containsKey(as(5)));
        EXPECT_EQ(map.put(as(5), as(50)), nullptr);
        EXPECT_EQ(map.size(), 5);
        EXPECT_EQ(map.get(as(1)), as(10));
        EXPECT_EQ(map.get(as(5)), as(50));
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrLLHashMap, AMapCreatedWithoutMemoryIsEmptyUntilThereIsSome) {
    LogTape tape;
    alignas(ZrLLHashMap) unsigned char room[sizeof(ZrLLHashMap)];
    ZrLLHashMap* map = nullptr;
    void* put = as(1);
    {
        const FailingNew failing;
        map = new (room) ZrLLHashMap(100);
        put = map->put(as(1), as(10));
    }
    EXPECT_EQ(put, nullptr);
    EXPECT_EQ(map->size(), 0);
    EXPECT_EQ(map->get(as(1)), nullptr);
    EXPECT_EQ(map->remove(as(1)), nullptr);
    map->clear();
    EXPECT_EQ(all(map->keys()), std::vector<void*>{});
    map->put(as(1), as(10));
    EXPECT_EQ(map->get(as(1)), as(10));
    map->~ZrLLHashMap();
}

// The state that every step must leave: results of all keys, iterators, and the slots themselves.
void expectSame(ZrLLHashMap& map, const HashMapModel& model, const std::vector<std::intptr_t>& keys) {
    const MapFields fields = fieldsOf(map);
    ASSERT_EQ(map.size(), model.size());
    ASSERT_EQ(fields.count, model.size());
    ASSERT_EQ(fields.threshold, model.threshold());
    ASSERT_EQ(fields.capacity, model.capacity());
    for (std::size_t slot = 0; slot < model.states.size(); ++slot) {
        ASSERT_EQ(fields.states[slot] & 3, model.states[slot]) << slot;
        if (model.states[slot] != HashMapModel::IN_USE) continue;
        ASSERT_EQ(fields.keys[slot], as(model.keys[slot]));
        ASSERT_EQ(fields.values[slot], as(model.values[slot]));
    }
    for (const std::intptr_t key : keys) {
        ASSERT_EQ(map.get(as(key)), as(model.get(key))) << key;
        ASSERT_EQ(map.containsKey(as(key)), model.containsKey(key)) << key;
    }
    ASSERT_EQ(all(map.keys()), model.inUse(model.keys));
    ASSERT_EQ(all(map.values()), model.inUse(model.values));
}

void step(ZrLLHashMap& map, HashMapModel& model, std::mt19937& random, std::intptr_t key) {
    const auto value = static_cast<std::intptr_t>(random() % 1000);
    switch (random() % 8) {
        case 0:
        case 1:
        case 2:
            ASSERT_EQ(map.remove(as(key)), as(model.remove(key)));
            return;
        case 3:
            if (random() % 64 != 0) return;
            map.clear();
            model.clear();
            return;
        default:
            ASSERT_EQ(map.put(as(key), as(value)), as(model.put(key, value)));
    }
}

TEST(ZrLLHashMap, AgreesWithAModelOverRandomOperations) {
    for (unsigned int seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        LogTape tape;
        std::mt19937 random(seed);
        std::vector<std::intptr_t> keys{0, 1, -1, 0x7FFFFFFF, -0x7FFFFFFF - 1, 0x3FFFFFFF, 0x40000000};
        for (int i = 0; i < 33; ++i) {
            const auto number = static_cast<std::int32_t>(random());
            keys.push_back(i % 3 == 0 ? number : number % 20);
        }
        const int capacity = static_cast<int>(1 + random() % 20);
        std::vector<TapedRecord> log;
        ZrLLHashMap map(capacity);
        HashMapModel model(capacity, log);
        for (int i = 0; i < 500; ++i) {
            step(map, model, random, keys[random() % keys.size()]);
            ASSERT_FALSE(HasFatalFailure()) << i;
            expectSame(map, model, keys);
            ASSERT_FALSE(HasFatalFailure()) << i;
            ASSERT_EQ(tape.take(), log) << i;
            log.clear();
        }
    }
}

// Many slots removed and taken again, so that hardly any is left that was never used.
TEST(ZrLLHashMap, AgreesWithAModelOverLongUse) {
    LogTape tape;
    std::mt19937 random(5);
    std::vector<TapedRecord> log;
    ZrLLHashMap map(150);
    HashMapModel model(150, log);
    std::vector<std::intptr_t> keys(500);
    for (std::intptr_t& key : keys) {
        key = static_cast<std::int32_t>(random());
    }
    for (int i = 0; i < 10000; ++i) {
        const std::intptr_t key = keys[random() % keys.size()];
        if (model.size() < 100) {
            ASSERT_EQ(map.put(as(key), as(i)), as(model.put(key, i)));
        } else {
            ASSERT_EQ(map.remove(as(key)), as(model.remove(key)));
        }
        ASSERT_EQ(map.get(as(keys[static_cast<std::size_t>(i) % keys.size()])),
                  as(model.get(keys[static_cast<std::size_t>(i) % keys.size()])));
        if (i % 500 == 0) expectSame(map, model, keys);
        ASSERT_FALSE(HasFatalFailure()) << i;
    }
    EXPECT_EQ(tape.take(), log);
}

TEST(ZrLOHashMap, ClearReleasesTheValues) {
    const long before = zr::test::live_news();
    {
        ZrLOHashMap map(2);
        for (int key = 0; key < 50; ++key) {
            map.put(as(key), ::operator new(16));
        }
        map.put(as(50), nullptr);
        void* removed = map.remove(as(7));
        map.clear();
        EXPECT_EQ(map.size(), 0);
        EXPECT_EQ(zr::test::live_news(), before + 2);  // the slots and what was removed
        ::operator delete(removed);
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrLOHashMap, ClearReleasesTheValuesWithoutMemory) {
    const long before = zr::test::live_news();
    {
        ZrLOHashMap map(10);
        for (int key = 0; key < 5; ++key) {
            map.put(as(key), ::operator new(16));
        }
        const FailingNew failing;
        map.clear();
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrLOHashMap, DestructionLeavesTheValues) {
    void* value = ::operator new(16);
    const long before = zr::test::live_news();
    {
        ZrLOHashMap map(10);
        map.put(as(1), value);
    }
    EXPECT_EQ(zr::test::live_news(), before);
    ::operator delete(value);
}

TEST(ZrLOHashMap, ClearElementsIsTheLastSlot) {
    ZrLOHashMap map(10);
    map.put(as(1), ::operator new(16));
    const long before = zr::test::live_news();
    call_slot<void>(&map, 11);
    EXPECT_EQ(zr::test::live_news(), before - 1);
}

}  // namespace
