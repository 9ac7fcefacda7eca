#include "zr/base/program.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "zr/base/failure.h"

namespace zr {
namespace {

std::vector<char*> pointers_to(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> environment_with(const std::vector<std::string>& added) {
    std::vector<std::string> all = added;
    for (char** each = environ; *each != nullptr; ++each) {
        const std::string word = *each;
        const std::string name = word.substr(0, word.find('=') + 1);
        bool replaced = false;
        for (const std::string& other : added) {
            replaced = replaced || other.starts_with(name);
        }
        if (!replaced) all.push_back(word);
    }
    return all;
}

// Our own handling of signals is not the program's.
class Attributes {
public:
    Attributes() {
        posix_spawnattr_init(&attributes_);
        sigset_t none;
        sigset_t defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGXFSZ}) {
            sigaddset(&defaults, signal);
        }
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &defaults);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~Attributes() { posix_spawnattr_destroy(&attributes_); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

class FileActions {
public:
    explicit FileActions(int input) {
        posix_spawn_file_actions_init(&actions_);
        if (input >= 0) posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO);
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

}  // namespace

pid_t start_program(const std::vector<std::string>& command, const std::vector<std::string>& environment, int input) {
    const std::vector<std::string> all = environment_with(environment);
    const Attributes attributes;
    const FileActions actions(input);
    pid_t process = -1;
    const int error = posix_spawnp(&process, command.front().c_str(), actions.get(), attributes.get(),
                                   pointers_to(command).data(), pointers_to(all).data());
    if (error != 0) throw Failure{Exit::Unreadable, command.front() + ": cannot be run: " + std::strerror(error)};
    return process;
}

int wait_for_program(const std::string& name, pid_t process) {
    int status = 0;
    while (::waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) throw Failure{Exit::Unreadable, name + ": " + std::strerror(errno)};
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int run_program(const std::vector<std::string>& command, const std::vector<std::string>& environment) {
    return wait_for_program(command.front(), start_program(command, environment));
}

std::string program_fault(int code) {
    if (code == 0) return {};
    return code > 0 ? "ended with " + std::to_string(code) : "was ended by signal " + std::to_string(-code);
}

}  // namespace zr
