// Processes that are killed at any moment while they use named objects.

#include <atomic>
#include <memory>
#include <random>

#include "platform/kernel/named/support.h"
#include "support/instrumented.h"

using namespace zr::test;

namespace {

class Random {
public:
    explicit Random(unsigned seed) : random_(seed) {}
    std::uint32_t operator()() { return static_cast<std::uint32_t>(random_()); }

private:
    std::mt19937 random_;
};

constexpr DWORD kLong = 60000;  // a wait that takes this long is stuck

void spin(std::uint32_t microseconds) {
    LARGE_INTEGER frequency{};
    LARGE_INTEGER begin{};
    LARGE_INTEGER now{};
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&begin);
    do {
        QueryPerformanceCounter(&now);
    } while ((now.QuadPart - begin.QuadPart) * 1'000'000 / frequency.QuadPart < microseconds);
}

// Does all that can be done with a few names, for ever.
class Busy {
public:
    explicit Busy(unsigned seed) : random_(seed) {}

    [[noreturn]] void run() {
        for (;;) {
            switch (random() % 6) {
                case 0:
                case 1:
                    lock();
                    break;
                case 2:
                    signal();
                    break;
                case 3:
                    wait();
                    break;
                case 4:
                    map();
                    break;
                default:
                    come_and_go();
            }
        }
    }

private:
    std::u16string name(const char16_t* kind) {
        return kind + std::u16string(1, static_cast<char16_t>(u'0' + random() % 3));
    }
    DWORD while_() { return random() % 3; }

    void lock() {
        const Handle mine = named_mutex(name(u"lock").c_str(), random() % 2 == 0);
        const Handle other = named_mutex(name(u"lock").c_str());
        const DWORD got = WaitForSingleObject(other, while_());
        if (random() % 4 != 0 && got != WAIT_TIMEOUT) ReleaseMutex(other);
        ReleaseMutex(mine);
        ReleaseMutex(mine);
    }
    void signal() {
        const Handle event = named_event(name(u"event").c_str(), random() % 2 == 0);
        EventModify(event, 1 + random() % 3);
    }
    void wait() {
        const Handle plain = auto_event();
        const Handle lock = named_mutex(name(u"lock").c_str());
        const Handle event = named_event(name(u"event").c_str());
        const HANDLE all[] = {event, lock, plain};
        const DWORD got = WaitForMultipleObjects(2 + random() % 2, all, random() % 2 == 0, while_());
        if (got != WAIT_TIMEOUT) ReleaseMutex(lock);
    }
    void map() {
        const Handle memory = named_mapping(name(u"memory").c_str(), 10000);
        if (void* view = MapViewOfFile(memory, FILE_MAP_WRITE, 0, 0, 0)) {
            static_cast<volatile char*>(view)[random() % 10000] = 1;
            UnmapViewOfFile(view);
        }
    }
    void come_and_go() {
        named_event(std::u16string(20 + random() % 400, static_cast<char16_t>(random() % 20 + 1)).c_str());
    }

    std::uint32_t random() { return static_cast<std::uint32_t>(random_()); }

    std::mt19937 random_;
};

// A thread that takes and gives back a mutex until it is told to stop; counts the waits that did not end.
DWORD keep_locking(const char16_t* name, const std::atomic<bool>& stop, int& stuck) {
    const Handle lock = named_mutex(name);
    while (!stop) {
        const DWORD got = WaitForSingleObject(lock, kLong);
        if (got != WAIT_OBJECT_0 && got != WAIT_ABANDONED) return static_cast<DWORD>(++stuck);
        ReleaseMutex(lock);
        Sleep(1);  // leaves the processors to those that are to be killed
    }
    return 0;
}

}  // namespace

// Lock owners, event setters and makers of mappings, 1,000 of them, while two threads here want the same locks.
TEST(NamedKill, ManyAtRandomMoments) {
    Random random(20261121);
    const Handle anchor = named_event(u"anchor");
    std::atomic<bool> stop = false;
    int stuck[2] = {};
    {
        Worker first([&] { return keep_locking(u"lock0", stop, stuck[0]); });
        Worker second([&] { return keep_locking(u"lock1", stop, stuck[1]); });
        std::unique_ptr<Fork> busy[2];
        for (int round = 0; round < 1000 / kStride; ++round) {
            std::unique_ptr<Fork>& one = busy[round % std::size(busy)];
            one.reset();  // killed
            const unsigned seed = random();
            one = std::make_unique<Fork>([&] {
                Fork::say('b');
                Busy(seed).run();
                return 0;
            });
            ASSERT_EQ(one->hear(), 'b');
            spin(random() % 1000);
        }
        for (auto& one : busy) {
            one.reset();
        }
        stop = true;
    }
    EXPECT_EQ(stuck[0], 0);
    EXPECT_EQ(stuck[1], 0);
    // Nothing is left of them: no name, no file, and no more room taken than a few processes need at a time.
    const std::vector<Listed> left = listed();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].name, u"anchor");
    EXPECT_TRUE(content_files().empty());
    EXPECT_LE(region_size(), 6u * 64 * 1024);
    for (const char16_t* name : {u"lock0", u"lock1", u"lock2"}) {
        const Handle lock = named_mutex(name);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
        ReleaseMutex(lock);
    }
}

// The first in the queue is dead: the signal goes to the second.
TEST(NamedKill, ADeadWaiterGetsNoSignal) {
    const Handle event = named_event(u"signal");
    for (int round = 0; round < 20; ++round) {
        Fork dead([] {
            const Handle mine = named_event(u"signal");
            Fork::say('w');
            return WaitForSingleObject(mine, INFINITE) == WAIT_OBJECT_0 ? 0 : 1;
        });
        ASSERT_EQ(dead.hear(), 'w');
        spin(300);
        Worker second([&] { return WaitForSingleObject(event, kLong); });
        second.until_asleep();
        dead.kill();
        SetEvent(event);
        EXPECT_EQ(second.join(), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    }
}

// Killed while it is being chosen: it may have had the first signal, then the second one is the other's.
TEST(NamedKill, AWaiterKilledWhileItIsChosen) {
    Random random(7);
    const Handle event = named_event(u"chosen");
    for (int round = 0; round < 200; ++round) {
        auto dying = std::make_unique<Fork>([] {
            const Handle mine = named_event(u"chosen");
            Fork::say('w');
            WaitForSingleObject(mine, INFINITE);
            pause();
            return 0;
        });
        ASSERT_EQ(dying->hear(), 'w');
        Worker second([&] { return WaitForSingleObject(event, kLong); });
        Worker setter([&, pause = random() % 200] {
            spin(pause);
            SetEvent(event);
            return DWORD{0};
        });
        spin(random() % 200);
        dying.reset();
        setter.join();
        SetEvent(event);
        EXPECT_EQ(second.join(), WAIT_OBJECT_0);
        ResetEvent(event);
    }
}

// Three wait in a row, the owner dies, then each new owner dies: everybody is told once.
TEST(NamedKill, AChainOfDeadOwners) {
    const Handle lock = named_mutex(u"chain");
    for (int round = 0; round < 10; ++round) {
        std::vector<std::unique_ptr<Fork>> chain;
        for (int i = 0; i < 4; ++i) {
            chain.push_back(std::make_unique<Fork>([] {
                const Handle mine = named_mutex(u"chain");
                Fork::say('w');
                const DWORD got = WaitForSingleObject(mine, INFINITE);
                Fork::say(got == WAIT_ABANDONED ? 'a' : got == WAIT_OBJECT_0 ? 'o' : '?');
                pause();
                return 0;
            }));
            ASSERT_EQ(chain.back()->hear(), 'w');
        }
        std::string heard;
        while (!chain.empty()) {
            const std::size_t owner = Fork::next_to_speak(chain);
            heard += chain[owner]->hear();
            chain.erase(chain.begin() + static_cast<std::ptrdiff_t>(owner));  // killed
        }
        EXPECT_EQ(heard, "oaaa");
        EXPECT_EQ(WaitForSingleObject(lock, kLong), WAIT_ABANDONED);
        ReleaseMutex(lock);
    }
}

// The process that would notice the death dies with the owner.
TEST(NamedKill, TheWatcherDiesToo) {
    const Handle lock = named_mutex(u"watched");
    for (int round = 0; round < 50; ++round) {
        std::vector<std::unique_ptr<Fork>> all;
        for (int i = 0; i < 4; ++i) {
            all.push_back(std::make_unique<Fork>([i] {
                const Handle mine = named_mutex(u"watched");
                if (i == 2) WaitForSingleObject(mine, INFINITE);
                Fork::say('r');
                pause();
                return 0;
            }));
            ASSERT_EQ(all.back()->hear(), 'r');
        }
        Worker waiter([&] {
            const DWORD got = WaitForSingleObject(lock, kLong);
            ReleaseMutex(lock);
            return got;
        });
        waiter.until_asleep();
        for (const auto& one : all) {
            ::kill(one->pid(), SIGKILL);
        }
        EXPECT_EQ(waiter.join(), WAIT_ABANDONED);
    }
}
