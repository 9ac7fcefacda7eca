#include "support/child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <stdexcept>

extern char** environ;

namespace zr::test {
namespace {

constexpr const char* kFlag = "--run-as-child";

std::map<std::string, ChildFunction>& functions() {
    static std::map<std::string, ChildFunction> all;
    return all;
}

void write_line(int fd, const std::string& line) {
    const std::string text = line + "\n";
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error("pipe to the other process is closed");
        done += static_cast<size_t>(n);
    }
}

std::string read_line(int fd) {
    std::string line;
    for (;;) {
        char c;
        const ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') return line;
        line += c;
    }
}

}  // namespace

ChildRegistration::ChildRegistration(const char* name, ChildFunction function) {
    functions()[name] = function;
}

Child::Child(const std::string& function, const std::vector<std::string>& args, const std::string& program) {
    if (!functions().contains(function)) throw std::runtime_error("no child function " + function);
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<std::string> words = {program, kFlag, function};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const int error = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    to_ = in[1];
    from_ = out[0];
    if (error != 0) throw std::runtime_error(std::string("posix_spawn: ") + strerror(error));
}

Child::~Child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
    close(to_);
    close(from_);
}

void Child::say(const std::string& line) {
    write_line(to_, line);
}

std::string Child::hear() {
    return read_line(from_);
}

void Child::kill(int signal) {
    if (pid_ > 0) ::kill(pid_, signal);
}

int Child::wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void say(const std::string& line) {
    write_line(STDOUT_FILENO, line);
}

std::string hear() {
    return read_line(STDIN_FILENO);
}

int run_as_child(int argc, char** argv) {
    if (argc < 3 || strcmp(argv[1], kFlag) != 0) return -1;
    return functions().at(argv[2])(std::vector<std::string>(argv + 3, argv + argc));
}

}  // namespace zr::test
