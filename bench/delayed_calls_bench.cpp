// Delayed calls while many others are pending: asking for one and having it made, without the wait in between. Beside a
// timer of the platform with a linear search through as many entries, which is what a call has to cost, and beside the
// timer alone, which shows the search's share.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ZrUtility/Helpers/TimerUtilities.h"
#include "platform/kernel.h"
#include "platform/windowing.h"

namespace {

constexpr unsigned int kNever = 0x7FFFFFFF;
constexpr int kBatch = 50;

void count(void* counter) {
    ++*static_cast<int*>(counter);
}

// Takes the messages that are there until all calls were made.
void pump(const int& made) {
    MSG message{};
    while (made < kBatch && PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        DispatchMessageW(&message);
    }
}

// Asks by `ask(counter, delay)` for a batch of calls and pumps once all are due: how long both took, per call.
template <class Ask>
double measure_batch(Ask ask) {
    using Clock = std::chrono::steady_clock;
    int made = 0;
    const auto start = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
        if (!ask(&made, 1)) std::abort();
    }
    auto elapsed = Clock::now() - start;
    Sleep(3);
    const auto pumping = Clock::now();
    pump(made);
    elapsed += Clock::now() - pumping;
    if (made != kBatch) std::abort();
    return std::chrono::duration<double>(elapsed).count() / kBatch;
}

// On a thread of its own, whose timers go with it.
template <class Ask>
void measure(benchmark::State& state, Ask ask) {
    std::thread([&] {
        int never = 0;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            if (!ask(&never, kNever)) std::abort();
        }
        measure_batch(ask);  // to begin with memory that was used before
        for (auto _ : state) {
            state.SetIterationTime(measure_batch(ask));
        }
    }).join();
}

void delayed_call_ours(benchmark::State& state) {
    measure(state, [](int* counter, unsigned int delay) { return TimerUtilities::DelayedCall(count, counter, delay); });
}

struct Entry {
    UINT timer;
    void (*function)(void*);
    void* argument;
};
std::vector<Entry> entries;

void search_and_call(HWND, UINT, UINT_PTR timer, DWORD) {
    KillTimer(nullptr, timer);
    const auto found =
        std::find_if(entries.begin(), entries.end(), [timer](const Entry& e) { return e.timer == timer; });
    const Entry entry = *found;
    *found = entries.back();
    entries.pop_back();
    entry.function(entry.argument);
}

void delayed_call_search(benchmark::State& state) {
    entries.clear();
    measure(state, [](int* counter, unsigned int delay) {
        const auto timer = static_cast<UINT>(SetTimer(nullptr, 0, delay, search_and_call));
        entries.push_back({timer, count, counter});
        return timer != 0;
    });
}

// One batch is under way at a time, so the procedure needs no table to find its argument.
int* only_counter = nullptr;

void call_alone(HWND, UINT, UINT_PTR timer, DWORD) {
    KillTimer(nullptr, timer);
    count(only_counter);
}

void delayed_call_timer(benchmark::State& state) {
    measure(state, [](int* counter, unsigned int delay) {
        only_counter = counter;
        return SetTimer(nullptr, 0, delay, call_alone) != 0;
    });
}

// Each iteration waits, so there are few of them.
void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(10)->Arg(1000)->Arg(100000)->Iterations(40)->UseManualTime();
}
BENCHMARK(delayed_call_ours)->Name("delayed_call/ours")->Apply(sizes);
BENCHMARK(delayed_call_search)->Name("delayed_call/search")->Apply(sizes);
BENCHMARK(delayed_call_timer)->Name("delayed_call/timer")->Apply(sizes);

}  // namespace
