#include "schema.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "last_error.h"

namespace zr::platform::pim {
namespace {

constexpr int kApplicationId = 0x5A72504D;
constexpr DWORD kRevisionMismatch = 1306;

// Step i brings a store from version i to version i + 1. Steps are never changed, only added.
//
// A contact's searched fields are columns, as lists, searches and the index read these and nothing else; everything
// else an item has is a property. folder.next is the lowest identifier never used; the ones below it are in use or in
// free_oid. change is the log from which caches and notifications learn what happened, in order.
constexpr const char* kSteps[] = {
    "CREATE TABLE folder(id INTEGER PRIMARY KEY, next INTEGER NOT NULL);"
    "INSERT INTO folder VALUES(9, 9 << 24 | 1), (10, 1), (13, 13 << 24 | 1);"
    "CREATE TABLE free_oid(oid INTEGER PRIMARY KEY);"
    "CREATE TABLE contact(oid INTEGER PRIMARY KEY, file_as TEXT, title TEXT, first_name TEXT, middle_name TEXT,"
    " last_name TEXT, suffix TEXT, company TEXT, email1 TEXT, email2 TEXT, email3 TEXT, job_title TEXT,"
    " own_file_as INTEGER NOT NULL);"
    "CREATE TABLE entry(oid INTEGER PRIMARY KEY);"
    "CREATE TABLE property(oid INTEGER NOT NULL, id INTEGER NOT NULL, value, PRIMARY KEY(oid, id)) WITHOUT ROWID;"
    "CREATE TABLE change(seq INTEGER PRIMARY KEY, kind INTEGER NOT NULL, oid INTEGER NOT NULL,"
    " origin INTEGER NOT NULL);"
    "INSERT INTO change VALUES(1, 3, 0, 0);"
    "PRAGMA application_id = 1517441101;",
    // The occurrences of a series that were changed or deleted. A row with the id 0 says that there is one on that day
    // of the pattern, its value whether it was deleted; the other rows are the fields that were put into it.
    "CREATE TABLE exception(oid INTEGER NOT NULL, day INTEGER NOT NULL, id INTEGER NOT NULL, value,"
    " PRIMARY KEY(oid, day, id)) WITHOUT ROWID;",
};
constexpr LONGLONG kVersion = sizeof kSteps / sizeof kSteps[0];
static_assert(kApplicationId == 1517441101);

// One process at a time examines, makes or renames the file.
class FileLock {
public:
    explicit FileLock(const std::string& path)
        : file_(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        if (file_ < 0) return;
        while (flock(file_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~FileLock() {
        if (file_ >= 0) close(file_);
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    bool held() const { return file_ >= 0; }

private:
    int file_;
};

HRESULT system_failure(const std::string& path) {
    const int error = errno;
    const HRESULT result = error == ENOSPC || error == EDQUOT                    ? HRESULT_FROM_WIN32(ERROR_DISK_FULL)
                           : error == EACCES || error == EPERM || error == EROFS ? E_ACCESSDENIED
                                                                                 : HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    return fail(result, "The contact store " + path + ": " + strerror(error) + ".");
}

// SQLite would make it readable for others.
HRESULT make_private_file(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) return system_failure(path);
    close(file);
    return S_OK;
}

std::string free_name(const std::string& path) {
    char when[32];
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    std::strftime(when, sizeof when, "%Y%m%d-%H%M%S", &parts);
    const std::string base = path + ".damaged-" + when;
    std::string name = base;
    for (int i = 2; access(name.c_str(), F_OK) == 0; ++i) {
        name = base + "-" + std::to_string(i);
    }
    return name;
}

// The journal goes with its file: it may hold the only copy of the last changes.
HRESULT set_aside(const std::string& path) {
    const std::string name = free_name(path);
    if (rename(path.c_str(), name.c_str()) != 0) return system_failure(path);
    rename((path + "-wal").c_str(), (name + "-wal").c_str());
    unlink((path + "-shm").c_str());
    unlink(suspicion(path).c_str());
    return fail(kCorrupt, "The contact store " + path + " is damaged. It was set aside as " + name +
                              "; the next start begins with an empty store.");
}

HRESULT examine(const std::string& path, Database& database) {
    if (access(suspicion(path).c_str(), F_OK) != 0) return S_OK;
    const Use check = database.use("PRAGMA integrity_check(1)");
    if (!check) return database.result();
    const int code = check->step();
    if (code != SQLITE_ROW) return database.result();
    if (check->text(0) != u"ok") return kCorrupt;
    unlink(suspicion(path).c_str());
    return S_OK;
}

HRESULT migrate(const std::string& path, Database& database) {
    LONGLONG version = 0;
    LONGLONG application = 0;
    LONGLONG tables = 0;
    HRESULT result = database.scalar("PRAGMA user_version", version);
    if (SUCCEEDED(result)) result = database.scalar("PRAGMA application_id", application);
    if (SUCCEEDED(result)) result = database.scalar("SELECT count(*) FROM sqlite_master", tables);
    if (FAILED(result)) return result;
    const bool fresh = version == 0 && application == 0 && tables == 0;
    if (!fresh && application != kApplicationId) return kCorrupt;
    if (version > kVersion)
        return fail(HRESULT_FROM_WIN32(kRevisionMismatch),
                    "The contact store " + path + " was written by a newer version (" + std::to_string(version) +
                        "; this one knows " + std::to_string(kVersion) + "). It was left alone.");
    if (version == kVersion) return S_OK;
    result = database.execute("BEGIN IMMEDIATE");
    for (LONGLONG i = version; i < kVersion && SUCCEEDED(result); ++i) {
        result = database.execute(kSteps[i]);
    }
    const std::string stamp = "PRAGMA user_version = " + std::to_string(kVersion);
    if (SUCCEEDED(result)) result = database.execute(stamp.c_str());
    if (SUCCEEDED(result)) result = database.execute("COMMIT");
    if (FAILED(result) && database.in_transaction())
        sqlite3_exec(database.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    return result;
}

HRESULT configure(Database& database) {
    // The encoding takes effect in an empty file only, and must come before anything is read.
    return database.execute(
        "PRAGMA encoding = 'UTF-16';"
        "PRAGMA journal_mode = WAL;"
        "PRAGMA synchronous = NORMAL;"
        "PRAGMA wal_autocheckpoint = 4000;"
        "PRAGMA journal_size_limit = 67108864;"
        "PRAGMA cache_size = -8192;");
}

HRESULT prepare(const std::string& path, Database& database) {
    HRESULT result = database.open(path);
    if (SUCCEEDED(result)) result = configure(database);
    if (SUCCEEDED(result)) result = examine(path, database);
    if (SUCCEEDED(result)) result = migrate(path, database);
    return result;
}

}  // namespace

HRESULT open_store(const std::string& path, Database& database) {
    const FileLock lock(path);
    if (!lock.held()) return system_failure(path);
    HRESULT result = make_private_file(path);
    if (FAILED(result)) return result;
    {
        Database probe;
        result = prepare(path, probe);
    }
    if (result == kCorrupt) return set_aside(path);
    return SUCCEEDED(result) ? open_connection(path, database) : result;
}

HRESULT open_connection(const std::string& path, Database& database) {
    const HRESULT result = database.open(path);
    return SUCCEEDED(result) ? configure(database) : result;
}

std::string suspicion(const std::string& path) {
    return path + ".suspect";
}

}  // namespace zr::platform::pim
