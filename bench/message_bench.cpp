// Messages between and within threads, beside WinPR's message queue and beside a bare futex hand-off.

#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <future>
#include <map>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "winpr_message_peer.h"

namespace {

constexpr const WCHAR* kClass = u"bench.messages";

LRESULT add_one(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    return message == WM_APP ? static_cast<LRESULT>(wparam) + 1 : DefWindowProcW(window, message, wparam, lparam);
}

HWND make_window() {
    WNDCLASSW description{};
    description.lpfnWndProc = add_one;
    description.lpszClassName = kClass;
    RegisterClassW(&description);
    return CreateWindowExW(0, kClass, nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

// A thread that pumps messages for a window.
class Receiver {
public:
    Receiver() {
        std::promise<HWND> made;
        auto window = made.get_future();
        thread_ = std::thread([&made] {
            const HWND own = make_window();
            made.set_value(own);
            MSG message{};
            while (GetMessageW(&message, nullptr, 0, 0) > 0)
                DispatchMessageW(&message);
            DestroyWindow(own);
        });
        window_ = window.get();
    }
    ~Receiver() {
        PostMessageW(window_, WM_QUIT, 0, 0);
        thread_.join();
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    HWND window() const { return window_; }

private:
    std::thread thread_;
    HWND window_ = nullptr;
};

void round_trip_ours(benchmark::State& state) {
    const Receiver receiver;
    WPARAM number = 0;
    for (auto _ : state) {
        if (SendMessageW(receiver.window(), WM_APP, number, 0) != static_cast<LRESULT>(number) + 1) {
            state.SkipWithError("wrong answer");
            break;
        }
        ++number;
    }
}

void round_trip_winpr(benchmark::State& state) {
    winpr_peer::Receiver receiver;
    long number = 0;
    for (auto _ : state) {
        if (receiver.send(1, number) != number + 1) {
            state.SkipWithError("wrong answer");
            break;
        }
        ++number;
    }
}

// One word: even is the sender's turn, odd the receiver's. The least that two threads can do.
class FutexHandOff {
public:
    FutexHandOff() : thread_([this] { serve(); }) {}
    ~FutexHandOff() {
        over_ = true;
        turn(1);
        thread_.join();
    }
    FutexHandOff(const FutexHandOff&) = delete;
    FutexHandOff& operator=(const FutexHandOff&) = delete;

    long send(long number) {
        value_ = number;
        turn(1);
        await(0);
        return value_;
    }

private:
    void serve() {
        for (;;) {
            await(1);
            if (over_) return;
            value_ = value_ + 1;
            turn(0);
        }
    }
    void turn(unsigned whose) {
        word_.store(whose, std::memory_order_release);
        syscall(SYS_futex, &word_, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
    }
    void await(unsigned whose) {
        while (word_.load(std::memory_order_acquire) != whose) {
            syscall(SYS_futex, &word_, FUTEX_WAIT | FUTEX_PRIVATE_FLAG, 1 - whose, nullptr, nullptr, 0);
        }
    }

    std::atomic<unsigned> word_{0};
    long value_ = 0;
    bool over_ = false;
    std::thread thread_;
};

void round_trip_futex(benchmark::State& state) {
    FutexHandOff peer;
    long number = 0;
    for (auto _ : state) {
        if (peer.send(number) != number + 1) {
            state.SkipWithError("wrong answer");
            break;
        }
        ++number;
    }
}

BENCHMARK(round_trip_ours)->Name("send_round_trip/ours")->UseRealTime();
BENCHMARK(round_trip_winpr)->Name("send_round_trip/winpr")->UseRealTime();
BENCHMARK(round_trip_futex)->Name("send_round_trip/futex")->UseRealTime();

// One message posted to the own thread and taken again.

void post_peek_ours(benchmark::State& state) {
    const HWND window = make_window();
    MSG message{};
    WPARAM number = 0;
    for (auto _ : state) {
        if (!PostMessageW(window, WM_APP, number, 0) || !PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) ||
            message.wParam != number) {
            state.SkipWithError("lost");
            break;
        }
        ++number;
    }
    DestroyWindow(window);
}

void post_peek_winpr(benchmark::State& state) {
    void* queue = winpr_peer::make_queue();
    long number = 0;
    long seen = 0;
    for (auto _ : state) {
        if (!winpr_peer::post(queue, 1, number) || !winpr_peer::peek(queue, seen) || seen != number) {
            state.SkipWithError("lost");
            break;
        }
        ++number;
    }
    winpr_peer::free_queue(queue);
}

BENCHMARK(post_peek_ours)->Name("post_peek/ours");
BENCHMARK(post_peek_winpr)->Name("post_peek/winpr");

// A timer set and killed while many others are pending, beside one entry in a map ordered by time.

void set_timer_ours(benchmark::State& state) {
    const auto count = static_cast<UINT>(state.range(0));
    const HWND window = make_window();
    for (UINT i = 1; i <= count; ++i)
        SetTimer(window, i, 1'000'000 + i * 7919 % count, nullptr);
    UINT number = 0;
    for (auto _ : state) {
        number = number * 1664525 + 1013904223;
        SetTimer(window, count + 1, 1'000'000 + number % count, nullptr);
        KillTimer(window, count + 1);
    }
    DestroyWindow(window);
}

void set_timer_map(benchmark::State& state) {
    const auto count = static_cast<UINT>(state.range(0));
    std::multimap<std::int64_t, UINT> by_time;
    std::map<UINT, std::multimap<std::int64_t, UINT>::iterator> by_number;
    timespec now{};
    const auto set = [&](UINT timer, UINT elapse) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        const std::int64_t due = now.tv_sec * 1'000'000'000LL + now.tv_nsec + elapse * 1'000'000LL;
        by_number.emplace(timer, by_time.emplace(due, timer));
    };
    for (UINT i = 1; i <= count; ++i)
        set(i, 1'000'000 + i * 7919 % count);
    UINT number = 0;
    for (auto _ : state) {
        number = number * 1664525 + 1013904223;
        set(count + 1, 1'000'000 + number % count);
        const auto found = by_number.find(count + 1);
        by_time.erase(found->second);
        by_number.erase(found);
    }
}

BENCHMARK(set_timer_ours)->Name("set_timer/ours")->Arg(100)->Arg(100'000);
BENCHMARK(set_timer_map)->Name("set_timer/ordered_map")->Arg(100)->Arg(100'000);

}  // namespace
