#include "zr/base/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "zr/base/failure.h"

namespace zr {

InputFile::InputFile(const std::string& path) : name_(path == "-" ? "standard input" : path) {
    if (path == "-") {
        fd_ = STDIN_FILENO;
        return;
    }
    // Opening waits for nobody, as it would for the other end of a pipe; and neither does reading a file.
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd_ < 0) throw file_failure(name_, errno);
    struct stat status = {};
    if (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd_);
        if (S_ISDIR(status.st_mode)) throw file_failure(name_, EISDIR);
        throw Failure{Exit::Unreadable, name_ + ": not a file" + (S_ISFIFO(status.st_mode) ? "; - reads a pipe" : "")};
    }
    owned_ = true;
}

InputFile::~InputFile() {
    if (owned_) ::close(fd_);
}

off_t InputFile::size() const {
    struct stat status;
    return ::fstat(fd_, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : 0;
}

}  // namespace zr
