// Whatever one thread wrote before it handed something over, the other one sees: plain memory, through every way that
// the families offer. A memory order that is too weak shows as a torn or an old letter on a computer whose processor
// reorders, and as a race under the thread sanitizer on any.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/kernel/kernel_support.h"
#include "platform/platform.h"
#include "support/child.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

constexpr DWORD kInTime = 60'000;
constexpr std::uint32_t kTurns = kInstrumented ? 400 : 4000;
constexpr UINT kPosted = WM_APP + 1;

// Lies on several cache lines, so that a part of it can be late.
struct Letter {
    std::array<std::uint32_t, 64> words;

    void write(std::uint32_t turn) { words.fill(turn); }
    bool says(std::uint32_t turn) const {
        return std::ranges::all_of(words, [turn](std::uint32_t word) { return word == turn; });
    }
};

// Two sides; what one side hands over, the other one awaits.
class Way {
public:
    Way() = default;
    virtual ~Way() = default;
    Way(const Way&) = delete;
    Way& operator=(const Way&) = delete;

    virtual void begin(int /*side*/) {}  // on the side's thread, before either hands anything over
    virtual void hand_over(int to) = 0;
    virtual bool await(int side) = 0;
};

bool has_come(HANDLE handle) {
    return WaitForSingleObject(handle, kInTime) == WAIT_OBJECT_0;
}

class ByEvents : public Way {
public:
    explicit ByEvents(bool manual, const WCHAR* first = nullptr, const WCHAR* second = nullptr)
        : manual_(manual),
          events_{Handle(CreateEventW(nullptr, manual, FALSE, first)),
                  Handle(CreateEventW(nullptr, manual, FALSE, second))} {}
    void hand_over(int to) override { SetEvent(events_[to]); }
    bool await(int side) override { return has_come(events_[side]) && (!manual_ || ResetEvent(events_[side])); }

private:
    bool manual_;
    Handle events_[2];
};

class BySemaphores : public Way {
public:
    explicit BySemaphores(const WCHAR* first = nullptr, const WCHAR* second = nullptr)
        : semaphores_{Handle(CreateSemaphoreW(nullptr, 0, 1, first)), Handle(CreateSemaphoreW(nullptr, 0, 1, second))} {
    }
    void hand_over(int to) override { ReleaseSemaphore(semaphores_[to], 1, nullptr); }
    bool await(int side) override { return has_come(semaphores_[side]); }

private:
    Handle semaphores_[2];
};

// Each side gives both of the other's objects, which awaits them together.
class ByWaitForAll : public Way {
public:
    void hand_over(int to) override {
        ReleaseSemaphore(semaphores_[to], 1, nullptr);
        SetEvent(events_[to]);
    }
    bool await(int side) override {
        const HANDLE both[] = {events_[side], semaphores_[side]};
        return WaitForMultipleObjects(2, both, TRUE, kInTime) == WAIT_OBJECT_0;
    }

private:
    Handle events_[2] = {auto_event(), auto_event()};
    Handle semaphores_[2] = {Handle(CreateSemaphoreW(nullptr, 0, 1, nullptr)),
                             Handle(CreateSemaphoreW(nullptr, 0, 1, nullptr))};
};

// What says whose turn it is, is as plain as the letter; a lock guards both.
class ByLock : public Way {
public:
    void hand_over(int to) override {
        lock();
        turn_ = to;
        unlock();
    }
    bool await(int side) override {
        for (;;) {
            lock();
            const bool mine = turn_ == side;
            unlock();
            if (mine) return true;
            std::this_thread::yield();
        }
    }

private:
    virtual void lock() = 0;
    virtual void unlock() = 0;

    int turn_ = -1;
};

class ByMutex : public ByLock {
public:
    explicit ByMutex(const WCHAR* name = nullptr) : mutex_(CreateMutexW(nullptr, FALSE, name)) {}

private:
    void lock() override { WaitForSingleObject(mutex_, INFINITE); }
    void unlock() override { ReleaseMutex(mutex_); }

    Handle mutex_;
};

class ByCriticalSection : public ByLock {
public:
    ByCriticalSection() { InitializeCriticalSection(&section_); }
    ~ByCriticalSection() override { DeleteCriticalSection(&section_); }

private:
    void lock() override { EnterCriticalSection(&section_); }
    void unlock() override { LeaveCriticalSection(&section_); }

    CRITICAL_SECTION section_;
};

class ByInterlocked : public Way {
public:
    void hand_over(int to) override { InterlockedExchange(&turn_, to); }
    bool await(int side) override {
        while (InterlockedCompareExchange(&turn_, -1, side) != side) {
            std::this_thread::yield();
        }
        return true;
    }

private:
    LONG turn_ = -1;
};

class ByPostedMessages : public Way {
public:
    void begin(int side) override {
        MSG message;
        PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // makes the thread's queue
        threads_[side] = GetCurrentThreadId();
        SetEvent(ready_[side]);
        has_come(ready_[1 - side]);
    }
    void hand_over(int to) override { PostThreadMessageW(threads_[to], kPosted, 0, 0); }
    bool await(int /*side*/) override {
        MSG message;
        return GetMessageW(&message, nullptr, kPosted, kPosted) > 0;
    }

private:
    DWORD threads_[2] = {};
    Handle ready_[2] = {manual_event(), manual_event()};
};

// Each side has a window whose procedure takes what is sent; it is sent while the other side awaits.
class BySentMessages : public Way {
public:
    void begin(int side) override {
        WNDCLASSW shape = {};
        shape.lpfnWndProc = &take;
        shape.lpszClassName = u"handover.test";
        RegisterClassW(&shape);
        windows_[side] =
            CreateWindowExW(0, u"handover.test", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        SetEvent(ready_[side]);
        has_come(ready_[1 - side]);
    }
    void hand_over(int to) override { SendNotifyMessageW(windows_[to], kPosted, 0, 0); }
    bool await(int /*side*/) override {
        MSG message;
        while (taken_ == 0) {
            if (MsgWaitForMultipleObjectsEx(0, nullptr, kInTime, QS_ALLINPUT, 0) != WAIT_OBJECT_0) return false;
            while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
                DispatchMessageW(&message);
            }
        }
        --taken_;
        return true;
    }

private:
    static LRESULT take(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message != kPosted) return DefWindowProcW(window, message, wparam, lparam);
        ++taken_;
        return 0;
    }

    static thread_local int taken_;
    HWND windows_[2] = {};
    Handle ready_[2] = {manual_event(), manual_event()};
};

thread_local int BySentMessages::taken_ = 0;

// Reads what the other side wrote and answers, `kTurns` times. The first letter is from side 0.
std::string play(Way& way, Letter& letter, int side) {
    for (std::uint32_t turn = side == 0 ? 0 : 1; turn < kTurns; turn += 2) {
        if (turn != 0 && !way.await(side)) return "nothing came in turn " + std::to_string(turn);
        if (!letter.says(turn)) return "another letter in turn " + std::to_string(turn);
        letter.write(turn + 1);
        way.hand_over(1 - side);
    }
    return "";
}

struct NamedWay {
    const char* name;
    std::function<std::unique_ptr<Way>()> make;
};

// googletest prints parameters into the names of tests.
void PrintTo(const NamedWay& way, std::ostream* out) {
    *out << way.name;
}

class HandOver : public testing::TestWithParam<NamedWay> {};

TEST_P(HandOver, OfPlainMemoryBetweenThreads) {
    const std::unique_ptr<Way> way = GetParam().make();
    Letter letter = {};
    std::string troubles[2];
    {
        std::vector<std::unique_ptr<Worker>> sides;
        for (int side = 0; side < 2; ++side) {
            sides.push_back(std::make_unique<Worker>([&, side] {
                way->begin(side);
                troubles[side] = play(*way, letter, side);
                return DWORD{0};
            }));
        }
    }
    EXPECT_EQ(troubles[0], "");
    EXPECT_EQ(troubles[1], "");
    EXPECT_TRUE(letter.says(kTurns)) << "what threads wrote is seen by who awaited their end";
}

const NamedWay kWays[] = {
    {"AutoEvents", [] { return std::make_unique<ByEvents>(false); }},
    {"ManualEvents", [] { return std::make_unique<ByEvents>(true); }},
    {"NamedEvents", [] { return std::make_unique<ByEvents>(false, u"handover.0", u"handover.1"); }},
    {"NamedManualEvents", [] { return std::make_unique<ByEvents>(true, u"handover.0", u"handover.1"); }},
    {"Semaphores", [] { return std::make_unique<BySemaphores>(); }},
    {"NamedSemaphores", [] { return std::make_unique<BySemaphores>(u"handover.0", u"handover.1"); }},
    {"WaitForAll", [] { return std::make_unique<ByWaitForAll>(); }},
    {"Mutex", [] { return std::make_unique<ByMutex>(); }},
    {"NamedMutex", [] { return std::make_unique<ByMutex>(u"handover"); }},
    {"CriticalSection", [] { return std::make_unique<ByCriticalSection>(); }},
    {"Interlocked", [] { return std::make_unique<ByInterlocked>(); }},
    {"PostedMessages", [] { return std::make_unique<ByPostedMessages>(); }},
    {"SentMessages", [] { return std::make_unique<BySentMessages>(); }},
};
INSTANTIATE_TEST_SUITE_P(Ways, HandOver, testing::ValuesIn(kWays),
                         [](const auto& way) { return std::string(way.param.name); });

// --- Between processes

class Mapped {
public:
    explicit Mapped(const WCHAR* name)
        : mapping_(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Letter), name)),
          letter_(static_cast<Letter*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, 0))) {}
    ~Mapped() { UnmapViewOfFile(letter_); }
    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;

    Letter& letter() { return *letter_; }

private:
    Handle mapping_;
    Letter* letter_;
};

std::unique_ptr<Way> shared_way(const std::string& kind) {
    if (kind == "semaphores") return std::make_unique<BySemaphores>(u"handover.0", u"handover.1");
    return std::make_unique<ByEvents>(kind == "manual", u"handover.0", u"handover.1");
}

ZR_CHILD(answer_letters) {
    Mapped memory(u"handover.letter");
    const auto way = shared_way(hear());
    say("ready");
    say("played " + play(*way, memory.letter(), 1));
    return hear() == "end" ? 0 : 1;
}

class HandOverOutside : public testing::TestWithParam<const char*> {};

TEST_P(HandOverOutside, OfPlainMemoryBetweenProcesses) {
    Mapped memory(u"handover.letter");
    const auto way = shared_way(GetParam());
    Child other("answer_letters");
    other.say(GetParam());
    ASSERT_EQ(other.hear(), "ready");
    EXPECT_EQ(play(*way, memory.letter(), 0), "");
    EXPECT_EQ(other.hear(), "played ");
    EXPECT_TRUE(memory.letter().says(kTurns));
    other.say("end");
    EXPECT_EQ(other.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Ways, HandOverOutside, testing::Values("auto", "manual", "semaphores"));

}  // namespace
