#include "ZrUtility/ZrHashTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "log_tape.h"
#include "support/failing_new.h"
#include "support/log_categories.h"
#include "support/slots.h"

namespace {

using zr::test::FailingNew;
using zr::test::kContainersFailure;
using zr::test::kContainersInformation;
using zr::test::LogTape;
using zr::test::TapedRecord;

constexpr const char* kTableSource = ".\\ZrHashTable.cppzrwindowsmobile";

TapedRecord record(int line, std::uint32_t category, std::vector<std::uintptr_t> arguments = {}) {
    return {kTableSource, line, category, std::move(arguments), {}};
}

// The table's data, in the order in which it is laid out.
struct Slot {
    ULONG keyAndState;
    ULONG value;

    bool operator==(const Slot&) const = default;
};

struct TableFields {
    void* table;
    int autoRehash;
    ULONG requestedSize;
    ULONG tableSize;
    ULONG count;
    int replaceExisting;
    const Slot* slots;
    ULONG deactivatedCount;
};
static_assert(sizeof(TableFields) == sizeof(ZrHashTable));

TableFields fieldsOf(const ZrHashTable& table) {
    TableFields fields{};
    std::memcpy(&fields, static_cast<const void*>(&table), sizeof fields);
    return fields;
}

std::vector<Slot> slotsOf(const ZrHashTable& table) {
    const TableFields fields = fieldsOf(table);
    return {fields.slots, fields.slots + fields.tableSize};
}

// A table as it is described: slots in a vector, divisions, no shortcuts.
class TableModel {
public:
    TableModel(int autoRehash, int replaceExisting) : autoRehash_(autoRehash), replaceExisting_(replaceExisting) {}

    int create(ULONG size) {
        const ULONG requested = 2 * size;
        if (requested >= 179897) {
            log.push_back(record(57, kContainersFailure, {requested}));
            return 0;
        }
        requestedSize_ = requested;
        free();
        for (const ULONG prime : ZrHashTable::TABLESIZE) {
            if (prime > requested) {
                slots_.assign(prime, {});
                break;
            }
        }
        return 1;
    }

    int free() {
        const int existed = slots_.empty() ? 0 : 1;
        slots_.clear();
        count_ = 0;
        deactivated_ = 0;
        return existed;
    }

    int insert(ULONG key, ULONG value) {
        if (slots_.empty()) return 0;
        ULONGLONG probe = 0;
        std::size_t at = key % size();
        while (state(at) == 1) {
            if (replaceExisting_ != 0 && keyAt(at) == key) {
                --count_;
                break;
            }
            if (probe > size() / 2 + 1) return 0;
            ++probe;
            at = static_cast<std::size_t>((key % size() + probe * probe) % size());
        }
        ++count_;
        if (state(at) == 2) --deactivated_;
        slots_[at] = {key << 2 | 1, value};
        if (autoRehash_ != 0 && size() * 3 < count_ * 4) {
            log.push_back(record(131, kContainersInformation));
            return rehash(requestedSize_ * 3 / 2);
        }
        return 1;
    }

    int find(ULONG key, ULONG* value, int option, ULONG newValue) {
        int result = 0;
        if (!slots_.empty()) {
            ULONGLONG probe = 0;
            std::size_t at = key % size();
            bool gaveUp = false;
            while (!gaveUp && !(state(at) == 0 || (state(at) == 1 && keyAt(at) == key))) {
                ++probe;
                gaveUp = probe > size() / 2 + 1;
                at = static_cast<std::size_t>((key % size() + probe * probe) % size());
            }
            if (gaveUp) log.push_back(record(168, kContainersInformation));
            if (!gaveUp && state(at) == 1) {
                result = 1;
                if (value != nullptr) *value = slots_[at].value;
                if (option == 1) slots_[at].value = newValue;
                if (option == 2) {
                    --count_;
                    slots_[at] = {2, 0};
                    ++deactivated_;
                }
            }
        }
        if (autoRehash_ != 0 && count_ >= size() / 4 && deactivated_ >= count_) {
            log.push_back(record(198, kContainersInformation, {deactivated_}));
            rehash(0);
        }
        return result;
    }

    int rehash(ULONG size) {
        log.push_back(record(231, kContainersInformation, {requestedSize_, size}));
        const std::vector<Slot> old = slots_;
        const ULONG walked = requestedSize_;
        free();
        if (create(size != 0 ? size : walked) == 0) return 0;
        const int autoRehash = autoRehash_;
        autoRehash_ = 0;
        int result = 1;
        for (std::size_t i = 0; i < std::min<std::size_t>(walked, old.size()) && result == 1; ++i) {
            if ((old[i].keyAndState & 3) == 1) result = insert(old[i].keyAndState >> 2, old[i].value);
        }
        autoRehash_ = autoRehash;
        return result;
    }

    void expectSame(ZrHashTable& table) const {
        const TableFields fields = fieldsOf(table);
        ASSERT_EQ(table.GetSize(), size());
        ASSERT_EQ(table.GetRequestedSize(), requestedSize_);
        ASSERT_EQ(fields.autoRehash, autoRehash_);
        ASSERT_EQ(fields.replaceExisting, replaceExisting_);
        ASSERT_EQ(fields.requestedSize, requestedSize_);
        ASSERT_EQ(fields.tableSize, size());
        ASSERT_EQ(fields.count, count_);
        ASSERT_EQ(fields.deactivatedCount, deactivated_);
        ASSERT_EQ(fields.slots == nullptr, slots_.empty());
        ASSERT_EQ(table.IsLoadFactorTooHigh(), size() * 3 < count_ * 4 ? 1 : 0);
        ASSERT_EQ(table.IsDeactivatedCountTooHigh(), count_ >= size() / 4 && deactivated_ >= count_ ? 1 : 0);
        ASSERT_TRUE(slotsOf(table) == slots_);
    }

    std::vector<TapedRecord> log;

private:
    ULONG size() const { return static_cast<ULONG>(slots_.size()); }
    ULONG state(std::size_t at) const { return slots_[at].keyAndState & 3; }
    ULONG keyAt(std::size_t at) const { return slots_[at].keyAndState >> 2; }

    int autoRehash_;
    int replaceExisting_;
    ULONG requestedSize_ = 0;
    std::vector<Slot> slots_;
    ULONG count_ = 0;
    ULONG deactivated_ = 0;
};

ULONG hashOf(const char16_t* text, unsigned int length = 1000) {
    return ZrHashTable::Hash(text, length);
}

TEST(ZrHashTable, StartsWithoutATable) {
    ZrHashTable table;
    EXPECT_EQ(table.GetSize(), 0u);
    EXPECT_EQ(table.GetRequestedSize(), 0u);
    EXPECT_EQ(table.InsertValue(5u, 1), 0);
    WCHAR text[] = u"a";
    EXPECT_EQ(table.InsertValue(text, 1), 0);
    EXPECT_EQ(table.FindValue(text, nullptr, ZrHashTable::FIND_ONLY, 0), 0);
    EXPECT_EQ(table.DeleteValue(text), 0);
    EXPECT_EQ(table.FreeTable(), 0);
    EXPECT_EQ(table.IsLoadFactorTooHigh(), 0);
    EXPECT_EQ(table.IsDeactivatedCountTooHigh(), 1);
    const TableFields fields = fieldsOf(table);
    EXPECT_EQ(fields.autoRehash, 1);
    EXPECT_EQ(fields.replaceExisting, 1);
    EXPECT_EQ(fields.slots, nullptr);
}

TEST(ZrHashTable, FindByNumberWithoutATableMakesOne) {
    LogTape tape;
    ZrHashTable table;
    EXPECT_EQ(table.FindValue(5u, nullptr, ZrHashTable::FIND_ONLY, 0), 0);
    EXPECT_EQ(table.GetSize(), 5u);
    EXPECT_EQ(table.GetRequestedSize(), 0u);
    EXPECT_EQ(tape.take(),
              (std::vector{record(198, kContainersInformation, {0}), record(231, kContainersInformation, {0, 0})}));
    ZrHashTable still(0);
    EXPECT_EQ(still.FindValue(5u, nullptr, ZrHashTable::FIND_ONLY, 0), 0);
    EXPECT_EQ(still.GetSize(), 0u);
}

TEST(ZrHashTable, TakesTheFirstPrimeAboveTwiceTheSize) {
    LogTape tape;
    ZrHashTable table;
    EXPECT_EQ(table.CreateTable(10), 1);
    EXPECT_EQ(table.GetRequestedSize(), 20u);
    EXPECT_EQ(table.GetSize(), 29u);
    EXPECT_EQ(table.CreateTable(89948), 1);
    EXPECT_EQ(table.GetRequestedSize(), 179896u);
    EXPECT_EQ(table.GetSize(), 179897u);
    EXPECT_EQ(tape.take(), std::vector<TapedRecord>{});
    EXPECT_EQ(table.InsertValue(7u, 70), 1);
    EXPECT_EQ(table.CreateTable(89949), 0);
    EXPECT_EQ(tape.take(), std::vector{record(57, kContainersFailure, {179898})});
    ULONG value = 0;
    EXPECT_EQ(table.FindValue(7u, &value, ZrHashTable::FIND_ONLY, 0), 1);
    EXPECT_EQ(value, 70u);
    EXPECT_EQ(table.GetRequestedSize(), 179896u);
    EXPECT_EQ(table.FreeTable(), 1);
    EXPECT_EQ(table.GetRequestedSize(), 179896u);
    EXPECT_EQ(table.GetSize(), 0u);
}

TEST(ZrHashTable, EverySizeIsThePrimeThatIsStrictlyLarger) {
    ZrHashTable table;
    for (const unsigned int prime : ZrHashTable::TABLESIZE) {
        ASSERT_EQ(table.CreateTable((prime - 1) / 2), 1);
        EXPECT_EQ(table.GetSize(), prime);
        for (unsigned int divisor = 2; divisor * divisor <= prime; ++divisor) {
            EXPECT_NE(prime % divisor, 0u);
        }
    }
    EXPECT_EQ(table.CreateTable(0), 1);
    EXPECT_EQ(table.GetSize(), 5u);
    EXPECT_EQ(table.CreateTable(0x80000001u), 1);
    EXPECT_EQ(table.GetRequestedSize(), 2u);
}

TEST(ZrHashTable, HashesTexts) {
    EXPECT_EQ(hashOf(nullptr), 0u);
    EXPECT_EQ(hashOf(u""), 0u);
    EXPECT_EQ(hashOf(u"abc", 0), 0u);
    EXPECT_EQ(hashOf(u"a"), 97u);
    // 97 + NOT((97 << 11) XOR (97 >> 5) XOR 98), to 30 bits.
    EXPECT_EQ(hashOf(u"ab"), (97u + ~((97u << 11) ^ (97u >> 5) ^ 98u)) & 0x3FFFFFFF);
    EXPECT_EQ(hashOf(u"ab", 1), hashOf(u"a", 5));
    EXPECT_EQ(hashOf(u"\uFFFF"), 0xFFFFu);
    EXPECT_EQ(ZrHashTable::Hash("ab", 5), hashOf(u"ab"));
    EXPECT_EQ(ZrHashTable::Hash("\xFF", 5), 0x3FFFFFFFu);
    EXPECT_EQ(ZrHashTable::Hash(static_cast<const char*>(nullptr), 5), 0u);
}

TEST(ZrHashTable, HashesNoFurtherThanItMay) {
    const char16_t unended[] = {u'a', u'b'};
    EXPECT_EQ(hashOf(unended, 2), hashOf(u"ab"));
    std::u16string text;
    ULONG hash = 0;
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        const auto c = static_cast<char16_t>(random() % 0xFFFF + 1);
        text += c;
        hash = i % 2 == 0 ? hash + ((hash << 7) ^ (hash >> 3) ^ c) : hash + ~((hash << 11) ^ (hash >> 5) ^ c);
        ASSERT_EQ(hashOf(text.c_str(), 0x7FFFFFFF), hash & 0x3FFFFFFF);
    }
}

TEST(ZrHashTable, ReplacesOrKeepsBoth) {
    ULONG value = 0;
    ZrHashTable replacing;
    replacing.CreateTable(10);
    EXPECT_EQ(replacing.InsertValue(3u, 30), 1);
    EXPECT_EQ(replacing.InsertValue(3u, 31), 1);
    EXPECT_EQ(fieldsOf(replacing).count, 1u);
    EXPECT_EQ(replacing.FindValue(3u, &value, ZrHashTable::FIND_ONLY, 0), 1);
    EXPECT_EQ(value, 31u);
    ZrHashTable adding(1, 0);
    adding.CreateTable(10);
    EXPECT_EQ(adding.InsertValue(3u, 30), 1);
    EXPECT_EQ(adding.InsertValue(3u, 31), 1);
    EXPECT_EQ(fieldsOf(adding).count, 2u);
    EXPECT_EQ(adding.FindValue(3u, &value, ZrHashTable::FIND_ONLY, 0), 1);
    EXPECT_EQ(value, 30u);
}

TEST(ZrHashTable, TextsAreTheirHashes) {
    ZrHashTable table;
    table.CreateTable(10);
    WCHAR text[] = u"user@example.org";
    EXPECT_EQ(table.InsertValue(text, 1), 1);
    EXPECT_EQ(table.InsertValue(static_cast<WCHAR*>(nullptr), 1), 0);
    ULONG value = 0;
    EXPECT_EQ(table.FindValue(hashOf(text), &value, ZrHashTable::FIND_AND_UPDATE, 2), 1);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(table.FindValue(text, &value, ZrHashTable::FIND_ONLY, 0), 1);
    EXPECT_EQ(value, 2u);
    WCHAR empty[] = u"";
    EXPECT_EQ(table.InsertValue(0u, 9), 1);
    EXPECT_EQ(table.FindValue(empty, &value, ZrHashTable::FIND_ONLY, 0), 1);
    EXPECT_EQ(table.FindValue(static_cast<WCHAR*>(nullptr), &value, ZrHashTable::FIND_ONLY, 0), 1);
    EXPECT_EQ(value, 9u);
    EXPECT_EQ(table.DeleteValue(text), 1);
    EXPECT_EQ(table.DeleteValue(text), 0);
}

// The first two texts of twelve random letters that have the same hash. Short ones hardly share any.
std::pair<std::u16string, std::u16string> textsOfOneHash() {
    std::mt19937 random(1);
    std::map<ULONG, std::u16string> texts;
    for (;;) {
        std::u16string text(12, u'a');
        for (char16_t& c : text) {
            c = static_cast<char16_t>(c + random() % 26);
        }
        const auto [found, isNew] = texts.emplace(hashOf(text.c_str()), text);
        if (!isNew && found->second != text) return {found->second, text};
    }
}

TEST(ZrHashTable, TextsOfOneHashShareAnEntry) {
    auto [one, other] = textsOfOneHash();
    ZrHashTable table;
    table.CreateTable(10);
    EXPECT_EQ(table.InsertValue(one.data(), 1), 1);
    EXPECT_EQ(table.InsertValue(other.data(), 2), 1);
    ULONG value = 0;
    EXPECT_EQ(table.FindValue(one.data(), &value, ZrHashTable::FIND_ONLY, 0), 1);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(fieldsOf(table).count, 1u);
}

TEST(ZrHashTable, ADeletedSlotIsTakenAgain) {
    ZrHashTable table;
    table.CreateTable(10);
    table.InsertValue(1u, 10);
    EXPECT_EQ(table.DeleteValue(1u), 1);
    EXPECT_EQ(fieldsOf(table).count, 0u);
    EXPECT_EQ(fieldsOf(table).deactivatedCount, 1u);
    EXPECT_EQ(slotsOf(table)[1], (Slot{2, 0}));
    EXPECT_EQ(table.InsertValue(30u, 300), 1);  // 1 modulo 29
    EXPECT_EQ(fieldsOf(table).deactivatedCount, 0u);
    EXPECT_EQ(slotsOf(table)[1], (Slot{30 << 2 | 1, 300}));
}

TEST(ZrHashTable, AKeyBeyondADeletedSlotIsAddedAgain) {
    ZrHashTable table;
    table.CreateTable(10);
    table.InsertValue(1u, 10);
    table.InsertValue(30u, 300);
    table.DeleteValue(1u);
    EXPECT_EQ(table.InsertValue(30u, 301), 1);
    EXPECT_EQ(fieldsOf(table).count, 2u);
    EXPECT_EQ(slotsOf(table)[1], (Slot{30 << 2 | 1, 301}));
    EXPECT_EQ(slotsOf(table)[2], (Slot{30 << 2 | 1, 300}));
}

TEST(ZrHashTable, KeysOfMoreThan30BitsAreNeverFound) {
    ZrHashTable table;
    table.CreateTable(10);
    EXPECT_EQ(table.InsertValue(0x40000003u, 1), 1);
    EXPECT_EQ(table.InsertValue(0x40000003u, 2), 1);
    EXPECT_EQ(fieldsOf(table).count, 2u);
    EXPECT_EQ(table.FindValue(0x40000003u, nullptr, ZrHashTable::FIND_ONLY, 0), 0);
}

TEST(ZrHashTable, WithoutRehashItFillsUpToItsPaths) {
    LogTape tape;
    ZrHashTable table(0);
    table.CreateTable(2);  // 5 slots, of which a path has 3
    EXPECT_EQ(table.InsertValue(0u, 0), 1);
    EXPECT_EQ(table.InsertValue(5u, 5), 1);
    EXPECT_EQ(table.InsertValue(10u, 10), 1);
    EXPECT_EQ(table.InsertValue(15u, 15), 0);
    EXPECT_EQ(fieldsOf(table).count, 3u);
    EXPECT_EQ(tape.take(), std::vector<TapedRecord>{});
    EXPECT_EQ(table.FindValue(15u, nullptr, ZrHashTable::FIND_ONLY, 0), 0);
    EXPECT_EQ(tape.take(), std::vector{record(168, kContainersInformation)});
    EXPECT_EQ(table.InsertValue(2u, 2), 1);
    EXPECT_EQ(table.InsertValue(3u, 3), 1);
    EXPECT_EQ(table.InsertValue(4u, 4), 0);
    EXPECT_EQ(table.IsLoadFactorTooHigh(), 1);
    EXPECT_EQ(table.GetSize(), 5u);
    for (const unsigned int key : {0u, 5u, 10u, 2u, 3u}) {
        ULONG value = 99;
        EXPECT_EQ(table.FindValue(key, &value, ZrHashTable::FIND_ONLY, 0), 1);
        EXPECT_EQ(value, key);
    }
}

TEST(ZrHashTable, GrowsBeyondThreeQuartersAndLosesTheLastSlots) {
    LogTape tape;
    ZrHashTable table;
    table.CreateTable(10);
    for (unsigned int key = 0; key < 21; ++key) {
        ASSERT_EQ(table.InsertValue(key + 8, key), 1);  // slots 8 to 28
    }
    EXPECT_EQ(table.GetSize(), 29u);
    EXPECT_EQ(table.InsertValue(0u, 100), 1);
    EXPECT_EQ(table.GetRequestedSize(), 60u);
    EXPECT_EQ(table.GetSize(), 79u);
    EXPECT_EQ(tape.take(),
              (std::vector{record(131, kContainersInformation), record(231, kContainersInformation, {20, 30})}));
    EXPECT_EQ(fieldsOf(table).count, 13u);
    for (unsigned int key = 8; key < 29; ++key) {
        EXPECT_EQ(table.FindValue(key, nullptr, ZrHashTable::FIND_ONLY, 0), key < 20 ? 1 : 0) << key;
    }
}

TEST(ZrHashTable, ALargestTableThatMustGrowLosesAll) {
    LogTape tape;
    const long before = zr::test::live_news();
    ZrHashTable table;
    table.CreateTable(89948);
    unsigned int key = 0;
    while (table.InsertValue(key, key) == 1) {
        ++key;
    }
    EXPECT_EQ(key, 134922u);
    EXPECT_EQ(tape.take(),
              (std::vector{record(131, kContainersInformation), record(231, kContainersInformation, {179896, 269844}),
                           record(57, kContainersFailure, {539688})}));
    EXPECT_EQ(table.GetSize(), 0u);
    EXPECT_EQ(fieldsOf(table).count, 0u);
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrHashTable, TooManyDeletedSlotsDoubleTheTable) {
    LogTape tape;
    ZrHashTable table;
    table.CreateTable(10);
    for (unsigned int key = 0; key < 15; ++key) {
        table.InsertValue(key, key);
    }
    for (unsigned int key = 0; key < 7; ++key) {
        EXPECT_EQ(table.DeleteValue(key), 1);
    }
    EXPECT_EQ(tape.take(), std::vector<TapedRecord>{});
    EXPECT_EQ(table.FindValue(7u, nullptr, ZrHashTable::FIND_AND_DELETE, 0), 1);
    EXPECT_EQ(tape.take(),
              (std::vector{record(198, kContainersInformation, {8}), record(231, kContainersInformation, {20, 0})}));
    EXPECT_EQ(table.GetRequestedSize(), 40u);
    EXPECT_EQ(table.GetSize(), 41u);
    EXPECT_EQ(fieldsOf(table).count, 7u);
    EXPECT_EQ(fieldsOf(table).deactivatedCount, 0u);
}

TEST(ZrHashTable, ARehashToTooSmallATableStopsAtTheFirstThatFindsNoPlace) {
    ZrHashTable table;
    table.CreateTable(10);
    for (unsigned int key = 0; key < 10; ++key) {
        table.InsertValue(key * 29 % 100, key);
    }
    EXPECT_EQ(table.Rehash(2), 0);
    EXPECT_EQ(table.GetSize(), 5u);
    EXPECT_EQ(fieldsOf(table).autoRehash, 1);
}

TEST(ZrHashTable, CreateFailsWithoutMemory) {
    LogTape tape;
    const long before = zr::test::live_news();
    ZrHashTable table;
    table.CreateTable(10);
    int result = 1;
    {
        const FailingNew failing;
        result = table.CreateTable(20);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(tape.take(), std::vector{record(54, kContainersFailure, {41})});
    EXPECT_EQ(table.GetSize(), 0u);
    EXPECT_EQ(table.GetRequestedSize(), 40u);
    EXPECT_EQ(table.FreeTable(), 0);
    EXPECT_EQ(zr::test::live_news(), before);
    EXPECT_EQ(table.CreateTable(20), 1);
}

TEST(ZrHashTable, GrowingWithoutMemoryLosesAll) {
    LogTape tape;
    const long before = zr::test::live_news();
    ZrHashTable table;
    table.CreateTable(10);
    for (unsigned int key = 0; key < 21; ++key) {
        table.InsertValue(key, key);
    }
    int result = 1;
    {
        const FailingNew failing;
        result = table.InsertValue(21u, 21);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(tape.take(),
              (std::vector{record(131, kContainersInformation), record(231, kContainersInformation, {20, 30}),
                           record(54, kContainersFailure, {79})}));
    EXPECT_EQ(table.GetSize(), 0u);
    EXPECT_EQ(table.InsertValue(1u, 1), 0);
    EXPECT_EQ(zr::test::live_news(), before);
}

// Only the copy that lives on frees the slots: the other is laid in memory that is never destroyed.
TEST(ZrHashTable, CopiesShareTheSlots) {
    const long before = zr::test::live_news();
    {
        ZrHashTable table;
        table.CreateTable(10);
        table.InsertValue(1u, 10);
        alignas(ZrHashTable) unsigned char room[sizeof(ZrHashTable)];
        auto* copy = new (room) ZrHashTable(table);
        EXPECT_EQ(fieldsOf(*copy).slots, fieldsOf(table).slots);
        table.InsertValue(2u, 20);
        EXPECT_EQ(fieldsOf(*copy).count, 1u);
        EXPECT_EQ(copy->FindValue(2u, nullptr, ZrHashTable::FIND_ONLY, 0), 1);
        *copy = table;
        EXPECT_EQ(fieldsOf(*copy).count, 2u);
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(ZrHashTable, TheDestructorIsTheFirstSlot) {
    const long before = zr::test::live_news();
    auto* table = new ZrHashTable;
    table->CreateTable(10);
    zr::test::call_slot<void>(table, zr::test::deleting(0));
    EXPECT_EQ(zr::test::live_news(), before);
}

ULONG draw(std::mt19937& random) {
    return static_cast<ULONG>(random());
}

// One random operation on the table and on the model of it.
void step(ZrHashTable& table, TableModel& model, std::mt19937& random) {
    const ULONG range = draw(random) % 4 == 0 ? 300 : 40;
    ULONG key = draw(random) % range;
    if (random() % 32 == 0) key |= 0x3FFFFF00u << random() % 3;
    const ULONG number = draw(random);
    ULONG value = 0;
    ULONG expected = 0;
    switch (random() % 16) {
        case 0:
            if (random() % 16 != 0) return;
            ASSERT_EQ(table.CreateTable(number % 40), model.create(number % 40));
            return;
        case 1:
            if (random() % 64 != 0) return;
            ASSERT_EQ(table.FreeTable(), model.free());
            return;
        case 2:
            if (random() % 16 != 0) return;
            ASSERT_EQ(table.Rehash(number % 60), model.rehash(number % 60));
            return;
        case 3:
        case 4:
        case 5:
            ASSERT_EQ(table.DeleteValue(key), model.find(key, nullptr, 2, 0));
            return;
        case 6:
        case 7: {
            const auto option = static_cast<ZrHashTable::FIND_OPTIONS>(number % 3);
            ASSERT_EQ(table.FindValue(key, &value, option, number), model.find(key, &expected, option, number));
            ASSERT_EQ(value, expected);
            return;
        }
        default:
            ASSERT_EQ(table.InsertValue(key, number), model.insert(key, number));
    }
}

TEST(ZrHashTable, AgreesWithAModelOverRandomOperations) {
    for (unsigned int seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        LogTape tape;
        std::mt19937 random(seed);
        const int autoRehash = seed % 2 == 0 ? 1 : 0;
        const int replaceExisting = seed % 4 < 2 ? 1 : 0;
        ZrHashTable table(autoRehash, replaceExisting);
        TableModel model(autoRehash, replaceExisting);
        ASSERT_EQ(table.CreateTable(seed % 30), model.create(seed % 30));
        for (int i = 0; i < 1500; ++i) {
            step(table, model, random);
            ASSERT_FALSE(HasFatalFailure()) << i;
            model.expectSame(table);
            ASSERT_FALSE(HasFatalFailure()) << i;
            ASSERT_EQ(tape.take(), model.log) << i;
            model.log.clear();
            // A table that has grown too large to fill goes back to a small one.
            if (table.GetSize() > 700) {
                ASSERT_EQ(table.CreateTable(5), model.create(5));
            }
        }
    }
}

// Keys as hashes are: of 30 bits, in tables that fill far beyond a half.
TEST(ZrHashTable, AgreesWithAModelOverLargeKeys) {
    LogTape tape;
    std::mt19937 random(7);
    ZrHashTable table(0);
    TableModel model(0, 1);
    for (const unsigned int size : {50u, 500u, 5000u}) {
        ASSERT_EQ(table.CreateTable(size), model.create(size));
        std::vector<ULONG> keys(size * 2);
        for (ULONG& key : keys) {
            key = draw(random) >> 2;
        }
        for (unsigned int i = 0; i < size * 8; ++i) {
            const ULONG key = keys[random() % keys.size()];
            ULONG value = 0;
            ULONG expected = 0;
            const auto option = static_cast<ZrHashTable::FIND_OPTIONS>(random() % 3);
            ASSERT_EQ(table.FindValue(key, &value, option, i), model.find(key, &expected, option, i));
            ASSERT_EQ(value, expected);
            const ULONG other = keys[random() % keys.size()];
            ASSERT_EQ(table.InsertValue(other, i), model.insert(other, i));
            ASSERT_EQ(tape.take(), model.log);
            model.log.clear();
            if (i % 64 == 0) model.expectSame(table);
            ASSERT_FALSE(HasFatalFailure()) << i;
        }
    }
}

}  // namespace
