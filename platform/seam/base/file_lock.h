#pragma once

#include <sys/types.h>

#include "base/host_fd.h"
#include "platform/export.h"

namespace zr::platform {

// A file of ours that one process at a time has locked, for as long as this lives or until the process ends. The path
// names the file that is locked. Nothing is kept in it: truncating it changes nothing, and when it is removed the next
// one to take it finds a new one.
class ZRPLATFORM_API FileLock {
public:
    enum class Missing { Fails, IsMade };

    // How long another process is waited for.
    static constexpr int kLimitMilliseconds = 5000;

    FileLock() noexcept = default;
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // 0 or an error number: ELOOP for a symbolic link, EPERM for a file that is another user's, ETIMEDOUT.
    int take(const char* path, Missing missing, mode_t mode = 0600, int limit = kLimitMilliseconds) noexcept;

    const char* path() const noexcept { return path_; }

private:
    void give_back() noexcept;

    HostFd file_;
    const char* path_ = nullptr;
};

// The process that has the file at the path locked; 0 when that is not known.
ZRPLATFORM_API pid_t lock_holder(const char* path) noexcept;

// In the child of a fork: a lock that another thread of the parent holds is given back when the parent gives it back or
// ends, and not when the child does, too.
void close_inherited_locks() noexcept;

}  // namespace zr::platform
