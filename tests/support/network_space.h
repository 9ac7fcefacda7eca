#pragma once

// A network of the test's own: the calling thread, what it starts and the sockets it opens see no interface but the
// loopback and those that the test makes. iproute2's `ip` does the work.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace zr::test {

class NetworkSpace {
public:
    NetworkSpace() : before_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
        if (std::system("ip -V >/dev/null 2>&1") != 0) {
            why_ = "iproute2 is not installed";
        } else if (unshare(CLONE_NEWNET) != 0 && !unshare_as_user()) {
            why_ = std::string("no network namespaces: ") + std::strerror(errno);
        } else if (!run("link add test0 type veth peer name test1") || !run("link del test0")) {
            why_ = "the kernel makes no veth devices";
        }
    }
    ~NetworkSpace() {
        if (before_ >= 0) {
            static_cast<void>(setns(before_, CLONE_NEWNET));
            close(before_);
        }
    }
    NetworkSpace(const NetworkSpace&) = delete;
    NetworkSpace& operator=(const NetworkSpace&) = delete;

    // Empty when all is well.
    const std::string& why() const { return why_; }

    // ip ARGUMENTS; false when it fails.
    static bool run(const std::string& arguments) {
        return std::system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0;
    }
    // Many at once.
    static bool run_all(const std::string& lines) {
        FILE* const pipe = popen("ip -batch - >/dev/null 2>&1", "we");
        if (!pipe) return false;
        const bool written = std::fwrite(lines.data(), 1, lines.size(), pipe) == lines.size();
        return pclose(pipe) == 0 && written;
    }
    // A device with its other end, both up: they stay up with nothing else.
    static bool add_device(const std::string& name) {
        return run("link add " + name + " type veth peer name " + name + "-peer") &&
               run("link set " + name + "-peer up") && run("link set " + name + " addrgenmode none") &&
               run("link set " + name + " up");
    }

private:
    // As nobody in particular, who may make a network in a space of users of his own.
    static bool unshare_as_user() {
        const auto user = geteuid();
        const auto group = getegid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
        const auto write = [](const char* file, const std::string& text) { std::ofstream(file) << text; };
        write("/proc/self/setgroups", "deny");
        write("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(user) + " 1");
        write("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(group) + " 1");
        return true;
    }

    const int before_;
    std::string why_;
};

// For the first line of a test or of a fixture's SetUp.
#define ZR_NEEDS_NETWORK(space) \
    if (!(space).why().empty()) GTEST_SKIP() << (space).why()

}  // namespace zr::test
