#include "platform/notify.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/shared_memory.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/time.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/own_process.h"
#include "support/time_changes.h"

namespace {

namespace fs = std::filesystem;
using zr::test::Child;
using zr::test::TimeChanges;

const std::u16string kPrefix = NAMED_EVENT_PREFIX_TEXT;

BOOL request(const std::u16string& name, LONG system_event = NOTIFICATION_EVENT_TIME_CHANGE) {
    return CeRunAppAtEvent((kPrefix + name).c_str(), system_event);
}

// A registered event; neither outlives the object. Auto-reset, so that each signal is seen once.
class Watched {
public:
    explicit Watched(std::u16string name, LONG system_event = NOTIFICATION_EVENT_TIME_CHANGE, BOOL manual = FALSE)
        : name_(std::move(name)), event_(CreateEventW(nullptr, manual, FALSE, name_.c_str())) {
        EXPECT_NE(event_, nullptr);
        EXPECT_TRUE(request(name_, system_event));
    }
    ~Watched() {
        EXPECT_TRUE(request(name_, NOTIFICATION_EVENT_NONE));
        CloseHandle(event_);
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    HANDLE event() const { return event_; }
    bool wait() const { return WaitForSingleObject(event_, INFINITE) == WAIT_OBJECT_0; }
    bool is_set() const { return WaitForSingleObject(event_, 0) == WAIT_OBJECT_0; }

private:
    std::u16string name_;
    HANDLE event_;
};

// Returns when everything that was changed before has been looked at: a change that is announced after it follows it,
// and what is found together with the first one is announced before the second.
void let_pass(const TimeChanges& changes) {
    const Watched fence(u"fence");
    for (int i = 0; i < 2; ++i) {
        changes.set_clock();
        EXPECT_TRUE(fence.wait());
    }
}

int count_entries(const char* folder) {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder)) {
        ++count;
    }
    return count;
}

// Returns when that many threads watch: one takes its name after it began, and may be listed for a moment after it
// ended.
void until_watching(int count) {
    int found = -1;
    while (found != count) {
        found = 0;
        for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
            std::string name;
            std::ifstream(entry.path() / "comm") >> name;
            found += name == "zr-host" ? 1 : 0;
        }
    }
}

// How many descriptors there are once no more than so many threads are left.
int descriptors_of(int threads) {
    EXPECT_TRUE(zr::test::until_threads(threads));
    return zr::test::count_descriptors();
}

void expect_refused(LPCWSTR application, LONG system_event, DWORD error) {
    SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(CeRunAppAtEvent(application, system_event));
    EXPECT_EQ(GetLastError(), error);
}

}  // namespace

TEST(Notify, RefusesWhatIsNoNamedEvent) {
    const std::u16string longest = kPrefix + std::u16string(MAX_PATH - 1, u'n');
    const std::u16string too_long = longest + u"n";
    for (const LONG system_event : {NOTIFICATION_EVENT_TIME_CHANGE, NOTIFICATION_EVENT_NONE}) {
        expect_refused(nullptr, system_event, ERROR_INVALID_PARAMETER);
        expect_refused(kPrefix.c_str(), system_event, ERROR_INVALID_PARAMETER);
        expect_refused(too_long.c_str(), system_event, ERROR_INVALID_PARAMETER);
        expect_refused(u"", system_event, ERROR_NOT_SUPPORTED);
        expect_refused(u"\\Windows\\clock.exe", system_event, ERROR_NOT_SUPPORTED);
        expect_refused(u"\\\\.\\Notifications\\NamedEvents", system_event, ERROR_NOT_SUPPORTED);
    }
    const TimeChanges changes;
    EXPECT_TRUE(CeRunAppAtEvent(longest.c_str(), NOTIFICATION_EVENT_TIME_CHANGE));
    EXPECT_TRUE(CeRunAppAtEvent(longest.c_str(), NOTIFICATION_EVENT_NONE));
}

TEST(Notify, RefusesOtherSystemEvents) {
    const std::u16string path = kPrefix + u"x";
    expect_refused(path.c_str(), -1, ERROR_INVALID_PARAMETER);
    expect_refused(path.c_str(), NOTIFICATION_EVENT_LAST + 1, ERROR_INVALID_PARAMETER);
    for (LONG event = 1; event <= NOTIFICATION_EVENT_LAST; ++event) {
        if (event == NOTIFICATION_EVENT_TIME_CHANGE || event == NOTIFICATION_EVENT_TZ_CHANGE) continue;
        expect_refused(path.c_str(), event, ERROR_NOT_SUPPORTED);
    }
}

TEST(Notify, SetsTheEventWhenTheClockIsSet) {
    const TimeChanges changes;
    const Watched watched(u"clock");
    EXPECT_FALSE(watched.is_set());
    for (int i = 0; i < 3; ++i) {
        changes.set_clock();
        EXPECT_TRUE(watched.wait());
    }
}

TEST(Notify, TakesThePrefixInAnyLetterCaseAndTheNameAsItIs) {
    const TimeChanges changes;
    const Watched lower(u"name");
    const Watched upper(u"NAME", NOTIFICATION_EVENT_TZ_CHANGE);
    EXPECT_TRUE(CeRunAppAtEvent(u"\\\\.\\NOTIFICATIONS\\namedevents\\other", NOTIFICATION_EVENT_TIME_CHANGE));
    const HANDLE other = CreateEventW(nullptr, FALSE, FALSE, u"other");
    changes.set_clock();
    EXPECT_EQ(WaitForSingleObject(other, INFINITE), WAIT_OBJECT_0);
    CloseHandle(other);
    EXPECT_TRUE(lower.wait());
    let_pass(changes);
    EXPECT_FALSE(upper.is_set());
    EXPECT_TRUE(request(u"other", NOTIFICATION_EVENT_NONE));
}

TEST(Notify, LeavesAManualResetEventSet) {
    const TimeChanges changes;
    const Watched watched(u"manual", NOTIFICATION_EVENT_TIME_CHANGE, TRUE);
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
    EXPECT_TRUE(watched.is_set());
    EXPECT_TRUE(ResetEvent(watched.event()));
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
}

TEST(Notify, SetsTheEventForEachWayToChangeTheZone) {
    const TimeChanges changes;
    const Watched time(u"time");
    const Watched zone(u"zone", NOTIFICATION_EVENT_TZ_CHANGE);
    const auto expect_change = [&](const char* how) {
        SCOPED_TRACE(how);
        EXPECT_TRUE(zone.wait());
        EXPECT_TRUE(time.wait());
        let_pass(changes);
        EXPECT_TRUE(time.is_set());  // by let_pass
        EXPECT_FALSE(zone.is_set());
    };
    changes.set_zone("Second");
    expect_change("another link in its place");
    changes.make_zone("Second", "TZif2 with other rules\n");
    expect_change("the link's target rewritten");
    changes.make_zone("Third", "TZif2 with yet other rules\n");
    fs::rename(changes.folder() / "Third", changes.folder() / "Second");
    expect_change("the link's target replaced");
    fs::create_directory(changes.folder() / "far");
    changes.make_zone("far/Fourth");
    changes.link_zone("far/Fourth");
    expect_change("a link into another folder");
    changes.make_zone("far/Fourth", "TZif2 again\n");
    expect_change("the far target rewritten");
    fs::remove(changes.zone_file());
    expect_change("no file: UTC");
    changes.make_zone("localtime", "TZif2 a plain file\n");
    expect_change("a plain file");
    changes.make_zone("localtime", "TZif2 another plain file\n");
    expect_change("the plain file rewritten");
    changes.make_zone("Fifth");
    fs::rename(changes.folder() / "Fifth", changes.zone_file());
    expect_change("the plain file replaced");
}

TEST(Notify, FollowsLinksToLinks) {
    const TimeChanges changes;
    fs::create_directory(changes.folder() / "a");
    fs::create_directory(changes.folder() / "b");
    changes.make_zone("b/Zone");
    fs::create_symlink("../b/Zone", changes.folder() / "a/link");
    changes.link_zone("a/link");
    const Watched zone(u"zone", NOTIFICATION_EVENT_TZ_CHANGE);
    changes.make_zone("b/Zone", "TZif2 changed\n");
    EXPECT_TRUE(zone.wait());
    changes.make_zone("b/Other");
    fs::remove(changes.folder() / "a/link");
    EXPECT_TRUE(zone.wait());
    fs::create_symlink("../b/Other", changes.folder() / "a/link");
    EXPECT_TRUE(zone.wait());
}

TEST(Notify, KeepsQuietWhenTheZoneStaysWhatItWas) {
    const TimeChanges changes;
    const Watched zone(u"zone", NOTIFICATION_EVENT_TZ_CHANGE);
    changes.link_zone("First");
    let_pass(changes);  // or it would be looked at while it is being written
    changes.make_zone("First");
    changes.make_zone("Unused");
    fs::create_hard_link(changes.folder() / "First", changes.folder() / "localtime.spare");
    let_pass(changes);
    EXPECT_FALSE(zone.is_set());
    changes.set_zone("Second");
    EXPECT_TRUE(zone.wait());
    // A circle of links and a file of something else are no zone, which is UTC both times.
    fs::create_symlink("localtime", changes.folder() / "circle");
    changes.link_zone("circle");
    EXPECT_TRUE(zone.wait());
    changes.make_zone("text", "not a zone");
    changes.link_zone("text");
    let_pass(changes);
    EXPECT_FALSE(zone.is_set());
}

TEST(Notify, TellsTheZoneFromTheClock) {
    const TimeChanges changes;
    const Watched zone(u"zone", NOTIFICATION_EVENT_TZ_CHANGE);
    changes.set_clock();
    let_pass(changes);
    EXPECT_FALSE(zone.is_set());
    // Registered for both, it is told of the clock too, and once of the zone.
    EXPECT_TRUE(request(u"zone", NOTIFICATION_EVENT_TIME_CHANGE));
    changes.set_clock();
    EXPECT_TRUE(zone.wait());
    changes.set_zone("Second");
    EXPECT_TRUE(zone.wait());
    let_pass(changes);
    EXPECT_TRUE(zone.is_set());  // by let_pass
    EXPECT_FALSE(zone.is_set());
}

TEST(Notify, EndsAllRegistrationsOfAName) {
    const TimeChanges changes;
    EXPECT_TRUE(request(u"nobody", NOTIFICATION_EVENT_NONE));
    const Watched watched(u"watched");
    EXPECT_TRUE(request(u"watched", NOTIFICATION_EVENT_TZ_CHANGE));
    EXPECT_TRUE(request(u"watched", NOTIFICATION_EVENT_NONE));
    changes.set_clock();
    changes.set_zone("Second");
    let_pass(changes);
    EXPECT_FALSE(watched.is_set());
    EXPECT_TRUE(request(u"watched"));
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
}

TEST(Notify, FindsAnEventThatIsMadeLater) {
    const TimeChanges changes;
    EXPECT_TRUE(request(u"later"));
    let_pass(changes);
    const Watched again(u"later");  // registering twice is registering once
    EXPECT_FALSE(again.is_set());
    changes.set_clock();
    EXPECT_TRUE(again.wait());
    let_pass(changes);
}

TEST(Notify, WatchesOnlyWhileSomethingIsRegistered) {
    const TimeChanges changes;
    std::unique_ptr<Watched> warm_up = std::make_unique<Watched>(u"one");
    until_watching(1);
    warm_up.reset();
    until_watching(0);
    const int threads_before = zr::test::count_threads();
    const int descriptors_before = descriptors_of(threads_before);
    for (int round = 0; round < 20; ++round) {
        {
            const Watched one(u"one");
            until_watching(1);
            const Watched two(u"two", NOTIFICATION_EVENT_TZ_CHANGE);
            until_watching(1);
            if (round % 2 == 0) changes.set_clock();
        }
        until_watching(0);
        EXPECT_EQ(descriptors_of(threads_before), descriptors_before);
    }
}

TEST(Notify, SaysWhyItCannotWatch) {
    setenv("ZR_ZONE_FILE", "/nowhere/localtime", 1);
    const std::u16string path = kPrefix + u"x";
    const HANDLE named = CreateEventW(nullptr, FALSE, FALSE, u"named");
    const int threads_before = zr::test::count_threads();
    const int descriptors_before = descriptors_of(threads_before);
    expect_refused(path.c_str(), NOTIFICATION_EVENT_TIME_CHANGE, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(descriptors_of(threads_before), descriptors_before);
    CloseHandle(named);
    const TimeChanges changes;
    const Watched watched(u"x");
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
}

TEST(Notify, MayBeCalledByManyThreads) {
    const TimeChanges changes;
    std::vector<std::thread> crowd;
    for (int i = 0; i < 4; ++i) {
        crowd.emplace_back([&changes, i] {
            const std::u16string name = u"crowd" + std::u16string(1, static_cast<WCHAR>(u'0' + i));
            for (int round = 0; round < 25; ++round) {
                const Watched watched(name,
                                      round % 3 == 0 ? NOTIFICATION_EVENT_TZ_CHANGE : NOTIFICATION_EVENT_TIME_CHANGE);
                changes.set_clock();
                if (round % 3 != 0) {
                    EXPECT_TRUE(watched.wait());
                }
            }
        });
    }
    for (std::thread& thread : crowd) {
        thread.join();
    }
}

// ---- Several processes ----

// Registers a shared event and one of its own, and says each time the latter is set, which follows the former.
ZR_CHILD(listener) {
    const std::u16string own(args[0].begin(), args[0].end());
    EXPECT_TRUE(request(u"shared"));
    const Watched watched(own);
    zr::test::say("ready");
    for (;;) {
        const HANDLE event = watched.event();
        WaitForSingleObject(event, INFINITE);
        zr::test::say("set");
    }
}

ZR_CHILD(passer_by) {
    const Watched watched(u"shared");
    zr::test::say("ready");
    zr::test::hear();
    return 0;
}

TEST(Notify, SetsASharedEventOnceForAllProcesses) {
    const TimeChanges changes;
    std::vector<std::unique_ptr<Child>> listeners;
    for (const char* name : {"a", "b", "c", "d"}) {
        listeners.push_back(std::make_unique<Child>("listener", std::vector<std::string>{name}));
    }
    for (const auto& listener : listeners) {
        ASSERT_EQ(listener->hear(), "ready");
    }
    const Watched shared(u"shared");
    const Watched own(u"own");
    for (int round = 0; round < 25; ++round) {
        if (round % 5 == 4) {
            changes.set_zone("Zone" + std::to_string(round));
        } else {
            changes.set_clock();
        }
        ASSERT_TRUE(shared.wait());
        for (const auto& listener : listeners) {
            ASSERT_EQ(listener->hear(), "set");
        }
        ASSERT_TRUE(own.wait());
        ASSERT_FALSE(shared.is_set()) << round;
    }
}

TEST(Notify, ARegistrationIsItsProcesss) {
    const TimeChanges changes;
    const Watched shared(u"shared");
    const Watched own(u"own");  // tells that this process has noticed, too
    {
        Child other("passer_by");
        ASSERT_EQ(other.hear(), "ready");
        changes.set_clock();
        EXPECT_TRUE(shared.wait());
        EXPECT_TRUE(own.wait());
        other.say("go");  // it takes its registration back
        EXPECT_EQ(other.wait(), 0);
    }
    changes.set_clock();
    EXPECT_TRUE(shared.wait());
    EXPECT_TRUE(own.wait());
    {
        Child killed("passer_by");
        ASSERT_EQ(killed.hear(), "ready");
        killed.kill(SIGKILL);
        EXPECT_EQ(killed.wait(), -SIGKILL);
    }
    changes.set_clock();
    EXPECT_TRUE(shared.wait());
    EXPECT_TRUE(own.wait());
    // When this process takes its own back, nobody sets the event any more.
    EXPECT_TRUE(request(u"shared", NOTIFICATION_EVENT_NONE));
    changes.set_clock();
    let_pass(changes);
    EXPECT_FALSE(shared.is_set());
}

// Makes processes by fork that register the shared event, and kills each a random moment after the next change.
ZR_CHILD(killer) {
    std::mt19937 random(static_cast<unsigned>(std::stoul(args[0])));
    for (std::string line = zr::test::hear(); line == "next"; line = zr::test::hear()) {
        int ready[2];
        if (pipe(ready) != 0) return 1;
        const pid_t process = zr::test::fork_beside_threads();
        if (process == 0) {
            const char byte = request(u"shared") ? 'y' : 'n';
            static_cast<void>(!write(ready[1], &byte, 1));
            pause();
        }
        char byte = 0;
        static_cast<void>(!read(ready[0], &byte, 1));
        close(ready[0]);
        close(ready[1]);
        zr::test::say(byte == 'y' ? "ready" : "failed");
        zr::test::hear();
        for (unsigned spin = static_cast<unsigned>(random() % 3000); spin > 0; --spin) {
            getppid();
        }
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    return 0;
}

TEST(Notify, LosesNoChangeWhenProcessesAreKilled) {
    const TimeChanges changes;
    const Watched shared(u"shared");
    const Watched own(u"own");
    Child killer("killer", {"11"});
    for (int round = 0; round < 150; ++round) {
        killer.say("next");
        ASSERT_EQ(killer.hear(), "ready");
        killer.say("go");
        changes.set_clock();
        ASSERT_TRUE(shared.wait()) << round;
        ASSERT_TRUE(own.wait());
    }
    killer.say("end");
    EXPECT_EQ(killer.wait(), 0);
}

// ---- What others leave in the memory by which the processes agree ----

namespace {

class Agreement {
public:
    explicit Agreement(const std::string& event) {
        const std::string path = std::string(getenv("XDG_RUNTIME_DIR")) + "/zrutility/time-changes/" + event;
        EXPECT_EQ(page_.open(path.c_str()), 0);
    }

    static std::uint64_t now() {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return (static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec)) * 2;
    }
    // What the clock was last said to be set at; the lowest bit: the event is not set yet.
    std::uint64_t clock() const { return page_->clock.load(); }
    void put_clock(std::uint64_t mark) const { page_->clock.store(mark); }

private:
    struct Page {
        std::atomic<std::uint64_t> clock;
        std::atomic<std::uint64_t> zone;
    };

    zr::platform::SharedPage<Page> page_;
};

}  // namespace

TEST(Notify, LeavesAChangeToTheProcessThatWasFirst) {
    const TimeChanges changes;
    const Watched watched(u"shared");
    const Watched next(u"next");
    const Agreement agreement("shared");
    for (int round = 0; round < 3; ++round) {
        const std::uint64_t mark = Agreement::now();
        agreement.put_clock(mark);
        changes.set_clock();
        EXPECT_TRUE(next.wait());
        EXPECT_EQ(agreement.clock(), mark);
        EXPECT_FALSE(watched.is_set());
        // The mark is spent: it stands for one change.
        changes.set_clock();
        EXPECT_TRUE(next.wait());
        EXPECT_GT(agreement.clock(), mark);
        EXPECT_TRUE(watched.is_set());
    }
}

TEST(Notify, SetsTheEventForAProcessThatCameToGrief) {
    const TimeChanges changes;
    const Watched watched(u"shared");
    const Agreement agreement("shared");
    const std::uint64_t mark = Agreement::now() | 1;
    agreement.put_clock(mark);
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
    EXPECT_GT(agreement.clock(), mark);
    let_pass(changes);
    EXPECT_EQ(agreement.clock() % 2, 0u);
}

TEST(Notify, TrustsAProcessThatGotThereInTheEnd) {
    const TimeChanges changes;
    const Watched watched(u"shared");
    const Watched next(u"next");
    const Agreement agreement("shared");
    const std::uint64_t mark = Agreement::now();
    agreement.put_clock(mark | 1);
    changes.set_clock();
    EXPECT_TRUE(next.wait());
    agreement.put_clock(mark);
    EXPECT_EQ(WaitForSingleObject(watched.event(), 400), WAIT_TIMEOUT);
    EXPECT_EQ(agreement.clock(), mark);
}

TEST(Notify, TrustsNoMarkThatCannotBeOfThisChange) {
    const TimeChanges changes;
    const Watched watched(u"shared");
    const Agreement agreement("shared");
    for (const std::uint64_t mark : {std::uint64_t{0}, std::uint64_t{1}, Agreement::now() - 40'000'000'000u,
                                     Agreement::now() + 40'000'000'000u, ~std::uint64_t{0}}) {
        agreement.put_clock(mark);
        changes.set_clock();
        EXPECT_TRUE(watched.wait()) << mark;
    }
}

TEST(Notify, DoesWithoutTheFile) {
    const TimeChanges changes;
    const fs::path folder = fs::path(getenv("XDG_RUNTIME_DIR")) / "zrutility";
    fs::create_directories(folder);
    fs::remove_all(folder / "time-changes");
    std::ofstream(folder / "time-changes") << "in the way";
    const Watched watched(u"shared");
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
    changes.set_zone("Second");
    EXPECT_TRUE(watched.wait());
    fs::remove(folder / "time-changes");
}

TEST(Notify, FindsAFileForEveryName) {
    const TimeChanges changes;
    const std::string folder = std::string(getenv("XDG_RUNTIME_DIR")) + "/zrutility/time-changes";
    const int before = fs::exists(folder) ? count_entries(folder.c_str()) : 0;
    const std::u16string odd = u"../odd name\u00E4\xD800/\n" + std::u16string(100, u'\u20AC');
    const Watched watched(odd);
    const Watched nearly(odd + u"x");
    const Watched dots(u"..");
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
    EXPECT_TRUE(nearly.wait());
    EXPECT_TRUE(dots.wait());
    EXPECT_EQ(count_entries(folder.c_str()), before + 3);
}

TEST(Notify, AForkedChildsEndChangesNothing) {
    const TimeChanges changes;
    const Watched watched(u"shared");
    const auto expect_success = [](auto child) {
        const pid_t process = zr::test::fork_beside_threads();
        if (process == 0) exit(child() ? 0 : 1);
        EXPECT_EQ(zr::test::await_child(process), 0);
    };
    expect_success([] { return true; });
    expect_success([] { return request(u"shared", NOTIFICATION_EVENT_NONE) != FALSE; });
    expect_success([] { return request(u"other") != FALSE; });
    changes.set_clock();
    EXPECT_TRUE(watched.wait());
}

// The parent takes its registration back, and the child, which has it too, sets the event.
TEST(Notify, AForkedChildHasItsParentsRegistrations) {
    const TimeChanges changes;
    const Watched watched(u"shared");
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = zr::test::fork_beside_threads();
    if (child == 0) {
        const HANDLE event = OpenEventW(EVENT_ALL_ACCESS, FALSE, u"shared");
        WaitForSingleObject(event, 0);  // it resumes
        static_cast<void>(!write(ready[1], "r", 1));
        pause();
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    ASSERT_TRUE(request(u"shared", NOTIFICATION_EVENT_NONE));
    for (int round = 0; round < 3; ++round) {
        changes.set_clock();
        EXPECT_TRUE(watched.wait());
        changes.set_zone(std::to_string(round));
        EXPECT_TRUE(watched.wait());
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

// A zone that was set while the child did nothing, and that its parent tells nobody of any more.
TEST(Notify, AForkedChildLooksForWhatItMissed) {
    const TimeChanges changes;
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, u"missed");
    ASSERT_TRUE(request(u"missed", NOTIFICATION_EVENT_TZ_CHANGE));
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    const zr::test::Forked child([&] {
        char byte = 0;
        if (read(go[0], &byte, 1) != 1) return 1;
        const HANDLE own = OpenEventW(EVENT_ALL_ACCESS, FALSE, u"missed");
        return WaitForSingleObject(own, 20'000) == WAIT_OBJECT_0 ? 0 : 2;
    });
    EXPECT_TRUE(request(u"missed", NOTIFICATION_EVENT_NONE));
    changes.set_zone("Missed");
    EXPECT_EQ(write(go[1], "g", 1), 1);
    EXPECT_EQ(child.wait(), 0);
    CloseHandle(event);
    close(go[0]);
    close(go[1]);
}

TEST(Notify, ThreeHundredForksUnderLoad) {
    const TimeChanges changes;
    struct WithZone {
        WithZone() { setenv("TZ", "UTC0", 1); }
        ~WithZone() { unsetenv("TZ"); }
    } const with_zone;
    const Watched watched(u"shared");
    const zr::test::Load load({[] {
                                   TIME_ZONE_INFORMATION zone{};
                                   EXPECT_NE(GetTimeZoneInformation(&zone), 0xFFFFFFFFu);
                               },
                               [] {
                                   EXPECT_TRUE(request(u"load"));
                                   EXPECT_TRUE(request(u"load", NOTIFICATION_EVENT_NONE));
                               }});
    for (int i = 0; i < 300 / zr::test::kStride; ++i) {
        ASSERT_EQ(zr::test::in_fork([&] {
                      TIME_ZONE_INFORMATION zone{};
                      if (GetTimeZoneInformation(&zone) == 0xFFFFFFFFu) return 1;
                      if (i % 10 != 0) return request(u"of the child") ? 0 : 2;
                      const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, u"of the child");
                      if (!request(u"of the child")) return 3;
                      changes.set_clock();
                      return WaitForSingleObject(event, 20'000) == WAIT_OBJECT_0 ? 0 : 4;
                  }),
                  0)
            << "fork " << i;
        if (i % 10 == 0) {
            EXPECT_TRUE(watched.wait());
        }
    }
}
