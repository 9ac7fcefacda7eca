// Examining, backing up and bringing back stores.

#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "platform/pim/session_support.h"
#include "platform/registry/registry_support.h"
#include "platform/stores.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;
namespace fs = std::filesystem;

std::string contacts_file() {
    return sandbox_home() / "pim.db";
}
std::string registry_file() {
    return sandbox_home() / "registry.db";
}
std::string beside(const char* name) {
    return sandbox() / name;
}
bool says(std::string_view part) {
    return std::string_view(ZrStoreLastErrorText()).find(part) != std::string_view::npos;
}

std::u16string long_text(int number) {
    return std::u16string(400, static_cast<WCHAR>(u'a' + number % 26));
}

void fill(int contacts) {
    TestSession session;
    const auto store = session.store();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    for (int i = 0; i < contacts; ++i) {
        const auto made = session.fresh();
        made->put_LastName(in(long_text(i).c_str()));
        made->put_Body(in(long_text(i + 1).c_str()));
        ASSERT_EQ(made->Save(), S_OK);
    }
    ASSERT_EQ(store->CommitBatch(), S_OK);
}

void damage_pages(const std::string& file, int from, int to) {
    const int size = std::stoi(query(file, "PRAGMA page_size"));
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    for (int page = from; page < to; ++page) {
        stream.seekp(page * size + 200);
        stream << "damage";
    }
}

int contacts_now() {
    return in_fork([] {
        TestSession session;
        return session.logon == S_OK ? count(*session.items().get()) % 200 : 250;
    });
}

class Maintenance : public testing::Test {
protected:
    void SetUp() override {
        fs::remove_all(sandbox_home());
        for (const char* name : {"backup.db", "recovered.db"}) {
            fs::remove(beside(name));
        }
    }
};

TEST_F(Maintenance, NamesTheStores) {
    EXPECT_EQ(std::string(ZrStoreName(0)) + ZrStoreName(1) + ZrStoreName(2), std::string("registrycontactsmail"));
    EXPECT_EQ(ZrStoreName(3), nullptr);
    EXPECT_EQ(ZrStoreName(1000), nullptr);
    EXPECT_EQ(ZrStoreCheck("letters"), code(ERROR_INVALID_NAME));
    EXPECT_EQ(ZrStoreCheck(nullptr), code(ERROR_INVALID_NAME));
    EXPECT_EQ(ZrStoreCheck("contacts"), code(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(ZrStoreBackUp("contacts", beside("backup.db").c_str()), code(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(ZrStoreBackUp("contacts", nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(ZrStoreRestore(nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(ZrStoreRecover(beside("nothing").c_str(), beside("recovered.db").c_str(), nullptr),
              code(ERROR_FILE_NOT_FOUND));
}

TEST_F(Maintenance, ExaminesAStoreWhileItIsOpen) {
    fill(100);
    TestSession session;
    EXPECT_EQ(ZrStoreCheck("contacts"), kOk);
    EXPECT_FALSE(fs::exists(contacts_file() + ".suspect"));
    session.add(u"still", u"works");
    EXPECT_EQ(contacts_now(), 101);
}

void remove_contacts_but(int kept) {
    TestSession session;
    const auto store = session.store();
    const auto items = session.items();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    for (int i = count(*items.get()); i > kept; --i) {
        ASSERT_EQ(items->Remove(i), S_OK);
    }
    ASSERT_EQ(store->CommitBatch(), S_OK);
}

TEST_F(Maintenance, GivesSpaceBackAfterLargeDeletions) {
    fill(4000);
    const auto full = fs::file_size(contacts_file());
    remove_contacts_but(100);
    EXPECT_LT(fs::file_size(contacts_file()), full / 4);
    EXPECT_EQ(contacts_now(), 100);
    EXPECT_EQ(ZrStoreCheck("contacts"), kOk);
    fill(20);
    EXPECT_EQ(contacts_now(), 120);
}

TEST_F(Maintenance, GivesSpaceBackUnderAReader) {
    fill(4000);
    TestSession reader;
    ASSERT_EQ(count(*reader.items().get()), 4000);
    const auto full = fs::file_size(contacts_file());
    EXPECT_EQ(in_fork([] {
                  remove_contacts_but(100);
                  return HasFailure() ? 1 : 0;
              }),
              0);
    EXPECT_LT(fs::file_size(contacts_file()), full / 4);
    EXPECT_EQ(count(*reader.items().get()), 100);
    EXPECT_EQ(ZrStoreCheck("contacts"), kOk);
}

TEST_F(Maintenance, CompactsWhatIsFreeWhenAsked) {
    ULONGLONG freed = 1;
    EXPECT_EQ(ZrStoreCompact("contacts", &freed), code(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(freed, 0u);
    EXPECT_EQ(ZrStoreCompact("letters", nullptr), code(ERROR_INVALID_NAME));
    fill(2000);
    remove_contacts_but(1500);  // too little to be given back by itself
    const TestSession reader;
    EXPECT_EQ(ZrStoreCompact("contacts", &freed), kOk) << ZrStoreLastErrorText();
    EXPECT_GT(freed, 50'000u);
    EXPECT_EQ(ZrStoreCheck("contacts"), kOk);
    EXPECT_EQ(contacts_now(), 1500 % 200);
    fill(1);
    EXPECT_EQ(contacts_now(), 1501 % 200);
    EXPECT_EQ(ZrStoreCompact("contacts", nullptr), kOk);
    // One who writes is waited for, and told of.
    const TestSession writer;
    const auto store = writer.store();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    EXPECT_EQ(ZrStoreCompact("contacts", &freed), code(ERROR_BUSY));
    EXPECT_EQ(store->CommitBatch(), S_OK);
}

// What is written anew is all that the store holds: it stays in the folder that is the user's alone.
TEST_F(Maintenance, CompactsWithinItsFolder) {
    ASSERT_EQ(in_fork([] {
                  TestSession session;
                  const std::u16string body(30'000, u'b');  // more of them than SQLite keeps in memory
                  for (int i = 0; i < 250; ++i) {
                      const auto made = session.fresh();
                      made->put_Body(in(body.c_str()));
                      if (made->Save() != S_OK) return 1;
                  }
                  return 0;
              }),
              0);
    const int events = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(events, sandbox_home().c_str(), IN_CREATE), 0);
    EXPECT_EQ(ZrStoreCompact("contacts", nullptr), kOk) << ZrStoreLastErrorText();
    bool seen = false;
    alignas(inotify_event) char buffer[4096];
    for (ssize_t got = 0; (got = read(events, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < got;) {
            const auto& event = *reinterpret_cast<const inotify_event*>(buffer + at);
            seen = seen || (event.len > 0 && std::string(event.name).starts_with("pim.db.temp-"));
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
    close(events);
    EXPECT_TRUE(seen);
    for (const auto& entry : fs::directory_iterator(sandbox_home())) {
        EXPECT_EQ(entry.path().string().find(".temp-"), std::string::npos) << entry.path();
    }
}

TEST_F(Maintenance, FindsDamageThatNobodyHasMet) {
    fill(300);
    damage_pages(contacts_file(), 60, 61);
    EXPECT_EQ(ZrStoreCheck("contacts"), code(ERROR_FILE_CORRUPT));
    EXPECT_TRUE(says("set aside as"));
    EXPECT_EQ(ZrStoreCheck("contacts"), code(ERROR_FILE_NOT_FOUND));
}

TEST_F(Maintenance, BacksUpWhileOthersWrite) {
    fill(50);
    const std::string backup = beside("backup.db");
    {
        TestSession session;
        const Forked writer([] {
            TestSession own;
            for (int i = 0; i < 200; ++i) {
                own.add(u"meanwhile", u"");
            }
            return 0;
        });
        EXPECT_EQ(ZrStoreBackUp("contacts", backup.c_str()), kOk) << ZrStoreLastErrorText();
        EXPECT_EQ(ZrStoreBackUp("contacts", backup.c_str()), code(ERROR_FILE_EXISTS));
        EXPECT_EQ(writer.wait(), 0);
    }
    EXPECT_EQ(fs::status(backup).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(query(backup, "PRAGMA integrity_check"), "ok");
    const int kept = std::stoi(query(backup, "SELECT count(*) FROM contact"));
    EXPECT_GE(kept, 50);
    EXPECT_LE(kept, 250);
    EXPECT_EQ(query(backup, "SELECT next - 1 FROM folder WHERE id = 10"), std::to_string(kept)) << "of one moment";
    EXPECT_EQ(contacts_now(), 50);
}

TEST_F(Maintenance, RestoresABackupUnderOpenSessions) {
    fill(30);
    const std::string backup = beside("backup.db");
    ASSERT_EQ(ZrStoreBackUp("contacts", backup.c_str()), kOk) << ZrStoreLastErrorText();
    TestSession session;
    for (int i = 0; i < 5; ++i) {
        session.add(u"later", u"");
    }
    ASSERT_EQ(count(*session.items().get()), 35);
    ASSERT_EQ(ZrStoreRestore(backup.c_str()), kOk) << ZrStoreLastErrorText();
    EXPECT_TRUE(says(".replaced-"));
    EXPECT_EQ(count(*session.items().get()), 30);
    EXPECT_EQ(session.add(u"now", u""), 31);
    EXPECT_EQ(contacts_now(), 31);
    EXPECT_EQ(query(backup, "SELECT count(*) FROM contact"), "30") << "a copy was put in place";
    EXPECT_EQ(ZrStoreCheck("contacts"), kOk);
}

TEST_F(Maintenance, RefusesToRestoreWhatIsNotWhole) {
    fill(300);
    const std::string backup = beside("backup.db");
    ASSERT_EQ(ZrStoreBackUp("contacts", backup.c_str()), kOk);
    damage_pages(backup, 40, 41);
    EXPECT_EQ(ZrStoreRestore(backup.c_str()), code(ERROR_FILE_CORRUPT));
    EXPECT_EQ(contacts_now(), 300 % 200);
    std::ofstream(beside("recovered.db")) << "something else";
    EXPECT_EQ(ZrStoreRestore(beside("recovered.db").c_str()), code(ERROR_BAD_FORMAT));
    for (const auto& entry : fs::directory_iterator(sandbox_home())) {
        EXPECT_EQ(entry.path().string().find(".new"), std::string::npos) << entry.path();
    }
}

// Contacts that lie in whole pages come back as they were; the others do not come back.
TEST_F(Maintenance, RecoversWhatIsReadable) {
    constexpr int kAll = 300;
    fill(kAll);
    const std::string damaged = beside("backup.db");
    fs::copy_file(contacts_file(), damaged);
    damage_pages(damaged, 50, 60);
    damage_pages(damaged, 90, 91);
    const std::string recovered = beside("recovered.db");
    ULONGLONG items = 0;
    ASSERT_EQ(ZrStoreRecover(damaged.c_str(), recovered.c_str(), &items), kOk) << ZrStoreLastErrorText();
    EXPECT_GT(items, 200u);
    EXPECT_LT(items, 2u * kAll);
    EXPECT_TRUE(says("Tables that could not be read: ")) << ZrStoreLastErrorText();
    EXPECT_EQ(query(recovered, "PRAGMA integrity_check"), "ok");
    ASSERT_EQ(ZrStoreRestore(recovered.c_str()), kOk) << ZrStoreLastErrorText();
    EXPECT_EQ(ZrStoreCheck("contacts"), kOk) << ZrStoreLastErrorText();
    EXPECT_EQ(in_fork([] {
                  TestSession session;
                  const auto items_now = session.items();
                  const INT there = count(*items_now.get());
                  if (there < kAll / 2 || there >= kAll) return 1;
                  for (INT i = 1; i <= there; ++i) {
                      const LONG oid = oid_at(*items_now.get(), i);
                      const auto item = session.contact(oid);
                      if (text(*item.get(), &IContact::get_LastName) != long_text(oid - 1)) return 2;
                      const std::u16string body = text(*item.get(), &IContact::get_Body);
                      if (!body.empty() && body != long_text(oid)) return 3;
                  }
                  // The identifiers of those that were lost are free.
                  return session.add(u"new", u"") <= kAll ? 0 : 4;
              }),
              0);
}

// A file as it was, under the journal that was begun when more had come and gone: each by itself is good.
// Which has fewer columns.
TEST_F(Maintenance, RecoversAFileOfAnOlderVersion) {
    fill(30);
    const std::string older = beside("backup.db");
    const std::string recovered = beside("recovered.db");
    ASSERT_EQ(ZrStoreBackUp("contacts", older.c_str()), kOk);
    ULONGLONG all = 0;
    ASSERT_EQ(ZrStoreRecover(older.c_str(), recovered.c_str(), &all), kOk) << ZrStoreLastErrorText();
    constexpr const char* kBirths = "SELECT sum(born) FROM contact";
    EXPECT_NE(query(older, kBirths), "0");
    EXPECT_EQ(query(recovered, kBirths), query(older, kBirths));
    fs::remove(recovered);
    query(older, "DROP TRIGGER contact_born");
    query(older, "DROP TRIGGER entry_born");
    query(older, "ALTER TABLE contact DROP COLUMN born");
    query(older, "ALTER TABLE entry DROP COLUMN born");
    query(older, "DROP TABLE exception");
    query(older, "PRAGMA user_version=1");
    ULONGLONG items = 0;
    ASSERT_EQ(ZrStoreRecover(older.c_str(), recovered.c_str(), &items), kOk) << ZrStoreLastErrorText();
    EXPECT_EQ(items, all);
    EXPECT_STREQ(ZrStoreLastErrorText(), "");
    EXPECT_EQ(query(recovered, "SELECT count(*) FROM contact"), "30");
    EXPECT_EQ(query(recovered, kBirths), "0") << "when they were made is not known";
    EXPECT_EQ(query(recovered, "PRAGMA integrity_check"), "ok");
}

TEST_F(Maintenance, NamesTheTablesThatItCouldNotRead) {
    fill(300);
    const std::string damaged = beside("backup.db");
    fs::copy_file(contacts_file(), damaged);
    const int root = std::stoi(query(damaged, "SELECT rootpage FROM sqlite_master WHERE name = 'property'"));
    damage_pages(damaged, root - 1, root);
    ULONGLONG items = 0;
    ASSERT_EQ(ZrStoreRecover(damaged.c_str(), beside("recovered.db").c_str(), &items), kOk) << ZrStoreLastErrorText();
    EXPECT_EQ(items, 300u);
    EXPECT_STREQ(ZrStoreLastErrorText(), "Tables that could not be read: property.");
}

TEST_F(Maintenance, RecoversAFileWithoutAJournalThatIsNotOfIt) {
    fill(30);
    const std::string damaged = beside("backup.db");
    fs::copy_file(contacts_file(), damaged);
    fill(50);
    ASSERT_EQ(in_fork([] {
                  TestSession session;
                  for (int i = 0; i < 20; ++i) {
                      session.add(long_text(i).c_str(), long_text(i).c_str());
                  }
                  _exit(0);
                  return 1;
              }),
              0);
    fs::copy_file(contacts_file() + "-wal", damaged + "-wal");
    const std::string recovered = beside("recovered.db");
    ASSERT_EQ(ZrStoreRecover(damaged.c_str(), recovered.c_str(), nullptr), kOk) << ZrStoreLastErrorText();
    EXPECT_TRUE(fs::exists(damaged + "-wal"));
    fs::remove(damaged + "-wal");
    ASSERT_EQ(ZrStoreRestore(recovered.c_str()), kOk) << ZrStoreLastErrorText();
    EXPECT_EQ(contacts_now(), 30);
}

TEST_F(Maintenance, RecoversKeysWhoseParentsWereLost) {
    EXPECT_EQ(in_fork([] {
                  const Key key = create(HKEY_CURRENT_USER, u"lost\\below");
                  set_dword(key, u"kept", 7);
                  return set_dword(create(HKEY_LOCAL_MACHINE, u"other"), u"v", 1) == kOk ? 0 : 1;
              }),
              0);
    query(registry_file(), "DELETE FROM key WHERE name = CAST(X'6C006F0073007400' AS BLOB)");
    EXPECT_EQ(query(registry_file(), "SELECT count(*) FROM key"), "6");
    const std::string recovered = beside("recovered.db");
    EXPECT_EQ(ZrStoreRecover(registry_file().c_str(), recovered.c_str(), nullptr), code(ERROR_SHARING_VIOLATION));
    const std::string damaged = beside("backup.db");
    fs::copy_file(registry_file(), damaged);
    ASSERT_EQ(ZrStoreRecover(damaged.c_str(), recovered.c_str(), nullptr), kOk) << ZrStoreLastErrorText();
    ASSERT_EQ(ZrStoreRestore(recovered.c_str()), kOk) << ZrStoreLastErrorText();
    EXPECT_EQ(in_fork([] {
                  Key key;
                  if (open(HKEY_CURRENT_USER, u"Recovered\\below", key) != kOk &&
                      open(HKEY_CURRENT_USER, u"Recovered 5\\below", key) != kOk)
                      return 1;
                  if (get_dword(key, u"kept") != 7) return 2;
                  return get_dword(create(HKEY_LOCAL_MACHINE, u"other"), u"v") == 1 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(ZrStoreCheck("registry"), kOk) << ZrStoreLastErrorText();
}

TEST_F(Maintenance, SaysWhenNothingCanBeRead) {
    fill(10);
    fs::copy_file(contacts_file(), beside("backup.db"));
    damage_pages(beside("backup.db"), 0, 1);
    EXPECT_EQ(ZrStoreRecover(beside("backup.db").c_str(), beside("recovered.db").c_str(), nullptr),
              code(ERROR_FILE_CORRUPT));
    EXPECT_FALSE(fs::exists(beside("recovered.db")));
    for (const auto& entry : fs::directory_iterator(sandbox())) {
        EXPECT_FALSE(entry.path().string().ends_with(".part") || entry.path().string().ends_with(".copy"))
            << entry.path();
    }
}

}  // namespace
