// The index of the e-mail contacts manager as it lies in memory, beside a model that follows plain lists.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

#include "ZrUtility/Helpers/ContactsManagerEmail.h"
#include "ZrUtility/Helpers/fake_outlook.h"
#include "support/log_capture.h"

namespace {

using Candidate = ContactsManagerEmail::Candidate;
using Entry = std::pair<ULONG, LONG>;
using zr::test::FakeOutlook;
using zr::test::FakeRecord;

constexpr int kBuckets = 500;
constexpr const char* kAddressFields[] = {"Email1Address", "Email2Address", "Email3Address"};

ULONG hash_of(std::u16string address) {
    CharLowerBuffW(address.data(), static_cast<DWORD>(address.size() + 1));
    ULONG hash = 17;
    for (const char16_t c : address) {
        hash = hash * 37 + c;
    }
    return hash;
}

bool same_address(std::u16string left, std::u16string right) {
    CharLowerBuffW(left.data(), static_cast<DWORD>(left.size()));
    CharLowerBuffW(right.data(), static_cast<DWORD>(right.size()));
    return left == right;
}

// The buckets' array follows the fields of the base class; it is null while there is no index.
ZrTypedList<Candidate>* buckets_of(const ContactsManagerEmail& manager) {
    ZrTypedList<Candidate>* buckets = nullptr;
    std::memcpy(&buckets, reinterpret_cast<const unsigned char*>(&manager) + sizeof(ContactsManager), sizeof buckets);
    return buckets;
}

std::vector<Entry> entries_of(const ContactsManagerEmail& manager, ULONG bucket) {
    std::vector<Entry> entries;
    const std::unique_ptr<ZrTypedIterator<Candidate>> walk(buckets_of(manager)[bucket].iterator());
    while (walk->hasNext() != 0) {
        const Candidate* entry = walk->next();
        entries.emplace_back(entry->hash, entry->oid);
    }
    return entries;
}

// What the manager does, with lists that are walked from their first entry.
class IndexModel {
public:
    explicit IndexModel(FakeOutlook& world) : world_(world) {}

    void build() {
        for (auto& bucket : buckets) {
            bucket.clear();
        }
        added_ = 0;
        for (const auto& record : world_.records) {
            add_all(*record);
        }
    }
    void created(LONG oid) {
        if (const FakeRecord* record = find(oid)) add_all(*record);
        added_ += 3;  // an identifier was reused before
        const float ratio = static_cast<float>(added_) / (static_cast<float>(world_.records.size()) * 3.0f);
        if (added_ != 0 && ratio >= 0.85f) {
            build();
            ++rebuilds;
        }
    }
    void changed(LONG oid) {
        for (const char* field : kAddressFields) {
            const std::u16string& address = find(oid)->fields[field];
            if (address.empty()) continue;
            const Entry entry(hash_of(address), oid);
            std::vector<Entry>& bucket = buckets[entry.first % kBuckets];
            if (std::find(bucket.begin(), bucket.end(), entry) != bucket.end()) continue;
            bucket.push_back(entry);
            ++added_;
        }
    }
    int lookup(const std::u16string& address, LONG& found) {
        const ULONG hash = hash_of(address);
        std::vector<Entry>& bucket = buckets[hash % kBuckets];
        int matches = 0;
        found = 0;
        for (auto entry = bucket.begin(); entry != bucket.end() && matches < 2;) {
            const bool looked_at = entry->first == hash;
            if (looked_at && find(entry->second) == nullptr) {
                entry = bucket.erase(entry);
                continue;
            }
            if (looked_at && entry->second != found && has(entry->second, address) && ++matches == 1) {
                found = entry->second;
            }
            ++entry;
        }
        return matches;
    }
    FakeRecord* find(LONG oid) {
        for (const auto& record : world_.records) {
            if (record->oid == oid) return record.get();
        }
        return nullptr;
    }

    std::vector<Entry> buckets[kBuckets];
    int rebuilds = 0;

private:
    void add_all(const FakeRecord& record) {
        for (const char* field : kAddressFields) {
            const auto address = record.fields.find(field);
            if (address == record.fields.end() || address->second.empty()) continue;
            const ULONG hash = hash_of(address->second);
            buckets[hash % kBuckets].emplace_back(hash, record.oid);
        }
    }
    // A contact whose earlier addresses cannot be read is none that has it; here all can be.
    bool has(LONG oid, const std::u16string& address) {
        FakeRecord* record = find(oid);
        return address.empty() ||
               std::any_of(std::begin(kAddressFields), std::end(kAddressFields),
                           [&](const char* field) { return same_address(record->fields[field], address); });
    }

    FakeOutlook& world_;
    int added_ = 0;
};

class AddressIndexTest : public testing::TestWithParam<unsigned> {
protected:
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_()) % limit; }
    // Few enough to meet again; many of them share a bucket, some a hash ("x@" and "we"), some differ in case only.
    std::u16string address() {
        static const char16_t* const kPieces[] = {u"x@", u"we", u"X@", u"a", u"A", u"\u00C4", u"\u00E4"};
        std::u16string text;
        for (unsigned pieces = below(4); pieces > 0; --pieces) {
            text += kPieces[below(7)];
        }
        return below(40) == 0 ? std::u16string(130, u'Q') + text : text;
    }
    std::map<std::string, std::u16string> fields() {
        std::map<std::string, std::u16string> made;
        for (const char* field : kAddressFields) {
            made[field] = below(2) == 0 ? address() : std::u16string();
        }
        return made;
    }
    LONG known_oid() { return world_.records[below(static_cast<unsigned>(world_.records.size()))]->oid; }

    // From then on created contacts count towards a rebuild, in the whole process.
    void reuse_an_identifier() {
        manager_.ProcessPIMDeleted(nullptr, 0x8101, 77, 0);
        manager_.ProcessPIMCreated(nullptr, 0x8100, 77, 0);
        manager_.Uninitialize(0);
    }
    void create() {
        LONG oid = next_oid_++;
        if (below(3) == 0 && !deleted_.empty()) {
            oid = deleted_.back();
            deleted_.pop_back();
        }
        world_.add(oid, fields());
        manager_.ProcessPIMCreated(nullptr, 0x8100, static_cast<WPARAM>(oid), 0);
        model_.created(oid);
    }
    void remove() {
        const LONG oid = known_oid();
        world_.records.erase(std::find_if(world_.records.begin(), world_.records.end(),
                                          [oid](const auto& record) { return record->oid == oid; }));
        deleted_.push_back(oid);
        manager_.ProcessPIMDeleted(nullptr, 0x8101, static_cast<WPARAM>(oid), 0);
    }
    void change() {
        const LONG oid = known_oid();
        model_.find(oid)->fields = fields();
        manager_.ProcessPIMChanged(nullptr, 0x8102, static_cast<WPARAM>(oid), 0);
        model_.changed(oid);
    }
    void look_up() {
        std::u16string pattern = address();
        Contact* contact = nullptr;
        LONG expected = 0;
        LONG found = 0;
        const int matches = model_.lookup(pattern, expected);
        EXPECT_EQ(manager_.FindContact(pattern.data(), 896, 1, 0, 0, contact), matches);
        ASSERT_EQ(contact != nullptr, matches == 1);
        if (contact == nullptr) return;
        contact->get_Oid(found);
        EXPECT_EQ(found, expected);
        manager_.ReleaseContact(contact);
    }
    void expect_equal_lists() {
        for (int i = 0; i < kBuckets; ++i) {
            ASSERT_EQ(entries_of(manager_, static_cast<ULONG>(i)), model_.buckets[i]) << i;
        }
    }

    std::mt19937 random_{GetParam()};
    FakeOutlook world_;
    zr::test::LogCapture log_;
    ContactsManagerEmail manager_;
    IndexModel model_{world_};
    LONG next_oid_ = 1;
    std::vector<LONG> deleted_;
};

}  // namespace

TEST_P(AddressIndexTest, HoldsWhatPlainListsWouldHold) {
    ASSERT_EQ(manager_.Initialize(), S_OK);
    reuse_an_identifier();
    for (int i = 0; i < 200; ++i) {
        world_.add(next_oid_++, fields());
    }
    ASSERT_EQ(buckets_of(manager_), nullptr);
    ASSERT_EQ(manager_.Initialize(), S_OK);
    model_.build();
    expect_equal_lists();
    for (int step = 0; step < 3000 && !HasFatalFailure(); ++step) {
        const unsigned choice = below(8);
        if (choice == 0) {
            create();
        } else if (choice == 1 && world_.records.size() > 50) {
            remove();
        } else if (choice == 2) {
            change();
        } else {
            look_up();
        }
        if (step % 100 == 0) expect_equal_lists();
    }
    expect_equal_lists();
    EXPECT_GT(model_.rebuilds, 0);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_EQ(buckets_of(manager_), nullptr);
    EXPECT_EQ(world_.objects, 1);
    EXPECT_EQ(world_.strings, 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, AddressIndexTest, testing::Values(1u, 2u, 3u));

TEST(AddressIndex, KeepsStatedHashesInTheOrderOfTheContacts) {
    FakeOutlook world;
    zr::test::LogCapture log;
    world.add(7, {{"Email1Address", u"A"}, {"Email2Address", u"a"}, {"Email3Address", u"\u00C4b"}});
    world.add(5, {{"Email2Address", u"a"}});
    ContactsManagerEmail manager;
    ASSERT_EQ(manager.Initialize(), S_OK);
    const ULONG a = 17 * 37 + u'a';
    EXPECT_EQ(entries_of(manager, a % kBuckets), (std::vector<Entry>{{a, 7}, {a, 7}, {a, 5}}));
    const ULONG umlaut = (17 * 37 + 0xE4) * 37 + u'b';
    EXPECT_EQ(entries_of(manager, umlaut % kBuckets), (std::vector<Entry>{{umlaut, 7}}));
    EXPECT_TRUE(entries_of(manager, 17).empty());  // empty addresses have no entries
    EXPECT_EQ(manager.Uninitialize(0), S_OK);
}
