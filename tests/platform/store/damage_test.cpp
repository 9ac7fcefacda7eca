// What becomes of stores whose files are damaged: it is noticed, or it does not matter, and nobody is told anything
// wrong. Each look is a process of its own. ZR_FLIPS says how many bits are flipped, one at a time (250).

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "platform/diagnostics.h"
#include "platform/pim/session_support.h"
#include "platform/registry/registry_support.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;
namespace fs = std::filesystem;

constexpr int kRight = 0;    // all that was kept is there
constexpr int kNoticed = 1;  // the store was set aside, or the call said that it is damaged
constexpr int kWrong = 2;

int flips() {
    const char* const wanted = std::getenv("ZR_FLIPS");
    if (wanted != nullptr) return std::atoi(wanted);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 40;
#else
    return 250;
#endif
}

// --- contents ---

constexpr int kContacts = 60;
constexpr int kValues = 120;

std::u16string text_of(int number) {
    std::u16string text = u"entry ";
    for (int i = 0; i < 20 + number % 40; ++i) {
        text.push_back(static_cast<WCHAR>(u'a' + (number * 7 + i) % 26));
    }
    return text;
}

}  // namespace

// The stores, under names that the list of tests shows as they are.
struct ContactStore {
    static constexpr const char* kFile = "pim.db";

    static bool fill(int count) {
        TestSession session;
        for (int i = 0; i < count; ++i) {
            const auto made = session.fresh();
            made->put_LastName(in(text_of(i).c_str()));
            made->put_Body(in(text_of(i + 1).c_str()));
            if (made->Save() != S_OK) return false;
        }
        return true;
    }
    static int look(int count) {
        TestSession session;
        if (session.logon == HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT)) return kNoticed;
        if (session.logon != S_OK) return kWrong;
        const auto noticed = [](HRESULT result) {
            return result == HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT) ? kNoticed : kWrong;
        };
        Ptr<IPOutlookItemCollection> items;
        INT number = 0;
        if (const HRESULT result = session.folder()->get_Items(items.out()); result != S_OK) return noticed(result);
        if (const HRESULT result = items->get_Count(&number); result != S_OK) return noticed(result);
        if (number != count) return kWrong;
        for (INT i = 1; i <= count; ++i) {
            Ptr<IContact> item;
            if (const HRESULT result = items->Item(i, item.dispatch()); result != S_OK) return noticed(result);
            BSTR name = nullptr;
            BSTR body = nullptr;
            HRESULT result = item->get_LastName(&name);
            if (result == S_OK) result = item->get_Body(&body);
            const bool right =
                result == S_OK && std::u16string(name) == text_of(i - 1) && std::u16string(body) == text_of(i);
            SysFreeString(name);
            SysFreeString(body);
            if (result != S_OK) return noticed(result);
            if (!right) return kWrong;
        }
        return kRight;
    }
};

struct RegistryStore {
    static constexpr const char* kFile = "registry.db";

    static bool fill(int count) {
        for (int i = 0; i < count; ++i) {
            const Key key = create(HKEY_CURRENT_USER, u"key" + std::u16string(1, static_cast<WCHAR>(0x4E00 + i % 10)));
            const std::u16string text = text_of(i);
            const std::string bytes(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR));
            if (set(key, std::u16string(1, static_cast<WCHAR>(0x4E00 + i)), REG_BINARY, bytes) != kOk) return false;
        }
        return true;
    }
    static int look(int count) {
        for (int i = 0; i < count; ++i) {
            Key key;
            Data data;
            data.result = open(HKEY_CURRENT_USER, u"key" + std::u16string(1, static_cast<WCHAR>(0x4E00 + i % 10)), key);
            if (data.result == kOk) data = get(key, std::u16string(1, static_cast<WCHAR>(0x4E00 + i)));
            if (data.result == code(ERROR_REGISTRY_CORRUPT) || *ZrRegistrySetAsideText() != 0) return kNoticed;
            const std::u16string text = text_of(i);
            const std::string bytes(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR));
            if (data.result != kOk || data.bytes != bytes) return kWrong;
        }
        return kRight;
    }
};

namespace {

ZR_CHILD(hold_contacts) {
    const TestSession session;
    if (!ContactStore::fill(std::stoi(args[0]))) return 1;
    say("ready");
    hear();
    _exit(0);
}
ZR_CHILD(hold_registry) {
    if (!RegistryStore::fill(std::stoi(args[0]))) return 1;
    say("ready");
    hear();
    _exit(0);
}
ZR_CHILD(fill_contacts) {
    return ContactStore::fill(std::stoi(args[0])) ? 0 : 1;
}
ZR_CHILD(fill_registry) {
    return RegistryStore::fill(std::stoi(args[0])) ? 0 : 1;
}
// Its journal stays.
ZR_CHILD(fill_contacts_and_die) {
    const TestSession session;
    if (ContactStore::fill(std::stoi(args[0]))) _exit(0);
    _exit(1);
}
ZR_CHILD(fill_registry_and_die) {
    if (RegistryStore::fill(std::stoi(args[0]))) _exit(0);
    _exit(1);
}

template <class Store>
struct Content;
template <>
struct Content<ContactStore> {
    static constexpr int kCount = kContacts;
    static constexpr const char* kFill = "fill_contacts";
    static constexpr const char* kFillAndDie = "fill_contacts_and_die";
    static constexpr const char* kHold = "hold_contacts";
};
template <>
struct Content<RegistryStore> {
    static constexpr int kCount = kValues;
    static constexpr const char* kFill = "fill_registry";
    static constexpr const char* kFillAndDie = "fill_registry_and_die";
    static constexpr const char* kHold = "hold_registry";
};

template <class Store>
class Damage : public testing::Test {
protected:
    static constexpr int kCount = Content<Store>::kCount;

    void SetUp() override {
        fs::remove_all(sandbox_home());
        fs::create_directories(sandbox_home());
    }
    static fs::path file() { return sandbox_home() / Store::kFile; }
    static fs::path journal() { return file().string() + "-wal"; }

    static std::string read(const fs::path& path) {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static void write(const fs::path& path, const std::string& bytes) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    }
    // The store as it is now, to be put back.
    void keep() {
        file_bytes_ = read(file());
        journal_bytes_ = fs::exists(journal()) ? read(journal()) : std::string();
    }
    void put(const std::string& file_bytes, const std::string& journal_bytes) {
        for (const auto& entry : fs::directory_iterator(sandbox_home())) {
            fs::remove(entry.path());
        }
        write(file(), file_bytes);
        if (!journal_bytes.empty()) write(journal(), journal_bytes);
        for (const auto& entry : fs::directory_iterator(sandbox_home())) {
            fs::permissions(entry.path(), fs::perms::owner_read | fs::perms::owner_write);
        }
    }
    static int look(bool later_boot = false) {
        return in_fork([later_boot] {
            if (later_boot) ZrPretendLaterBoot();
            return Store::look(kCount);
        });
    }
    // Whether all pages in use are as they were written.
    static bool is_whole() {
        return in_fork([] {
                   const std::string name = file().string();
                   sqlite3* database = nullptr;
                   std::string answer;
                   const auto take = [](void* to, int, char** values, char**) {
                       if (values[0] != nullptr) static_cast<std::string*>(to)->assign(values[0]);
                       return 0;
                   };
                   int result = open_as_the_stores_do(name, &database);
                   if (result == SQLITE_OK)
                       result = sqlite3_exec(database, "PRAGMA integrity_check", take, &answer, nullptr);
                   return result == SQLITE_OK && answer == "ok" ? 0 : 1;
               }) == 0;
    }

    std::string file_bytes_;
    std::string journal_bytes_;
};

using Stores = testing::Types<ContactStore, RegistryStore>;
TYPED_TEST_SUITE(Damage, Stores);

TYPED_TEST(Damage, AClosedStoreLeavesNoJournal) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {std::to_string(this->kCount)}).wait(), 0);
    EXPECT_FALSE(fs::exists(this->journal()));
    EXPECT_EQ(this->look(), kRight);
}

// The two marks in the first page, whose bits are looked at by themselves, are the only bytes without a checksum.
bool is_mark(std::size_t at) {
    return at >= 72 && at < 92;
}

TYPED_TEST(Damage, AFlippedBitInAClosedStoreIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    ASSERT_EQ(this->look(), kRight);
    std::mt19937 random(1);
    for (int i = 0; i < flips(); ++i) {
        const std::size_t bit = random() % (this->file_bytes_.size() * 8);
        std::string damaged = this->file_bytes_;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        this->put(damaged, {});
        const int seen = this->look();
        ASSERT_NE(seen, kWrong) << "bit " << bit;
        ASSERT_TRUE(seen == kRight || seen == kNoticed) << "bit " << bit << ": " << seen;
        if (seen == kRight && !is_mark(bit / 8)) {
            ASSERT_FALSE(this->is_whole()) << "bit " << bit;
        }
    }
}

TYPED_TEST(Damage, AFlippedBitInAJournalIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    ASSERT_GT(this->journal_bytes_.size(), 10000u);
    ASSERT_EQ(this->look(), kRight);
    std::mt19937 random(2);
    int noticed = 0;
    for (int i = 0; i < flips(); ++i) {
        const std::size_t bit = random() % (this->journal_bytes_.size() * 8);
        std::string damaged = this->journal_bytes_;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        this->put(this->file_bytes_, damaged);
        const int seen = this->look();
        ASSERT_TRUE(seen == kRight || seen == kNoticed) << "bit " << bit << ": " << seen;
        noticed += seen == kNoticed;
    }
    EXPECT_EQ(noticed, flips()) << "each byte of this journal is needed";
}

// What another process has open is read by its index of the journal: older copies of a page are nobody's any more.
TYPED_TEST(Damage, AFlippedBitInAnOpenStoreIsNeverReadAsData) {
    std::mt19937 random(5);
    int noticed = 0;
    const int rounds = std::max(flips() / 10, 4);
    for (int i = 0; i < rounds || (noticed == 0 && i < 200); ++i) {
        this->SetUp();
        Child holder(Content<TypeParam>::kHold, {std::to_string(this->kCount)});
        ASSERT_EQ(holder.hear(), "ready");
        for (int k = 0; k < 10; ++k) {
            const fs::path path = random() % 4 == 0 ? this->file() : this->journal();
            const std::size_t bit = random() % (fs::file_size(path) * 8);
            std::fstream stream(path, std::ios::in | std::ios::out | std::ios::binary);
            stream.seekg(static_cast<std::streamoff>(bit / 8));
            const int byte = stream.get();
            stream.seekp(static_cast<std::streamoff>(bit / 8));
            stream.put(static_cast<char>(byte ^ (1 << bit % 8)));
            stream.close();
            const int seen = this->look();
            ASSERT_TRUE(seen == kRight || seen == kNoticed) << path << " bit " << bit << ": " << seen;
            if (seen == kNoticed) {
                ++noticed;
                break;
            }
        }
        holder.say("end");
        EXPECT_EQ(holder.wait(), 0);
    }
    EXPECT_GT(noticed, 0);
}

TYPED_TEST(Damage, AMissingJournalIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    for (const bool later_boot : {false, true}) {
        this->put(this->file_bytes_, {});
        EXPECT_EQ(this->look(later_boot), kNoticed) << later_boot;
        this->put(this->file_bytes_, std::string(this->journal_bytes_.size(), '\0'));
        EXPECT_EQ(this->look(later_boot), kNoticed) << later_boot;
        this->put(this->file_bytes_, this->journal_bytes_);
        EXPECT_EQ(this->look(later_boot), kRight) << later_boot;
    }
}

TYPED_TEST(Damage, AJournalThatIsCutOffIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    std::mt19937 random(3);
    for (int i = 0; i < 20; ++i) {
        this->put(this->file_bytes_, this->journal_bytes_.substr(0, random() % this->journal_bytes_.size()));
        EXPECT_EQ(this->look(), kNoticed);
    }
}

TYPED_TEST(Damage, AStoreThatIsCutOffIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    std::mt19937 random(4);
    for (int i = 0; i < 20; ++i) {
        this->put(this->file_bytes_.substr(0, 512 + random() % (this->file_bytes_.size() - 512)), {});
        EXPECT_EQ(this->look(), kNoticed);
    }
}

TYPED_TEST(Damage, AFileWithoutAFrontBesideAJournalIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    for (const std::size_t size : {0, 1, 99}) {
        this->put(this->file_bytes_.substr(0, size), this->journal_bytes_);
        EXPECT_EQ(this->look(), kNoticed) << size;
        bool kept = false;
        for (const auto& entry : fs::directory_iterator(sandbox_home())) {
            kept =
                kept || (entry.path().string().ends_with("-wal") && this->read(entry.path()) == this->journal_bytes_);
        }
        EXPECT_TRUE(kept) << "the journal is set aside with its file, " << size;
    }
}

TYPED_TEST(Damage, AnOlderCopyOfTheFileUnderANewerJournalIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    const std::string older = this->file_bytes_;
    const std::string older_journal = this->journal_bytes_;
    const int more = this->kCount;  // what a value is already, is no change
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {std::to_string(more + 1)}).wait(), 0);  // and closes it
    ASSERT_FALSE(fs::exists(this->journal()));
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(more + 5)}).wait(), 0);
    this->keep();
    this->put(older, this->journal_bytes_);
    EXPECT_EQ(this->look(), kNoticed);
    this->put(this->file_bytes_, older_journal);
    EXPECT_EQ(this->look(), kNoticed);
}

TYPED_TEST(Damage, WrongTablesAreDamage) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {std::to_string(this->kCount)}).wait(), 0);
    const bool contacts = std::is_same_v<TypeParam, ContactStore>;
    query(this->file(),
          contacts ? "ALTER TABLE property RENAME COLUMN value TO v" : "ALTER TABLE value RENAME COLUMN data TO d");
    EXPECT_EQ(this->look(), kNoticed);
    EXPECT_NE(this->look(), kRight) << "a new store, and empty";
    int aside = 0;
    for (const auto& entry : fs::directory_iterator(sandbox_home())) {
        aside += entry.path().filename().string().find(".damaged-") != std::string::npos;
    }
    EXPECT_EQ(aside, 1);
}

}  // namespace
