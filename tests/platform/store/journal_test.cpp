// How the journal is written, as a program sees it that opens a store by SQLite's calls and the layer beneath.

#include <fcntl.h>
#include <stdio.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "platform/registry/registry_support.h"
#include "support/child.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;
namespace fs = std::filesystem;

ZR_CHILD(makes_a_registry) {
    return set_dword(create(HKEY_CURRENT_USER, u"key"), u"value", 1) == kOk ? 0 : 1;
}

class StoreJournal : public testing::Test {
protected:
    class Sql {
    public:
        explicit Sql(const fs::path& file) {
            EXPECT_EQ(open_as_the_stores_do(file, &db_), SQLITE_OK);
            run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL");
        }
        ~Sql() { sqlite3_close(db_); }
        Sql(const Sql&) = delete;
        Sql& operator=(const Sql&) = delete;

        void run(const char* sql) {
            EXPECT_EQ(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql << sqlite3_errmsg(db_);
        }
        std::string text(const char* sql) {
            std::string found;
            sqlite3_stmt* statement = nullptr;
            EXPECT_EQ(sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr), SQLITE_OK) << sqlite3_errmsg(db_);
            if (sqlite3_step(statement) == SQLITE_ROW)
                found = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            sqlite3_finalize(statement);
            return found;
        }

    private:
        sqlite3* db_ = nullptr;
    };

    void SetUp() override {
        fs::remove_all(sandbox_home());
        fs::create_directories(sandbox_home());
        ASSERT_EQ(Child("makes_a_registry").wait(), 0);
    }
    static fs::path file() { return sandbox_home() / "registry.db"; }
};

// Pages that did not fit the cache were on their way to the journal when the change was taken back. Somebody else's
// commit has their place then.
TEST_F(StoreJournal, GetsNothingOfWhatWasTakenBack) {
    Sql first(file());
    Sql second(file());
    first.run("PRAGMA cache_size = 10; PRAGMA cache_spill = 10");
    second.run("CREATE TABLE kept(number INTEGER, bytes BLOB)");
    constexpr const char* kMany =
        " WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 97)"
        " INSERT INTO kept SELECT i, randomblob(700) FROM n";
    for (int round = 0; round < 20; ++round) {
        second.run("PRAGMA wal_checkpoint(RESTART)");  // so that what is taken back is read from the file
        first.run("BEGIN IMMEDIATE");
        first.run(kMany);
        first.run("ROLLBACK");
        second.run("INSERT INTO kept VALUES(-1, randomblob(150000))");
        first.run("INSERT INTO kept VALUES(-2, randomblob(50))");
    }
    Sql third(file());
    EXPECT_EQ(third.text("SELECT count(*) FROM kept"), "40");
    EXPECT_EQ(third.text("PRAGMA integrity_check"), "ok");
}

// What a commit makes longer it has to flush with the file's length.
TEST_F(StoreJournal, SeldomBecomesLonger) {
    Sql sql(file());
    sql.run("CREATE TABLE kept(number INTEGER)");
    std::set<std::uintmax_t> lengths;
    constexpr int kCommits = 400;
    for (int i = 0; i < kCommits; ++i) {
        sql.run("INSERT INTO kept VALUES(1)");
        lengths.insert(fs::file_size(file().string() + "-wal"));
    }
    EXPECT_LT(lengths.size(), static_cast<std::size_t>(kCommits) / 10);
    EXPECT_GT(*lengths.rbegin(), static_cast<std::uintmax_t>(kCommits) * 1024);
}

// As often as not the file that was opened has lost its name to another one before it is looked at.
TEST_F(StoreJournal, IsThatOfTheFileWhichHasTheName) {
    const fs::path twin = sandbox_home() / "twin.db";
    fs::copy_file(file(), twin);
    std::atomic<bool> over{false};
    std::thread other([&] {
        while (!over) {
            renameat2(AT_FDCWD, twin.c_str(), AT_FDCWD, file().c_str(), RENAME_EXCHANGE);
        }
    });
    std::set<int> results;
    for (int i = 0; i < 1000; ++i) {
        sqlite3* db = nullptr;
        results.insert(open_as_the_stores_do(file(), &db));
        results.insert(sqlite3_exec(db, "SELECT count(*) FROM change", nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }
    over = true;
    other.join();
    EXPECT_EQ(results, std::set<int>{SQLITE_OK});
}

}  // namespace
