#include "store/store_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/errors.h"

namespace zr::platform {
namespace {

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

StoreOpening system_failure(const StoreKind& kind, const std::string& path) {
    const int error = errno;
    return {store_error(error), std::string("The ") + kind.name + " " + path + ": " + strerror(error) + "."};
}

// SQLite would make it readable for others.
bool make_private_file(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) return false;
    close(file);
    return true;
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
StoreOpening set_aside(const StoreKind& kind, const std::string& path) {
    const std::string name = free_name(path);
    if (rename(path.c_str(), name.c_str()) != 0) return system_failure(kind, path);
    rename((path + "-wal").c_str(), (name + "-wal").c_str());
    unlink((path + "-shm").c_str());
    unlink(suspicion(path).c_str());
    StoreOpening result;
    result.error = ERROR_FILE_CORRUPT;
    result.set_aside = true;
    result.message = std::string("The ") + kind.name + " " + path + " is damaged. It was set aside as " + name +
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
    return {error, error == ERROR_SUCCESS ? std::string() : connection.sentence(kind.name)};
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
    if (!fresh && application != kind.application_id) return {ERROR_FILE_CORRUPT, {}};
    if (version > latest)
        return {ERROR_REVISION_MISMATCH, std::string("The ") + kind.name + " " + path +
                                             " was written by a newer version (" + std::to_string(version) +
                                             "; this one knows " + std::to_string(latest) + "). It was left alone."};
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

StoreOpening open_store(const StoreKind& kind, const std::string& path, Connection& connection) {
    const FileLock lock(path);
    if (!lock.held() || !make_private_file(path)) return system_failure(kind, path);
    StoreOpening result = prepare(kind, path, connection);
    if (!result) connection.close();
    if (result.error == ERROR_FILE_CORRUPT) return set_aside(kind, path);
    return result;
}

DWORD open_connection(const StoreKind& kind, const std::string& path, Connection& connection) {
    const DWORD error = connection.open(path);
    return error == 0 ? connection.execute(kind.settings) : error;
}

std::string suspicion(const std::string& path) {
    return path + ".suspect";
}

DWORD store_error(int number) {
    switch (number) {
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return ERROR_DISK_FULL;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EACCES:
        case EPERM:
        case EROFS:
            return ERROR_ACCESS_DENIED;
        default:
            return ERROR_IO_DEVICE;
    }
}

}  // namespace zr::platform
