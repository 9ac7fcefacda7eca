#pragma once

// Which files of the host this process has mapped. A file counts as mapped while a mapping over it is open or a view of
// it is there; what other processes have mapped is not known.

#include <sys/types.h>

#include <cstdint>
#include <utility>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

ZRPLATFORM_API bool is_mapped(dev_t device, ino_t inode) noexcept;

// Makes an open file shorter, unless it is mapped: whoever touched a page that is gone would be ended by a signal. To
// make a file longer is in nobody's way and is done in any case. An error code: ERROR_USER_MAPPED_FILE, ...
ZRPLATFORM_API DWORD set_file_size(int file, std::uint64_t size) noexcept;

// Keeps a file counted as mapped. Each mapping over a file holds one, and each of its views.
class MappedFileHold {
public:
    MappedFileHold() noexcept = default;
    // Empty when there is no memory.
    MappedFileHold(dev_t device, ino_t inode) noexcept;
    MappedFileHold(const MappedFileHold& other) noexcept;
    MappedFileHold(MappedFileHold&& other) noexcept : file_(std::exchange(other.file_, nullptr)) {}
    MappedFileHold& operator=(MappedFileHold other) noexcept {
        std::swap(file_, other.file_);
        return *this;
    }
    ~MappedFileHold();

    explicit operator bool() const noexcept { return file_ != nullptr; }

private:
    struct File;
    friend struct MappedFiles;

    File* file_ = nullptr;
};

}  // namespace zr::platform
