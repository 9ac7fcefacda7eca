#include "zr/base/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "zr/base/failure.h"
#include "zr/base/output.h"

namespace zr {
namespace {

constexpr std::size_t kBuffer = std::size_t{1} << 16;

}  // namespace

OutputFile::OutputFile(const std::string& path) : path_(path) {
    if (path.empty() || path == "-") return;
    struct stat status;
    direct_ = ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
    if (direct_) {
        fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    } else {
        temporary_ = path + ".XXXXXX";
        fd_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
        if (fd_ < 0) temporary_.clear();
    }
    if (fd_ < 0) throw file_failure(path_, errno);
}

OutputFile::~OutputFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

void OutputFile::write(std::string_view text) {
    if (fd_ < 0) return print(text);
    waiting_ += text;
    if (waiting_.size() >= kBuffer) flush();
}

void OutputFile::flush() {
    for (std::string_view text = waiting_; !text.empty();) {
        const ssize_t n = ::write(fd_, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw file_failure(path_, errno);
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    waiting_.clear();
}

void OutputFile::finish() {
    flush();
    if (fd_ < 0 || direct_) return;
    if (::fsync(fd_) != 0 || ::rename(temporary_.c_str(), path_.c_str()) != 0) throw file_failure(path_, errno);
    temporary_.clear();
}

}  // namespace zr
