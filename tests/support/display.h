#pragma once

// Display servers without a display, and one that says nothing. A test that uses them says which one it looks at.

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "support/background.h"
#include "support/sandbox.h"

namespace zr::test {

// Sets a variable for as long as it lives.
class Environment {
public:
    Environment(const char* name, const std::string& value) : name_(name) { setenv(name, value.c_str(), 1); }
    ~Environment() { unsetenv(name_); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    const char* const name_;
};

class XServer {
public:
    // size: 480x640x24
    XServer(const std::string& size, int dots)
        : process_({"Xvfb", "-displayfd", "1", "-screen", "0", size, "-dpi", std::to_string(dots), "-nolisten", "tcp",
                    "-noreset"}) {
        if (!process_.is_there()) {
            why_ = "there is no Xvfb (package xvfb)";
        } else if (const std::string number = process_.line(); number.empty()) {
            why_ = "Xvfb does not start";
        } else {
            name_ = ":" + number;
        }
    }

    const std::string& why() const { return why_; }  // empty when all is well
    const std::string& name() const { return name_; }
    Background& process() { return process_; }

private:
    Background process_;
    std::string why_;
    std::string name_;
};

class WaylandServer {
public:
    WaylandServer(int width, int height, const std::string& transform = "normal")
        : process_({"weston", "--backend=headless-backend.so", "--shell=kiosk-shell.so",
                    "--width=" + std::to_string(width), "--height=" + std::to_string(height),
                    "--transform=" + transform, "--socket=" + std::string(kName), "--idle-time=0", "--no-config",
                    "--log=/dev/null"}) {
        if (!process_.is_there()) why_ = "there is no weston (package weston)";
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (why_.empty() && !std::filesystem::exists(socket())) {
            if (process_.is_running() && std::chrono::steady_clock::now() < end) {
                std::this_thread::yield();
            } else {
                why_ = "weston does not start";
            }
        }
    }
    ~WaylandServer() {
        process_.end();
        std::error_code ignored;
        std::filesystem::remove(socket(), ignored);
        std::filesystem::remove(socket() += ".lock", ignored);
    }

    const std::string& why() const { return why_; }
    std::string name() const { return kName; }
    Background& process() { return process_; }

private:
    static constexpr const char* kName = "wayland-test";
    static std::filesystem::path socket() { return std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / kName; }

    Background process_;
    std::string why_;
};

// Takes connections and says nothing.
class SilentServer {
public:
    SilentServer() : path_(sandbox() / "silent"), socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.string().copy(address.sun_path, sizeof address.sun_path - 1);
        is_there_ =
            bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(socket_, 10) == 0;
    }
    ~SilentServer() {
        close(socket_);
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

    bool is_there() const { return is_there_; }
    std::string name() const { return path_.string(); }

private:
    const std::filesystem::path path_;
    const int socket_;
    bool is_there_ = false;
};

#define ZR_NEEDS_DISPLAY(which) \
    if (!(which).why().empty()) GTEST_SKIP() << (which).why()

}  // namespace zr::test
