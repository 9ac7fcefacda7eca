#include "zr/base/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "zr/base/failure.h"
#include "zr/base/output.h"

namespace zr {
namespace {

constexpr std::size_t kBuffer = std::size_t{1} << 16;
constexpr int kMostLinks = 40;

// What a signal that ends the program takes along. A name stands here as long as its file is being written.
constexpr std::size_t kMostTemporaries = 8;
std::atomic<const char*> temporaries[kMostTemporaries];
constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void remove_temporaries(int signal) {
    for (std::atomic<const char*>& each : temporaries) {
        const char* const name = each.exchange(nullptr);
        if (name != nullptr) ::unlink(name);
    }
    ::raise(signal);  // which ends the program, as the handler is gone
}

// A program that handles these signals ends in good order anyhow.
void remove_at_signals() {
    struct sigaction action = {};
    action.sa_handler = &remove_temporaries;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : kEnding) {
        struct sigaction before = {};
        if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL)
            ::sigaction(signal, &action, nullptr);
    }
}

// While it lives none of the signals comes to this thread.
class SignalsHeld {
public:
    SignalsHeld() {
        sigset_t ending;
        sigemptyset(&ending);
        for (const int signal : kEnding) {
            sigaddset(&ending, signal);
        }
        ::pthread_sigmask(SIG_BLOCK, &ending, &before_);
    }
    ~SignalsHeld() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    sigset_t before_;
};

void remember(const std::string& temporary) {
    for (std::atomic<const char*>& each : temporaries) {
        const char* none = nullptr;
        if (each.compare_exchange_strong(none, temporary.c_str())) return;
    }
}

void forget(const std::string& temporary) {
    for (std::atomic<const char*>& each : temporaries) {
        const char* name = temporary.c_str();
        if (each.compare_exchange_strong(name, nullptr)) return;
    }
}

std::string end_of_links(const std::string& path) {
    std::filesystem::path target = path;
    for (int links = 0; links < kMostLinks; ++links) {
        std::error_code error;
        const std::filesystem::path next = std::filesystem::read_symlink(target, error);
        if (error) return target;
        target = target.parent_path() / next;
    }
    throw file_failure(path, ELOOP);
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : path_(path) {
    if (path.empty() || path == "-") return;
    struct stat status;
    direct_ = ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
    if (direct_) {
        fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    } else {
        make_temporary();
    }
    if (fd_ < 0) throw file_failure(path_, errno);
}

void OutputFile::make_temporary() {
    target_ = end_of_links(path_);
    const SignalsHeld held;
    temporary_ = target_ + ".XXXXXX";
    fd_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
    if (fd_ < 0) {
        temporary_.clear();
        return;
    }
    remember(temporary_);
    remove_at_signals();
    struct stat there;
    constexpr mode_t permissions = 0777;
    if (::stat(target_.c_str(), &there) == 0) ::fchmod(fd_, there.st_mode & permissions);
}

OutputFile::~OutputFile() {
    if (fd_ >= 0) ::close(fd_);
    drop_temporary();
}

void OutputFile::drop_temporary() {
    if (temporary_.empty()) return;
    ::unlink(temporary_.c_str());
    forget(temporary_);
    temporary_.clear();
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
    const SignalsHeld held;
    if (::fsync(fd_) != 0 || ::rename(temporary_.c_str(), target_.c_str()) != 0) throw file_failure(path_, errno);
    forget(temporary_);
    temporary_.clear();
}

}  // namespace zr
