// Killed writers, damage, no room, no memory.

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "registry_support.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/log_capture.h"
#include "support/permissions.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;
using Names = std::vector<std::u16string>;

std::filesystem::path file() {
    return sandbox_home() / "registry.db";
}

std::vector<std::filesystem::path> set_aside() {
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::directory_iterator(sandbox_home())) {
        const std::string name = entry.path().filename();
        if (name.starts_with("registry.db.damaged-") && !name.ends_with("-wal")) found.push_back(entry.path());
    }
    return found;
}

bool has(const WCHAR* text, std::u16string_view part) {
    return std::u16string_view(text).find(part) != std::u16string_view::npos;
}

TEST(Store, IsForItsUserOnly) {
    create(HKEY_CURRENT_USER, u"a");
    EXPECT_EQ(RegFlushKey(HKEY_CURRENT_USER), kOk);
    for (const auto& entry : std::filesystem::directory_iterator(sandbox_home())) {
        struct stat status = {};
        ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u) << entry.path();
    }
}

// Two values that belong together, a tree that comes and goes, and a value that is flushed before it is told.
ZR_CHILD(endless_registry_writer) {
    const auto number = static_cast<DWORD>(std::stoul(args[0]));
    const Key key = create(HKEY_CURRENT_USER, u"kill");
    const std::u16string own(1, static_cast<WCHAR>(u'a' + number));
    say("ready");
    for (DWORD i = 1;; ++i) {
        const DWORD value = i * 2 + number;
        const auto* data = reinterpret_cast<const BYTE*>(&value);
        const ZrRegistryChange pair[] = {
            {ZrRegistryStep::SetValue, key, u"", u"left", REG_DWORD, data, 4},
            {ZrRegistryStep::SetValue, key, u"pair", u"right", REG_DWORD, data, 4},
            {i % 2 == 0 ? ZrRegistryStep::SetValue : ZrRegistryStep::DeleteKey, key, u"tree", u"v", REG_DWORD, data, 4},
        };
        if (ZrRegistryApply(pair, 3, nullptr) != kOk) return 1;
        if (set(key, u"big " + own, REG_BINARY, std::string(3000, static_cast<char>('a' + i % 26))) != kOk) return 2;
        if (set_dword(key, own, i) != kOk || RegFlushKey(key) != kOk) return 3;
    }
}

TEST(Faults, TheRegistrySurvivesKilledWriters) {
    const Key key = create(HKEY_CURRENT_USER, u"kill");
    for (int round = 0; round < 6; ++round) {
        Child one("endless_registry_writer", {"0"});
        Child two("endless_registry_writer", {"1"});
        ASSERT_EQ(one.hear(), "ready");
        ASSERT_EQ(two.hear(), "ready");
        ASSERT_EQ(set_dword(key, u"a", 0), kOk);
        while (get_dword(key, u"a") < 10) {  // they are in the middle of it
        }
        one.kill(SIGKILL);
        two.kill(SIGKILL);
        one.wait();
        two.wait();
        const Key pair = create(key, u"pair");
        EXPECT_EQ(get_dword(key, u"left"), get_dword(pair, u"right"));
        EXPECT_EQ(exists(key, u"tree"), get_dword(key, u"left") / 2 % 2 == 0);
        for (const char16_t* name : {u"big a", u"big b"}) {
            const std::string bytes = get(key, name).bytes;
            EXPECT_EQ(bytes, std::string(bytes.size(), bytes.empty() ? '\0' : bytes[0]));
        }
        EXPECT_EQ(set_dword(key, u"after", 1), kOk);
        EXPECT_EQ(get_dword(key, u"after"), 1u);
    }
    EXPECT_EQ(query(file(), "PRAGMA integrity_check"), "ok");
    EXPECT_EQ(query(file(), "SELECT count(*) FROM value WHERE key NOT IN (SELECT id FROM key)"), "0");
}

TEST(Faults, TheLogOfChangesIsPruned) {
    const Key key = create(HKEY_CURRENT_USER, u"log");
    const Key other = create(HKEY_CURRENT_USER, u"log\\other");
    const std::string before = query(file(), "SELECT max(seq) FROM change");
    std::vector<ZrRegistryChange> many(5000, {ZrRegistryStep::SetValue, key, u"", u"v", REG_SZ, nullptr, 0});
    for (std::size_t i = 0; i < many.size(); ++i) {
        if (i % 4 < 2) many[i].Type = REG_BINARY;
        if (i % 2 == 0) many[i].Root = other;
    }
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(ZrRegistryApply(many.data(), 5000, nullptr), kOk);
    }
    EXPECT_EQ(query(file(), "SELECT max(seq) - " + before + " FROM change"), "20000");
    EXPECT_EQ(query(file(), "SELECT count(*) BETWEEN 8192 AND 8192 + 5000 FROM change"), "1");
}

TEST(Faults, ADamagedStoreIsSetAside) {
    std::filesystem::create_directories(sandbox_home());
    std::ofstream(file()) << std::string(5000, 'x');
    EXPECT_EQ(std::u16string(ZrRegistrySetAsideText()), u"");
    const LogCapture log;
    const Key key = create(HKEY_CURRENT_USER, u"a");
    EXPECT_EQ(set_dword(key, u"v", 1), kOk) << "the registry begins anew";
    ASSERT_EQ(set_aside().size(), 1u);
    std::ifstream kept(set_aside()[0]);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), std::string(5000, 'x')) << "not overwritten";
    EXPECT_TRUE(has(ZrRegistrySetAsideText(), u"registry.db is damaged"));
    EXPECT_TRUE(has(ZrRegistrySetAsideText(), u".damaged-"));
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_NE(records[0].data.find(set_aside()[0].string()), std::string::npos) << "the log names it";
}

void damage_inside() {
    ASSERT_EQ(query(file(), "PRAGMA wal_checkpoint(TRUNCATE)"), "0");
    const auto size = std::filesystem::file_size(file());
    std::fstream bytes(file(), std::ios::in | std::ios::out | std::ios::binary);
    for (std::uintmax_t at = 5 * 1024; at + 1024 <= size; at += 1024) {
        bytes.seekp(static_cast<std::streamoff>(at));
        bytes << std::string(100, '\xEE');
    }
}

ZR_CHILD(registry_filler) {
    const Key key = create(HKEY_CURRENT_USER, u"fill");
    for (int i = 0; i < 300; ++i) {
        const std::u16string name(1, static_cast<WCHAR>(0x4000 + i));
        if (set(key, name, REG_BINARY, std::string(500, 'f')) != kOk) return 1;
    }
    return 0;
}

// Finds the damage, and begins anew.
ZR_CHILD(registry_finder) {
    for (int i = 0; i < 2; ++i) {
        Key key;
        if (open(HKEY_CURRENT_USER, u"held", key) == kOk) get(key, u"x");
    }
    const Key key = create(HKEY_CURRENT_USER, u"other");
    return set_dword(key, u"kept", 1) == kOk && ZrRegistrySetAsideText()[0] != 0 ? 0 : 1;
}

// Has the registry open while another process finds the damage.
ZR_CHILD(registry_old_names) {
    const Key key = create(HKEY_CURRENT_USER, u"\x3C2");
    const Key plain = create(HKEY_CURRENT_USER, u"plain");
    return set_dword(key, u"\xB5", 5) == kOk ? 0 : 1;
}

ZR_CHILD(registry_holder) {
    const Key key = create(HKEY_LOCAL_MACHINE, u"held");
    if (set_dword(key, u"v", 1) != kOk || get_dword(key, u"v") != 1) return 1;
    say("ready");
    hear();
    if (get(key, u"v").result != code(ERROR_KEY_DELETED)) return 2;  // another store, another key
    const Key again = create(HKEY_LOCAL_MACHINE, u"held");
    if (get(again, u"v").result != code(ERROR_FILE_NOT_FOUND)) return 3;
    if (set_dword(again, u"v", 2) != kOk) return 4;
    return 0;
}

TEST(Faults, DamageThatIsMetIsSetAsideByTheNextCallOfAnyProcess) {
    Child filler("registry_filler");
    ASSERT_EQ(filler.wait(), 0);
    Child holder("registry_holder");
    ASSERT_EQ(holder.hear(), "ready");
    ASSERT_EQ(set_dword(HKEY_CURRENT_USER, u"v", 0), kOk);
    damage_inside();
    Key key;
    LONG result = open(HKEY_CURRENT_USER, u"fill", key);
    if (result == kOk) result = get(key, u"x").result;
    EXPECT_EQ(result, code(ERROR_REGISTRY_CORRUPT));
    EXPECT_TRUE(has(ZrRegistryLastErrorText(), u"registry.db"));
    EXPECT_TRUE(set_aside().empty());
    EXPECT_EQ(set_dword(HKEY_CURRENT_USER, u"v", 1), kOk);
    EXPECT_EQ(set_aside().size(), 1u);
    EXPECT_EQ(get_dword(HKEY_CURRENT_USER, u"v"), 1u);
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"fill"));
    holder.say("go");
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(get_dword(create(HKEY_LOCAL_MACHINE, u"held"), u"v"), 2u) << "all processes are in the new store";
    EXPECT_EQ(set_aside().size(), 1u);
    EXPECT_EQ(query(file(), "PRAGMA integrity_check"), "ok");
}

TEST(Faults, AKeyOfAStoreThatWasSetAsideIsNoKeyOfTheNewOne) {
    const Key held = create(HKEY_CURRENT_USER, u"held");
    for (WCHAR c = 0; c < 300; ++c) {
        ASSERT_EQ(set(held, std::u16string(1, static_cast<WCHAR>(0x4000 + c)), REG_BINARY, std::string(500, 'f')), kOk);
    }
    damage_inside();
    ASSERT_EQ(query(file(), "SELECT id FROM key WHERE parent <> 0"), "5");
    ASSERT_EQ(ZrRegistrySetAsideText()[0], 0);
    Child finder("registry_finder");
    ASSERT_EQ(finder.wait(), 0);
    ASSERT_EQ(set_aside().size(), 1u);
    ASSERT_EQ(query(file(), "SELECT id FROM key WHERE parent <> 0"), "5") << "another key has the number now";
    EXPECT_EQ(set_dword(held, u"v", 1), code(ERROR_KEY_DELETED));
    EXPECT_EQ(RegDeleteValueW(held, u"kept"), code(ERROR_KEY_DELETED));
    const ZrRegistryChange change = {ZrRegistryStep::SetValue, held, u"below", u"v", REG_SZ, nullptr, 0};
    EXPECT_EQ(ZrRegistryApply(&change, 1, nullptr), code(ERROR_KEY_DELETED));
    EXPECT_EQ(RegDeleteKeyW(held, u""), code(ERROR_KEY_DELETED));
    ASSERT_EQ(ZrRegistryBeginBatch(), kOk);
    EXPECT_EQ(get(held, u"kept").result, code(ERROR_KEY_DELETED));
    EXPECT_EQ(set_dword(held, u"v", 1), code(ERROR_KEY_DELETED));
    ASSERT_EQ(ZrRegistryEndBatch(TRUE), kOk);
    const Key other = create(HKEY_CURRENT_USER, u"other");
    EXPECT_EQ(get_dword(other, u"kept"), 1u);
    EXPECT_EQ(sub_keys(other), Names{});
}

ZR_CHILD(registry_deep) {
    create(HKEY_CURRENT_USER, u"a\\b\\c");
    return 0;
}

ZR_CHILD(registry_elsewhere) {
    setenv("ZR_HOME", (sandbox() / "elsewhere").c_str(), 1);
    return set_dword(create(HKEY_CURRENT_USER, u"other"), u"kept", 1) == kOk ? 0 : 1;
}

// Who has only read yet opens the file to write when there is another.
TEST(Faults, AKeyThatWasOnlyReadIsNoKeyOfAStoreInItsPlace) {
    Child maker("registry_deep");
    ASSERT_EQ(maker.wait(), 0);
    Child other_maker("registry_elsewhere");
    ASSERT_EQ(other_maker.wait(), 0);
    Key held;
    ASSERT_EQ(open(HKEY_CURRENT_USER, u"a", held), kOk);
    ASSERT_EQ(get(held, u"v").result, code(ERROR_FILE_NOT_FOUND));
    for (const char* beside : {"-wal", "-shm"}) {
        std::filesystem::remove(file().string() + beside);
    }
    std::filesystem::rename(sandbox() / "elsewhere" / "registry.db", file());
    EXPECT_EQ(set_dword(held, u"v", 1), code(ERROR_KEY_DELETED));
    const Key other = create(HKEY_CURRENT_USER, u"other");
    EXPECT_EQ(get_dword(other, u"kept"), 1u);
    EXPECT_EQ(get(other, u"v").result, code(ERROR_FILE_NOT_FOUND));
}

// Every path through the keys, for a store whose links go round.
LONG walk(HKEY root, const std::u16string& path, int& keys) {
    Key key;
    if (const LONG result = open(root, path, key); result != kOk) return result;
    for (DWORD i = 0;; ++i) {
        WCHAR name[256];
        DWORD chars = 256;
        const LONG result = RegEnumKeyExW(key, i, name, &chars, nullptr, nullptr, nullptr, nullptr);
        if (result != kOk) return result == code(ERROR_NO_MORE_ITEMS) ? kOk : result;
        if (++keys > 1000) return code(ERROR_CANCELLED);
        if (const LONG below = walk(key, name, keys); below != kOk) return below;
    }
}

TEST(Faults, DamagedLinksOfKeysAreNoticedInBoundedTime) {
    for (const bool deletes : {false, true}) {
        ASSERT_EQ(Child("registry_deep").wait(), 0);
        query(file(), "UPDATE key SET parent = (SELECT id FROM key WHERE name = X'6300') WHERE id = 2");
        int keys = 0;
        const LONG result = deletes ? RegDeleteKeyW(HKEY_CURRENT_USER, u"a") : walk(HKEY_CURRENT_USER, u"", keys);
        EXPECT_EQ(result, code(ERROR_REGISTRY_CORRUPT));
        EXPECT_TRUE(has(ZrRegistryLastErrorText(), u"does not fit together"));
        EXPECT_EQ(walk(HKEY_CURRENT_USER, u"", keys), kOk) << "it begins anew";
        EXPECT_EQ(set_aside().size(), deletes ? 2u : 1u);
    }
}

// Of the time when final sigma was found as sigma, and the micro sign as the Greek letter.
TEST(Faults, NamesOfAnEarlierVersionAreFoundAsTheyAreNow) {
    Child filler("registry_old_names");
    ASSERT_EQ(filler.wait(), 0);
    query(file(), "UPDATE key SET folded = X'C303' WHERE name = X'C203'");
    query(file(), "UPDATE value SET folded = X'BC03' WHERE name = X'B500'");
    query(file(), "PRAGMA user_version = 2");
    Key key;
    ASSERT_EQ(open(HKEY_CURRENT_USER, u"\x3C2", key), kOk);
    EXPECT_EQ(get_dword(key, u"\xB5"), 5u);
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"\x3C3"));
    EXPECT_TRUE(exists(HKEY_CURRENT_USER, u"plain"));
    EXPECT_TRUE(set_aside().empty());
}

TEST(Faults, AStoreOfANewerVersionIsLeftAlone) {
    Child filler("registry_filler");
    ASSERT_EQ(filler.wait(), 0);
    const std::string version = query(file(), "PRAGMA user_version");
    query(file(), "PRAGMA user_version = 99");
    Key key;
    EXPECT_EQ(open(HKEY_CURRENT_USER, u"fill", key), code(ERROR_REVISION_MISMATCH));
    EXPECT_EQ(set_dword(HKEY_CURRENT_USER, u"v", 1), code(ERROR_REVISION_MISMATCH));
    EXPECT_TRUE(has(ZrRegistryLastErrorText(), u"newer version (99;"));
    EXPECT_TRUE(set_aside().empty());
    EXPECT_EQ(query(file(), "SELECT count(*) FROM value"), "300");
    query(file(), "PRAGMA user_version = " + version);
    EXPECT_TRUE(exists(HKEY_CURRENT_USER, u"fill")) << "the next call tries again";
}

TEST(Faults, AFolderThatCannotBeUsedIsReported) {
    std::ofstream(sandbox() / "file").flush();
    setenv("ZR_HOME", (sandbox() / "file" / "below").c_str(), 1);
    EXPECT_NE(set_dword(HKEY_CURRENT_USER, u"v", 1), kOk);
    EXPECT_TRUE(has(ZrRegistryLastErrorText(), u"below"));
    const auto closed = sandbox() / "closed";
    std::filesystem::create_directory(closed);
    std::filesystem::permissions(closed, std::filesystem::perms::none);
    setenv("ZR_HOME", closed.c_str(), 1);
    {
        const WithoutOverride like_everybody;
        EXPECT_EQ(set_dword(HKEY_CURRENT_USER, u"v", 1), code(ERROR_ACCESS_DENIED));
        EXPECT_TRUE(has(ZrRegistryLastErrorText(), u"closed"));
    }
    std::filesystem::permissions(closed, std::filesystem::perms::owner_all);
    EXPECT_EQ(set_dword(HKEY_CURRENT_USER, u"v", 1), kOk);
}

TEST(Faults, AWriterGivesUpOnALockedStoreAndReadersDoNotCare) {
    const Key key = create(HKEY_CURRENT_USER, u"locked");
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    sqlite3* other = nullptr;
    ASSERT_EQ(open_as_the_stores_do(file(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        EXPECT_EQ(set_dword(key, u"v", 2), code(ERROR_BUSY));
        EXPECT_TRUE(has(ZrRegistryLastErrorText(), u"locked"));
        done = true;
    });
    while (!done) {
        ASSERT_EQ(get_dword(key, u"v"), 1u);
        std::this_thread::yield();
    }
    writer.join();
    sqlite3_close(other);
    EXPECT_EQ(set_dword(key, u"v", 3), kOk);
}

// Writes until there is no room, in a process with a limit of its own; returns the number of the check that failed.
int fill_up(const std::function<void()>& make_room) {
    const Key key = create(HKEY_CURRENT_USER, u"full");
    LONG result = kOk;
    DWORD written = 0;
    const std::string data(20000, 'x');
    const auto name = [](DWORD number) { return std::u16string(1, static_cast<WCHAR>(0x4000 + number)); };
    for (; written < 2000 && result == kOk; ++written) {
        result = set(key, name(written), REG_BINARY, data);
    }
    if (result != code(ERROR_DISK_FULL)) return 11;
    --written;
    if (!has(ZrRegistryLastErrorText(), u"disk is full")) return 12;
    if (value_names(key).size() != written) return 13;
    const std::vector<ZrRegistryChange> many(
        50, {ZrRegistryStep::SetValue, key, u"lower", u"v", REG_BINARY, reinterpret_cast<const BYTE*>(data.data()),
             static_cast<DWORD>(data.size())});
    DWORD failed = 0;
    std::vector<ZrRegistryChange> each = many;
    std::vector<std::u16string> names;
    for (DWORD i = 0; i < 50; ++i) {
        names.push_back(name(i));
    }
    for (std::size_t i = 0; i < each.size(); ++i) {
        each[i].Name = names[i].c_str();
    }
    if (ZrRegistryApply(each.data(), 50, &failed) != code(ERROR_DISK_FULL)) return 14;
    if (exists(key, u"lower")) return 15;
    for (DWORD i = 0; i < written; ++i) {
        if (get(key, name(i)).bytes != data) return 16;
    }
    make_room();
    if (ZrRegistryApply(each.data(), 50, nullptr) != kOk) return 17;
    if (value_names(create(key, u"lower")).size() != 50) return 18;
    return RegFlushKey(key) == kOk ? 0 : 19;
}

ZR_CHILD(fill_to_the_limit) {
    create(HKEY_CURRENT_USER, u"full");
    const rlimit limit = {600000, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    return fill_up([] {
        const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &none);
    });
}

TEST(Faults, ALimitOfFileSizesLosesNothing) {
    Child child("fill_to_the_limit");
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(query(file(), "PRAGMA integrity_check"), "ok");
}

constexpr int kNotPossibleHere = 77;

ZR_CHILD(fill_the_file_system) {
    std::filesystem::create_directories(sandbox_home());
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return kNotPossibleHere;
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return kNotPossibleHere;
    if (mount("none", sandbox_home().c_str(), "tmpfs", 0, "mode=0700,size=1m") != 0) return kNotPossibleHere;
    const int result =
        fill_up([] { EXPECT_EQ(mount("none", sandbox_home().c_str(), "tmpfs", MS_REMOUNT, "mode=0700,size=16m"), 0); });
    if (result != 0) return result;
    return query(file(), "PRAGMA integrity_check") == "ok" ? 0 : 20;
}

TEST(Faults, AFullFileSystemLosesNothing) {
    Child child("fill_the_file_system");
    const int result = child.wait();
    if (result == kNotPossibleHere) GTEST_SKIP() << "no file system of our own here";
    EXPECT_EQ(result, 0);
}

ZR_CHILD(no_room_at_all) {
    std::filesystem::create_directories(sandbox_home());
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return kNotPossibleHere;
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return kNotPossibleHere;
    if (mount("none", sandbox_home().c_str(), "tmpfs", 0, "mode=0700,size=8k") != 0) return kNotPossibleHere;
    if (set_dword(HKEY_CURRENT_USER, u"v", 1) != code(ERROR_DISK_FULL)) return 1;
    if (mount("none", sandbox_home().c_str(), "tmpfs", MS_REMOUNT, "mode=0700,size=4m") != 0) return 2;
    if (set_dword(HKEY_CURRENT_USER, u"v", 1) != kOk) return 3;
    return get_dword(HKEY_CURRENT_USER, u"v") == 1 ? 0 : 4;
}

TEST(Faults, AStoreThatCannotBeMadeForWantOfRoomIsMadeLater) {
    Child child("no_room_at_all");
    const int result = child.wait();
    if (result == kNotPossibleHere) GTEST_SKIP() << "no file system of our own here";
    EXPECT_EQ(result, 0);
}

// Makes each allocation of a call fail, one after the other, until the call gets through.
template <class Call>
void with_failing_memory(const char* what, Call call, LONG expected = kOk) {
    for (int successes = 0; successes < 2000; ++successes) {
        LONG result = 0;
        {
            const FailingNew failing(successes);
            result = call();
        }
        if (result == expected) return;
        ASSERT_EQ(result, code(ERROR_NOT_ENOUGH_MEMORY)) << what << " after " << successes;
    }
    FAIL() << what << " never gets through";
}

TEST(Faults, ShortMemoryIsAResult) {
    with_failing_memory("opening the store", [] { return set_dword(HKEY_CURRENT_USER, u"first", 1); });
    Key key;
    with_failing_memory("making a key", [&] {
        HKEY made = nullptr;
        const LONG result = RegCreateKeyExW(HKEY_CURRENT_USER, u"a\\b\\c", 0, u"class", 0, 0, nullptr, &made, nullptr);
        if (result == kOk) key = Key(made);
        return result;
    });
    const std::u16string name(200, u'n');
    with_failing_memory("setting", [&] {
        static const BYTE data[4000] = {1};
        return RegSetValueExW(key, name.c_str(), 0, REG_BINARY, data, sizeof data);
    });
    Child filler("registry_filler");
    ASSERT_EQ(filler.wait(), 0);
    with_failing_memory("reading what another wrote", [&] {
        Key opened;
        return open(HKEY_CURRENT_USER, u"fill", opened);
    });
    Key fill = create(HKEY_CURRENT_USER, u"fill");
    with_failing_memory("reading values", [&] {
        DWORD size = 0;
        return RegQueryValueExW(fill, u"\x4001", nullptr, nullptr, nullptr, &size);
    });
    with_failing_memory("deleting a tree", [] { return RegDeleteKeyW(HKEY_CURRENT_USER, u"a"); });
    EXPECT_EQ(get(key, name).result, code(ERROR_KEY_DELETED));
    EXPECT_EQ(value_names(fill).size(), 300u);
    EXPECT_EQ(get_dword(HKEY_CURRENT_USER, u"first"), 1u);
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{u"fill"});
}

}  // namespace
