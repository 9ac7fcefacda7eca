#pragma once

#include "base/host_fd.h"
#include "kernel/handle_table.h"
#include "kernel/mapped_files.h"

namespace zr::platform {

// What a handle to a file mapping names. Each creation makes one, with the access it asked for; the contents may be
// shared with others.
class Mapping : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::FileMapping;

    // What views may do is bounded by the mapping's protection and by the one that this handle asked for.
    Mapping(std::uint64_t size, DWORD protection, DWORD asked) noexcept
        : Object(kKind), size_(size), protection_(protection), asked_(asked) {}

    void* map(DWORD access, std::uint64_t offset, std::size_t size) noexcept;

protected:
    ~Mapping() override = default;

    DWORD protection() const noexcept { return protection_; }

    // Of the user's own file that the mapping is over; empty over memory.
    MappedFileHold hold_;

    // Bytes of the contents, mapped and kept account of. NULL with the last error set.
    virtual void* view(std::uint64_t offset, std::size_t size, int host_protection, bool copy) noexcept = 0;

private:
    const std::uint64_t size_;
    const DWORD protection_;
    const DWORD asked_;
};

// A file that a mapping is made over.
struct MappedFile {
    HostFd file;
    std::uint64_t size;  // the mapping's
    MappedFileHold hold;

    // The file behind a handle, as large as asked for; an error code.
    DWORD open(HANDLE handle, std::uint64_t wanted_size, DWORD protection) noexcept;
};

void* view_file(int file, std::uint64_t offset, std::size_t size, int host_protection, bool copy,
                const MappedFileHold& hold) noexcept;

std::uint64_t whole_pages(std::uint64_t size) noexcept;

// Sets aside room for all of the file's pages, so that no later access can fail for want of it. 0 or an error number.
int reserve_file(int file, std::uint64_t size) noexcept;

}  // namespace zr::platform
