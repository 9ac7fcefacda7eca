// Open files.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <limits>

#include "base/forks.h"
#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/size_limit.h"
#include "dos_attributes.h"
#include "entry.h"
#include "file_facts.h"
#include "files/host_path.h"
#include "kernel/handle_table.h"
#include "kernel/mapped_files.h"
#include "platform/files.h"
#include "share_modes.h"

namespace zr::platform {
namespace {

constexpr int kAttempts = 8;  // against a file that keeps coming and going while it is opened

class File final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::File;

    explicit File(DWORD access) : Object(kKind), access_(access) {}

    int host_descriptor() const noexcept override { return host.get(); }
    bool may_read() const { return (access_ & GENERIC_READ) != 0; }
    bool may_write() const { return (access_ & GENERIC_WRITE) != 0; }

    // Keeps other processes' handles off as the sharing says. False: one is in the way.
    bool lock(int mode) {
        locked_ = flock(host.get(), mode | LOCK_NB) == 0;
        // File systems without locks share with everybody.
        return locked_ || errno != EWOULDBLOCK;
    }

    // The descriptor outlives the lock and the claim, so that a fork never finds a claim on a file that is closed: its
    // number may be another file's soon.
    HostFd host;
    ShareClaim claim{ShareClaim::Of::Handle};

private:
    // Given back by name: a child that was forked meanwhile has the descriptor too, and a mapping, and the lock with
    // it. A child gives back nothing of its parent's.
    ~File() override {
        if (locked_ && generation_ == fork_generation()) flock(host.get(), LOCK_UN);
    }

    const DWORD access_;
    const std::uint32_t generation_ = fork_generation();
    bool locked_ = false;
};

struct OpenRequest {
    LPCWSTR path;
    DWORD access;
    DWORD share;
    DWORD creation;
    DWORD flags;

    bool writes() const { return (access & GENERIC_WRITE) != 0; }
    bool creates() const { return creation == CREATE_NEW || creation == CREATE_ALWAYS || creation == OPEN_ALWAYS; }
    bool empties() const { return creation == CREATE_ALWAYS || creation == TRUNCATE_EXISTING; }
};

DWORD check(const OpenRequest& request) {
    if (request.creation < CREATE_NEW || request.creation > TRUNCATE_EXISTING) return ERROR_INVALID_PARAMETER;
    if (request.creation == TRUNCATE_EXISTING && !request.writes()) return ERROR_INVALID_PARAMETER;
    if (request.flags & FILE_FLAG_OVERLAPPED) return ERROR_INVALID_PARAMETER;
    return ERROR_SUCCESS;
}

// A file that is emptied is opened for writing whatever the caller may do with it later.
int open_flags(const OpenRequest& request) {
    const bool writes = request.writes() || request.empties();
    const bool reads = (request.access & GENERIC_READ) != 0;
    int flags = O_NOCTTY | O_NONBLOCK;
    flags |= writes ? (reads ? O_RDWR : O_WRONLY) : O_RDONLY;
    if (request.flags & FILE_FLAG_WRITE_THROUGH) flags |= O_DSYNC;
    return flags;
}

DWORD open_new(const OpenRequest& request, const std::string& path, HostFd& file) {
    const bool read_only = (request.flags & FILE_ATTRIBUTE_READONLY) != 0;
    file = open_host(path.c_str(), open_flags(request) | O_CREAT | O_EXCL, read_only ? 0444 : 0666);
    if (!file) return errno == EEXIST ? ERROR_FILE_EXISTS : error_from_errno(errno);
    if (const DWORD bits = request.flags & kStoredAttributes) write_dos_attributes(path.c_str(), bits);
    return ERROR_SUCCESS;
}

DWORD open_old(const OpenRequest& request, const std::string& path, HostFd& file) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return error_from_errno(errno);
    if (S_ISDIR(status.st_mode)) return ERROR_ACCESS_DENIED;
    if ((request.writes() || request.empties()) && (status.st_mode & kAnyWrite) == 0) return ERROR_ACCESS_DENIED;
    file = open_host(path.c_str(), open_flags(request));
    return file ? ERROR_SUCCESS : error_from_errno(errno);
}

// Claims the file among the handles of this process and, by a lock on the whole file, among processes.
DWORD share(const OpenRequest& request, File& file) {
    struct stat status;
    if (fstat(file.host.get(), &status) != 0) return error_from_errno(errno);
    if (!S_ISREG(status.st_mode)) return ERROR_SUCCESS;
    if (!file.claim.take(status, request.access, request.share)) return ERROR_SHARING_VIOLATION;
    if (!(request.access & (GENERIC_READ | GENERIC_WRITE))) return ERROR_SUCCESS;
    const int mode = (request.share & (FILE_SHARE_READ | FILE_SHARE_WRITE)) ? LOCK_SH : LOCK_EX;
    return file.lock(mode) ? ERROR_SUCCESS : ERROR_SHARING_VIOLATION;
}

DWORD empty(int file) {
    struct stat status;
    if (fstat(file, &status) != 0) return error_from_errno(errno);
    return S_ISREG(status.st_mode) ? set_file_size(file, 0) : ERROR_SUCCESS;
}

// Opens what the path names now. ERROR_FILE_EXISTS and ERROR_FILE_NOT_FOUND may mean that it changed meanwhile.
DWORD open_once(const OpenRequest& request, File& file, bool& existed) {
    const HostPath host = request.creates() ? new_host_path(request.path) : existing_host_path(request.path);
    if (host.error) return host.error;
    existed = host.exists;
    if (!existed && host.names_folder) return ERROR_INVALID_NAME;
    if (existed && request.creation == CREATE_NEW)
        return is_folder(host.path) ? ERROR_ACCESS_DENIED : ERROR_FILE_EXISTS;
    DWORD error = existed ? open_old(request, host.path, file.host) : open_new(request, host.path, file.host);
    if (error == 0) error = share(request, file);
    if (error == 0 && existed && request.empties()) error = empty(file.host.get());
    return error;
}

// Opening did not wait for the other end of a pipe; reading and writing do.
void make_blocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

HANDLE create_file(const OpenRequest& request) {
    if (const DWORD error = check(request)) return fail(error, INVALID_HANDLE_VALUE);
    const auto file = Ref<File>::adopt(new File(request.access));
    bool existed = false;
    DWORD error = ERROR_SUCCESS;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        error = open_once(request, *file, existed);
        const bool retry = request.creation == CREATE_ALWAYS || request.creation == OPEN_ALWAYS;
        const bool changed = error == (existed ? ERROR_FILE_NOT_FOUND : ERROR_FILE_EXISTS);
        if (!retry || !changed) break;
    }
    if (error) return fail(error, INVALID_HANDLE_VALUE);
    make_blocking(file->host.get());
    const HANDLE handle = open_handle(*file);
    if (!handle) return INVALID_HANDLE_VALUE;
    if (request.creation == CREATE_ALWAYS || request.creation == OPEN_ALWAYS)
        SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

struct Range {
    std::int64_t begin;  // where the pointer is to be
    DWORD error;
};

Range seek_target(int fd, std::int64_t distance, DWORD method) {
    struct stat status;
    std::int64_t base = 0;
    if (method == FILE_CURRENT)
        base = lseek(fd, 0, SEEK_CUR);
    else if (method == FILE_END)
        base = fstat(fd, &status) == 0 ? status.st_size : -1;
    else if (method != FILE_BEGIN)
        return {0, ERROR_INVALID_PARAMETER};
    if (base < 0) return {0, error_from_errno(errno)};
    if (distance > std::numeric_limits<std::int64_t>::max() - base) return {0, ERROR_INVALID_PARAMETER};
    return base + distance < 0 ? Range{0, ERROR_NEGATIVE_SEEK} : Range{base + distance, ERROR_SUCCESS};
}

DWORD set_pointer(File& file, LONG distance, LONG* high, DWORD method) {
    std::int64_t by = distance;
    if (high)
        by = static_cast<std::int64_t>((std::uint64_t{static_cast<DWORD>(*high)} << 32) | static_cast<DWORD>(distance));
    const Range target = seek_target(file.host.get(), by, method);
    if (target.error) return fail(target.error, INVALID_SET_FILE_POINTER);
    // Without room for the high half the pointer must stay where the result can tell it.
    if (!high && target.begin > 0xFFFFFFFE) return fail(ERROR_INVALID_PARAMETER, INVALID_SET_FILE_POINTER);
    if (lseek(file.host.get(), target.begin, SEEK_SET) < 0)
        return fail(error_from_errno(errno), INVALID_SET_FILE_POINTER);
    if (high) *high = static_cast<LONG>(target.begin >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(target.begin);
}

BOOL write_all(int fd, const char* from, DWORD size, DWORD& written) {
    const WithinSizeLimit no_signal;
    while (written < size) {
        const ssize_t put = write(fd, from + written, size - written);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return fail(room_error(errno), FALSE);
        written += static_cast<DWORD>(put);
    }
    return TRUE;
}

// An open file; empty, with the last error set, for another handle or one that lacks the right.
Pinned<File> file_with(HANDLE handle, DWORD right) {
    auto file = lookup<File>(handle);
    if (!file) return file;
    const bool may = (!(right & GENERIC_READ) || file->may_read()) && (!(right & GENERIC_WRITE) || file->may_write());
    return may ? std::move(file) : fail(ERROR_ACCESS_DENIED, Pinned<File>(Pin()));
}

timespec time_to_set(const FILETIME* time) {
    if (!time) return {0, UTIME_OMIT};
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;
    from_filetime(*time, seconds, nanoseconds);
    return {static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateFileW(LPCWSTR path, DWORD access, DWORD share, SECURITY_ATTRIBUTES*, DWORD creation,
                   DWORD flagsAndAttributes, HANDLE) {
    return enter(INVALID_HANDLE_VALUE, [&] {
        return create_file({path, access, share, creation, flagsAndAttributes});
    });
}

BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD size, LPDWORD read, OVERLAPPED* overlapped) {
    return enter(FALSE, [&] {
        if (read) *read = 0;
        if ((!buffer && size) || !read || overlapped) return fail(ERROR_INVALID_PARAMETER, FALSE);
        const auto file = file_with(handle, GENERIC_READ);
        if (!file) return FALSE;
        ssize_t got = 0;
        do
            got = ::read(file->host.get(), buffer, size);
        while (got < 0 && errno == EINTR);
        if (got < 0) return fail(error_from_errno(errno), FALSE);
        *read = static_cast<DWORD>(got);
        return TRUE;
    });
}

BOOL WriteFile(HANDLE handle, LPCVOID buffer, DWORD size, LPDWORD written, OVERLAPPED* overlapped) {
    return enter(FALSE, [&] {
        if (written) *written = 0;
        if ((!buffer && size) || !written || overlapped) return fail(ERROR_INVALID_PARAMETER, FALSE);
        const auto file = file_with(handle, GENERIC_WRITE);
        return file ? write_all(file->host.get(), static_cast<const char*>(buffer), size, *written) : FALSE;
    });
}

DWORD SetFilePointer(HANDLE handle, LONG distance, LONG* high, DWORD method) {
    return enter(INVALID_SET_FILE_POINTER, [&] {
        const auto file = lookup<File>(handle);
        return file ? set_pointer(*file, distance, high, method) : INVALID_SET_FILE_POINTER;
    });
}

BOOL SetEndOfFile(HANDLE handle) {
    return enter(FALSE, [&] {
        const auto file = file_with(handle, GENERIC_WRITE);
        if (!file) return FALSE;
        const off_t at = lseek(file->host.get(), 0, SEEK_CUR);
        if (at < 0) return fail(error_from_errno(errno), FALSE);
        const DWORD error = set_file_size(file->host.get(), static_cast<std::uint64_t>(at));
        return error ? fail(error, FALSE) : TRUE;
    });
}

DWORD GetFileSize(HANDLE handle, LPDWORD high) {
    return enter(INVALID_FILE_SIZE, [&] {
        const auto file = lookup<File>(handle);
        if (!file) return INVALID_FILE_SIZE;
        struct stat status;
        if (fstat(file->host.get(), &status) != 0) return fail(error_from_errno(errno), INVALID_FILE_SIZE);
        const auto size = static_cast<std::uint64_t>(status.st_size);
        if (high) *high = static_cast<DWORD>(size >> 32);
        SetLastError(ERROR_SUCCESS);
        return static_cast<DWORD>(size);
    });
}

BOOL FlushFileBuffers(HANDLE handle) {
    return enter(FALSE, [&] {
        const auto file = file_with(handle, GENERIC_WRITE);
        if (!file) return FALSE;
        return fsync(file->host.get()) == 0 ? TRUE : fail(error_from_errno(errno), FALSE);
    });
}

BOOL GetFileTime(HANDLE handle, FILETIME* creation, FILETIME* access, FILETIME* write) {
    return enter(FALSE, [&] {
        const auto file = lookup<File>(handle);
        if (!file) return FALSE;
        FileFacts facts;
        if (const int error = read_open_file_facts(file->host.get(), facts))
            return fail(error_from_errno(error), FALSE);
        if (creation) *creation = facts.created;
        if (access) *access = facts.accessed;
        if (write) *write = facts.written;
        return TRUE;
    });
}

BOOL SetFileTime(HANDLE handle, const FILETIME*, const FILETIME* access, const FILETIME* write) {
    return enter(FALSE, [&] {
        const auto file = file_with(handle, GENERIC_WRITE);
        if (!file) return FALSE;
        const timespec times[2] = {time_to_set(access), time_to_set(write)};
        return futimens(file->host.get(), times) == 0 ? TRUE : fail(error_from_errno(errno), FALSE);
    });
}
