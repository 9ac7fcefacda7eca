#include "store/store_file.h"

#include <fcntl.h>
#include <sys/random.h>
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

namespace zr::platform {
namespace {

std::string subject(const StoreKind& kind, const std::string& path) {
    return std::string("The ") + kind.name + " " + path;
}

StoreOpening host_failure(const StoreKind& kind, const std::string& path, int error) {
    return {store_error(error), subject(kind, path) + ": " + file_trouble(path, error) + ".", false, false};
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

// Whoever has the store open compares the header of the journal's index before each call (commit_watch.h).
void change_index(const std::string& path) {
    const HostFd file = open_host((path + "-shm").c_str(), O_RDWR | O_NOFOLLOW);
    char noise[96];
    if (!file || getrandom(noise, sizeof noise, 0) != sizeof noise) return;
    static_cast<void>(!pwrite(file.get(), noise, sizeof noise, 0));
}

// The journal goes with its file: it may hold the only copy of the last changes. Writers are kept out meanwhile, so
// that nothing is ever written to what has its new name.
StoreOpening set_aside(const StoreKind& kind, const std::string& path, const Bell& bell) {
    Bell::Pull alone;
    if (const int error = alone.take_alone(bell); error != 0) return host_failure(kind, path, error);
    const std::string name = free_name(path);
    if (rename(path.c_str(), name.c_str()) != 0) return host_failure(kind, path, errno);
    rename((path + "-wal").c_str(), (name + "-wal").c_str());
    change_index(path);
    unlink((path + "-shm").c_str());
    unlink(suspicion(path).c_str());
    StoreOpening result;
    result.error = ERROR_FILE_CORRUPT;
    result.set_aside = true;
    result.message = subject(kind, path) + " is damaged. It was set aside as " + name +
                     "; the next start begins with an empty store.";
    return result;
}

DWORD examine(const std::string& path, Connection& connection) {
    if (access(suspicion(path).c_str(), F_OK) != 0) return ERROR_SUCCESS;
    const Use check = connection.use("PRAGMA integrity_check(1)");
    if (!check) return connection.error();
    const int code = check->step();
    if (code != SQLITE_ROW) return connection.error();
    if (check->text(0) != u"ok") return ERROR_FILE_CORRUPT;
    unlink(suspicion(path).c_str());
    return ERROR_SUCCESS;
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
    for (LONGLONG i = version; i < latest && error == 0; ++i) {
        error = connection.execute(kind.steps[static_cast<std::size_t>(i)]);
    }
    const std::string stamp = "PRAGMA user_version = " + std::to_string(latest);
    if (error == 0) error = connection.execute(stamp.c_str());
    if (error == 0) error = connection.execute("COMMIT");
    StoreOpening result = failure(kind, error, connection);
    result.created = fresh;
    if (error != 0) connection.roll_back();
    return result;
}

StoreOpening prepare(const StoreKind& kind, const std::string& path, Connection& connection) {
    DWORD error = connection.open(path);
    if (error == 0) error = connection.execute(kind.settings);
    if (error == 0) error = examine(path, connection);
    return error == 0 ? migrate(kind, path, connection) : failure(kind, error, connection);
}

}  // namespace

StoreOpening open_store(const StoreKind& kind, const std::string& path, const Bell& bell, Connection& connection) {
    // One process at a time examines, makes or renames the file.
    FileLock lock;
    const std::string lock_path = path + ".lock";
    if (const int error = lock.take(lock_path.c_str(), FileLock::Missing::IsMade); error != 0)
        return error == ETIMEDOUT ? locked(kind, path, lock_path) : host_failure(kind, lock_path, error);
    if (const int error = make_private_file(path); error != 0) return host_failure(kind, path, error);
    StoreOpening result = prepare(kind, path, connection);
    if (!result) connection.close();
    return result.error == ERROR_FILE_CORRUPT ? set_aside(kind, path, bell) : result;
}

DWORD open_connection(const StoreKind& kind, const std::string& path, Connection& connection) {
    const DWORD error = connection.open(path);
    return error == 0 ? connection.execute(kind.settings) : error;
}

std::string suspicion(const std::string& path) {
    return path + ".suspect";
}

DWORD store_error(int number) {
    if (number == EFBIG) return ERROR_DISK_FULL;  // a limit of file sizes: to a store, there is no more room
    const DWORD error = error_from_errno(number);
    return error == ERROR_GEN_FAILURE ? ERROR_IO_DEVICE : error;
}

}  // namespace zr::platform
