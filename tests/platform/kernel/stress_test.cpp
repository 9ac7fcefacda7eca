#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <vector>

#include "platform/kernel/kernel_support.h"

using namespace zr::test;

TEST(Stress, EverySignalReachesExactlyOneOfManyWaiters) {
    constexpr int kThreads = 16;
    constexpr int kSignals = 5000;
    const Handle event = auto_event();
    const Handle taken = auto_event();
    const Handle stop = manual_event();
    std::atomic<int> count = 0;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < kThreads; ++i) {
        workers.push_back(std::make_unique<Worker>([&] {
            const HANDLE handles[] = {event, stop};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0) {
                ++count;
                SetEvent(taken);
            }
            return DWORD{0};
        }));
    }
    for (int i = 0; i < kSignals; ++i) {
        SetEvent(event);
        ASSERT_EQ(WaitForSingleObject(taken, 60000), WAIT_OBJECT_0);
    }
    EXPECT_EQ(count, kSignals);
    SetEvent(stop);
    workers.clear();
    EXPECT_EQ(count, kSignals);
}

TEST(Stress, SixtyFourThreadsOnOneMutex) {
    const Handle lock = mutex();
    int value = 0;  // plain on purpose
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 64; ++i) {
        workers.push_back(std::make_unique<Worker>([&] {
            for (int round = 0; round < 200; ++round) {
                WaitForSingleObject(lock, INFINITE);
                WaitForSingleObject(lock, INFINITE);
                ++value;
                ReleaseMutex(lock);
                ReleaseMutex(lock);
            }
            return DWORD{0};
        }));
    }
    workers.clear();
    EXPECT_EQ(value, 64 * 200);
}

// Each thread takes a random set of the mutexes in random order in one wait for all: no set order, no deadlock, and
// nobody else inside. A mutex that is taken one by one in such orders would deadlock at once.
TEST(Stress, WaitForAllNeverDeadlocksOrShares) {
    constexpr std::size_t kMutexes = 5;
    std::array<Handle, kMutexes> locks;
    std::array<std::atomic<int>, kMutexes> inside{};
    for (Handle& lock : locks) {
        lock = mutex();
    }
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned i = 0; i < 6; ++i) {
        workers.push_back(std::make_unique<Worker>([&, i] {
            std::mt19937 random(i);
            for (int round = 0; round < 400; ++round) {
                std::vector<std::size_t> chosen = {0, 1, 2, 3, 4};
                std::shuffle(chosen.begin(), chosen.end(), random);
                chosen.resize(1 + random() % kMutexes);
                std::vector<HANDLE> handles;
                for (const std::size_t which : chosen) {
                    handles.push_back(locks[which]);
                }
                const DWORD count = static_cast<DWORD>(handles.size());
                EXPECT_EQ(WaitForMultipleObjects(count, handles.data(), TRUE, INFINITE), WAIT_OBJECT_0);
                for (const std::size_t which : chosen) {
                    EXPECT_EQ(++inside[which], 1);
                }
                for (const std::size_t which : chosen) {
                    --inside[which];
                    EXPECT_TRUE(ReleaseMutex(locks[which]));
                }
            }
            return DWORD{0};
        }));
    }
}

// Tokens travel between auto-reset events: a wait for all takes a pair at once and gives it back elsewhere. However the
// threads meet, the number of tokens stays.
TEST(Stress, WaitForAllKeepsTheNumberOfSignals) {
    constexpr std::size_t kEvents = 6;
    std::array<Handle, kEvents> events;
    for (std::size_t i = 0; i < kEvents; ++i) {
        events[i] = auto_event(i < 4);
    }
    std::atomic<int> moves = 0;
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned i = 0; i < 4; ++i) {
        workers.push_back(std::make_unique<Worker>([&, i] {
            std::mt19937 random(100 + i);
            for (int round = 0; round < 2000; ++round) {
                const std::size_t a = random() % kEvents;
                const std::size_t b = (a + 1 + random() % (kEvents - 1)) % kEvents;
                const HANDLE pair[] = {events[a], events[b]};
                if (WaitForMultipleObjects(2, pair, TRUE, random() % 2) != WAIT_OBJECT_0) continue;
                ++moves;
                SetEvent(pair[0]);
                SetEvent(pair[1]);
            }
            return DWORD{0};
        }));
    }
    workers.clear();
    int left = 0;
    for (const Handle& event : events) {
        left += WaitForSingleObject(event, 0) == WAIT_OBJECT_0 ? 1 : 0;
    }
    EXPECT_EQ(left, 4);
    EXPECT_GT(moves, 0);
}

namespace {

// What one thread expects of a handful of objects that only it uses.
struct WaitModel {
    struct Object {
        Handle handle;
        bool is_mutex = false;
        bool manual = false;
        bool set = false;
        int holds = 0;
    };
    std::vector<Object> objects;

    static bool ready(const Object& object) { return object.is_mutex || object.set; }
    static void take(Object& object) {
        if (object.is_mutex) {
            ++object.holds;
        } else if (!object.manual) {
            object.set = false;
        }
    }
    DWORD wait(const std::vector<std::size_t>& chosen, bool all) {
        if (all) {
            for (const std::size_t i : chosen) {
                if (!ready(objects[i])) return WAIT_TIMEOUT;
            }
            for (const std::size_t i : chosen) {
                take(objects[i]);
            }
            return WAIT_OBJECT_0;
        }
        for (std::size_t n = 0; n < chosen.size(); ++n) {
            if (!ready(objects[chosen[n]])) continue;
            take(objects[chosen[n]]);
            return WAIT_OBJECT_0 + static_cast<DWORD>(n);
        }
        return WAIT_TIMEOUT;
    }
};

void random_step(WaitModel& model, std::mt19937& random) {
    const std::size_t which = random() % model.objects.size();
    WaitModel::Object& object = model.objects[which];
    switch (random() % 6) {
        case 0:
            EXPECT_EQ(SetEvent(object.handle) != FALSE, !object.is_mutex);
            object.set = true;
            break;
        case 1:
            EXPECT_EQ(ResetEvent(object.handle) != FALSE, !object.is_mutex);
            object.set = false;
            break;
        case 2:
            EXPECT_EQ(PulseEvent(object.handle) != FALSE, !object.is_mutex);
            object.set = false;
            break;
        case 3:
            EXPECT_EQ(ReleaseMutex(object.handle) != FALSE, object.holds > 0);
            if (object.holds > 0) --object.holds;
            break;
        case 4:
            EXPECT_EQ(WaitForSingleObject(object.handle, 0), model.wait({which}, false));
            break;
        default: {
            std::vector<std::size_t> chosen(model.objects.size());
            for (std::size_t i = 0; i < chosen.size(); ++i) {
                chosen[i] = i;
            }
            std::shuffle(chosen.begin(), chosen.end(), random);
            chosen.resize(1 + random() % chosen.size());
            std::vector<HANDLE> handles;
            for (const std::size_t i : chosen) {
                handles.push_back(model.objects[i].handle);
            }
            const bool all = random() % 2 == 0;
            EXPECT_EQ(WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), all, 0),
                      model.wait(chosen, all));
        }
    }
}

}  // namespace

TEST(Stress, RandomOperationsFollowTheModel) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned seed = 0; seed < 4; ++seed) {
        workers.push_back(std::make_unique<Worker>([seed] {
            std::mt19937 random(seed);
            WaitModel model;
            for (int i = 0; i < 6; ++i) {
                WaitModel::Object object;
                object.is_mutex = i >= 4;
                object.manual = i >= 2;
                object.set = !object.is_mutex && i % 2 == 1;
                object.handle =
                    object.is_mutex ? mutex() : Handle(CreateEventW(nullptr, object.manual, object.set, nullptr));
                model.objects.push_back(std::move(object));
            }
            for (int step = 0; step < 5000; ++step) {
                random_step(model, random);
            }
            return DWORD{0};
        }));
    }
}

TEST(Stress, ThreadsComeAndGo) {
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    for (int round = 0; round < 20; ++round) {
        std::vector<std::unique_ptr<Worker>> workers;
        std::vector<HANDLE> all;
        for (DWORD i = 0; i < 16; ++i) {
            workers.push_back(std::make_unique<Worker>([i] { return i; }));
            all.push_back(workers.back()->handle());
        }
        EXPECT_EQ(WaitForMultipleObjects(16, all.data(), TRUE, INFINITE), WAIT_OBJECT_0);
        for (DWORD i = 0; i < 16; ++i) {
            EXPECT_EQ(workers[i]->join(), i);
        }
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
}
