#pragma once

// Which of this process's open files tolerate each other.

#include <sys/stat.h>

#include <cstdint>

#include "platform/files.h"

namespace zr::platform {

// What deleting and renaming ask of the other open files, beside GENERIC_READ and GENERIC_WRITE.
inline constexpr DWORD kDeleteAccess = 0x00010000;
inline constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// One open file's place among the others; gives it back when destroyed.
class ShareClaim {
public:
    enum class Of {
        Handle,
        Call,  // which deletes, moves or copies: in a forked child it is not under way, and counts no more
    };

    explicit ShareClaim(Of what) : of_(what) {}
    ~ShareClaim();
    ShareClaim(const ShareClaim&) = delete;
    ShareClaim& operator=(const ShareClaim&) = delete;

    // False when another open file does not share what `access` wants, or wants what `share` does not allow.
    bool take(const struct stat& file, DWORD access, DWORD share);

private:
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
    DWORD access_ = 0;
    DWORD share_ = 0;
    bool taken_ = false;
    const Of of_;
};

}  // namespace zr::platform
