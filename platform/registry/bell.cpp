#include "bell.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "base/host_fd.h"

namespace zr::platform::registry {

int Bell::open(const std::string& path) {
    if (is_open()) return 0;
    path_ = path;
    const int file = above_standard(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (file < 0) return errno;
    // Allocated, not just sized: a full disk must show here and not as a fault in the mapping.
    int error = posix_fallocate(file, 0, sizeof(Page));
    if (error == 0) {
        void* const page = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (page == MAP_FAILED) {
            error = errno;
        } else {
            page_ = static_cast<Page*>(page);
        }
    }
    close(file);
    return error;
}

Bell::Pull::Pull(const Bell& bell)
    : file_(above_standard(::open(bell.path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600))),
      error_(file_ < 0 ? errno : 0) {}

Bell::Pull::~Pull() {
    if (file_ >= 0) close(file_);
}

}  // namespace zr::platform::registry
