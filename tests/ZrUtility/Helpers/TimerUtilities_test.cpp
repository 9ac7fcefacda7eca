#include "ZrUtility/Helpers/TimerUtilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "ZrLog/ZrLog.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "support/failing_new.h"
#include "support/log_capture.h"
#include "support/log_categories.h"

namespace {

using zr::test::FailingNew;
using zr::test::kTimersFailure;
using zr::test::LogCapture;

constexpr const char* kTimersSource = ".\\Helpers\\TimerUtilities.cppzrwindowsmobile";
constexpr unsigned int kNever = 0x7FFFFFFF;

void pump_one() {
    MSG message{};
    ASSERT_EQ(GetMessageW(&message, nullptr, 0, 0), 1);
    DispatchMessageW(&message);
}

// Waits for the next timer's message and takes it without handling it.
MSG take_timer() {
    MSG message{};
    EXPECT_EQ(GetMessageW(&message, nullptr, WM_TIMER, WM_TIMER), 1);
    return message;
}

unsigned int below(std::mt19937& random, unsigned int limit) {
    return static_cast<unsigned int>(random() % limit);
}

void increment(void* counter) {
    ++*static_cast<int*>(counter);
}

void run(void* function) {
    (*static_cast<std::function<void()>*>(function))();
}

// A call that the procedure of the class has nothing for, to learn whether it is pending.
void expect_unknown(const MSG& message) {
    const LogCapture log;
    DispatchMessageW(&message);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].source, kTimersSource);
    EXPECT_EQ(records[0].category, kTimersFailure);
    EXPECT_EQ(records[0].arguments, std::vector<std::uintptr_t>{message.wParam});
}

// Keeps the last record without allocating anything.
class LastRecord {
public:
    LastRecord() { zrLogSetSink(sink, this); }
    ~LastRecord() { zrLogSetSink(nullptr, nullptr); }
    LastRecord(const LastRecord&) = delete;
    LastRecord& operator=(const LastRecord&) = delete;

    int count = 0;
    ZrLogRecord record{};

private:
    static void sink(const ZrLogRecord& record, void* context) {
        auto* self = static_cast<LastRecord*>(context);
        ++self->count;
        self->record = record;
    }
};

// While it lives the heap gives nothing.
class FullHeap {
public:
    FullHeap() { ZrFailHeapAfter(0); }
    ~FullHeap() { ZrFailHeapAfter(-1); }
    FullHeap(const FullHeap&) = delete;
    FullHeap& operator=(const FullHeap&) = delete;
};

// How many calls there is room for without more memory; they stay pending.
int calls_without_memory(int* counter) {
    const FullHeap full;
    int calls = 0;
    while (TimerUtilities::DelayedCall(increment, counter, kNever)) {
        ++calls;
    }
    return calls;
}

TEST(DelayedCall, CallsOnceWithTheArgumentAndNotBeforeItsTime) {
    const LogCapture log;
    int called = 0;
    const DWORD start = GetTickCount();
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &called, 20));
    EXPECT_EQ(called, 0);
    pump_one();
    EXPECT_EQ(called, 1);
    EXPECT_GE(GetTickCount() - start, 20u);
    // Its timer is gone: the one that is set now is the next to come.
    int after = 0;
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &after, 40));
    pump_one();
    EXPECT_EQ(called, 1);
    EXPECT_EQ(after, 1);
    EXPECT_TRUE(log.records().empty());
}

TEST(DelayedCall, RunsOnTheThreadThatAskedAndOnlyWhenItPumps) {
    DWORD thread = 0;
    std::function<void()> note = [&] { thread = GetCurrentThreadId(); };
    ASSERT_TRUE(TimerUtilities::DelayedCall(run, &note, 1));
    const HANDLE nothing = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(WaitForSingleObject(nothing, 20), WAIT_TIMEOUT);
    CloseHandle(nothing);
    EXPECT_EQ(thread, 0u);
    pump_one();
    EXPECT_EQ(thread, GetCurrentThreadId());
}

TEST(DelayedCall, ComesWithoutDelayToo) {
    int called = 0;
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &called, 0));
    EXPECT_EQ(called, 0);
    pump_one();
    EXPECT_EQ(called, 1);
}

TEST(DelayedCall, ComeInTheOrderOfTheirTimes) {
    std::vector<int> order;
    std::vector<std::function<void()>> calls;
    for (int i = 0; i < 11; ++i) {
        calls.emplace_back([&order, i] { order.push_back(i); });
    }
    for (int i = 10; i >= 0; --i) {
        ASSERT_TRUE(TimerUtilities::DelayedCall(run, &calls[static_cast<std::size_t>(i)],
                                                5 + 15 * static_cast<unsigned int>(i)));
    }
    for (int i = 0; i < 11; ++i) {
        pump_one();
    }
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(order.size(), 11u);
}

TEST(DelayedCall, GrowsItsTableByTen) {
    int called = 0;
    // Whatever other tests in this process left room for.
    EXPECT_EQ(calls_without_memory(&called) % 10, 0);
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &called, kNever));
    EXPECT_EQ(calls_without_memory(&called), 9);
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &called, 1));
    pump_one();
    EXPECT_EQ(called, 1);
    // A call that is over leaves its place, and the table does not shrink.
    EXPECT_EQ(calls_without_memory(&called), 10);
}

TEST(DelayedCall, FailsWithoutMemoryForTheTable) {
    int called = 0;
    calls_without_memory(&called);
    {
        const LogCapture log;
        const FullHeap full;
        EXPECT_FALSE(TimerUtilities::DelayedCall(increment, &called, 1));
        const auto records = log.records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].source, kTimersSource);
        EXPECT_EQ(records[0].category, kTimersFailure);
        EXPECT_TRUE(records[0].arguments.empty());
    }
    int later = 0;
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &later, 1));
    pump_one();
    EXPECT_EQ(later, 1);
    EXPECT_EQ(called, 0);
}

TEST(DelayedCall, FailsWithoutATimer) {
    int called = 0;
    for (int successes = 0; successes < 20; ++successes) {
        const LastRecord log;
        bool scheduled = false;
        {
            const FailingNew failing(successes);
            scheduled = TimerUtilities::DelayedCall(increment, &called, 1);
        }
        if (scheduled) break;
        ASSERT_LT(successes, 19);
        ASSERT_EQ(log.count, 1);
        EXPECT_EQ(log.record.category, kTimersFailure);
        ASSERT_EQ(log.record.argumentCount, 1);
        EXPECT_EQ(log.record.arguments[0], ERROR_NOT_ENOUGH_MEMORY);
    }
    // One was scheduled, and none of those that failed is left.
    pump_one();
    EXPECT_EQ(called, 1);
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &called, 5));
    pump_one();
    EXPECT_EQ(called, 2);
}

TEST(DelayedCall, MayAskForAnother) {
    struct Chain {
        int left;
        static void step(void* argument) {
            auto* chain = static_cast<Chain*>(argument);
            if (--chain->left > 0) {
                EXPECT_TRUE(TimerUtilities::DelayedCall(step, chain, 1));
            }
        }
    } chain{50};
    ASSERT_TRUE(TimerUtilities::DelayedCall(Chain::step, &chain, 1));
    while (chain.left > 0) {
        pump_one();
    }
}

TEST(DelayedCall, IsOutOfTheTableBeforeItIsCalled) {
    // The function asks for as many calls as there is room for: one of them takes its own place.
    int never = 0;
    calls_without_memory(&never);
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &never, kNever));
    calls_without_memory(&never);
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &never, kNever));
    int room = -1;
    std::function<void()> fill = [&] { room = calls_without_memory(&never); };
    ASSERT_TRUE(TimerUtilities::DelayedCall(run, &fill, 1));
    EXPECT_EQ(calls_without_memory(&never), 8);
    pump_one();
    EXPECT_EQ(room, 1);
    EXPECT_EQ(never, 0);
}

TEST(DelayedCall, MayPumpMessagesItself) {
    int inner = 0;
    std::function<void()> outer = [&] {
        ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &inner, 1));
        pump_one();
        EXPECT_EQ(inner, 1);
    };
    ASSERT_TRUE(TimerUtilities::DelayedCall(run, &outer, 1));
    pump_one();
    EXPECT_EQ(inner, 1);
}

TEST(DelayedCall, KillsItsTimerFirst) {
    UINT_PTR timer = 0;
    BOOL killed = TRUE;
    std::function<void()> look = [&] { killed = KillTimer(nullptr, timer); };
    ASSERT_TRUE(TimerUtilities::DelayedCall(run, &look, 1));
    const MSG message = take_timer();
    timer = message.wParam;
    DispatchMessageW(&message);
    EXPECT_FALSE(killed);
}

TEST(DelayedCall, LogsATimerThatItDoesNotKnow) {
    int called = 0;
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &called, 1));
    const MSG message = take_timer();
    DispatchMessageW(&message);
    EXPECT_EQ(called, 1);
    expect_unknown(message);
    EXPECT_EQ(called, 1);
}

TEST(DelayedCall, LeavesAnAbsentFunctionOut) {
    ASSERT_TRUE(TimerUtilities::DelayedCall(nullptr, nullptr, 1));
    const LogCapture log;
    const MSG message = take_timer();
    DispatchMessageW(&message);
    EXPECT_TRUE(log.records().empty());
    expect_unknown(message);
}

TEST(DelayedCall, OfAThreadThatEndedIsNotMistakenForAnother) {
    int lost = 0;
    std::thread([&] { EXPECT_TRUE(TimerUtilities::DelayedCall(increment, &lost, 1)); }).join();
    int called = 0;
    std::thread([&] {
        EXPECT_TRUE(TimerUtilities::DelayedCall(increment, &called, 1));
        pump_one();
    }).join();
    EXPECT_EQ(called, 1);
    EXPECT_EQ(lost, 0);
}

// Calls come in any order of their timers' messages; each message makes one call that was pending, and no other.
TEST(DelayedCall, KeepsItsTableInAnyOrder) {
    std::mt19937 random(20);
    struct Call {
        std::vector<int>* made;
        int number;
        static void note(void* argument) {
            auto* call = static_cast<Call*>(argument);
            call->made->push_back(call->number);
        }
    };
    for (int round = 0; round < 30; ++round) {
        std::vector<int> made;
        std::vector<Call> calls;
        const int count = 1 + static_cast<int>(random() % 40);
        for (int i = 0; i < count; ++i) {
            calls.push_back({&made, i});
        }
        for (Call& call : calls) {
            ASSERT_TRUE(TimerUtilities::DelayedCall(Call::note, &call, 1 + below(random, 3)));
        }
        std::vector<MSG> messages;
        while (static_cast<int>(messages.size()) < count) {
            const MSG message = take_timer();  // again and again while its timer lives
            const auto same = [&message](const MSG& known) { return known.wParam == message.wParam; };
            if (std::none_of(messages.begin(), messages.end(), same)) messages.push_back(message);
        }
        std::shuffle(messages.begin(), messages.end(), random);
        std::vector<MSG> over;
        for (const MSG& message : messages) {
            const std::size_t before = made.size();
            DispatchMessageW(&message);
            ASSERT_EQ(made.size(), before + 1);
            over.push_back(message);
            if (random() % 4 == 0) expect_unknown(over[random() % over.size()]);
            ASSERT_EQ(made.size(), before + 1);
        }
        std::sort(made.begin(), made.end());
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(made[static_cast<std::size_t>(i)], i);
        }
    }
}

// Calls with random delays, some of which ask for more: each is made once and none early.
TEST(DelayedCall, AgreesWithAModel) {
    struct Model {
        struct Entry {
            Model* model;
            std::size_t number;
            DWORD due;
            int made;
        };
        std::mt19937 random{7};
        std::vector<std::unique_ptr<Entry>> entries;
        int pending = 0;

        void schedule() {
            const DWORD delay = below(random, 25);
            entries.push_back(std::make_unique<Entry>(Entry{this, entries.size(), GetTickCount() + delay, 0}));
            ASSERT_TRUE(TimerUtilities::DelayedCall(make, entries.back().get(), delay));
            ++pending;
        }
        static void make(void* argument) {
            auto* entry = static_cast<Entry*>(argument);
            Model& model = *entry->model;
            ++entry->made;
            --model.pending;
            EXPECT_GE(static_cast<LONG>(GetTickCount() - entry->due), 0);
            for (unsigned more = below(model.random, 3); more > 0 && model.entries.size() < 2000; --more) {
                model.schedule();
            }
        }
    } model;
    while (model.entries.size() < 2000 || model.pending > 0) {
        for (unsigned burst = below(model.random, 20); burst > 0 && model.entries.size() < 2000; --burst) {
            model.schedule();
        }
        if (model.pending > 0) pump_one();
    }
    for (const auto& entry : model.entries) {
        ASSERT_EQ(entry->made, 1) << entry->number;
    }
}

TEST(DelayedCall, ServesThousandsAtOnce) {
    constexpr int kCalls = 5000;
    int called = 0;
    for (int i = 0; i < kCalls; ++i) {
        ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &called, 1 + static_cast<unsigned int>(i) % 50));
    }
    while (called < kCalls) {
        pump_one();
    }
    int last = 0;
    ASSERT_TRUE(TimerUtilities::DelayedCall(increment, &last, 2));
    pump_one();
    EXPECT_EQ(last, 1);
    EXPECT_EQ(called, kCalls);
}

}  // namespace
