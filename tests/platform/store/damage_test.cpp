// What becomes of stores whose files are damaged: it is noticed, or it does not matter, and nobody is told anything
// wrong. Each look is a process of its own. ZR_FLIPS says how many bits are flipped, one at a time (250).

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "platform/diagnostics.h"
#include "platform/mapi/mail_support.h"
#include "platform/pim/session_support.h"
#include "platform/registry/registry_support.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;
namespace fs = std::filesystem;

constexpr int kRight = 0;    // all that was kept is there
constexpr int kNoticed = 1;  // the store was set aside, or the call said that it is damaged
constexpr int kWrong = 2;

int flips() {
    return rounds_wanted("ZR_FLIPS", 250, 40);
}

// --- a page ---

// Newer versions of SQLite read the pages of a long value past their cache, and only as far as the value goes.
TEST(DamagedPage, IsNoticedWhereAPartOfItIsRead) {
    constexpr int kPage = 4096;
    {
        TestSession session;
        ASSERT_EQ(session.logon, S_OK);
        session.add(u"a", u"b");
    }
    const fs::path path = sandbox_home() / "pim.db";
    sqlite3* db = nullptr;
    sqlite3_file* opened = nullptr;
    ASSERT_EQ(open_as_the_stores_do(path, &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "SELECT * FROM folder", nullptr, nullptr, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &opened), SQLITE_OK);
    const auto read = [opened](int size, int at, std::string& bytes) {
        bytes.assign(static_cast<std::size_t>(size), '?');
        return opened->pMethods->xRead(opened, bytes.data(), size, at);
    };
    const int last = static_cast<int>(fs::file_size(path)) - kPage;
    std::string whole;
    std::string part;
    ASSERT_EQ(read(kPage, last, whole), SQLITE_OK);
    for (const auto& [size, at] : {std::pair(kPage - 8, 0), std::pair(100, 0), std::pair(4, 3000)}) {
        EXPECT_EQ(read(size, last + at, part), SQLITE_OK);
        EXPECT_EQ(part, whole.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(size)));
    }
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(last + 2000);
        file.put(static_cast<char>(whole[2000] ^ 8));
    }
    for (const auto& [size, at] :
         {std::pair(kPage, 0), std::pair(kPage - 8, 0), std::pair(100, 0), std::pair(4, 3000)}) {
        EXPECT_EQ(read(size, last + at, part) & 0xFF, SQLITE_IOERR) << size << ' ' << at;
    }
    sqlite3_close(db);
}

// --- contents ---

constexpr int kContacts = 60;
constexpr int kValues = 120;
constexpr int kMessages = 40;

std::u16string text_of(int number) {
    std::u16string text = u"entry ";
    for (int i = 0; i < 20 + number % 40; ++i) {
        text.push_back(static_cast<WCHAR>(u'a' + (number * 7 + i) % 26));
    }
    return text;
}

// The store of that name has been set aside.
bool is_set_aside(const char* file) {
    for (const auto& entry : fs::directory_iterator(sandbox_home())) {
        if (entry.path().filename().string().starts_with(std::string(file) + ".damaged-")) return true;
    }
    return false;
}

}  // namespace

// The stores, under names that the list of tests shows as they are.
struct ContactStore {
    static constexpr const char* kFile = "pim.db";

    // Changes what look() does not ask for.
    static bool touch(int number) {
        TestSession session;
        Ptr<IPOutlookItemCollection> items;
        Ptr<IContact> item;
        if (session.logon != S_OK || session.folder()->get_Items(items.out()) != S_OK) return false;
        if (items->Item(1, item.dispatch()) != S_OK) return false;
        item->put_FirstName(in(text_of(number).c_str()));
        return item->Save() == S_OK;
    }

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

    // Changes what look() does not ask for.
    static bool touch(int number) {
        return set_dword(create(HKEY_CURRENT_USER, u"key"), u"touched", static_cast<DWORD>(number)) == kOk;
    }

    static bool fill(int count) {
        create(HKEY_CURRENT_USER, u"key");
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

// A new store takes the place of a damaged one within the call that finds it.
struct MailStore {
    static constexpr const char* kFile = "mail.db";

    static std::u16string name_of(int number) {
        const std::string digits = std::to_string(number);
        return {digits.begin(), digits.end()};
    }
    static bool fill(int count) {
        const Mail mail;
        if (mail.open != S_OK) return false;
        const Ptr<IMAPIFolder> inbox = mail.folder();
        for (int i = 0; i < count; ++i) {
            Ptr<IMessage> made;
            if (inbox->CreateMessage(nullptr, 0, made.out()) != S_OK) return false;
            if (set(made.get(), text_prop(PR_SUBJECT_W, name_of(i))) != S_OK) return false;
            if (set(made.get(), text_prop(PR_BODY_W, text_of(i))) != S_OK) return false;
            if (made->SaveChanges(0) != S_OK) return false;
        }
        return true;
    }
    // Changes what look() does not ask for.
    static bool touch(int number) {
        const Mail mail;
        if (mail.open != S_OK) return false;
        Ptr<IMessage> made;
        const Ptr<IMAPIFolder> drafts = mail.folder(PR_CE_IPM_DRAFTS_ENTRYID);
        return drafts->CreateMessage(nullptr, 0, made.out()) == S_OK &&
               set(made.get(), text_prop(PR_SUBJECT_W, name_of(number))) == S_OK && made->SaveChanges(0) == S_OK;
    }
    static int look(int count) {
        const int seen = read(count);
        return seen == kWrong && is_set_aside(kFile) ? kNoticed : seen;
    }

private:
    static int read(int count) {
        const auto noticed = [](HRESULT result) { return result == MAPI_E_CORRUPT_DATA ? kNoticed : kWrong; };
        const Mail mail;
        if (mail.logon != S_OK) return noticed(mail.logon);
        if (mail.open != S_OK) return noticed(mail.open);
        const Props where(mail.store.get(), {PR_CE_IPM_INBOX_ENTRYID});
        if (where.result != S_OK) return noticed(where.result);
        const Bytes id = where.bytes();
        Ptr<IMAPIFolder> inbox;
        Ptr<IMAPITable> table;
        ULONG type = 0;
        HRESULT result = mail.session->OpenEntry(size_of(id), entry(id), nullptr, 0, &type, inbox.unknown());
        if (result == S_OK) result = inbox->GetContentsTable(0, table.out());
        if (result == S_OK) result = columns(table.get(), {PR_SUBJECT_W, PR_ENTRYID});
        if (result != S_OK) return noticed(result);
        const Rows rows(table.get());
        if (rows.result != S_OK) return noticed(rows.result);
        std::vector<bool> found(static_cast<std::size_t>(count));
        for (ULONG i = 0; i < rows.size(); ++i) {
            const std::u16string name = rows.text(i, 0);
            const int number = std::atoi(std::string(name.begin(), name.end()).c_str());
            if (number < 0 || number >= count || name != name_of(number)) return kWrong;
            found[static_cast<std::size_t>(number)] = true;
            const Bytes one = rows.bytes(i, 1);
            Ptr<IMessage> message;
            result = mail.session->OpenEntry(size_of(one), entry(one), nullptr, 0, &type, message.unknown());
            if (result != S_OK) return noticed(result);
            const Props body(message.get(), {PR_BODY_W});
            if (FAILED(body.result)) return noticed(body.result);
            if (!body.has(0)) return noticed(body.error(0));
            if (body.text() != text_of(number)) return kWrong;
        }
        const bool all = std::find(found.begin(), found.end(), false) == found.end();
        return all && rows.size() == static_cast<ULONG>(count) ? kRight : kWrong;
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
ZR_CHILD(hold_mail) {
    const Mail mail;
    if (!MailStore::fill(std::stoi(args[0]))) return 1;
    say("ready");
    hear();
    _exit(0);
}
ZR_CHILD(fill_mail) {
    return MailStore::fill(std::stoi(args[0])) ? 0 : 1;
}
ZR_CHILD(fill_mail_and_die) {
    const Mail mail;
    if (MailStore::fill(std::stoi(args[0]))) _exit(0);
    _exit(1);
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

// Reads and writes beside others.
template <class Store>
int work(int count) {
    for (int i = 0; i < rounds_wanted("ZR_ROUNDS", 30, 8); ++i) {
        if (!Store::touch(i)) return 1;
        if (Store::look(count) != kRight) return 2;
    }
    return 0;
}
ZR_CHILD(work_on_contacts) {
    const TestSession session;
    return work<ContactStore>(kContacts);
}
ZR_CHILD(work_on_registry) {
    return work<RegistryStore>(kValues);
}
ZR_CHILD(work_on_mail) {
    return work<MailStore>(kMessages);
}

template <class Store>
struct Content;
template <>
struct Content<ContactStore> {
    static constexpr int kCount = kContacts;
    static constexpr const char* kFill = "fill_contacts";
    static constexpr const char* kFillAndDie = "fill_contacts_and_die";
    static constexpr const char* kHold = "hold_contacts";
    static constexpr const char* kWork = "work_on_contacts";
};
template <>
struct Content<RegistryStore> {
    static constexpr int kCount = kValues;
    static constexpr const char* kFill = "fill_registry";
    static constexpr const char* kFillAndDie = "fill_registry_and_die";
    static constexpr const char* kHold = "hold_registry";
    static constexpr const char* kWork = "work_on_registry";
};

template <>
struct Content<MailStore> {
    static constexpr int kCount = kMessages;
    static constexpr const char* kFill = "fill_mail";
    static constexpr const char* kFillAndDie = "fill_mail_and_die";
    static constexpr const char* kHold = "hold_mail";
    static constexpr const char* kWork = "work_on_mail";
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
    static fs::path index() { return file().string() + "-shm"; }
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
    // Behind its last frame are zeros.
    std::size_t used_of_journal() const { return journal_bytes_.find_last_not_of('\0') + 1; }
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
    // Whether a store was set aside whose file, or what lies beside it, is this.
    static bool is_kept(const std::string& suffix, const std::string& bytes) {
        for (const auto& entry : fs::directory_iterator(sandbox_home())) {
            const std::string name = entry.path().filename();
            const bool beside = name.ends_with("-wal");
            if (name.find(".damaged-") != std::string::npos && beside == (suffix == "-wal") &&
                read(entry.path()) == bytes)
                return true;
        }
        return false;
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

using Stores = testing::Types<ContactStore, RegistryStore, MailStore>;
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
        const std::size_t bit = random() % (this->used_of_journal() * 8);
        std::string damaged = this->journal_bytes_;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        this->put(this->file_bytes_, damaged);
        const int seen = this->look();
        ASSERT_TRUE(seen == kRight || seen == kNoticed) << "bit " << bit << ": " << seen;
        noticed += seen == kNoticed;
    }
    EXPECT_EQ(noticed, flips()) << "each byte of this journal's frames is needed";
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
            const std::uintmax_t bit = random() % (fs::file_size(path) * 8);
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

// Of the journal's index only the memory is read, which is no file.
TYPED_TEST(Damage, WhatLiesInTheFileOfTheIndexIsBelievedByNobody) {
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    for (const std::size_t size : {0, 1, 135, 32767, 32768, 100000}) {
        this->put(this->file_bytes_, this->journal_bytes_);
        this->write(this->index(), std::string(size, '\x5A'));
        fs::permissions(this->index(), fs::perms::owner_read | fs::perms::owner_write);
        ASSERT_EQ(this->look(), kRight) << size;
    }
}

TYPED_TEST(Damage, WhatIsDoneToTheFileOfTheIndexHarmsNobody) {
    Child holder(Content<TypeParam>::kHold, {std::to_string(this->kCount)});
    ASSERT_EQ(holder.hear(), "ready");
    Child one(Content<TypeParam>::kWork, {});
    Child other(Content<TypeParam>::kWork, {});
    std::atomic<bool> over{false};
    std::thread vandal([&] {
        std::mt19937 random(7);
        while (!over) {
            const int file = open(this->index().c_str(), O_RDWR);
            if (file < 0) continue;
            const std::string noise(random() % 300, static_cast<char>(random()));
            if (random() % 2 == 0) {
                static_cast<void>(!ftruncate(file, 0));
            } else {
                static_cast<void>(!pwrite(file, noise.data(), noise.size(), static_cast<off_t>(random() % 40000)));
            }
            close(file);
        }
    });
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(other.wait(), 0);
    over = true;
    vandal.join();
    EXPECT_EQ(this->look(), kRight);
    holder.say("end");
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(this->look(), kRight);
    EXPECT_TRUE(this->is_whole());
    EXPECT_FALSE(is_set_aside(TypeParam::kFile));
}

ZR_CHILD(hold_by_another_layer) {
    sqlite3* database = nullptr;
    const bool reads = sqlite3_open(args[0].c_str(), &database) == SQLITE_OK &&
                       sqlite3_exec(database, "SELECT count(*) FROM change", nullptr, nullptr, nullptr) == SQLITE_OK;
    say(reads ? "ready" : "failed");
    hear();
    sqlite3_close(database);
    return 0;
}

// It has an index of its own, which two of them would not agree on.
TEST(ForeignIndex, AStoreThatAnotherLayerHasOpenIsBusy) {
    fs::remove_all(sandbox_home());
    fs::create_directories(sandbox_home());
    const fs::path file = sandbox_home() / RegistryStore::kFile;
    ASSERT_EQ(Child("fill_registry", {"1"}).wait(), 0);
    Child holder("hold_by_another_layer", {file.string()});
    ASSERT_EQ(holder.hear(), "ready");
    const auto result = [] {
        return in_fork([] {
            Key key;
            const LONG error = open(HKEY_CURRENT_USER, u"key", key);
            return error == kOk ? 0 : error == code(ERROR_BUSY) ? 1 : 2;
        });
    };
    EXPECT_EQ(result(), 1);
    holder.say("end");
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(result(), 0);
}

// What SQLite says when it is to read and to change a store by its own layer.
ZR_CHILD(use_by_another_layer) {
    sqlite3* database = nullptr;
    int result = sqlite3_open(args[0].c_str(), &database);
    sqlite3_busy_timeout(database, 100);
    for (const char* sql : {"SELECT count(*) FROM change", "CREATE TABLE foreign_table(x)", "VACUUM"}) {
        result = sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
        say(std::to_string(result));
    }
    sqlite3_close(database);
    return 0;
}

// It would have an index of its own.
TYPED_TEST(Damage, AnotherLayerCannotUseAnOpenStore) {
    Child holder(Content<TypeParam>::kHold, {std::to_string(this->kCount)});
    ASSERT_EQ(holder.hear(), "ready");
    for (int i = 0; i < 2; ++i) {
        Child foreign("use_by_another_layer", {this->file().string()});
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(foreign.hear(), std::to_string(SQLITE_CANTOPEN)) << k;
        }
        EXPECT_EQ(foreign.wait(), 0);
        EXPECT_EQ(Child(Content<TypeParam>::kWork, {}).wait(), 0);
        ASSERT_EQ(this->look(), kRight);
    }
    holder.say("end");
    EXPECT_EQ(holder.wait(), 0);
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {"0"}).wait(), 0);  // closes it
    // And an ordinary database again.
    Child foreign("hold_by_another_layer", {this->file().string()});
    EXPECT_EQ(foreign.hear(), "ready");
    foreign.say("end");
    EXPECT_EQ(foreign.wait(), 0);
    EXPECT_EQ(this->look(), kRight);
    EXPECT_FALSE(is_set_aside(TypeParam::kFile));
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
        this->put(this->file_bytes_, this->journal_bytes_.substr(0, random() % this->used_of_journal()));
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

// A file of a moment when it was closed, under the journal of a later one: the file alone is whole, the journal is not
// of it, and what comes of both is nothing that ever was.
TYPED_TEST(Damage, AClosedFileUnderALeftJournalIsNoticedAndBothAreKept) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {"1"}).wait(), 0);
    this->keep();
    const std::string closed = this->file_bytes_;
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {"2"}).wait(), 0);
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    ASSERT_FALSE(this->journal_bytes_.empty());
    for (const bool later_boot : {false, true}) {
        this->put(closed, this->journal_bytes_);
        EXPECT_EQ(this->look(later_boot), kNoticed) << later_boot;
        EXPECT_TRUE(this->is_kept("", closed)) << later_boot;
        EXPECT_TRUE(this->is_kept("-wal", this->journal_bytes_)) << later_boot;
    }
}

// The same with the very journal that was begun behind the file: here, too, what lies there was put there.
TYPED_TEST(Damage, AnOpenJournalBesideTheFileAsItWasBeforeItIsNoticed) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {"1"}).wait(), 0);
    this->keep();
    const std::string closed = this->file_bytes_;
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    this->put(closed, this->journal_bytes_);
    EXPECT_EQ(this->look(true), kNoticed);
}

// The journal that the file was closed with is what a process that is killed just then leaves. Only a part of it, as it
// was at an earlier moment, holds older pages than the file.
TYPED_TEST(Damage, OnlyTheWholeJournalOfAClosedFileFitsIt) {
    ASSERT_EQ(Child(Content<TypeParam>::kFillAndDie, {std::to_string(this->kCount)}).wait(), 0);
    this->keep();
    const std::string all = this->journal_bytes_;
    const std::size_t used = this->used_of_journal();
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {"0"}).wait(), 0);  // closes it
    ASSERT_FALSE(fs::exists(this->journal()));
    this->keep();
    for (const bool later_boot : {false, true}) {
        this->put(this->file_bytes_, all);
        EXPECT_EQ(this->look(later_boot), kRight) << later_boot;
        this->put(this->file_bytes_, all.substr(0, used / 2));
        EXPECT_EQ(this->look(later_boot), kNoticed) << later_boot;
    }
}

// Somebody writes a copy over the file while a program has it open.
TYPED_TEST(Damage, ACopyWrittenOverAnOpenFileIsNoticedAtTheNextChange) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {"1"}).wait(), 0);
    this->keep();
    const std::string closed = this->file_bytes_;
    Child holder(Content<TypeParam>::kHold, {std::to_string(this->kCount)});
    ASSERT_EQ(holder.hear(), "ready");
    this->write(this->file(), closed);
    EXPECT_EQ(this->look(), kNoticed);
    EXPECT_TRUE(this->is_kept("", closed));
    holder.say("end");
    EXPECT_EQ(holder.wait(), 0);
}

TYPED_TEST(Damage, WrongTablesAreDamage) {
    ASSERT_EQ(Child(Content<TypeParam>::kFill, {std::to_string(this->kCount)}).wait(), 0);
    const bool registry = std::is_same_v<TypeParam, RegistryStore>;
    query(this->file(),
          registry ? "ALTER TABLE value RENAME COLUMN data TO d" : "ALTER TABLE property RENAME COLUMN value TO v");
    EXPECT_EQ(this->look(), kNoticed);
    EXPECT_NE(this->look(), kRight) << "a new store, and empty";
    int aside = 0;
    for (const auto& entry : fs::directory_iterator(sandbox_home())) {
        aside += entry.path().filename().string().find(".damaged-") != std::string::npos;
    }
    EXPECT_EQ(aside, 1);
}

}  // namespace
