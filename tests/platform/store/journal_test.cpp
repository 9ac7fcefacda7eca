// How the journal is written, as a program sees it that opens a store by SQLite's calls and the layer beneath.

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <random>
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
        int result(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }
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

std::atomic<bool> journals_are_full{false};

ssize_t write_unless_full(int file, const void* bytes, std::size_t size, off_t at) {
    std::error_code error;
    const std::string path = fs::read_symlink("/proc/self/fd/" + std::to_string(file), error).string();
    if (!journals_are_full || !path.ends_with("-wal")) return pwrite(file, bytes, size, at);
    errno = ENOSPC;
    return -1;
}

// What an earlier statement wrote is held back when a later one reads it and the disk is full. That one fails alone.
TEST_F(StoreJournal, KeepsWhatItCouldNotWriteForARead) {
    sqlite3_vfs* const host = sqlite3_vfs_find(nullptr);
    constexpr const char* kCalls[] = {"pwrite", "pwrite64"};
    for (const char* call : kCalls)
        host->xSetSystemCall(host, call, reinterpret_cast<sqlite3_syscall_ptr>(write_unless_full));
    {
        Sql sql(file());
        sql.run(
            "CREATE TABLE kept(number INTEGER PRIMARY KEY, bytes BLOB); CREATE TABLE other(number INTEGER NOT NULL)");
        sql.run("PRAGMA cache_size = 10; PRAGMA cache_spill = 10; BEGIN IMMEDIATE");
        for (int i = 0; i < 24; ++i) {
            sql.run("INSERT INTO kept(bytes) VALUES(randomblob(3500))");
        }
        journals_are_full = true;
        EXPECT_EQ(sql.result("INSERT INTO other SELECT length(bytes) FROM kept"), SQLITE_FULL);
        journals_are_full = false;
        sql.run("COMMIT");
        EXPECT_EQ(sql.text("SELECT sum(length(bytes)) FROM kept"), "84000");
        EXPECT_EQ(sql.text("PRAGMA integrity_check"), "ok");
        // As the next one finds it after this one was killed.
        const fs::path copy = file().string() + ".copy";
        fs::copy_file(file(), copy);
        fs::copy_file(file().string() + "-wal", copy.string() + "-wal");
        Sql after(copy);
        EXPECT_EQ(after.text("SELECT sum(length(bytes)) FROM kept"), "84000");
    }
    for (const char* call : kCalls)
        host->xSetSystemCall(host, call, nullptr);
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

// Now and then the file that was opened has lost its name to another one before it is looked at. (Without the pauses
// the exchanges would keep step with the looks, which wait for them: each one would come too late.)
TEST_F(StoreJournal, IsThatOfTheFileWhichHasTheName) {
    const fs::path twin = sandbox_home() / "twin.db";
    fs::copy_file(file(), twin);
    std::atomic<bool> over{false};
    std::thread other([&] {
        std::minstd_rand random;
        while (!over) {
            renameat2(AT_FDCWD, twin.c_str(), AT_FDCWD, file().c_str(), RENAME_EXCHANGE);
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 100));
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
