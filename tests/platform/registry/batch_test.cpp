// Changes between ZrRegistryBeginBatch and ZrRegistryEndBatch: what their thread sees, what everybody else does, and
// what is left when they are not kept.

#include <signal.h>
#include <sys/resource.h>

#include <functional>
#include <random>
#include <thread>

#include "platform/kernel.h"
#include "registry_support.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;
using Names = std::vector<std::u16string>;

void begin() {
    ASSERT_EQ(ZrRegistryBeginBatch(), kOk);
}
LONG keep() {
    return ZrRegistryEndBatch(TRUE);
}
LONG take_back() {
    return ZrRegistryEndBatch(FALSE);
}

void elsewhere(const std::function<void()>& body) {
    std::thread(body).join();
}

// --- who sees what ---

TEST(Batch, IsSeenByItsThreadAtOnceAndByOthersWhenItIsKept) {
    const Key key = create(HKEY_CURRENT_USER, u"key");
    ASSERT_EQ(set_dword(key, u"old", 1), kOk);
    begin();
    ASSERT_EQ(set_dword(key, u"old", 2), kOk);
    ASSERT_EQ(set_dword(key, u"new", 3), kOk);
    const Key made = create(key, u"made\\below");
    ASSERT_EQ(set_dword(made, u"v", 4), kOk);
    EXPECT_EQ(get_dword(key, u"OLD"), 2u);
    EXPECT_EQ(value_names(key), (Names{u"new", u"old"}));
    EXPECT_EQ(sub_keys(key), Names{u"made"});
    EXPECT_EQ(get_dword(create(key, u"MADE\\below"), u"v"), 4u);
    elsewhere([&] {
        EXPECT_EQ(get_dword(key, u"old"), 1u);
        EXPECT_EQ(value_names(key), Names{u"old"});
        EXPECT_EQ(sub_keys(key), Names{});
        EXPECT_EQ(get(made, u"v").result, code(ERROR_KEY_DELETED)) << "not there yet";
    });
    ASSERT_EQ(keep(), kOk);
    const auto look = [&] {
        EXPECT_EQ(get_dword(key, u"old"), 2u);
        EXPECT_EQ(sub_keys(key), Names{u"made"});
        EXPECT_EQ(get_dword(made, u"v"), 4u) << "the same handle";
    };
    look();
    elsewhere(look);
    EXPECT_EQ(set_dword(made, u"v", 5), kOk);
    EXPECT_EQ(get_dword(made, u"v"), 5u);
}

TEST(Batch, DeletesWhatItsHandlesName) {
    const Key key = create(HKEY_CURRENT_USER, u"key");
    const Key below = create(key, u"below");
    begin();
    ASSERT_EQ(RegDeleteKeyW(key, u"below"), kOk);
    EXPECT_EQ(get(below, u"v").result, code(ERROR_KEY_DELETED));
    EXPECT_EQ(set_dword(below, u"v", 1), code(ERROR_KEY_DELETED));
    const Key again = create(key, u"below");
    EXPECT_EQ(set_dword(again, u"v", 2), kOk);
    EXPECT_EQ(get(below, u"v").result, code(ERROR_KEY_DELETED)) << "another key";
    elsewhere([&] { EXPECT_EQ(get(below, u"v").result, code(ERROR_FILE_NOT_FOUND)) << "it is still there"; });
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(get(below, u"v").result, code(ERROR_KEY_DELETED));
    EXPECT_EQ(get_dword(again, u"v"), 2u);
}

TEST(Batch, TellsWatchersOnceItIsKept) {
    const Key key = create(HKEY_CURRENT_USER, u"key");
    const HANDLE values = CeFindFirstRegChange(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET);
    const HANDLE names = CeFindFirstRegChange(key, FALSE, REG_NOTIFY_CHANGE_NAME);
    begin();
    for (DWORD i = 0; i < 100; ++i) {
        ASSERT_EQ(set_dword(key, u"v" + std::u16string(1, static_cast<WCHAR>(u'0' + i)), i), kOk);
    }
    create(key, u"below");
    EXPECT_EQ(WaitForSingleObject(values, 0), WAIT_TIMEOUT);
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(WaitForSingleObject(values, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(names, 20000), WAIT_OBJECT_0);
    EXPECT_TRUE(CeFindCloseRegChange(values));
    EXPECT_TRUE(CeFindCloseRegChange(names));
}

// --- what is not kept ---

TEST(Batch, IsTakenBackWhole) {
    const Key key = create(HKEY_CURRENT_USER, u"key\\below");
    begin();
    const Key made = create(HKEY_CURRENT_USER, u"made");
    ASSERT_EQ(set_dword(made, u"v", 1), kOk);
    ASSERT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"key"), kOk);
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{u"made"});
    ASSERT_EQ(take_back(), kOk);
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{u"key"});
    EXPECT_EQ(set_dword(key, u"v", 1), kOk);
    EXPECT_EQ(get(made, u"v").result, code(ERROR_KEY_DELETED));
    // The next key gets the number that this one had.
    const Key other = create(HKEY_CURRENT_USER, u"other");
    EXPECT_EQ(set_dword(other, u"v", 7), kOk);
    EXPECT_EQ(get(made, u"v").result, code(ERROR_KEY_DELETED));
    EXPECT_EQ(set_dword(made, u"v", 8), code(ERROR_KEY_DELETED));
    EXPECT_EQ(get_dword(other, u"v"), 7u);
}

// A part that is taken back after some of it has gone to the disk. What is committed is not what the next one would
// read.
TEST(Batch, IsTakenBackWholeWithAPartOfItThatIsVeryLarge) {
    const auto put = [](LPCWSTR name) {
        BYTE byte = 1;
        ZrRegistryChange change{ZrRegistryStep::SetValue, HKEY_CURRENT_USER, u"key", name, REG_BINARY, &byte, 1};
        DWORD failed = 0;
        return ZrRegistryApply(&change, 1, &failed);
    };
    ASSERT_EQ(put(u"before"), kOk);
    begin();
    ASSERT_EQ(put(u"small"), kOk);
    struct Many {
        int done = 0;
        std::u16string name;
        std::vector<BYTE> bytes = std::vector<BYTE>(100'000);
        std::mt19937 random{1};
    } many;
    const auto next = [](ZrRegistryChange* change, LPVOID given) -> int {
        Many& all = *static_cast<Many*>(given);
        if (++all.done > 1500) return -1;
        const std::string name = std::to_string(all.random() % 500);
        all.name.assign(name.begin(), name.end());
        all.bytes[0] = static_cast<BYTE>(all.random());
        *change = {ZrRegistryStep::SetValue,
                   HKEY_CURRENT_USER,
                   u"large",
                   all.name.c_str(),
                   REG_BINARY,
                   all.bytes.data(),
                   static_cast<DWORD>(all.bytes.size())};
        return 1;
    };
    DWORD failed = 0;
    EXPECT_EQ(ZrRegistryApplyEach(next, &many, &failed), code(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(many.done, 1501);
    EXPECT_EQ(keep(), code(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(put(u"after"), kOk);
    elsewhere([] {
        Key key;
        ASSERT_EQ(open(HKEY_CURRENT_USER, u"key", key), kOk);
        EXPECT_EQ(get(key, u"before").result, kOk);
        EXPECT_EQ(get(key, u"small").result, code(ERROR_FILE_NOT_FOUND));
        EXPECT_EQ(get(key, u"after").result, kOk);
    });
}

TEST(Batch, BatchesInItAreCounted) {
    begin();
    begin();
    create(HKEY_CURRENT_USER, u"a");
    ASSERT_EQ(keep(), kOk);
    elsewhere([] { EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"a")) << "the outer one is open"; });
    ASSERT_EQ(keep(), kOk);
    EXPECT_TRUE(exists(HKEY_CURRENT_USER, u"a"));
    begin();
    begin();
    create(HKEY_CURRENT_USER, u"b");
    ASSERT_EQ(take_back(), kOk);
    EXPECT_EQ(keep(), code(ERROR_CANCELLED)) << "the inner one took all back";
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"b"));
    EXPECT_EQ(keep(), code(ERROR_INVALID_PARAMETER));
}

TEST(Batch, ACallThatFailsLeavesNothingAndTheOthersStay) {
    std::u16string deep = u"d";
    for (int i = 0; i < 600; ++i) {
        deep += u"\\d";
    }
    begin();
    create(HKEY_CURRENT_USER, u"a");
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, deep.c_str(), 0, nullptr, 0, 0, nullptr, &key, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"d")) << "none of its keys";
    EXPECT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"no"), code(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(RegDeleteValueW(HKEY_CURRENT_USER, u"no"), code(ERROR_FILE_NOT_FOUND));
    const ZrRegistryChange changes[] = {
        {ZrRegistryStep::SetValue, HKEY_CURRENT_USER, u"c", u"v", REG_SZ, nullptr, 0},
        {ZrRegistryStep::DeleteKey, HKEY_CURRENT_USER, u"", nullptr, 0, nullptr, 0},
    };
    EXPECT_EQ(ZrRegistryApply(changes, 2, nullptr), code(ERROR_ACCESS_DENIED));
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"c")) << "taken back by itself";
    EXPECT_EQ(ZrRegistryApply(changes, 1, nullptr), kOk);
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), (Names{u"a", u"c"}));
    EXPECT_EQ(value_names(create(HKEY_CURRENT_USER, u"c")), Names{u"v"});
}

Key fresh(const std::u16string& path) {
    RegDeleteKeyW(HKEY_CURRENT_USER, path.c_str());
    return create(HKEY_CURRENT_USER, path);
}

TEST(Batch, ANumberThatWasTakenBackIsAnotherKeys) {
    const Key home = fresh(u"numbers");
    begin();
    EXPECT_EQ(sub_keys(home), Names());
    const ZrRegistryChange changes[] = {
        {ZrRegistryStep::SetValue, home, u"c\\below", u"v", REG_SZ, nullptr, 0},
        {ZrRegistryStep::DeleteKey, HKEY_CURRENT_USER, u"", nullptr, 0, nullptr, 0},
    };
    EXPECT_EQ(ZrRegistryApply(changes, 2, nullptr), code(ERROR_ACCESS_DENIED));
    const Key made = create(home, u"e");
    EXPECT_EQ(sub_keys(home), Names{u"e"});
    EXPECT_EQ(sub_keys(made), Names());
    EXPECT_EQ(value_names(made), Names());
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(sub_keys(home), Names{u"e"});
    EXPECT_EQ(value_names(made), Names());
}

// Of a path that has too long a name nothing is made, and what else the batch does stays.
TEST(Batch, APathThatCannotBeMadeLeavesNothing) {
    const Key home = fresh(u"paths");
    const std::u16string path = u"third\\" + std::u16string(256, u'n');
    const ZrRegistryChange changes[] = {
        {ZrRegistryStep::CreateKey, home, u"second", nullptr, 0, nullptr, 0},
        {ZrRegistryStep::CreateKey, home, path.c_str(), nullptr, 0, nullptr, 0},
    };
    begin();
    create(home, u"first");
    EXPECT_EQ(ZrRegistryApply(changes, 2, nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(ZrRegistryApply(changes + 1, 1, nullptr), code(ERROR_INVALID_PARAMETER));
    create(home, u"fourth");
    EXPECT_EQ(sub_keys(home), (Names{u"first", u"fourth"}));
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(sub_keys(home), (Names{u"first", u"fourth"}));
}

// A batch's changes of keys that it has and has not looked at before: each is found where it was made, under the name
// that it has now.
TEST(Batch, KeysThatComeAndGoInItAreFound) {
    create(fresh(u"old"), u"a\\b");
    begin();
    for (const bool looked : {false, true}) {
        if (looked) {
            EXPECT_EQ(sub_keys(create(HKEY_CURRENT_USER, u"old")), Names{u"a"});
        }
        EXPECT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"OLD\\A"), kOk);
        EXPECT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"old\\a"), code(ERROR_FILE_NOT_FOUND));
        EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"old\\a\\b"));
        const Key again = create(HKEY_CURRENT_USER, u"old\\a");
        EXPECT_EQ(sub_keys(again), Names());
        EXPECT_EQ(value_names(again), Names());
        EXPECT_EQ(set_dword(again, u"v", 7), kOk);
        EXPECT_EQ(value_names(again), Names{u"v"});
        create(again, u"b");
        EXPECT_TRUE(exists(HKEY_CURRENT_USER, u"old\\a\\b"));
    }
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(sub_keys(create(HKEY_CURRENT_USER, u"old\\a")), Names{u"b"});
    EXPECT_EQ(value_names(create(HKEY_CURRENT_USER, u"old\\a")), Names{u"v"});
}

int one_change(ZrRegistryChange* change, LPVOID context) {
    int& calls = *static_cast<int*>(context);
    if (calls++ != 0) return 0;
    EXPECT_EQ(ZrRegistryBeginBatch(), code(ERROR_BUSY));
    *change = {ZrRegistryStep::CreateKey, HKEY_CURRENT_USER, u"applied", nullptr, 0, nullptr, 0};
    return 1;
}

TEST(Batch, IsRefusedWhereChangesAreBeingMade) {
    int calls = 0;
    EXPECT_EQ(ZrRegistryApplyEach(one_change, &calls, nullptr), kOk);
    begin();
    calls = 0;
    EXPECT_EQ(ZrRegistryApplyEach(one_change, &calls, nullptr), kOk);
    EXPECT_EQ(keep(), kOk);
    EXPECT_TRUE(exists(HKEY_CURRENT_USER, u"applied"));
}

TEST(Batch, AThreadThatEndsInItGivesItUp) {
    elsewhere([] {
        begin();
        create(HKEY_CURRENT_USER, u"a");
    });
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{});
    create(HKEY_CURRENT_USER, u"b");
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{u"b"});
}

TEST(Batch, AFullDiskBreaksIt) {
    const Key key = create(HKEY_CURRENT_USER, u"key");
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    const rlimit before = [] {
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        return limit;
    }();
    const rlimit little{std::filesystem::file_size(sandbox_home() / "registry.db-wal") + 2000, before.rlim_max};
    begin();
    const Key made = create(key, u"made");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
    EXPECT_EQ(set_dword(key, u"v", 2), kOk);
    EXPECT_EQ(set(key, u"large", REG_BINARY, std::string(100000, 'x')), kOk) << "in memory so far";
    EXPECT_EQ(keep(), code(ERROR_DISK_FULL));
    EXPECT_FALSE(std::u16string(ZrRegistryLastErrorText()).empty());
    begin();
    // More than is kept in memory.
    LONG result = kOk;
    for (WCHAR c = 0; c < 100 && result == kOk; ++c) {
        result = set(key, std::u16string(1, static_cast<WCHAR>(0x4000 + c)), REG_BINARY, std::string(1 << 20, 'x'));
    }
    EXPECT_EQ(result, code(ERROR_DISK_FULL));
    EXPECT_EQ(set_dword(key, u"v", 3), code(ERROR_DISK_FULL)) << "so does every further call";
    EXPECT_EQ(keep(), code(ERROR_DISK_FULL));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(get_dword(key, u"v"), 1u);
    EXPECT_EQ(value_names(key), Names{u"v"});
    EXPECT_EQ(get(made, u"v").result, code(ERROR_KEY_DELETED));
    EXPECT_EQ(set_dword(key, u"v", 4), kOk);
}

// --- other processes ---

ZR_CHILD(batch_toggler) {
    say("ready");
    for (int i = 0;; ++i) {
        if (ZrRegistryBeginBatch() != kOk) return 1;
        Key key = create(HKEY_CURRENT_USER, u"toggle");
        for (WCHAR c = u'0'; c <= u'9'; ++c) {
            const std::u16string name(1, c);
            if (i % 2 == 0 ? set_dword(key, name, 1) != kOk : RegDeleteValueW(key, name.c_str()) != kOk) return 2;
            if (i % 2 == 0) create(key, name);
            if (i % 2 != 0 && RegDeleteKeyW(key, name.c_str()) != kOk) return 3;
        }
        if (ZrRegistryEndBatch(TRUE) != kOk) return 4;
    }
}

TEST(Batch, IsWholeOrNotAtAllHoweverItsProcessEnds) {
    const Key key = create(HKEY_CURRENT_USER, u"toggle");
    DWORD values = 0;
    DWORD keys = 0;
    const auto look = [&] {
        EXPECT_EQ(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr, nullptr,
                                   nullptr, nullptr),
                  kOk);
    };
    std::mt19937 random(7);
    for (int round = 0; round < 12; ++round) {
        if (values != 0) {
            begin();
            ASSERT_EQ(RegDeleteKeyW(key, u""), code(ERROR_SUCCESS));
            ASSERT_EQ(take_back(), kOk);
            for (WCHAR c = u'0'; c <= u'9'; ++c) {
                RegDeleteKeyW(key, std::u16string(1, c).c_str());
                RegDeleteValueW(key, std::u16string(1, c).c_str());
            }
        }
        Child child("batch_toggler");
        ASSERT_EQ(child.hear(), "ready");
        int changes = 0;
        for (DWORD before = 0; changes < 20 + static_cast<int>(random() % 20); before = values) {
            look();
            // Keys and values are read one after the other.
            ASSERT_TRUE((values == 0 || values == 10) && (keys == 0 || keys == 10)) << values << " " << keys;
            changes += values != before;
        }
        child.kill(SIGKILL);
        child.wait();
        look();
        ASSERT_TRUE((values == 0 && keys == 0) || (values == 10 && keys == 10)) << values << " " << keys;
    }
    EXPECT_EQ(query(sandbox_home() / "registry.db", "PRAGMA integrity_check"), "ok");
}

TEST(Batch, IsTheParentsWhenItForks) {
    const Key key = create(HKEY_CURRENT_USER, u"key");
    begin();
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    EXPECT_EQ(in_fork([&] {
                  if (get(key, u"v").result != code(ERROR_BUSY)) return 1;
                  if (set_dword(key, u"v", 2) != code(ERROR_BUSY)) return 2;
                  if (keep() != code(ERROR_BUSY)) return 3;
                  return set_dword(key, u"v", 3) == code(ERROR_BUSY) ? 0 : 4;
              }),
              0);
    ASSERT_EQ(set_dword(key, u"w", 1), kOk);
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(value_names(key), (Names{u"v", u"w"}));
}

// --- many ---

TEST(Batch, ManyValuesOfAKeyAreFewEntriesInTheLog) {
    const Key key = create(HKEY_CURRENT_USER, u"key");
    const Key read = create(HKEY_CURRENT_USER, u"key\\read");
    EXPECT_EQ(value_names(key), Names{});
    const auto file = sandbox_home() / "registry.db";
    const std::string before = query(file, "SELECT max(seq) FROM change");
    begin();
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(set_dword(key, std::u16string(1, static_cast<WCHAR>(0x4000 + i)), 1), kOk);
    }
    ASSERT_EQ(set_dword(read, u"v", 1), kOk);
    ASSERT_EQ(keep(), kOk);
    EXPECT_EQ(query(file, "SELECT max(seq) - " + before + " FROM change"), "3");
    EXPECT_EQ(value_names(key).size(), 10000u);
    EXPECT_EQ(get_dword(read, u"v"), 1u);
}

// --- all values of a key at once ---

TEST(CopyValues, SetsWhatTheOtherKeyHas) {
    const Key from = create(HKEY_CURRENT_USER, u"from");
    const Key to = create(HKEY_CURRENT_USER, u"to");
    ASSERT_EQ(set(from, u"", REG_SZ, std::string("a\0\0\0", 4)), kOk);
    ASSERT_EQ(set(from, u"Both", REG_QWORD, "12345678"), kOk);
    ASSERT_EQ(set(from, u"empty", REG_NONE, ""), kOk);
    ASSERT_EQ(set_dword(to, u"BOTH", 1), kOk);
    ASSERT_EQ(set_dword(to, u"own", 2), kOk);
    for (const bool in_batch : {false, true}) {
        if (in_batch) begin();
        ASSERT_EQ(ZrRegistryCopyValues(from, to, 8), kOk);
        EXPECT_EQ(value_names(to), (Names{u"", u"BOTH", u"empty", u"own"}));
        EXPECT_EQ(get(to, u"").bytes, std::string("a\0\0\0", 4));
        EXPECT_EQ(get(to, u"both").type, REG_QWORD);
        EXPECT_EQ(get(to, u"both").bytes, "12345678");
        EXPECT_EQ(get(to, u"empty").type, REG_NONE);
        EXPECT_EQ(get_dword(to, u"own"), 2u);
        if (in_batch) {
            ASSERT_EQ(keep(), kOk);
        }
        EXPECT_EQ(get(to, u"both").bytes, "12345678");
        ASSERT_EQ(set_dword(to, u"BOTH", 1), kOk);
    }
    EXPECT_EQ(ZrRegistryCopyValues(from, from, 8), kOk);
    EXPECT_EQ(ZrRegistryCopyValues(from, HKEY_USERS, 8), kOk);
    EXPECT_EQ(get(HKEY_USERS, u"both").bytes, "12345678");
}

TEST(CopyValues, SetsNothingWhereOneIsTooLarge) {
    const Key from = create(HKEY_CURRENT_USER, u"from");
    const Key to = create(HKEY_CURRENT_USER, u"to");
    ASSERT_EQ(set(from, u"a", REG_BINARY, "1234"), kOk);
    ASSERT_EQ(set(from, u"b", REG_BINARY, "12345"), kOk);
    EXPECT_EQ(ZrRegistryCopyValues(from, to, 4), code(ERROR_MORE_DATA));
    EXPECT_EQ(value_names(to), Names{});
    EXPECT_EQ(ZrRegistryCopyValues(from, to, 5), kOk);
    EXPECT_EQ(value_names(to), (Names{u"a", u"b"}));
}

TEST(CopyValues, RefusesKeysThatAreNotThere) {
    const Key from = create(HKEY_CURRENT_USER, u"from");
    const Key to = create(HKEY_CURRENT_USER, u"to");
    ASSERT_EQ(set_dword(from, u"v", 1), kOk);
    EXPECT_EQ(ZrRegistryCopyValues(nullptr, to, 8), code(ERROR_INVALID_HANDLE));
    EXPECT_EQ(ZrRegistryCopyValues(from, nullptr, 8), code(ERROR_INVALID_HANDLE));
    ASSERT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"to"), kOk);
    EXPECT_EQ(ZrRegistryCopyValues(from, to, 8), code(ERROR_KEY_DELETED));
    EXPECT_EQ(ZrRegistryCopyValues(to, from, 8), code(ERROR_KEY_DELETED));
}

TEST(CopyValues, TellsWatchersAndOtherProcesses) {
    const Key from = create(HKEY_CURRENT_USER, u"from");
    const Key to = create(HKEY_CURRENT_USER, u"to");
    for (DWORD i = 0; i < 1000; ++i) {
        ASSERT_EQ(set_dword(from, std::u16string(1, static_cast<WCHAR>(0x4000 + i)), i), kOk);
    }
    EXPECT_EQ(value_names(to), Names{});
    Child other("copied_values_reader");
    ASSERT_EQ(other.hear(), "ready");
    const HANDLE watch = CeFindFirstRegChange(to, FALSE, REG_NOTIFY_CHANGE_LAST_SET);
    const auto file = sandbox_home() / "registry.db";
    const std::string before = query(file, "SELECT max(seq) FROM change");
    ASSERT_EQ(ZrRegistryCopyValues(from, to, 8), kOk);
    EXPECT_EQ(WaitForSingleObject(watch, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(query(file, "SELECT max(seq) - " + before + " FROM change"), "1");
    EXPECT_EQ(value_names(to).size(), 1000u);
    other.say("count");
    EXPECT_EQ(other.hear(), "1000") << "who had read the key reads it anew";
    ASSERT_TRUE(CeFindNextRegChange(watch));
    ASSERT_EQ(ZrRegistryCopyValues(from, to, 8), kOk);
    EXPECT_EQ(query(file, "SELECT max(seq) - " + before + " FROM change"), "1") << "nothing has changed";
    EXPECT_TRUE(CeFindCloseRegChange(watch));
    EXPECT_EQ(other.wait(), 0);
}

ZR_CHILD(copied_values_reader) {
    const Key to = create(HKEY_CURRENT_USER, u"to");
    if (!value_names(to).empty()) return 1;
    say("ready");
    if (hear() != "count") return 1;
    say(std::to_string(value_names(to).size()));
    return 0;
}

// The same random calls in a batch and without one.
class Calls {
public:
    explicit Calls(const std::u16string& path) : path_(path) { create(HKEY_CURRENT_USER, path); }

    LONG call(std::mt19937& random) {
        static const WCHAR* const kPaths[] = {u"", u"a", u"a\\b", u"A\\c\\d", u"e", u"e\\f"};
        static const WCHAR* const kValues[] = {u"", u"x", u"X", u"y"};
        const std::u16string path = path_ + u"\\" + kPaths[random() % 6];
        const WCHAR* const value = kValues[random() % 4];
        const unsigned held = random() % 4;
        const auto number = static_cast<DWORD>(random() % 3);
        switch (random() % 8) {
            case 0:
                return RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, 0, nullptr, held_[held].out(),
                                       nullptr);
            case 1:
                return path.size() == path_.size() + 1 ? 0 : RegDeleteKeyW(HKEY_CURRENT_USER, path.c_str());
            case 2:
                return open(HKEY_CURRENT_USER, path, held_[held]);
            case 3:
                return held_[held] != nullptr ? RegDeleteValueW(held_[held], value) : 0;
            case 4:
                return held_[held] != nullptr ? static_cast<LONG>(get_dword(held_[held], value)) : 0;
            case 5: {
                WCHAR name[256];
                DWORD chars = 256;
                if (held_[held] == nullptr) return 0;
                const LONG result =
                    RegEnumKeyExW(held_[held], number, name, &chars, nullptr, nullptr, nullptr, nullptr);
                return result * 1000 + static_cast<LONG>(chars) + (result == kOk ? name[0] : 0);
            }
            default:
                return held_[held] != nullptr ? set_dword(held_[held], value, number) : 0;
        }
    }
    // All of it as a text.
    std::u16string shown() const { return shown(create(HKEY_CURRENT_USER, path_)); }

private:
    static std::u16string shown(const Key& key) {
        std::u16string text;
        for (const auto& name : value_names(key)) {
            text += name + u"=" + static_cast<WCHAR>(u'0' + get_dword(key, name)) + u";";
        }
        for (const auto& name : sub_keys(key)) {
            text += name + u"{" + shown(create(key, name)) + u"}";
        }
        return text;
    }

    std::u16string path_;
    Key held_[4];
};

// What every call of a sequence told, and what was there now and then.
std::vector<std::u16string> told(const std::u16string& path, bool in_batches) {
    std::mt19937 random(11);
    std::mt19937 moments(12);
    Calls calls(path);
    std::vector<std::u16string> all;
    bool open = false;
    for (int i = 0; i < 4000; ++i) {
        if (in_batches && moments() % 40 == 0) {
            EXPECT_EQ(open ? keep() : ZrRegistryBeginBatch(), kOk);
            open = !open;
        }
        const std::string number = std::to_string(calls.call(random));
        all.emplace_back(number.begin(), number.end());
        if (i % 50 == 0) all.push_back(calls.shown());
    }
    if (open) {
        EXPECT_EQ(keep(), kOk);
    }
    all.push_back(calls.shown());
    return all;
}

TEST(Batch, CallsDoInItWhatTheyDoAlone) {
    const auto alone = told(u"alone", false);
    const auto together = told(u"together", true);
    ASSERT_EQ(alone.size(), together.size());
    for (std::size_t i = 0; i < alone.size(); ++i) {
        ASSERT_EQ(alone[i], together[i]) << i;
    }
}

}  // namespace
