#include "store/store_file.h"
#include "base/size_limit.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "base/file_lock.h"
#include "base/host_error.h"
#include "base/private_file.h"
#include "platform/errors.h"
#include "store/bell.h"
#include "store/checked_file.h"
#include "store/journal_index.h"

namespace zr::platform {
namespace {

std::string subject(const StoreKind& kind, const std::string& path) {
    return std::string("The ") + kind.name + " " + path;
}

StoreOpening host_failure(const StoreKind& kind, const std::string& path, int error) {
    return {store_error(error), subject(kind, path) + ": " + file_trouble(path, error) + ".", false, false};
}

constexpr off_t kFront = 100;  // the header of SQLite's files

off_t size_of(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

StoreOpening locked(const StoreKind& kind, const std::string& path, const std::string& lock_path) {
    const pid_t holder = lock_holder(lock_path.c_str());
    const std::string who = holder > 0 ? "process " + std::to_string(holder) : std::string("another process");
    return {ERROR_BUSY, subject(kind, path) + ": " + who + " keeps it locked.", false, false};
}

// Made here, as SQLite would make it readable for others. What is there already is looked at only: closing a file would
// end the locks that this process has on it.
int make_private_file(const std::string& path) {
    const int error = check_private_file(path);
    return error == ENOENT ? open_private_file(path, 0, nullptr) : error;
}

std::string free_name(const std::string& path, const char* reason) {
    char when[32];
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    std::strftime(when, sizeof when, "%Y%m%d-%H%M%S", &parts);
    const std::string base = path + "." + reason + "-" + when;
    std::string name = base;
    for (int i = 2; access(name.c_str(), F_OK) == 0; ++i) {
        name = base + "-" + std::to_string(i);
    }
    return name;
}

StoreOpening set_aside(const StoreKind& kind, const std::string& path, const Bell& bell) {
    std::string name;
    if (const int error = replace_store(path, "damaged", {}, bell, name); error != 0)
        return host_failure(kind, path, error);
    StoreOpening result;
    result.error = ERROR_FILE_CORRUPT;
    result.set_aside = true;
    result.message = subject(kind, path) + " is damaged. It was set aside as " + name +
                     "; the next start begins with an empty store.";
    return result;
}

std::string doubled_quotes(const std::string& text) {
    std::string result;
    for (const char c : text) {
        result.append(c == '\'' ? 2 : 1, c);
    }
    return result;
}

// The tables as a store of this kind has them, in one text.
constexpr const char* kTables =
    "SELECT group_concat(type || ' ' || name || ' ' || coalesce(sql, ''), ';') FROM"
    " (SELECT * FROM sqlite_master WHERE name NOT LIKE 'sqlite_stat%' ORDER BY type, name)";

DWORD read_text(Connection& connection, const char* sql, std::string& text) {
    const Use row = connection.use(sql);
    if (!row || row->step() != SQLITE_ROW) return connection.error();
    text = row->utf8(0);
    return ERROR_SUCCESS;
}

DWORD take_steps(const StoreKind& kind, Connection& connection, LONGLONG from) {
    if (kind.functions) {
        if (const DWORD error = kind.functions(connection); error != ERROR_SUCCESS) return error;
    }
    for (auto i = static_cast<std::size_t>(from); i < kind.steps.size(); ++i) {
        if (const DWORD error = connection.execute(kind.steps[i]); error != ERROR_SUCCESS) return error;
    }
    return ERROR_SUCCESS;
}

// Where the tables are not the ones that this version makes, or the rows do not fit each other, the store is damaged.
DWORD examine_content(const StoreKind& kind, Connection& connection) {
    LONGLONG version = 0;
    if (const DWORD error = connection.scalar("PRAGMA user_version", version); error != ERROR_SUCCESS) return error;
    if (version != static_cast<LONGLONG>(kind.steps.size())) return ERROR_SUCCESS;
    Connection model;
    std::string wanted;
    std::string found;
    DWORD error = model.open(":memory:");
    if (error == ERROR_SUCCESS) error = take_steps(kind, model, 0);
    if (error == ERROR_SUCCESS) error = read_text(model, kTables, wanted);
    if (error != ERROR_SUCCESS) return error;
    error = read_text(connection, kTables, found);
    if (error != ERROR_SUCCESS) return error;
    if (found != wanted) return ERROR_FILE_CORRUPT;
    LONGLONG sound = 0;
    error = connection.scalar(kind.sound, sound);
    return error == ERROR_SUCCESS && sound != 1 ? ERROR_FILE_CORRUPT : error;
}

// Reads everything.
DWORD examine(const StoreKind& kind, Connection& connection) {
    {
        const Use check = connection.use("PRAGMA integrity_check(1)");
        if (!check || check->step() != SQLITE_ROW) return connection.error();
        if (check->utf8(0) != "ok") return ERROR_FILE_CORRUPT;
    }
    return examine_content(kind, connection);
}

DWORD examine_where_suspected(const StoreKind& kind, const std::string& path, Connection& connection) {
    if (access(suspicion(path).c_str(), F_OK) != 0) return ERROR_SUCCESS;
    const DWORD error = examine(kind, connection);
    if (error == ERROR_SUCCESS) unlink(suspicion(path).c_str());
    return error;
}

// Whether the journal that belongs to the file is there, and none that does not.
DWORD check_journal(Connection& connection) {
    constexpr int kTries = 5;  // a journal may be begun, and a mark be written just now
    constexpr int kPauseMilliseconds = 10;
    LONGLONG tables = 0;
    StoreMarks marks = {};
    bool fits = false;
    if (connection.scalar("SELECT count(*) FROM sqlite_master", tables) != ERROR_SUCCESS) return connection.error();
    for (int i = 0; i < kTries && !fits; ++i) {
        if (i > 0) poll(nullptr, 0, kPauseMilliseconds);
        if (journal_fits(connection.handle(), fits) != SQLITE_OK) return ERROR_IO_DEVICE;
    }
    if (!fits) return ERROR_FILE_CORRUPT;
    if (read_marks(connection.handle(), marks) != SQLITE_OK) return ERROR_IO_DEVICE;
    return tables == 0 && marks.committed != 0 ? ERROR_FILE_CORRUPT : ERROR_SUCCESS;
}

// Whether the file holds what it must. The mark is read first: what is committed meanwhile makes the store newer.
DWORD check_changes(Connection& connection) {
    StoreMarks marks = {};
    if (read_marks(connection.handle(), marks) != SQLITE_OK) return ERROR_IO_DEVICE;
    if (!marks.checked) return ERROR_FILE_CORRUPT;
    LONGLONG last = 0;
    if (connection.scalar("SELECT max(seq) FROM change", last) != ERROR_SUCCESS) return connection.error();
    return last < marks.committed ? ERROR_FILE_CORRUPT : ERROR_SUCCESS;
}

StoreOpening failure(const StoreKind& kind, DWORD error, const Connection& connection) {
    return {error, error == ERROR_SUCCESS ? std::string() : connection.sentence(kind.name), false, false};
}

StoreOpening migrate(const StoreKind& kind, const std::string& path, Connection& connection) {
    LONGLONG version = 0;
    LONGLONG application = 0;
    LONGLONG tables = 0;
    DWORD error = connection.scalar("PRAGMA user_version", version);
    if (error == 0) error = connection.scalar("PRAGMA application_id", application);
    if (error == 0) error = connection.scalar("SELECT count(*) FROM sqlite_master", tables);
    if (error != 0) return failure(kind, error, connection);
    const auto latest = static_cast<LONGLONG>(kind.steps.size());
    const bool fresh = version == 0 && application == 0 && tables == 0;
    if (!fresh && application != kind.application_id) return {ERROR_FILE_CORRUPT, {}, false, false};
    if (version > latest)
        return {ERROR_REVISION_MISMATCH,
                subject(kind, path) + " was written by a newer version (" + std::to_string(version) +
                    "; this one knows " + std::to_string(latest) + "). It was left alone.",
                false, false};
    if (version == latest) return {};
    error = connection.execute("BEGIN IMMEDIATE");
    if (error == 0) error = take_steps(kind, connection, version);
    const std::string stamp = "PRAGMA user_version = " + std::to_string(latest);
    if (error == 0) error = connection.execute(stamp.c_str());
    if (error == 0) error = connection.execute("COMMIT");
    StoreOpening result = failure(kind, error, connection);
    result.created = fresh;
    if (error != 0) connection.roll_back();
    return result;
}

StoreOpening open_as_it_is(const StoreKind& kind, const std::string& path, Connection& connection) {
    DWORD error = connection.open(path);
    if (error == 0) error = connection.execute(kind.settings);
    if (error == 0) error = check_journal(connection);
    if (error == 0) error = examine_where_suspected(kind, path, connection);
    return failure(kind, error, connection);
}

// An earlier version's store, from before pages had checksums.
bool lacks_checksums(const StoreKind& kind, Connection& connection) {
    LONGLONG version = 0;
    StoreMarks marks = {};
    return connection.scalar("PRAGMA user_version", version) == ERROR_SUCCESS && version > 0 &&
           version < static_cast<LONGLONG>(kind.steps.size()) && read_marks(connection.handle(), marks) == SQLITE_OK &&
           !marks.checked;
}

// Writes the store anew, with checksums, beside the old one, and puts it in its place. Programs of that earlier version
// must have let go of it: ERROR_BUSY otherwise. Closes the connection.
StoreOpening give_checksums(const StoreKind& kind, const std::string& path, Connection& connection) {
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    DWORD error = connection.execute("PRAGMA journal_mode = DELETE");
    if (error == 0) error = connection.execute("PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE; COMMIT");
    if (error == 0 && reserve_checksums(connection.handle()) != SQLITE_OK) error = ERROR_NOT_ENOUGH_MEMORY;
    // Pages come in their order then, the first one first, which says that there are checksums.
    if (error == 0) error = connection.execute("PRAGMA cache_spill = OFF; PRAGMA cache_size = -1000000000");
    if (error == 0) error = connection.execute(("VACUUM INTO '" + doubled_quotes(fresh) + "'").c_str());
    StoreOpening result = failure(kind, error, connection);
    connection.close();
    if (!result) return result;
    if (StoreOpening examined = examine_store(kind, fresh); !examined) return examined;
    const HostFd file = open_host(fresh.c_str(), O_RDWR | O_NOFOLLOW);
    if (!file || fchmod(file.get(), 0600) != 0 || fsync(file.get()) != 0 || rename(fresh.c_str(), path.c_str()) != 0)
        return host_failure(kind, fresh, errno);
    return result;
}

StoreOpening prepare(const StoreKind& kind, const std::string& path, Connection& connection) {
    StoreOpening result = open_as_it_is(kind, path, connection);
    if (result && lacks_checksums(kind, connection)) {
        result = give_checksums(kind, path, connection);
        if (result) result = open_as_it_is(kind, path, connection);
    }
    if (result) result = migrate(kind, path, connection);
    if (!result) return result;
    const DWORD error = check_changes(connection);
    return error == ERROR_SUCCESS ? result : failure(kind, error, connection);
}

}  // namespace

StoreOpening open_store(const StoreKind& kind, const std::string& path, const Bell& bell, Connection& connection) {
    // One process at a time examines, makes or renames the file.
    FileLock lock;
    const std::string lock_path = path + ".lock";
    if (const int error = lock.take(lock_path.c_str(), FileLock::Missing::IsMade); error != 0)
        return error == ETIMEDOUT ? locked(kind, path, lock_path) : host_failure(kind, lock_path, error);
    if (const int error = make_private_file(path); error != 0) return host_failure(kind, path, error);
    for (const char* const beside : {"-wal", "-shm"}) {
        const int error = check_private_file(path + beside);
        if (error != 0 && error != ENOENT) return host_failure(kind, path + beside, error);
    }
    // SQLite would remove the journal of a file without a front.
    if (size_of(path) < kFront && size_of(path + "-wal") > 0) return set_aside(kind, path, bell);
    StoreOpening result = prepare(kind, path, connection);
    if (!result) {
        connection.checkpoint_on_close(false);  // its journal may be another one's
        connection.close();
    }
    return result.error == ERROR_FILE_CORRUPT ? set_aside(kind, path, bell) : result;
}

StoreOpening examine_store(const StoreKind& kind, const std::string& path) {
    Connection connection;
    StoreOpening result = prepare(kind, path, connection);
    if (result) {
        const DWORD error = examine(kind, connection);
        if (error != ERROR_SUCCESS) result = {error, {}, false, false};
    }
    connection.close();
    unlink(suspicion(path).c_str());
    if (result.error == ERROR_FILE_CORRUPT) result.message = path + " is damaged.";
    return result;
}

DWORD make_tables(const StoreKind& kind, Connection& connection) {
    DWORD error = connection.execute(kind.settings);
    if (error == ERROR_SUCCESS) error = take_steps(kind, connection, 0);
    const std::string stamp = "PRAGMA user_version = " + std::to_string(kind.steps.size());
    return error == ERROR_SUCCESS ? connection.execute(stamp.c_str()) : error;
}

// The journal goes with its file: it may hold the only copy of the last changes. Writers are kept out meanwhile, so
// that nothing is ever written to what has its new name.
int replace_store(const std::string& path, const char* reason, const std::string& by, const Bell& bell,
                  std::string& name) {
    Bell::Pull alone;
    if (const int error = alone.take_alone(bell); error != 0) return error;
    name = free_name(path, reason);
    struct stat status = {};
    const bool is_there = stat(path.c_str(), &status) == 0;
    // Whoever is killed on the way leaves a file that says that its journal is missing, and never one that seems new.
    if (link(path.c_str(), name.c_str()) != 0 && (errno != ENOENT || by.empty())) return errno;
    const std::string journal = path + "-wal";
    if (size_of(journal) > 0) {
        rename(journal.c_str(), (name + "-wal").c_str());
    } else {
        unlink(journal.c_str());
    }
    const int result = by.empty() ? unlink(path.c_str()) : rename(by.c_str(), path.c_str());
    if (result != 0) return errno;
    // Whoever has the store open compares the header of the journal's index before each call (commit_watch.h).
    if (is_there) JournalIndex::disturb(path, status.st_ino);
    unlink((path + "-shm").c_str());
    unlink(suspicion(path).c_str());
    return 0;
}

DWORD open_connection(const StoreKind& kind, const std::string& path, Connection& connection) {
    const DWORD error = connection.open(path);
    return error == 0 ? connection.execute(kind.settings) : error;
}

std::string suspicion(const std::string& path) {
    return path + ".suspect";
}

DWORD store_error(int number) {
    const DWORD error = room_error(number);
    return error == ERROR_GEN_FAILURE ? ERROR_IO_DEVICE : error;
}

}  // namespace zr::platform
