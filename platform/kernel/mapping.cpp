#include "mapping.h"
#include "base/host_error.h"
#include "base/size_limit.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <new>

#include "base/fail.h"
#include "base/host_fd.h"
#include "kernel/thread.h"
#include "named/file_mapping.h"
#include "names.h"
#include "page_protection.h"
#include "platform/kernel.h"
#include "views.h"

namespace zr::platform {
namespace {

constexpr std::uint64_t kOffsetUnit = 64 * 1024;

// A mapping that only this process knows: over a file, or over memory that has no name.
class PrivateMapping final : public Mapping {
public:
    PrivateMapping(MappedFile over, DWORD protection) noexcept
        : Mapping(over.size, protection, protection), file_(std::move(over.file)) {
        hold_ = std::move(over.hold);
    }

protected:
    ~PrivateMapping() override = default;
    void* view(std::uint64_t offset, std::size_t size, int host_protection, bool copy) noexcept override {
        return view_file(file_.get(), offset, size, host_protection, copy, hold_);
    }

private:
    const HostFd file_;
};

HANDLE open_private(MappedFile over, DWORD protection) noexcept {
    const auto mapping = Ref<Mapping>::adopt(new (std::nothrow) PrivateMapping(std::move(over), protection));
    return mapping ? open_handle(*mapping) : fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
}

HANDLE create_over_memory(std::uint64_t size, DWORD protection) noexcept {
    HostFd memory(above_standard(memfd_create("mapping", MFD_CLOEXEC)));
    if (!memory) return fail(error_from_errno(errno), nullptr);
    // Memory is what runs out here, not a disk.
    if (reserve_file(memory.get(), size) != 0) return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    return open_private({std::move(memory), size, {}}, protection);
}

HANDLE create_over_file(HANDLE handle, std::uint64_t size, DWORD protection) noexcept {
    MappedFile over{};
    if (const DWORD error = over.open(handle, size, protection)) return fail(error, nullptr);
    return open_private(std::move(over), protection);
}

// Makes the file that large, with room on the disk for what is new.
DWORD enlarge(int file, std::uint64_t from, std::uint64_t to) noexcept {
    if (to > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return ERROR_DISK_FULL;
    const WithinSizeLimit no_signal;
    int error = EINTR;
    while (error == EINTR) {
        error = posix_fallocate(file, static_cast<off_t>(from), static_cast<off_t>(to - from));
    }
    if (error == 0) return ERROR_SUCCESS;
    if (ftruncate(file, static_cast<off_t>(from)) != 0) return error_from_errno(errno);
    return room_error(error);
}

}  // namespace

DWORD MappedFile::open(HANDLE handle, std::uint64_t wanted_size, DWORD protection) noexcept {
    const Pin pin(handle);
    const int descriptor = pin ? pin.object()->host_descriptor() : -1;
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return ERROR_INVALID_HANDLE;
    hold = MappedFileHold(status.st_dev, status.st_ino);
    if (!hold) return ERROR_NOT_ENOUGH_MEMORY;
    // From here on nobody makes it shorter.
    if (fstat(descriptor, &status) != 0) return error_from_errno(errno);
    const int access = fcntl(descriptor, F_GETFL) & O_ACCMODE;
    if (access == O_WRONLY || (access == O_RDONLY && may_write(protection))) return ERROR_ACCESS_DENIED;
    const auto now = static_cast<std::uint64_t>(status.st_size);
    size = wanted_size != 0 ? wanted_size : now;
    if (size == 0) return ERROR_FILE_INVALID;
    if (size > now && !may_write(protection)) return ERROR_NOT_ENOUGH_MEMORY;
    if (size > now) {
        if (const DWORD error = enlarge(descriptor, now, size)) return error;
    }
    file = HostFd(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return file ? ERROR_SUCCESS : error_from_errno(errno);
}

std::uint64_t whole_pages(std::uint64_t size) noexcept {
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return (size + page - 1) & ~(page - 1);
}

int reserve_file(int file, std::uint64_t size) noexcept {
    const std::uint64_t whole = whole_pages(size);
    if (whole < size || whole > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return EFBIG;
    const WithinSizeLimit no_signal;
    int error = EINTR;
    while (error == EINTR) {
        error = posix_fallocate(file, 0, static_cast<off_t>(whole));
    }
    return error;
}

void* view_file(int file, std::uint64_t offset, std::size_t size, int host_protection, bool copy,
                const MappedFileHold& hold) noexcept {
    return keep_view({size, host_protection, copy, hold}, [&] {
        const int sharing = copy ? MAP_PRIVATE : MAP_SHARED;
        return mmap(nullptr, size, host_protection, sharing, file, static_cast<off_t>(offset));
    });
}

void* Mapping::map(DWORD access, std::uint64_t offset, std::size_t size) noexcept {
    const ViewAccess view(access);
    if (!view.any()) return fail(ERROR_INVALID_PARAMETER, nullptr);
    if (!view.allowed_by(protection_) || !view.allowed_by(asked_)) return fail(ERROR_ACCESS_DENIED, nullptr);
    if (offset % kOffsetUnit != 0) return fail(ERROR_MAPPED_ALIGNMENT, nullptr);
    const std::uint64_t end = whole_pages(size_);
    if (offset >= size_ || size > end - offset) return fail(ERROR_ACCESS_DENIED, nullptr);
    const std::uint64_t length = size != 0 ? size : size_ - offset;
    if (length > std::numeric_limits<std::size_t>::max() / 2) return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    return this->view(offset, static_cast<std::size_t>(length), view.host_protection(), view.copies());
}

}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateFileMappingW(HANDLE file, SECURITY_ATTRIBUTES*, DWORD protection, DWORD size_high, DWORD size_low,
                          LPCWSTR name) {
    cancellation_point();
    const std::uint64_t size = (std::uint64_t{size_high} << 32) | size_low;
    const bool over_memory = file == INVALID_HANDLE_VALUE;
    if (!is_mapping_protection(protection) || (over_memory && size == 0)) return fail(ERROR_INVALID_PARAMETER, nullptr);
    const DWORD page = protection & kPageBits;
    if (is_name(name)) return named::create_mapping(name, file, size, page);
    SetLastError(ERROR_SUCCESS);
    return over_memory ? create_over_memory(size, page) : create_over_file(file, size, page);
}

HANDLE OpenFileMappingW(DWORD access, BOOL, LPCWSTR name) {
    cancellation_point();
    return named::open_mapping(name, access);
}

LPVOID MapViewOfFile(HANDLE handle, DWORD access, DWORD offset_high, DWORD offset_low, SIZE_T size) {
    cancellation_point();
    const Pinned<Mapping> mapping = lookup<Mapping>(handle);
    if (!mapping) return nullptr;
    return mapping->map(access, (std::uint64_t{offset_high} << 32) | offset_low, size);
}
