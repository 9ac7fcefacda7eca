#include "zr/commands/tool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace zr::test {
namespace {

pid_t spawn(const std::vector<std::string>& command, int in, int out, int err) {
    std::vector<char*> argv;
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    if (err >= 0) posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error(command[0] + ": " + strerror(error));
    return pid;
}

int reap(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void make_pipe(int (&ends)[2]) {
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
}

void write_all(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the reader has ended
        done += static_cast<std::size_t>(n);
    }
}

// Reads what both pipes give until both are closed.
void drain(int out, int err, Result& result) {
    pollfd fds[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    std::string* texts[2] = {&result.out, &result.err};
    for (int open = 2; open > 0;) {
        poll(fds, 2, -1);
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[65536];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                texts[i]->append(buffer, static_cast<std::size_t>(n));
            } else {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

}  // namespace

Result run(const std::vector<std::string>& command, const std::string& input) {
    signal(SIGPIPE, SIG_IGN);
    int out[2];
    int err[2];
    make_pipe(out);
    make_pipe(err);
    // Input comes from a file, so that no order of reading and writing can block either side.
    std::string name = (std::string(getenv("ZR_TEST_SANDBOX")) + "/input-XXXXXX");
    const int in = mkostemp(name.data(), O_CLOEXEC);
    unlink(name.c_str());
    write_all(in, input);
    lseek(in, 0, SEEK_SET);
    const pid_t pid = spawn(command, in, out[1], err[1]);
    close(in);
    close(out[1]);
    close(err[1]);
    Result result;
    drain(out[0], err[0], result);
    close(out[0]);
    close(err[0]);
    result.code = reap(pid);
    return result;
}

Result zr(const std::vector<std::string>& args, const std::string& input) {
    std::vector<std::string> command = {ZR_TOOL};
    command.insert(command.end(), args.begin(), args.end());
    return run(command, input);
}

Result zr_at_terminal(const Terminal& terminal, const std::vector<std::string>& args) {
    termios settings = {};
    cfmakeraw(&settings);
    const winsize size = {terminal.rows, terminal.columns, 0, 0};
    int ends[2] = {-1, -1};  // ours, and that of the program
    int err[2];
    if (openpty(&ends[0], &ends[1], nullptr, &settings, &size) != 0) throw std::runtime_error("openpty failed");
    for (const int end : ends) {
        fcntl(end, F_SETFD, FD_CLOEXEC);
    }
    make_pipe(err);
    std::vector<std::string> command = {ZR_TOOL};
    command.insert(command.end(), args.begin(), args.end());
    const pid_t pid = spawn(command, ends[1], ends[1], err[1]);
    close(ends[1]);
    close(err[1]);
    Result result;
    drain(ends[0], err[0], result);
    close(ends[0]);
    close(err[0]);
    result.code = reap(pid);
    return result;
}

RunningZr::RunningZr(const std::vector<std::string>& args, Errors errors) {
    signal(SIGPIPE, SIG_IGN);
    int in[2];
    int out[2];
    make_pipe(in);
    make_pipe(out);
    std::vector<std::string> command = {ZR_TOOL};
    command.insert(command.end(), args.begin(), args.end());
    pid_ = spawn(command, in[0], out[1], errors == Errors::ToOutput ? out[1] : -1);
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
}

RunningZr::~RunningZr() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
    close(in_);
    close(out_);
}

void RunningZr::write(const std::string& text) {
    write_all(in_, text);
}

std::string RunningZr::read_line() {
    std::string line;
    for (;;) {
        char c;
        const ssize_t n = read(out_, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') return line;
        line += c;
    }
}

std::string RunningZr::read_rest() {
    std::string rest;
    char buffer[4096];
    for (ssize_t n; (n = read(out_, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR);) {
        if (n > 0) rest.append(buffer, static_cast<std::size_t>(n));
    }
    return rest;
}

void RunningZr::kill(int signal) {
    if (pid_ > 0) ::kill(pid_, signal);
}

int RunningZr::wait() {
    const int code = reap(pid_);
    pid_ = -1;
    return code;
}

void expect_failure(const Result& result, int code, const std::string& part) {
    EXPECT_EQ(result.code, code) << result.err;
    const std::vector<std::string> lines = lines_of(result.err);
    ASSERT_EQ(lines.size(), 1u) << result.err;
    EXPECT_TRUE(lines[0].starts_with("zr: ")) << lines[0];
    EXPECT_NE(lines[0].find(part), std::string::npos) << lines[0];
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
}

std::vector<std::string> rows_of(const std::string& text) {
    std::vector<std::string> rows;
    for (const std::string& line : lines_of(text)) {
        const std::size_t begin = line.find('\t') + 1;
        rows.push_back(line.substr(begin, line.rfind('\t') - begin));
    }
    return rows;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace zr::test
