#include "zr/base/pager.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>
#include <vector>

#include "zr/base/failure.h"
#include "zr/base/output.h"
#include "zr/base/program.h"
#include "zr/base/terminal.h"

namespace zr {
namespace {

bool is_program(const std::string& name) {
    const char* const path = std::getenv("PATH");
    std::string_view rest = path != nullptr ? path : "/usr/bin:/bin";
    while (true) {
        const std::size_t end = std::min(rest.find(':'), rest.size());
        if (::access((std::string(rest.substr(0, end)) + "/" + name).c_str(), X_OK) == 0) return true;
        if (end == rest.size()) return false;
        rest.remove_prefix(end + 1);
    }
}

// The command of the user's pager, for a shell; empty: none.
std::string pager_command() {
    if (const char* const wanted = std::getenv("PAGER")) {
        const std::string command = wanted;
        const std::string name = command.substr(0, command.find(' '));
        // What is written otherwise is the shell's affair.
        const bool is_name = name.find_first_of("/='\"$") == std::string::npos;
        return name == "cat" || name.empty() || (is_name && !is_program(name)) ? std::string() : command;
    }
    const char* const terminal = std::getenv("TERM");
    if (terminal == nullptr || std::string_view(terminal) == "dumb") return {};
    return is_program("less") ? "less" : "";
}

}  // namespace

Pager& Pager::instance() {
    static Pager pager;
    return pager;
}

void Pager::begin() {
    if (refused_ || state_ != State::Off || !is_at_terminal()) return;
    program_ = pager_command();
    if (!program_.empty()) state_ = State::Holding;
}

bool Pager::takes(std::string_view text) {
    switch (state_) {
        case State::Off:
            return false;
        case State::Gone:
            throw ReaderHasEnough{};
        case State::Running:
            write(text);
            return true;
        case State::Holding:
            held_ += text;
            lines_ += static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
            // The prompt of the shell needs a line.
            if (lines_ >= terminal_size().rows) start();
            return true;
    }
    return false;
}

// Where the pager cannot be run the terminal gets the text.
void Pager::start() {
    int ends[2] = {-1, -1};
    const std::string text = std::exchange(held_, {});
    state_ = State::Off;
    if (::pipe2(ends, O_CLOEXEC) != 0) return print(text);
    std::vector<std::string> environment;
    if (std::getenv("LESS") == nullptr) environment.emplace_back("LESS=FRX");
    try {
        process_ = start_program({"sh", "-c", program_}, environment, ends[0]);
    } catch (const Failure&) {
        ::close(ends[0]);
        ::close(ends[1]);
        return print(text);
    }
    ::close(ends[0]);
    pipe_ = ends[1];
    // The pager answers to the keyboard, and may be gone before the text is at its end.
    std::signal(SIGPIPE, SIG_IGN);
    interrupted_before_ = std::signal(SIGINT, SIG_IGN);
    state_ = State::Running;
    write(text);
}

void Pager::write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(pipe_, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) {
            std::signal(SIGINT, interrupted_before_);
            state_ = State::Gone;
            throw ReaderHasEnough{};
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void Pager::flush() {
    if (state_ != State::Holding) return;
    state_ = State::Off;
    print(std::exchange(held_, {}));
}

void Pager::end() {
    flush();
    if (process_ < 0) return;
    ::close(std::exchange(pipe_, -1));
    state_ = State::Off;
    try {
        wait_for_program(program_, std::exchange(process_, -1));
    } catch (const Failure&) {  // It is gone, which is all that matters.
    }
}

}  // namespace zr
