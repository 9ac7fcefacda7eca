#include "ZrUtility/Helpers/RegistryAccessor.h"
#include "platform/registry/registry_support.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/child.h"

namespace {

// The syncs of this program, and whether they fail.
std::atomic<int> syncs = 0;
std::atomic<bool> syncs_fail = false;

int sync_file(long number, int file) {
    ++syncs;
    if (!syncs_fail) return static_cast<int>(syscall(number, file));
    errno = EIO;
    return -1;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int fdatasync(int file) {
    return sync_file(SYS_fdatasync, file);
}
extern "C" __attribute__((visibility("default"))) int fsync(int file) {
    return sync_file(SYS_fsync, file);
}

namespace {

using Accessor = RegistryAccessor;

using zr::test::kOk;
const HKEY kRoot = HKEY_CURRENT_USER;
const HKEY kNoRoot = reinterpret_cast<HKEY>(static_cast<LONG_PTR>(-1));
const WCHAR* const kPath = u"Software\\Mail";

HKEY make(const WCHAR* path) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExW(kRoot, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr), kOk);
    return key;
}

void store(const WCHAR* path, const WCHAR* name, DWORD type, const void* data, std::size_t size) {
    const HKEY key = make(path);
    EXPECT_EQ(RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)), kOk);
    RegCloseKey(key);
}

void store(const WCHAR* path, const WCHAR* name, const std::u16string& text) {
    store(path, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
}

struct Stored {
    DWORD type;
    std::string bytes;
    bool operator==(const Stored&) const = default;
};

std::optional<Stored> stored(const WCHAR* path, const WCHAR* name) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(kRoot, path, 0, KEY_READ, &key) != kOk) return std::nullopt;
    Stored value{0, std::string(4000, '\0')};
    auto size = static_cast<DWORD>(value.bytes.size());
    const LONG result =
        RegQueryValueExW(key, name, nullptr, &value.type, reinterpret_cast<BYTE*>(value.bytes.data()), &size);
    RegCloseKey(key);
    if (result != kOk) return std::nullopt;
    value.bytes.resize(size);
    return value;
}

// ---- numbers -------------------------------------------------------------------------------------------------------

TEST(RegistryAccessor, ReadsTheNumberThatWasWritten) {
    Accessor::RegistrySetDWORD(kRoot, kPath, u"n", 0x12345678);
    EXPECT_EQ(Accessor::RegistryGetDWORD(kRoot, kPath, u"n", 7), 0x12345678u);
    EXPECT_EQ(stored(kPath, u"n"), (Stored{REG_DWORD, "\x78\x56\x34\x12"}));
    Accessor::RegistrySetInteger(kRoot, kPath, u"n", -2);
    EXPECT_EQ(Accessor::RegistryGetInteger(kRoot, kPath, u"n", 7), -2);
    EXPECT_EQ(Accessor::RegistryGetDWORD(kRoot, kPath, u"n", 7), 0xFFFFFFFEu);
}

TEST(RegistryAccessor, WritesABooleanAsZeroOrOne) {
    Accessor::RegistrySetBoolean(kRoot, kPath, u"b", true);
    EXPECT_EQ(Accessor::RegistryGetDWORD(kRoot, kPath, u"b", 7), 1u);
    EXPECT_TRUE(Accessor::RegistryGetBoolean(kRoot, kPath, u"b", false));
    Accessor::RegistrySetBoolean(kRoot, kPath, u"b", false);
    EXPECT_EQ(Accessor::RegistryGetDWORD(kRoot, kPath, u"b", 7), 0u);
    EXPECT_FALSE(Accessor::RegistryGetBoolean(kRoot, kPath, u"b", true));
    Accessor::RegistrySetDWORD(kRoot, kPath, u"b", 0x80000000);
    EXPECT_TRUE(Accessor::RegistryGetBoolean(kRoot, kPath, u"b", false));
    EXPECT_TRUE(Accessor::RegistryGetBoolean(kRoot, kPath, u"missing", true));
    EXPECT_FALSE(Accessor::RegistryGetBoolean(kRoot, kPath, u"missing", false));
}

TEST(RegistryAccessor, TakesNoNumberFromAnotherTypeOrSize) {
    store(kPath, u"binary", REG_BINARY, "\1\0\0\0", 4);
    store(kPath, u"short", REG_DWORD, "\1\0\0", 3);
    store(kPath, u"long", REG_DWORD, "\1\0\0\0\0", 5);
    store(kPath, u"empty", REG_DWORD, "", 0);
    store(kPath, u"right", REG_DWORD, "\1\0\0\0", 4);
    for (const WCHAR* name : {u"binary", u"short", u"long", u"empty", u"missing"}) {
        EXPECT_EQ(Accessor::RegistryGetDWORD(kRoot, kPath, name, 99), 99u);
        EXPECT_EQ(Accessor::RegistryGetInteger(kRoot, kPath, name, -99), -99);
    }
    EXPECT_EQ(Accessor::RegistryGetDWORD(kRoot, kPath, u"right", 99), 1u);
}

TEST(RegistryAccessor, ANumberNeedsRootSubKeyAndName) {
    store(kPath, nullptr, REG_DWORD, "\1\0\0\0", 4);
    struct Case {
        HKEY root;
        const WCHAR* subKey;
        const WCHAR* name;
    };
    const Case cases[] = {{nullptr, kPath, u"n"}, {kNoRoot, kPath, u"n"},  {kRoot, nullptr, u"n"},
                          {kRoot, u"", u"n"},     {kRoot, kPath, nullptr}, {kRoot, kPath, u""}};
    for (const Case& wrong : cases) {
        Accessor::RegistrySetDWORD(wrong.root, wrong.subKey, wrong.name, 5);
        Accessor::RegistrySetInteger(wrong.root, wrong.subKey, wrong.name, 5);
        Accessor::RegistrySetBoolean(wrong.root, wrong.subKey, wrong.name, true);
        unsigned char data[] = {1, 2, 3, 4};
        Accessor::RegistrySetBinary(wrong.root, wrong.subKey, wrong.name, data, 4);
        EXPECT_EQ(Accessor::RegistryGetDWORD(wrong.root, wrong.subKey, wrong.name, 99), 99u);
    }
    EXPECT_EQ(stored(kPath, nullptr), (Stored{REG_DWORD, std::string("\1\0\0\0", 4)}));
    EXPECT_FALSE(stored(kPath, u"n") || stored(u"", u"n"));
}

// ---- texts ---------------------------------------------------------------------------------------------------------

TEST(RegistryAccessor, CountsCharactersWhenItReadsAndBytesWhenItMeasures) {
    store(kPath, u"t", u"0123456789");
    WCHAR text[22];
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"t", text, 22, u"def"), 11u);
    EXPECT_STREQ(reinterpret_cast<const char*>(text), "0");
    EXPECT_EQ(std::u16string(text), u"0123456789");
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"t", nullptr, 22, u"def"), 22u);
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"t", text, 0, u"def"), 22u);
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"t", text, -5, u"def"), 22u);
}

TEST(RegistryAccessor, ATextMustFitWithItsTerminator) {
    store(kPath, u"t", u"0123456789");
    WCHAR text[11];
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"t", text, 11, nullptr), 11u);
    EXPECT_EQ(std::u16string(text), u"0123456789");
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"t", text, 10, u"def"), 0u);
    EXPECT_EQ(std::u16string(text), u"def");
}

TEST(RegistryAccessor, ADefaultThatDoesNotFitIsEmpty) {
    WCHAR text[4] = {u'x', u'x', u'x', u'x'};
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"missing", text, 4, u"abc"), 0u);
    EXPECT_EQ(std::u16string(text), u"abc");
    for (const WCHAR* def : {u"abcd", u"abcde", static_cast<const WCHAR*>(nullptr)}) {
        text[0] = u'x';
        EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"missing", text, 4, def), 0u);
        EXPECT_EQ(text[0], 0);
    }
    text[0] = u'x';
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"missing", text, 1, u""), 0u);
    EXPECT_EQ(text[0], 0);
}

TEST(RegistryAccessor, ReadsTextsOnlyButMeasuresEverything) {
    store(kPath, u"expand", REG_EXPAND_SZ, u"abc", 8);
    store(kPath, u"number", REG_DWORD, "\1\0\0\0", 4);
    WCHAR text[8];
    for (const WCHAR* name : {u"expand", u"number"}) {
        EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, name, text, 8, u"def"), 0u);
        EXPECT_EQ(std::u16string(text), u"def");
    }
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"expand", nullptr, 0, u"def"), 8u);
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"number", nullptr, 0, u"def"), 4u);
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"missing", nullptr, 0, u"def"), 0u);
}

TEST(RegistryAccessor, ATextIsReadAsItWasStored) {
    WCHAR text[4] = {u'x', u'x', u'x', u'x'};
    store(kPath, u"bare", REG_SZ, u"abc", 6);
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"bare", text, 4, nullptr), 3u);
    EXPECT_EQ(std::u16string(text, 4), u"abcx");
    store(kPath, u"odd", REG_SZ, "a\0b\0c", 5);
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"odd", text, 4, nullptr), 2u);
    store(kPath, u"none", REG_SZ, "", 0);
    EXPECT_EQ(Accessor::RegistryGetString(kRoot, kPath, u"none", text, 4, u"def"), 0u);
    EXPECT_EQ(text[0], u'a') << "that is not the default: an empty text was read";
}

TEST(RegistryAccessor, WhichArgumentsOfATextAreLookedAt) {
    store(kPath, nullptr, u"default");
    WCHAR text[10];
    const auto read = [&](HKEY root, const WCHAR* subKey, const WCHAR* name) {
        return Accessor::RegistryGetString(root, subKey, name, text, 10, u"def");
    };
    EXPECT_EQ(read(kRoot, kPath, u""), 8u);
    EXPECT_EQ(read(kRoot, kPath, nullptr), 0u);
    EXPECT_EQ(read(kRoot, u"", u""), 0u);
    EXPECT_EQ(read(kRoot, nullptr, u""), 0u);
    EXPECT_EQ(read(nullptr, kPath, u""), 0u);
    EXPECT_EQ(read(kNoRoot, kPath, u""), 0u);
    EXPECT_EQ(std::u16string(text), u"def");
    const auto measure = [](HKEY root, const WCHAR* subKey, const WCHAR* name) {
        return Accessor::RegistryGetString(root, subKey, name, nullptr, 0, nullptr);
    };
    EXPECT_EQ(measure(kRoot, kPath, u""), 16u);
    EXPECT_EQ(measure(kRoot, kPath, nullptr), 16u);
    EXPECT_EQ(measure(kRoot, u"", nullptr), 0u);
    EXPECT_EQ(measure(kRoot, nullptr, nullptr), 0u);
    EXPECT_EQ(measure(kNoRoot, kPath, nullptr), 0u);
    EXPECT_EQ(measure(nullptr, kPath, nullptr), 0u) << "the platform knows no such root";
}

TEST(RegistryAccessor, WritesExactlyTheBytesOfAText) {
    WCHAR data[] = u"abc";
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, u"t", data, 8), 1);
    EXPECT_EQ(stored(kPath, u"t"), (Stored{REG_SZ, std::string("a\0b\0c\0\0\0", 8)}));
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, u"t", data, 5), 1);
    EXPECT_EQ(stored(kPath, u"t"), (Stored{REG_SZ, std::string("a\0b\0c", 5)}));
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, u"t", data, 0), 1);
    EXPECT_EQ(stored(kPath, u"t"), (Stored{REG_SZ, ""}));
}

TEST(RegistryAccessor, ATextMayBeTheRootsOwn) {
    WCHAR data[] = u"a";
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, nullptr, u"one", data, 4), 1);
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, u"", u"two", data, 4), 1);
    EXPECT_TRUE(stored(u"", u"one") && stored(u"", u"two"));
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, nullptr, data, 4), 0);
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, u"", data, 4), 0);
    EXPECT_EQ(Accessor::RegistrySetString(nullptr, kPath, u"t", data, 4), 0);
    EXPECT_EQ(Accessor::RegistrySetString(kNoRoot, kPath, u"t", data, 4), 0);
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, std::u16string(256, u'k').c_str(), u"t", data, 4), 0);
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, u"t", data, -1), 0);
    EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, u"t", nullptr, 4), 0);
    EXPECT_FALSE(stored(kPath, u"t"));
}

// ---- bytes ---------------------------------------------------------------------------------------------------------

TEST(RegistryAccessor, ReadsBytesThatFit) {
    unsigned char data[] = {1, 2, 3, 4, 5, 6, 7, 8};
    Accessor::RegistrySetBinary(kRoot, kPath, u"b", data, 8);
    unsigned char bytes[9] = {};
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"b", bytes, 4), -3);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"b", bytes, 8), 0);
    EXPECT_TRUE(std::equal(data, data + 8, bytes));
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"b", bytes, 9), 0);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"missing", bytes, 9), -3);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, u"no\\key", u"b", bytes, 9), -2);
    store(kPath, u"text", u"ab");
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"text", bytes, 9), -3);
}

TEST(RegistryAccessor, WhichArgumentsOfBytesAreLookedAt) {
    unsigned char bytes[4];
    store(kPath, nullptr, REG_BINARY, "\1\2", 2);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"", bytes, 4), 0);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, nullptr, bytes, 4), -1);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"", nullptr, 4), -1);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"", bytes, 0), -1);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, u"", bytes, -1), -1);
    EXPECT_EQ(Accessor::RegistryGetBinary(nullptr, kPath, u"", bytes, 4), -1);
    EXPECT_EQ(Accessor::RegistryGetBinary(kNoRoot, kPath, u"", bytes, 4), -1);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, nullptr, u"", bytes, 4), -1);
    EXPECT_EQ(Accessor::RegistryGetBinary(kRoot, u"", u"", bytes, 4), -1);
}

// ---- what is there -------------------------------------------------------------------------------------------------

TEST(RegistryAccessor, FindsKeysAndShortValues) {
    store(kPath, u"four", REG_DWORD, "\1\0\0\0", 4);
    store(kPath, u"five", REG_BINARY, "12345", 5);
    store(kPath, u"none", REG_BINARY, "", 0);
    EXPECT_EQ(Accessor::KeyExists(kRoot, kPath), 1);
    EXPECT_EQ(Accessor::KeyExists(kRoot, nullptr), 1) << "the root itself";
    EXPECT_EQ(Accessor::KeyExists(kRoot, u"Software\\None"), 0);
    EXPECT_EQ(Accessor::KeyExists(nullptr, kPath), 0);
    EXPECT_EQ(Accessor::KeyExists(kNoRoot, kPath), 0);
    EXPECT_EQ(Accessor::RegistryKeyValueExists(kRoot, kPath, u"four"), 1);
    EXPECT_EQ(Accessor::RegistryKeyValueExists(kRoot, kPath, u"none"), 1);
    EXPECT_EQ(Accessor::RegistryKeyValueExists(kRoot, kPath, u"five"), 0) << "there is no room for it";
    EXPECT_EQ(Accessor::RegistryKeyValueExists(kRoot, kPath, u"missing"), 0);
    EXPECT_EQ(Accessor::RegistryKeyValueExists(kRoot, u"no\\key", u"four"), 0);
    EXPECT_EQ(Accessor::RegistryDeleteKeyValue(kRoot, kPath, u"five"), 1);
    EXPECT_EQ(Accessor::RegistryDeleteKeyValue(kRoot, kPath, u"five"), 0);
    EXPECT_EQ(Accessor::RegistryDeleteKeyValue(kRoot, u"no\\key", u"five"), 0);
}

// ---- moving --------------------------------------------------------------------------------------------------------

TEST(RegistryAccessor, MovesTheValuesOfDirectSubKeysOnly) {
    store(u"from", u"A", u"own");
    store(u"from", u"B", u"own");
    store(u"from\\S", u"C", u"kept");
    store(u"from\\S", nullptr, u"kept too");
    store(u"from\\S\\deep", u"D", u"lost");
    store(u"from\\Empty", u"x", REG_QWORD, "12345678", 8);
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", u"to\\here"), 0);
    EXPECT_FALSE(Accessor::KeyExists(kRoot, u"from"));
    EXPECT_TRUE(stored(u"to\\here\\S", u"C") && stored(u"to\\here\\S", nullptr));
    EXPECT_EQ(stored(u"to\\here\\Empty", u"x"), (Stored{REG_QWORD, "12345678"}));
    EXPECT_FALSE(stored(u"to\\here", u"A") || stored(u"to\\here", u"B"));
    EXPECT_FALSE(Accessor::KeyExists(kRoot, u"to\\here\\S\\deep"));
}

TEST(RegistryAccessor, ALargeValueEndsTheCopyOfItsKey) {
    store(u"from\\S", u"a", REG_BINARY, std::string(1040, 'x').data(), 1040);
    store(u"from\\S", u"b", REG_BINARY, std::string(1041, 'x').data(), 1041);
    store(u"from\\S", u"c", u"lost");
    store(u"from\\T", u"d", u"kept");
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", u"to"), 0);
    EXPECT_TRUE(stored(u"to\\S", u"a") && stored(u"to\\T", u"d"));
    EXPECT_FALSE(stored(u"to\\S", u"b") || stored(u"to\\S", u"c"));
}

TEST(RegistryAccessor, NamesOfTheGreatestLengthAreMoved) {
    const std::u16string name(255, u'n');
    store((u"from\\" + name).c_str(), name.c_str(), u"kept");
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", u"to"), 0);
    EXPECT_TRUE(stored((u"to\\" + name).c_str(), name.c_str()));
}

TEST(RegistryAccessor, TheSourceGoesEvenWhenTheDestinationCannotBeMade) {
    store(u"from\\S", u"a", u"lost");
    const LONG result = Accessor::RegistryMoveKey(kRoot, u"from", std::u16string(256, u'k').c_str());
    EXPECT_EQ(result, static_cast<LONG>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(Accessor::KeyExists(kRoot, u"from"));
}

TEST(RegistryAccessor, AMissingSourceIsTold) {
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", u"to"), static_cast<LONG>(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(Accessor::KeyExists(kRoot, u"to"));
    EXPECT_EQ(Accessor::RegistryMoveKey(nullptr, u"from", u"to"), -1);
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, nullptr, u"to"), -1);
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", nullptr), -1);
    EXPECT_EQ(Accessor::RegistryMoveKey(kNoRoot, u"from", u"to"), static_cast<LONG>(ERROR_INVALID_HANDLE));
}

TEST(RegistryAccessor, AMoveIntoItselfEnds) {
    store(u"from\\S", u"a", u"lost");
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", u"from\\S"), 0);
    EXPECT_FALSE(Accessor::KeyExists(kRoot, u"from"));
    store(u"from\\S", u"a", u"lost");
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", u"from"), 0);
    EXPECT_FALSE(Accessor::KeyExists(kRoot, u"from"));
}

TEST(RegistryAccessor, TheLastSubKeyThatCannotBeMadeIsTold) {
    // The copy of a key that lies as deep as keys may would be deeper.
    std::u16string deep = u"d";
    for (int i = 0; i < 511; ++i) {
        deep += u"\\d";
    }
    store(u"from\\S", u"a", u"lost");
    EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"from", deep.c_str()), 1);
    EXPECT_FALSE(Accessor::KeyExists(kRoot, u"from"));
    EXPECT_TRUE(Accessor::KeyExists(kRoot, deep.c_str()));
}

// Moves the key to and fro until it is killed.
ZR_CHILD(key_mover) {
    zr::test::say("ready");
    const WCHAR* from = u"here";
    const WCHAR* to = u"there";
    while (Accessor::RegistryMoveKey(kRoot, from, to) == 0) {
        std::swap(from, to);
    }
    return 1;
}

TEST(RegistryAccessor, AMoveIsSeenWholeOrNotAtAllHoweverItsProcessEnds) {
    const auto whole = [](const WCHAR* path) {
        HKEY key = nullptr;
        DWORD keys = 0;
        if (RegOpenKeyExW(kRoot, path, 0, KEY_READ, &key) != kOk) return 0;
        RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &keys, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr);
        RegCloseKey(key);
        EXPECT_TRUE(keys == 2 || keys == 0) << keys;
        return keys == 2 && stored((std::u16string(path) + u"\\A").c_str(), u"\x4063") &&
                       stored((std::u16string(path) + u"\\B").c_str(), u"\x4063")
                   ? 1
                   : 0;
    };
    for (WCHAR c = 0; c < 100; ++c) {
        const WCHAR name[] = {static_cast<WCHAR>(0x4000 + c), 0};
        store(u"here\\A", name, u"kept");
        store(u"here\\B", name, u"kept");
    }
    for (int round = 0; round < 10; ++round) {
        if (!Accessor::KeyExists(kRoot, u"here")) {
            ASSERT_EQ(Accessor::RegistryMoveKey(kRoot, u"there", u"here"), 0);
        }
        zr::test::Child mover("key_mover");
        ASSERT_EQ(mover.hear(), "ready");
        for (int moves = 0; moves < 1 + round; ++moves) {
            while (Accessor::KeyExists(kRoot, moves % 2 == 0 ? u"here" : u"there")) {  // it is at it
            }
        }
        mover.kill(SIGKILL);
        mover.wait();
        ASSERT_EQ(whole(u"here") + whole(u"there"), 1) << "both values' keys, in one place";
        ASSERT_NE(Accessor::KeyExists(kRoot, u"here"), Accessor::KeyExists(kRoot, u"there"));
    }
}

// ---- against a model -----------------------------------------------------------------------------------------------

// ---- the disk ------------------------------------------------------------------------------------------------------

// How often a call synced a file.
template <typename Call>
int syncs_of(const Call& call) {
    const int before = syncs;
    call();
    return syncs - before;
}

TEST(RegistryAccessor, SettingFlushesAndDeletingAndMovingDoNot) {
    WCHAR text[] = u"x";
    unsigned char bytes[] = {1, 2};
    EXPECT_GT(syncs_of([] { Accessor::RegistrySetDWORD(kRoot, kPath, u"n", 1); }), 0);
    EXPECT_GT(syncs_of([] { Accessor::RegistrySetInteger(kRoot, kPath, u"i", 1); }), 0);
    EXPECT_GT(syncs_of([] { Accessor::RegistrySetBoolean(kRoot, kPath, u"b", true); }), 0);
    EXPECT_GT(syncs_of([&] { Accessor::RegistrySetString(kRoot, kPath, u"s", text, sizeof text); }), 0);
    EXPECT_GT(syncs_of([&] { Accessor::RegistrySetBinary(kRoot, kPath, u"y", bytes, sizeof bytes); }), 0);
    EXPECT_EQ(syncs_of([] { EXPECT_EQ(Accessor::RegistryDeleteKeyValue(kRoot, kPath, u"n"), 1); }), 0);
    EXPECT_EQ(syncs_of([] { EXPECT_EQ(Accessor::RegistryMoveKey(kRoot, u"Software", u"Moved"), 0); }), 0);
}

TEST(RegistryAccessor, AFlushThatFailsIsNotTold) {
    WCHAR text[] = u"x";
    RegCloseKey(make(kPath));  // the store is there
    syncs_fail = true;
    EXPECT_GT(syncs_of([&] { EXPECT_EQ(Accessor::RegistrySetString(kRoot, kPath, u"s", text, sizeof text), 1); }), 0);
    syncs_fail = false;
    EXPECT_TRUE(stored(kPath, u"s").has_value());
}

TEST(RegistryAccessor, RandomOperationsDoWhatAMapDoes) {
    std::mt19937 random(81);
    std::map<std::u16string, Stored> model;
    const WCHAR* const names[] = {u"a", u"b", u"c", u"d"};
    for (int i = 0; i < 600; ++i) {
        const WCHAR* const name = names[random() % 4];
        const auto number = static_cast<ULONG>(random());
        const int length = static_cast<int>(random() % 12);
        std::string bytes(static_cast<std::size_t>(length), '\0');
        std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
        std::vector<WCHAR> units(8);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(units.data()));
        switch (random() % 7) {
            case 0:
                Accessor::RegistrySetDWORD(kRoot, kPath, name, number);
                model[name] = {REG_DWORD, std::string(reinterpret_cast<const char*>(&number), 4)};
                break;
            case 1:
                ASSERT_EQ(Accessor::RegistrySetString(kRoot, kPath, name, units.data(), length), 1);
                model[name] = {REG_SZ, bytes};
                break;
            case 2:
                Accessor::RegistrySetBinary(kRoot, kPath, name, reinterpret_cast<unsigned char*>(bytes.data()), length);
                model[name] = {REG_BINARY, bytes};
                break;
            case 3:
                ASSERT_EQ(Accessor::RegistryDeleteKeyValue(kRoot, kPath, name), static_cast<int>(model.erase(name)));
                break;
            default:
                break;
        }
        const auto at = model.find(name);
        const bool there = at != model.end();
        const DWORD type = there ? at->second.type : 0;
        const std::size_t size = there ? at->second.bytes.size() : 0;
        ULONG expected = 99;
        if (type == REG_DWORD) std::copy_n(at->second.bytes.data(), 4, reinterpret_cast<char*>(&expected));
        ASSERT_EQ(Accessor::RegistryGetDWORD(kRoot, kPath, name, 99), expected);
        ASSERT_EQ(Accessor::RegistryKeyValueExists(kRoot, kPath, name), there && size <= 4);
        const int room = static_cast<int>(random() % 8) + 1;
        std::array<WCHAR, 8> text;
        const bool fits = type == REG_SZ && size <= static_cast<std::size_t>(room) * 2;
        ASSERT_EQ(Accessor::RegistryGetString(kRoot, kPath, name, text.data(), room, nullptr), fits ? size / 2 : 0);
        ASSERT_EQ(Accessor::RegistryGetString(kRoot, kPath, name, nullptr, 0, nullptr), size);
        std::array<unsigned char, 8> buffer;
        const bool taken = type == REG_BINARY && size <= static_cast<std::size_t>(room);
        ASSERT_EQ(Accessor::RegistryGetBinary(kRoot, kPath, name, buffer.data(), room),
                  taken            ? 0
                  : i > 0 || there ? Accessor::KeyExists(kRoot, kPath) ? -3 : -2
                                   : -2);
    }
}

}  // namespace
