#include "module_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/host_error.h"
#include "base/host_fd.h"

namespace zr::platform {

// Opening must not wait for another program, as it would for a pipe.
ModuleFile::ModuleFile(const char* path)
    : fd_(above_standard(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK))) {
    struct stat status;
    if (fd_ < 0 || fstat(fd_, &status) != 0)
        error_ = error_from_errno(errno);
    else if (!S_ISREG(status.st_mode))
        error_ = ERROR_BAD_EXE_FORMAT;
    else
        size_ = static_cast<std::uint64_t>(status.st_size);
    const std::span<std::byte> head(head_, static_cast<std::size_t>(std::min<std::uint64_t>(size_, sizeof head_)));
    if (read_host(0, head)) head_size_ = head.size();
}

ModuleFile::~ModuleFile() {
    if (fd_ >= 0) close(fd_);
}

bool ModuleFile::read(std::uint64_t offset, std::span<std::byte> out) const {
    if (offset > size_ || out.size() > size_ - offset) return false;
    if (offset > head_size_ || out.size() > head_size_ - offset) return read_host(offset, out);
    std::copy_n(head_ + offset, out.size(), out.data());
    return true;
}

bool ModuleFile::read_host(std::uint64_t offset, std::span<std::byte> out) const {
    while (!out.empty()) {
        const ssize_t got = pread(fd_, out.data(), out.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;  // also when the file has become shorter
        offset += static_cast<std::uint64_t>(got);
        out = out.subspan(static_cast<std::size_t>(got));
    }
    return true;
}

}  // namespace zr::platform
