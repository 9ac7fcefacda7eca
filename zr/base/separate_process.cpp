#include "zr/base/separate_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <utility>

#include "zr/base/failure.h"

namespace zr {
namespace {

using Clock = std::chrono::steady_clock;
constexpr Clock::time_point kNever = Clock::time_point::max();

bool write_all(int fd, const void* data, std::size_t size) {
    for (const char* at = static_cast<const char*>(data); size > 0;) {
        const ssize_t n = ::write(fd, at, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

int milliseconds_to(Clock::time_point deadline) {
    if (deadline == kNever) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}

// False at the end of the pipe, and when `deadline` passes.
bool read_all(int fd, void* data, std::size_t size, Clock::time_point deadline) {
    for (char* at = static_cast<char*>(data); size > 0;) {
        pollfd ready = {fd, POLLIN, 0};
        const int polled = ::poll(&ready, 1, milliseconds_to(deadline));
        if (polled < 0 && errno == EINTR) continue;
        if (polled <= 0) return false;
        const ssize_t n = ::read(fd, at, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

std::string end_of(int status) {
    if (!WIFSIGNALED(status)) return "ends the process that asks it";
    return std::string("crashes (") + strsignal(WTERMSIG(status)) + ")";
}

// What is said where nobody listens.
void silence() {
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(nowhere, stream);
    }
}

}  // namespace

SeparateProcess::SeparateProcess(Answer answer, std::chrono::milliseconds patience)
    : answer_(std::move(answer)), patience_(patience) {}

SeparateProcess::~SeparateProcess() {
    end();
}

void SeparateProcess::start() {
    int questions[2];
    int answers[2];
    if (::pipe2(questions, O_CLOEXEC) != 0) throw file_failure("a pipe", errno);
    if (::pipe2(answers, O_CLOEXEC) != 0) {
        const int error = errno;
        ::close(questions[0]);
        ::close(questions[1]);
        throw file_failure("a pipe", error);
    }
    process_ = ::fork();
    const int error = errno;
    if (process_ == 0) {
        ::close(questions[1]);
        ::close(answers[0]);
        serve(questions[0], answers[1]);
    }
    ::close(questions[0]);
    ::close(answers[1]);
    questions_ = questions[1];
    answers_ = answers[0];
    if (process_ > 0) return;
    end();
    throw file_failure("another process", error);
}

void SeparateProcess::serve(int questions, int answers) const {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit no_core = {0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
    ::signal(SIGPIPE, SIG_DFL);
    silence();
    for (;;) {
        std::size_t question = 0;
        if (!read_all(questions, &question, sizeof question, kNever)) ::_exit(0);
        const std::string answer = answer_(question);
        const std::size_t size = answer.size();
        if (!write_all(answers, &size, sizeof size) || !write_all(answers, answer.data(), size)) ::_exit(0);
    }
}

void SeparateProcess::end() {
    if (questions_ >= 0) ::close(std::exchange(questions_, -1));
    if (answers_ >= 0) ::close(std::exchange(answers_, -1));
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(std::exchange(process_, -1), nullptr, 0);
}

bool SeparateProcess::ask(std::size_t question, std::string& answer) {
    if (process_ <= 0) start();
    failure_.clear();
    const Clock::time_point deadline = Clock::now() + patience_;
    std::size_t size = 0;
    // A process that is gone already answers nothing.
    const auto before = ::signal(SIGPIPE, SIG_IGN);
    write_all(questions_, &question, sizeof question);
    ::signal(SIGPIPE, before);
    bool answered = read_all(answers_, &size, sizeof size, deadline);
    if (answered) {
        answer.resize(size);
        answered = read_all(answers_, answer.data(), size, deadline);
    }
    if (answered) return true;
    int status = 0;
    pid_t ended = 0;
    if (Clock::now() < deadline) {
        ended = ::waitpid(process_, &status, 0);  // the pipe is closed: it is ending
    } else {
        ended = ::waitpid(process_, &status, WNOHANG);
    }
    failure_ = ended == process_ ? end_of(status) : "does not answer";
    if (ended == process_) process_ = -1;
    end();
    return false;
}

}  // namespace zr
