// How long it takes from a write in one process until a registry monitor's callback in another one has it, beside a
// byte through a pipe. Each measured time is the median of 51 of them, one after the other, with both processes at rest
// before.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <new>
#include <string>
#include <thread>

#include "ZrUtility/Helpers/RegistryMonitor.h"

namespace {

using Clock = std::chrono::steady_clock;

const bool in_own_folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    static const std::string folder = pattern;
    static const pid_t owner = getpid();
    setenv("ZR_HOME", (folder + "/home").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    atexit([] {
        if (getpid() == owner) std::filesystem::remove_all(folder);
    });
    return true;
}();

// What both processes see.
struct Board {
    std::atomic<Clock::rep> came{0};  // when the last message did, on the clock that all processes share
    std::atomic<bool> ready{false};   // the receiver listens
};

Board& board() {
    void* const room = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (room) Board;
}

Board* the_board = nullptr;

void came() {
    the_board->came = Clock::now().time_since_epoch().count();
}

// Measures `send` with a receiver that calls came() each time, in another process.
template <class Receive, class Send>
void measure(benchmark::State& state, Receive receive, Send send) {
    the_board = &board();
    const pid_t receiver = fork();
    if (receiver == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        receive();
        _exit(0);
    }
    while (!the_board->ready) {
        std::this_thread::yield();
    }
    for (auto _ : state) {
        std::array<Clock::rep, 51> delays;
        for (Clock::rep& delay : delays) {
            std::this_thread::sleep_for(std::chrono::microseconds(300));  // the receiver has gone to sleep
            the_board->came = 0;
            const Clock::rep sent = Clock::now().time_since_epoch().count();
            send();
            while (the_board->came == 0) {
                std::this_thread::yield();
            }
            delay = the_board->came - sent;
        }
        std::nth_element(delays.begin(), delays.begin() + delays.size() / 2, delays.end());
        state.SetIterationTime(static_cast<double>(delays[delays.size() / 2]) * 1e-9);
    }
    kill(receiver, SIGKILL);
    waitpid(receiver, nullptr, 0);
    munmap(the_board, sizeof(Board));
}

RegistryMonitor* the_monitor = nullptr;

HKEY watched_key() {
    HKEY key = nullptr;
    RegCreateKeyExW(HKEY_CURRENT_USER, u"Watched", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    return key;
}

void monitor(benchmark::State& state) {
    const auto receive = [] {
        RegistryMonitor watching;
        the_monitor = &watching;
        WCHAR path[] = u"Watched";
        const auto on_change = [](HKEY) {
            came();
            the_monitor->ContinueMonitor();
        };
        watching.StartMonitor(HKEY_CURRENT_USER, path, nullptr, nullptr, FALSE, REG_NOTIFY_CHANGE_LAST_SET,
                              {nullptr, 0, on_change}, true, 0);
        // The thread listens when it reports a change of our own.
        const HKEY key = watched_key();
        for (DWORD turn = 0; the_board->came == 0; ++turn) {
            RegSetValueExW(key, u"v", 0, REG_BINARY, reinterpret_cast<const BYTE*>(&turn), sizeof turn);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        the_board->ready = true;
        pause();
    };
    HKEY key = nullptr;
    ULONG number = 0;
    measure(state, receive, [&] {
        if (key == nullptr) key = watched_key();
        ++number;
        RegSetValueExW(key, u"v", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
    });
    RegCloseKey(key);
}
BENCHMARK(monitor)->Name("registry_change_delay/ours")->UseManualTime()->Iterations(20)->Unit(benchmark::kMicrosecond);

void bare_pipe(benchmark::State& state) {
    int ends[2];
    if (pipe(ends) != 0) std::abort();
    const auto receive = [&ends] {
        the_board->ready = true;
        char byte = 0;
        while (read(ends[0], &byte, 1) == 1) {
            came();
        }
    };
    measure(state, receive, [&ends] {
        if (write(ends[1], "x", 1) != 1) std::abort();
    });
    close(ends[0]);
    close(ends[1]);
}
BENCHMARK(bare_pipe)
    ->Name("registry_change_delay/pipe")
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
