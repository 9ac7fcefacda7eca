// Change notifications: what signals a handle, by whomever it was done, and how watching ends.

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string_view>
#include <thread>

#include "platform/base.h"
#include "platform/kernel.h"
#include "registry_support.h"
#include "support/child.h"
#include "support/forked.h"

namespace {

using namespace zr::test;

constexpr DWORD kNames = REG_NOTIFY_CHANGE_NAME;
constexpr DWORD kValues = REG_NOTIFY_CHANGE_LAST_SET;
constexpr DWORD kLong = 20000;

class Watch {
public:
    Watch(HKEY key, bool subtree, DWORD filter) : handle_(CeFindFirstRegChange(key, subtree, filter)) {
        EXPECT_NE(handle_, INVALID_HANDLE_VALUE) << GetLastError();
    }
    ~Watch() { EXPECT_TRUE(CeFindCloseRegChange(handle_)); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    bool signalled() const { return WaitForSingleObject(handle_, 0) == WAIT_OBJECT_0; }
    bool wait() const { return WaitForSingleObject(handle_, kLong) == WAIT_OBJECT_0; }
    bool next() const { return CeFindNextRegChange(handle_) != FALSE; }
    HANDLE handle() const { return handle_; }

private:
    HANDLE handle_;
};

// Changes are told in their order, so when a later change has been told, earlier ones have, too.
class Told {
public:
    Told() : key_(create(HKEY_USERS, u"told")) {}
    void wait() {
        const Watch watch(key_, false, kValues);
        ASSERT_EQ(set_dword(key_, u"v", ++number), kOk);
        ASSERT_TRUE(watch.wait());
    }

private:
    Key key_;
    static inline DWORD number = 0;  // what a value is already, nobody is told
};

TEST(RegistryChanges, AValueThatIsSetSignals) {
    const Key key = create(HKEY_CURRENT_USER, u"a\\b");
    const Watch watch(key, false, kValues);
    EXPECT_FALSE(watch.signalled());
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    EXPECT_TRUE(watch.wait());
    EXPECT_TRUE(watch.signalled()) << "until it is armed again";
    ASSERT_TRUE(watch.next());
    EXPECT_FALSE(watch.signalled());
    ASSERT_EQ(RegDeleteValueW(key, u"v"), kOk);
    EXPECT_TRUE(watch.wait());
}

TEST(RegistryChanges, AValueThatIsSetToWhatItIsDoesNot) {
    Told told;
    const Key key = create(HKEY_CURRENT_USER, u"a\\b");
    ASSERT_EQ(set(key, u"v", REG_SZ, "same"), kOk);
    const Watch watch(key, false, kValues);
    ASSERT_EQ(set(key, u"v", REG_SZ, "same"), kOk);
    ASSERT_EQ(set(key, u"V", REG_SZ, "same"), kOk);
    told.wait();
    EXPECT_FALSE(watch.signalled());
    EXPECT_EQ(get(key, u"v").bytes, "same");
    ASSERT_EQ(set(key, u"v", REG_BINARY, "same"), kOk);  // another type is a change
    EXPECT_TRUE(watch.wait());
    ASSERT_TRUE(watch.next());
    ASSERT_EQ(set(key, u"v", REG_BINARY, ""), kOk);
    EXPECT_TRUE(watch.wait());
}

TEST(RegistryChanges, WhatHappenedBeforeTheWatchDoesNotCount) {
    const Key key = create(HKEY_CURRENT_USER, u"a");
    const Watch first(HKEY_CURRENT_USER, true, kValues | kNames);
    for (DWORD i = 0; i < 50; ++i) {
        ASSERT_EQ(set_dword(key, u"v", i), kOk);
        const Watch watch(key, true, kValues | kNames);
        Told().wait();
        ASSERT_FALSE(watch.signalled()) << i;
    }
    EXPECT_TRUE(first.signalled());
}

TEST(RegistryChanges, AChangeBetweenSignalAndNextIsNotLost) {
    const Key key = create(HKEY_CURRENT_USER, u"a");
    const Watch watch(key, false, kValues);
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    ASSERT_TRUE(watch.wait());
    ASSERT_EQ(set_dword(key, u"v", 2), kOk);
    Told().wait();
    ASSERT_TRUE(watch.next());
    EXPECT_TRUE(watch.signalled());
    ASSERT_TRUE(watch.next());
    EXPECT_FALSE(watch.signalled());
}

TEST(RegistryChanges, EachHandleIsArmedForItself) {
    const Key key = create(HKEY_CURRENT_USER, u"a");
    const Watch one(key, false, kValues);
    const Watch other(key, false, kValues);
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    ASSERT_TRUE(one.wait() && other.wait());
    ASSERT_TRUE(one.next());
    EXPECT_FALSE(one.signalled());
    EXPECT_TRUE(other.signalled());
}

TEST(RegistryChanges, TheWatchNeedsTheCallersHandleNoLonger) {
    Key key = create(HKEY_CURRENT_USER, u"a");
    const Watch watch(key, false, kValues);
    key.close();
    ASSERT_EQ(set_dword(create(HKEY_CURRENT_USER, u"a"), u"v", 1), kOk);
    EXPECT_TRUE(watch.wait());
    EXPECT_TRUE(watch.next());
}

TEST(RegistryChanges, ADeletedKeySignalsAndThenEnds) {
    for (const DWORD filter : {kNames, kValues, REG_NOTIFY_CHANGE_SECURITY}) {
        create(HKEY_CURRENT_USER, u"a\\b\\c");
        Key key;
        ASSERT_EQ(open(HKEY_CURRENT_USER, u"a\\b", key), kOk);
        const Watch watch(key, false, filter);
        ASSERT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"a"), kOk);
        EXPECT_TRUE(watch.wait());
        create(HKEY_CURRENT_USER, u"a\\b");
        EXPECT_FALSE(watch.next()) << "another key of the same name";
        EXPECT_EQ(GetLastError(), ERROR_KEY_DELETED);
        EXPECT_EQ(CeFindFirstRegChange(key, FALSE, filter), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_KEY_DELETED);
        RegDeleteKeyW(HKEY_CURRENT_USER, u"a");
    }
}

TEST(RegistryChanges, RefusesWhatCannotBeWatched) {
    const Key key = create(HKEY_CURRENT_USER, u"a");
    EXPECT_EQ(CeFindFirstRegChange(key, FALSE, 0), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CeFindFirstRegChange(key, FALSE, 0x10 | kValues), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    for (const HKEY wrong : {HKEY{nullptr}, reinterpret_cast<HKEY>(static_cast<LONG_PTR>(-1))}) {
        EXPECT_EQ(CeFindFirstRegChange(wrong, FALSE, kValues), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(CeFindNextRegChange(event));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(CeFindCloseRegChange(event));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_FALSE(CeFindNextRegChange(nullptr));
    EXPECT_FALSE(CeFindCloseRegChange(INVALID_HANDLE_VALUE));
}

TEST(RegistryChanges, WaitsMixWithOtherObjectsAndCanBeCutShort) {
    const Key key = create(HKEY_CURRENT_USER, u"a");
    const Watch watch(key, false, kValues);
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const HANDLE named = CreateEventW(nullptr, FALSE, FALSE, u"mixed");
    const std::array handles{event, watch.handle(), named};
    const auto any = [&] { return WaitForMultipleObjects(3, handles.data(), FALSE, kLong); };
    std::thread writer([&key] { EXPECT_EQ(set_dword(key, u"v", 1), kOk); });
    EXPECT_EQ(any(), WAIT_OBJECT_0 + 1);
    writer.join();
    ASSERT_TRUE(watch.next());
    std::thread setter([&] { EventModify(watch.handle(), EVENT_SET); });
    EXPECT_EQ(any(), WAIT_OBJECT_0 + 1);
    setter.join();
    ASSERT_TRUE(watch.next());
    SetEvent(named);
    EXPECT_EQ(any(), WAIT_OBJECT_0 + 2);
    CloseHandle(event);
    CloseHandle(named);
}

TEST(RegistryChanges, TellOfChangesMadeAsOne) {
    const Key key = create(HKEY_CURRENT_USER, u"a");
    const Watch names(key, true, kNames);
    const Watch values(key, false, kValues);
    const DWORD number = 7;
    const auto* const data = reinterpret_cast<const BYTE*>(&number);
    const ZrRegistryChange changes[] = {
        {ZrRegistryStep::CreateKey, key, u"x\\y", nullptr, 0, nullptr, 0},
        {ZrRegistryStep::SetValue, key, u"", u"v", REG_DWORD, data, sizeof number},
    };
    ASSERT_EQ(ZrRegistryApply(changes, 2, nullptr), kOk);
    EXPECT_TRUE(names.wait());
    EXPECT_TRUE(values.wait());
}

TEST(RegistryChanges, MoreThanTheLogKeepsAreToldToEverybody) {
    const Key key = create(HKEY_CURRENT_USER, u"a");
    const Key others[] = {create(HKEY_CURRENT_USER, u"b"), create(HKEY_CURRENT_USER, u"c")};
    const Watch watch(key, false, kValues);
    std::vector<ZrRegistryChange> changes;
    for (DWORD i = 0; i < 20000; ++i) {
        static constexpr BYTE kByte = 0;
        changes.push_back({ZrRegistryStep::SetValue, others[i % 2], u"", u"v", REG_BINARY, &kByte, i / 2 % 2});
    }
    ASSERT_EQ(ZrRegistryApply(changes.data(), static_cast<DWORD>(changes.size()), nullptr), kOk);
    EXPECT_TRUE(watch.wait()) << "what was lost may have concerned it";
    ASSERT_TRUE(watch.next());
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    EXPECT_TRUE(watch.wait());
}

// ---- against a model -----------------------------------------------------------------------------------------------

struct Step {
    int kind;  // 0 key made, 1 key deleted, 2 value set, 3 value deleted
    std::u16string path;
};

constexpr const char16_t* kPaths[] = {u"m", u"m\\a", u"m\\a\\x", u"m\\a\\y", u"m\\b", u"m\\b\\x", u"n", u"n\\a"};

bool below(const std::u16string& path, const std::u16string& above) {
    return path.size() > above.size() && path.compare(0, above.size(), above) == 0 && path[above.size()] == u'\\';
}
std::u16string parent(const std::u16string& path) {
    const std::size_t end = path.rfind(u'\\');
    return end == std::u16string::npos ? u"" : path.substr(0, end);
}

// Whether the step, which did something, concerns a watch of `watched`.
bool concerns(const Step& step, const std::u16string& watched, bool subtree, DWORD filter) {
    if (step.kind >= 2) {
        return (filter & kValues) && (step.path == watched || (subtree && below(step.path, watched)));
    }
    return (filter & kNames) && (parent(step.path) == watched || (subtree && below(step.path, watched)));
}

// False when there was nothing to do. Deletes only keys without sub-keys, makes none without its parent.
bool make(const Step& step) {
    if (step.kind == 0) {
        if (!exists(HKEY_CURRENT_USER, parent(step.path)) || exists(HKEY_CURRENT_USER, step.path)) return false;
        create(HKEY_CURRENT_USER, step.path);
        return true;
    }
    Key key;
    if (open(HKEY_CURRENT_USER, step.path, key) != kOk) return false;
    if (step.kind == 1) return sub_keys(key).empty() && RegDeleteKeyW(key, u"") == kOk;
    static DWORD number = 0;  // what a value is already, nobody is told
    return step.kind == 2 ? set_dword(key, u"v", ++number) == kOk : RegDeleteValueW(key, u"v") == kOk;
}

TEST(RegistryChanges, RandomChangesSignalWhomTheyConcern) {
    std::mt19937 random(20260211);
    for (const char16_t* path : kPaths) {
        create(HKEY_CURRENT_USER, path);
    }
    Told told;
    int signals = 0;
    for (int round = 0; round < 1500; ++round) {
        const std::u16string watched = kPaths[random() % std::size(kPaths)];
        const Key key = create(HKEY_CURRENT_USER, watched);
        const bool subtree = random() % 2 != 0;
        const DWORD filter = std::array{kNames, kValues, kNames | kValues, DWORD{2}}[random() % 4];
        const Watch watch(key, subtree, filter);
        bool expected = false;
        for (int i = 0; i < 4; ++i) {
            const Step step{static_cast<int>(random() % 4), kPaths[random() % std::size(kPaths)]};
            const bool keeps = step.kind != 1 || step.path != watched;  // its own end is another test's
            if (keeps && make(step)) expected = expected || concerns(step, watched, subtree, filter);
        }
        told.wait();
        ASSERT_EQ(watch.signalled(), expected) << round;
        signals += expected ? 1 : 0;
    }
    EXPECT_GT(signals, 150);
}

// ---- other processes -----------------------------------------------------------------------------------------------

constexpr DWORD kRounds = 300;

ZR_CHILD(changes_writer) {
    const Key key = create(HKEY_CURRENT_USER, u"shared");
    say("ready");
    hear();
    for (DWORD i = 1; i <= kRounds; ++i) {
        if (set_dword(key, u"v", i) != kOk) return 1;
    }
    return 0;
}

ZR_CHILD(changes_watcher) {
    const Key key = create(HKEY_CURRENT_USER, u"shared");
    const HANDLE changes = CeFindFirstRegChange(key, FALSE, kValues);
    say(changes == INVALID_HANDLE_VALUE ? "failed" : "ready");
    while (get_dword(key, u"v") != kRounds) {
        if (WaitForSingleObject(changes, kLong) != WAIT_OBJECT_0) return 1;
        if (!CeFindNextRegChange(changes)) return 2;
    }
    return CeFindCloseRegChange(changes) ? 0 : 3;
}

TEST(RegistryChangesOfProcesses, AWriterAndTenWatchersEndAtTheFinalState) {
    create(HKEY_CURRENT_USER, u"shared");
    std::vector<std::unique_ptr<Child>> watchers;
    for (int i = 0; i < 10; ++i) {
        watchers.push_back(std::make_unique<Child>("changes_watcher"));
    }
    for (const auto& watcher : watchers) {
        ASSERT_EQ(watcher->hear(), "ready");
    }
    Child writer("changes_writer");
    ASSERT_EQ(writer.hear(), "ready");
    writer.say("go");
    EXPECT_EQ(writer.wait(), 0);
    for (const auto& watcher : watchers) {
        EXPECT_EQ(watcher->wait(), 0);
    }
}

ZR_CHILD(changes_endless_writer) {
    const Key key = create(HKEY_CURRENT_USER, u"killed");
    say("ready");
    for (DWORD i = 1; true; ++i) {
        if (set_dword(key, u"v", i) != kOk) return 1;
    }
}

// Has the process killed at the first moment at which its commit has been made.
int kill_behind_commit(sqlite3* database, char**, const sqlite3_api_routines*) {
    const auto done = [](unsigned, void*, void* statement, void*) {
        const char* const sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
        if (sql != nullptr && std::string_view(sql) == "COMMIT") raise(SIGKILL);
        return 0;
    };
    return sqlite3_trace_v2(database, SQLITE_TRACE_PROFILE, done, nullptr);
}

ZR_CHILD(changes_writer_killed_behind_commit) {
    if (sqlite3_auto_extension(reinterpret_cast<void (*)()>(&kill_behind_commit)) != SQLITE_OK) return 1;
    Key key;
    if (open(HKEY_CURRENT_USER, u"killed", key) != kOk) return 2;
    set_dword(key, u"v", 1);
    return 3;
}

TEST(RegistryChangesOfProcesses, AWriterKilledBetweenCommitAndAnnouncementIsTold) {
    const Key key = create(HKEY_CURRENT_USER, u"killed");
    const Watch watch(key, false, kValues);
    EXPECT_EQ(Child("changes_writer_killed_behind_commit").wait(), -SIGKILL);
    EXPECT_TRUE(watch.wait());
    EXPECT_EQ(get_dword(key, u"v"), 1u);
}

// Killed anywhere: the last value that it left is told, and nobody else rings the bell.
TEST(RegistryChangesOfProcesses, WhatAKilledWriterLeftIsTold) {
    std::mt19937 random(7);
    const Key key = create(HKEY_CURRENT_USER, u"killed");
    const HANDLE dead = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    for (int round = 0; round < 40; ++round) {
        const Watch watch(key, false, kValues);
        DWORD seen = get_dword(key, u"v");
        const auto look = [&] {
            EXPECT_TRUE(watch.next());
            seen = get_dword(key, u"v");
        };
        Child writer("changes_endless_writer");
        ASSERT_EQ(writer.hear(), "ready");
        std::thread killer([&, after = static_cast<useconds_t>(random() % 2000)] {
            usleep(after);
            writer.kill(SIGKILL);
            EXPECT_EQ(writer.wait(), -SIGKILL);
            SetEvent(dead);
        });
        const std::array handles{dead, watch.handle()};
        while (WaitForMultipleObjects(2, handles.data(), FALSE, kLong) == WAIT_OBJECT_0 + 1) {
            look();
        }
        killer.join();
        while (seen != get_dword(key, u"v")) {
            ASSERT_TRUE(watch.wait()) << round;
            look();
        }
    }
    CloseHandle(dead);
}

TEST(RegistryChangesOfProcesses, AForkedChildWatchesForItself) {
#if defined(ZR_SANITIZE_THREAD)
    GTEST_SKIP() << "ThreadSanitizer allows no threads behind a fork";
#endif
    const Key key = create(HKEY_CURRENT_USER, u"forked");
    const Watch parents(key, false, kValues);
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    ASSERT_TRUE(parents.wait());
    ASSERT_TRUE(parents.next());
    const pid_t child = zr::test::fork_beside_threads();
    if (child == 0) {
        alarm(30);
        const HANDLE own = CeFindFirstRegChange(key, FALSE, kValues);
        if (own == INVALID_HANDLE_VALUE) _exit(1);
        if (set_dword(key, u"v", 2) != kOk) _exit(2);
        if (WaitForSingleObject(own, kLong) != WAIT_OBJECT_0) _exit(3);
        _exit(CeFindCloseRegChange(parents.handle()) && CeFindCloseRegChange(own) ? 0 : 4);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(parents.wait());
}

}  // namespace
