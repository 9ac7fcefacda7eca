#include "ZrUtility/ZrStringLongHashMap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

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

constexpr const char* kStringMapSource = ".\\ZrStringLongHashMap.cppzrwindowsmobile";

void* key(const char* text) {
    return const_cast<char*>(text);
}

std::vector<TapedRecord> collision(const char* stored) {
    return {{kStringMapSource, 107, 0xA80004, {}, {}}, {kStringMapSource, 108, 0xA80004, {}, stored}};
}

std::int32_t hashOf(const std::string& text) {
    std::uint32_t hash = 17;
    for (const char c : text) {
        hash = hash * 37 + static_cast<std::uint32_t>(static_cast<signed char>(c));
    }
    return static_cast<std::int32_t>(hash);
}

TEST(ZrStringLongHashMap, KeepsWhatIsPut) {
    ZrStringLongHashMap map(10);
    EXPECT_EQ(map.put(key("one"), as(1)), nullptr);
    EXPECT_EQ(map.put(key("two"), as(2)), nullptr);
    EXPECT_EQ(map.size(), 2);
    const std::string other = "one";
    EXPECT_EQ(map.get(key(other.c_str())), as(1));
    EXPECT_TRUE(map.containsKey(key(other.c_str())));
    EXPECT_EQ(map.put(key("one"), as(11)), as(1));
    EXPECT_EQ(map.size(), 2);
    EXPECT_EQ(map.remove(key("one")), as(11));
    EXPECT_EQ(map.remove(key("one")), nullptr);
    EXPECT_EQ(map.get(key("one")), nullptr);
    EXPECT_EQ(map.size(), 1);
    map.clear();
    EXPECT_EQ(map.size(), 0);
    EXPECT_FALSE(map.containsKey(key("two")));
}

// Where keys come to lie shows their hashes: in as many slots as this, that is the hash without its sign bit.
TEST(ZrStringLongHashMap, HashesAsItShould) {
    EXPECT_EQ(hashOf(""), 17);
    EXPECT_EQ(hashOf("a"), 726);
    ZrStringLongHashMap map(1000);
    const std::vector<const char*> texts{"b", "a", "", "\xFF", "\x80", "A", "}"};  // 17 * 37 plus -128 to 127
    for (const char* text : texts) {
        map.put(key(text), as(1));
    }
    EXPECT_EQ(all(map.keys()), (std::vector{key(texts[2]), key(texts[4]), key(texts[3]), key(texts[5]), key(texts[1]),
                                            key(texts[0]), key(texts[6])}));
}

TEST(ZrStringLongHashMap, AKeyOfTheSameHashReplaces) {
    LogTape tape;
    ASSERT_EQ(hashOf("bA"), hashOf("af"));
    ZrStringLongHashMap map(10);
    map.put(key("bA"), as(1));
    EXPECT_EQ(map.get(key("af")), as(1));
    EXPECT_FALSE(map.containsKey(key("af")));
    EXPECT_EQ(map.remove(key("af")), nullptr);
    EXPECT_EQ(tape.take(), std::vector<TapedRecord>{});
    EXPECT_EQ(map.put(key("af"), as(2)), as(1));
    EXPECT_EQ(tape.take(), collision("bA"));
    EXPECT_EQ(map.size(), 1);
    EXPECT_FALSE(map.containsKey(key("bA")));
    EXPECT_TRUE(map.containsKey(key("af")));
    EXPECT_EQ(map.get(key("bA")), as(2));
    EXPECT_EQ(map.remove(key("bA")), nullptr);
    EXPECT_EQ(map.remove(key("af")), as(2));
}

TEST(ZrStringLongHashMap, KeepsTheCallersPointers) {
    char first[] = "same";
    char second[] = "same";
    ZrStringLongHashMap map(10);
    map.put(first, as(1));
    EXPECT_EQ(all(map.keys()), std::vector<void*>{first});
    map.put(second, as(2));
    EXPECT_EQ(all(map.keys()), std::vector<void*>{second});
    EXPECT_EQ(all(map.values()), std::vector{as(2)});
}

TEST(ZrStringLongHashMap, BothOfItsMapsLogTheirGrowth) {
    LogTape tape;
    ZrStringLongHashMap map(1);
    map.put(key("a"), as(1));
    EXPECT_EQ(tape.take(), (std::vector{growth(1, 3), growth(1, 3)}));
}

TEST(ZrStringLongHashMap, HasNoEntries) {
    LogTape tape;
    ZrStringLongHashMap map(10);
    EXPECT_EQ(map.entries(), nullptr);
    EXPECT_EQ(tape.take(), (std::vector<TapedRecord>{{kStringMapSource, 118, 0xA80004, {}, {}}}));
}

TEST(ZrStringLongHashMap, DropsANullKey) {
    ZrStringLongHashMap map(10);
    EXPECT_EQ(map.put(nullptr, as(1)), nullptr);
    EXPECT_EQ(map.get(nullptr), nullptr);
    EXPECT_FALSE(map.containsKey(nullptr));
    EXPECT_EQ(map.remove(nullptr), nullptr);
    EXPECT_EQ(map.size(), 0);
}

TEST(ZrStringLongHashMap, SlotsStandInOrder) {
    ZrStringLongHashMap map(10);
    EXPECT_EQ((call_slot<void*, void*, void*>(&map, 2, key("a"), as(10))), nullptr);
    EXPECT_EQ((call_slot<void*, void*>(&map, 3, key("a"))), as(10));
    EXPECT_TRUE((call_slot<bool, void*>(&map, 5, key("a"))));
    EXPECT_EQ((call_slot<int>(&map, 6)), 1);
    EXPECT_EQ(all(call_slot<ZrIterator*>(&map, 7)).size(), 1u);
    EXPECT_EQ(all(call_slot<ZrIterator*>(&map, 8)), std::vector{as(10)});
    EXPECT_EQ((call_slot<ZrIterator*>(&map, 9)), nullptr);
    EXPECT_EQ((call_slot<void*, void*>(&map, 4, key("a"))), as(10));
    map.put(key("a"), as(1));
    call_slot<void>(&map, 10);
    EXPECT_EQ(map.size(), 0);
}

// Only the copy that lives on is destroyed: the other is laid in memory that is never.
TEST(ZrStringLongHashMap, CopiesShareTheContents) {
    const long before = zr::test::live_news();
    {
        ZrStringLongHashMap map(10);
        alignas(ZrStringLongHashMap) unsigned char room[sizeof(ZrStringLongHashMap)];
        auto* copy = new (room) ZrStringLongHashMap(map);
        map.put(key("a"), as(1));
        EXPECT_EQ(copy->get(key("a")), as(1));
        EXPECT_EQ(copy->size(), 1);
        copy->put(key("b"), as(2));
        EXPECT_EQ(map.size(), 2);
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

// Whatever allocation fails, the map is one that works as far as its memory goes, and nothing leaks.
TEST(ZrStringLongHashMap, WorksAsFarAsItsMemoryGoes) {
    const std::vector<std::string> texts{"a", "b", "c", "d", "e", "f", "g", "h"};
    for (int successes = 0; successes < 12; ++successes) {
        SCOPED_TRACE(successes);
        const long before = zr::test::live_news();
        {
            alignas(ZrStringLongHashMap) unsigned char room[sizeof(ZrStringLongHashMap)];
            ZrStringLongHashMap* map = nullptr;
            ZrIterator* iterator = nullptr;
            {
                const FailingNew failing(successes);
                map = new (room) ZrStringLongHashMap(2);
                for (std::size_t i = 0; i < texts.size(); ++i) {
                    map->put(key(texts[i].c_str()), as(static_cast<std::intptr_t>(i + 1)));
                }
                iterator = map->keys();
            }
            int found = 0;
            for (std::size_t i = 0; i < texts.size(); ++i) {
                const bool contained = map->containsKey(key(texts[i].c_str()));
                found += contained ? 1 : 0;
                EXPECT_EQ(map->get(key(texts[i].c_str())), contained ? as(static_cast<std::intptr_t>(i + 1)) : nullptr);
            }
            EXPECT_EQ(map->size(), found);
            if (iterator != nullptr) {
                EXPECT_EQ(all(iterator).size(), static_cast<std::size_t>(found));
            }
            EXPECT_GE(found, successes == 11 ? 8 : 0);
            map->clear();
            EXPECT_EQ(map->size(), 0);
            map->~ZrStringLongHashMap();
        }
        EXPECT_EQ(zr::test::live_news(), before);
    }
}

class StringMapModel {
public:
    StringMapModel(int capacity, std::vector<TapedRecord>& log)
        : log_(log), keys_(capacity, log), values_(capacity, log) {}

    std::intptr_t put(const char* text, std::intptr_t value) {
        const char* stored = storedFor(text);
        if (stored != nullptr && std::strcmp(stored, text) != 0) {
            for (const TapedRecord& record : collision(stored)) {
                log_.push_back(record);
            }
        }
        keys_.put(hashOf(text), reinterpret_cast<std::intptr_t>(text));
        return values_.put(hashOf(text), value);
    }
    std::intptr_t get(const char* text) const { return values_.get(hashOf(text)); }
    bool containsKey(const char* text) const {
        const char* stored = storedFor(text);
        return stored != nullptr && std::strcmp(stored, text) == 0;
    }
    std::intptr_t remove(const char* text) {
        if (!containsKey(text)) return 0;
        keys_.remove(hashOf(text));
        return values_.remove(hashOf(text));
    }
    void clear() {
        keys_.clear();
        values_.clear();
    }
    int size() const { return keys_.size(); }
    std::vector<void*> keys() const { return keys_.inUse(keys_.values); }
    std::vector<void*> values() const { return values_.inUse(values_.values); }

private:
    const char* storedFor(const char* text) const { return reinterpret_cast<const char*>(keys_.get(hashOf(text))); }

    std::vector<TapedRecord>& log_;
    HashMapModel keys_;
    HashMapModel values_;
};

// Few letters and lengths, so that texts come back and hashes collide.
std::vector<std::string> someTexts(std::mt19937& random) {
    std::vector<std::string> texts{"", "bA", "af", "bAbA", "afaf", "bAaf"};
    for (int i = 0; i < 40; ++i) {
        std::string text(random() % 35, ' ');
        for (char& c : text) {
            c = "abAf%\xE4"[random() % 6];
        }
        texts.push_back(text);
    }
    return texts;
}

TEST(ZrStringLongHashMap, AgreesWithAModelOverRandomOperations) {
    for (unsigned int seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        LogTape tape;
        std::mt19937 random(seed);
        const std::vector<std::string> texts = someTexts(random);
        const int capacity = static_cast<int>(1 + random() % 20);
        std::vector<TapedRecord> log;
        ZrStringLongHashMap map(capacity);
        StringMapModel model(capacity, log);
        for (int i = 0; i < 400; ++i) {
            const char* text = texts[random() % texts.size()].c_str();
            const auto value = static_cast<std::intptr_t>(random() % 1000);
            const unsigned long what = random() % 256;
            if (what == 0) {
                map.clear();
                model.clear();
            } else if (what < 100) {
                ASSERT_EQ(map.remove(key(text)), as(model.remove(text)));
            } else {
                ASSERT_EQ(map.put(key(text), as(value)), as(model.put(text, value)));
            }
            ASSERT_EQ(tape.take(), log) << i;
            log.clear();
            ASSERT_EQ(map.size(), model.size());
            ASSERT_EQ(all(map.keys()), model.keys());
            ASSERT_EQ(all(map.values()), model.values());
            for (const std::string& any : texts) {
                ASSERT_EQ(map.get(key(any.c_str())), as(model.get(any.c_str())));
                ASSERT_EQ(map.containsKey(key(any.c_str())), model.containsKey(any.c_str()));
            }
        }
    }
}

}  // namespace
