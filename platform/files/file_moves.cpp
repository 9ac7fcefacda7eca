// Files as wholes: delete, move, copy.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/size_limit.h"
#include "dos_attributes.h"
#include "entry.h"
#include "file_facts.h"
#include "files/host_path.h"
#include "kernel/mapped_files.h"
#include "platform/files.h"
#include "share_modes.h"

namespace zr::platform {
namespace {

// An open file, and a lock on it that is given back by name: a child that is forked meanwhile has the descriptor too.
class LockedFile {
public:
    LockedFile() = default;
    explicit LockedFile(HostFd file) : file_(std::move(file)) {}
    ~LockedFile() { unlock(); }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    // False: another process has the file open for itself alone. One that may not be opened is not looked into.
    bool lock() {
        locked_ = file_ && flock(file_.get(), LOCK_SH | LOCK_NB) == 0;
        return locked_ || !file_ || errno != EWOULDBLOCK;
    }
    void open(HostFd file) { file_ = std::move(file); }
    explicit operator bool() const { return static_cast<bool>(file_); }
    int get() const { return file_.get(); }
    int close() {
        unlock();
        return file_.close();
    }

private:
    void unlock() {
        if (std::exchange(locked_, false)) flock(file_.get(), LOCK_UN);
    }

    HostFd file_;
    bool locked_ = false;
};

// Takes the file's name for oneself: as long as the claim lives, nobody opens the file who does not share its deletion.
DWORD claim_name(const char* path, const struct stat& status, ShareClaim& claim) {
    if (!S_ISREG(status.st_mode)) return ERROR_SUCCESS;
    if (!claim.take(status, kDeleteAccess, kShareAll)) return ERROR_SHARING_VIOLATION;
    if (is_mapped(status.st_dev, status.st_ino)) return ERROR_SHARING_VIOLATION;
    LockedFile file(open_host(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW));
    return file.lock() ? ERROR_SUCCESS : ERROR_SHARING_VIOLATION;
}

// A link goes with whatever kind the attributes say it is, so that who empties a folder by them gets to the end.
bool is_link_to_folder(const char* path) {
    FileFacts facts;
    return read_file_facts(AT_FDCWD, {}, path, Wanted::AttributesOnly, facts) == 0 &&
           (facts.attributes & FILE_ATTRIBUTE_DIRECTORY);
}

DWORD delete_file(const char* path) {
    struct stat status;
    if (lstat(path, &status) != 0) return error_from_errno(errno);
    if (S_ISDIR(status.st_mode)) return ERROR_ACCESS_DENIED;
    if (S_ISLNK(status.st_mode) ? is_link_to_folder(path) : (status.st_mode & kAnyWrite) == 0)
        return ERROR_ACCESS_DENIED;
    ShareClaim claim(ShareClaim::Of::Call);
    if (const DWORD error = claim_name(path, status, claim)) return error;
    return unlink(path) == 0 ? ERROR_SUCCESS : error_from_errno(errno);
}

// The file's content, in the kernel where it can do that. An errno value, or 0.
int copy_content(int from, int to) {
    const WithinSizeLimit no_signal;
    while (true) {
        const ssize_t copied = copy_file_range(from, nullptr, to, nullptr, std::size_t{1} << 30, 0);
        if (copied == 0) break;  // at the end, or a file whose size the host does not know: the loop below tells
        if (copied < 0 && errno == EINTR) continue;
        if (copied < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EIO || errno == EFBIG)) return errno;
        if (copied < 0) break;
    }
    char buffer[65536];
    while (true) {
        const ssize_t got = read(from, buffer, sizeof buffer);
        if (got == 0) return 0;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = write(to, buffer + done, static_cast<std::size_t>(got - done));
            if (put < 0 && errno == EINTR) continue;
            if (put < 0) return errno;
            done += put;
        }
    }
}

// Permissions, stored attributes and the time of the last write follow the content as far as the host lets them.
void copy_facts(const char* from, const struct stat& status, const char* to, int fd) {
    const DWORD bits = read_dos_attributes(AT_FDCWD, from);
    if (bits) write_dos_attributes(to, bits);
    const timespec times[2] = {{0, UTIME_OMIT}, status.st_mtim};
    [[maybe_unused]] const int ignored = futimens(fd, times) | fchmod(fd, status.st_mode & 0777);
}

// One end of a copy, which is an open file among the others while it goes on.
struct CopyEnd {
    ShareClaim claim{ShareClaim::Of::Call};
    LockedFile file;
    struct stat status;

    DWORD use(DWORD access) {
        if (!claim.take(status, access, kShareAll)) return ERROR_SHARING_VIOLATION;
        return file.lock() ? ERROR_SUCCESS : ERROR_SHARING_VIOLATION;
    }
};

DWORD open_source(const std::string& path, CopyEnd& source) {
    source.file.open(open_host(path.c_str(), O_RDONLY | O_NONBLOCK));
    if (!source.file || fstat(source.file.get(), &source.status) != 0) return error_from_errno(errno);
    return S_ISREG(source.status.st_mode) ? source.use(GENERIC_READ) : ERROR_ACCESS_DENIED;
}

// Empties the old file, once it is sure that nobody else's is emptied.
DWORD open_old_target(const HostPath& target, const struct stat& source, CopyEnd& copy) {
    struct stat& status = copy.status;
    if (stat(target.path.c_str(), &status) != 0) return error_from_errno(errno);
    if (!S_ISREG(status.st_mode) || (status.st_mode & kAnyWrite) == 0) return ERROR_ACCESS_DENIED;
    if (status.st_dev == source.st_dev && status.st_ino == source.st_ino) return ERROR_SHARING_VIOLATION;
    copy.file.open(open_host(target.path.c_str(), O_WRONLY | O_NONBLOCK));
    if (!copy.file || fstat(copy.file.get(), &status) != 0) return error_from_errno(errno);
    if (const DWORD error = copy.use(GENERIC_WRITE)) return error;
    if (is_mapped(status.st_dev, status.st_ino)) return ERROR_USER_MAPPED_FILE;
    return set_file_size(copy.file.get(), 0);
}

DWORD open_target(const HostPath& target, bool must_be_new, const struct stat& source, CopyEnd& copy) {
    if (target.exists) return must_be_new ? ERROR_FILE_EXISTS : open_old_target(target, source, copy);
    if (target.names_folder) return ERROR_INVALID_NAME;
    copy.file.open(open_host(target.path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    if (!copy.file) return errno == EEXIST ? ERROR_FILE_EXISTS : error_from_errno(errno);
    return fstat(copy.file.get(), &copy.status) == 0 ? copy.use(GENERIC_WRITE) : error_from_errno(errno);
}

DWORD copy_file(const std::string& from, const HostPath& target, bool must_be_new) {
    CopyEnd source;
    CopyEnd copy;
    if (const DWORD error = open_source(from, source)) return error;
    if (const DWORD error = open_target(target, must_be_new, source.status, copy)) return error;
    int error = copy_content(source.file.get(), copy.file.get());
    if (error == 0) copy_facts(from.c_str(), source.status, target.path.c_str(), copy.file.get());
    if (copy.file.close() != 0 && error == 0) error = errno;
    if (error && !target.exists) unlink(target.path.c_str());
    return error ? room_error(error) : ERROR_SUCCESS;
}

// Gives a file its new name, which must not be taken. An errno value, or 0.
int rename_to_new(const char* from, const char* to) {
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    struct stat unused;  // a file system without that call
    if (lstat(to, &unused) == 0) return EEXIST;
    return rename(from, to) == 0 ? 0 : errno;
}

DWORD move_to_other_device(const std::string& from, const HostPath& target) {
    struct stat status;
    if (lstat(from.c_str(), &status) != 0) return error_from_errno(errno);
    if (!S_ISREG(status.st_mode)) return ERROR_NOT_SAME_DEVICE;
    if (const DWORD error = copy_file(from, target, true)) return error;
    if (unlink(from.c_str()) == 0) return ERROR_SUCCESS;
    const DWORD error = error_from_errno(errno);
    unlink(target.path.c_str());
    return error;
}

DWORD move_file(const HostPath& from, HostPath target, LPCWSTR to) {
    if (from.root) return ERROR_ACCESS_DENIED;
    if (target.exists) {
        // Only the old name in another case may be taken, by the file itself.
        if (target.root || target.path != from.path) return ERROR_ALREADY_EXISTS;
        const std::string spelled = spelled_host_path(to).path;
        target.path.replace(target.path.rfind('/'), std::string::npos, spelled, spelled.rfind('/'), std::string::npos);
        if (target.path == from.path) return ERROR_SUCCESS;
    }
    struct stat status;
    if (lstat(from.path.c_str(), &status) != 0) return error_from_errno(errno);
    if (target.names_folder && !S_ISDIR(status.st_mode)) return ERROR_INVALID_NAME;
    ShareClaim claim(ShareClaim::Of::Call);
    if (const DWORD refused = claim_name(from.path.c_str(), status, claim)) return refused;
    const int error = rename_to_new(from.path.c_str(), target.path.c_str());
    if (error != EXDEV) return error ? error_from_errno(error) : ERROR_SUCCESS;
    target.exists = false;
    return move_to_other_device(from.path, target);
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

BOOL DeleteFileW(LPCWSTR path) {
    return enter(FALSE, [&] {
        const HostPath host = existing_host_path(path);
        const DWORD error = host.error ? host.error : delete_file(host.path.c_str());
        return error ? fail(error, FALSE) : TRUE;
    });
}

BOOL MoveFileW(LPCWSTR from, LPCWSTR to) {
    return enter(FALSE, [&] {
        const HostPath source = existing_host_path(from);
        if (source.error) return fail(source.error, FALSE);
        const HostPath target = new_host_path(to);
        const DWORD error = target.error ? target.error : move_file(source, target, to);
        return error ? fail(error, FALSE) : TRUE;
    });
}

BOOL CopyFileW(LPCWSTR from, LPCWSTR to, BOOL failIfExists) {
    return enter(FALSE, [&] {
        const HostPath source = existing_host_path(from);
        if (source.error) return fail(source.error, FALSE);
        const HostPath target = new_host_path(to);
        const DWORD error = target.error ? target.error : copy_file(source.path, target, failIfExists != FALSE);
        return error ? fail(error, FALSE) : TRUE;
    });
}
