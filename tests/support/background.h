#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace zr::test {

// A program in the background whose standard output is read; killed and reaped with the object.
class Background {
public:
    explicit Background(std::vector<std::string> words) {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        // What it complains of the test machine is nothing that a test is about.
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        from_ = out[0];
    }
    ~Background() {
        end();
        if (from_ >= 0) close(from_);
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    // A line of what it prints; empty when there is none within the time.
    std::string line(int milliseconds = 60'000) const {
        std::string text;
        char c = 0;
        pollfd ready{from_, POLLIN, 0};
        while (poll(&ready, 1, milliseconds) > 0 && read(from_, &c, 1) == 1 && c != '\n') {
            text += c;
        }
        return text;
    }
    bool is_there() const { return pid_ > 0; }
    bool is_running() const {
        siginfo_t ended{};
        return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid == 0;
    }
    // Neither ends nor answers, until it is let go on.
    void stop() const { kill(pid_, SIGSTOP); }
    void go_on() const { kill(pid_, SIGCONT); }
    void end() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int from_ = -1;
};

}  // namespace zr::test
