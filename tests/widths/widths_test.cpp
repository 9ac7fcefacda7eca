// One user's processes at work on the same log, registry, contacts and named objects at the same time. ZR_TEST_OTHER
// names this program built for another architecture, which then is the second process: what they share is the same
// bytes for addresses of 32 and of 64 bits. Without it, both are this program.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ZrLog/ZrLog.h"
#include "ZrLog/ZrLogReader.h"
#include "platform/pim/session_support.h"
#include "platform/platform.h"
#include "support/child.h"

namespace {

using namespace zr::test;

constexpr DWORD kSoon = 60'000;
constexpr int kRecords = 1000;
constexpr int kValues = 40;
constexpr int kContacts = 40;
constexpr int kTurns = 1000;

std::string other_program() {
    const char* const other = std::getenv("ZR_TEST_OTHER");
    return other ? other : "/proc/self/exe";
}

// The second process; the answer to each line is the result of what it was told to do.
class Other {
public:
    explicit Other(const std::string& function) : child_(function, {}, other_program()) {}

    void begin(const std::string& what) { child_.say(what); }
    std::string end() { return child_.hear(); }
    std::string ask(const std::string& what) {
        begin(what);
        return end();
    }
    Child& process() { return child_; }

private:
    Child child_;
};

std::u16string numbered(const std::string& word, int number) {
    const std::string text = word + " " + std::to_string(number);
    return {text.begin(), text.end()};
}

bool is_signalled(HANDLE handle) {
    return WaitForSingleObject(handle, kSoon) == WAIT_OBJECT_0;
}

// --- The log

void write_log(int who) {
    for (int i = 0; i < kRecords; ++i) {
        zrKelDebugBinLog2("widths", who, static_cast<unsigned>(i), static_cast<std::uintptr_t>(i) * 3,
                          static_cast<std::uintptr_t>(who));
        if (i % 100 == 0) zrKelDebugBinBuffer("widths", who, 7, "some bytes", 10);
    }
}

// How many records of a process are there as they were written; all others are wrong.
int right_records(const std::string& path, int who) {
    std::string error;
    const auto reader = ZrLogReader::open(path, error);
    if (!reader) return -1;
    int right = 0;
    ZrLogEntry entry;
    for (int next = 0; reader->next(entry);) {
        if (entry.line != who || entry.source != "widths") continue;
        if (entry.isBuffer) {
            right += entry.data == "some bytes" && entry.size == 10 ? 1 : 0;
            continue;
        }
        const auto number = static_cast<std::uint64_t>(next++);
        const bool as_written = entry.category == number && entry.argumentCount == 2 &&
                                entry.arguments[0] == number * 3 && entry.arguments[1] == std::uint64_t(who);
        right += as_written ? 1 : 0;
    }
    const ZrLogStatistics statistics = reader->statistics();
    return statistics.damaged + statistics.lost + statistics.unfinished == 0 ? right : -2;
}

ZR_CHILD(log_beside) {
    const std::string path = hear();
    if (!zrLogSetFile(path.c_str())) return 1;
    write_log(2);
    say("written");
    if (hear() != "read") return 2;
    say(std::to_string(right_records(path, 1)));
    return 0;
}

TEST(Widths, ALogIsWrittenByBothAndReadByBoth) {
    const TempFolder folder;
    const std::string path = (folder.host() / "widths.zrlog").string();
    Other other("log_beside");
    other.begin(path);
    ASSERT_TRUE(zrLogSetFile(path.c_str()));
    write_log(1);
    ASSERT_EQ(other.end(), "written");
    zrLogSetFile(nullptr);
    EXPECT_EQ(right_records(path, 1), kRecords + 10);
    EXPECT_EQ(right_records(path, 2), kRecords + 10);
    EXPECT_EQ(other.ask("read"), std::to_string(kRecords + 10));
}

// --- The registry

HKEY shared_key() {
    HKEY key = nullptr;
    RegCreateKeyExW(HKEY_CURRENT_USER, u"Software\\Widths", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    return key;
}

std::array<BYTE, 300> bytes_for(int number) {
    std::array<BYTE, 300> bytes;
    bytes.fill(static_cast<BYTE>(number));
    return bytes;
}

bool set_values(HKEY key, const std::string& who) {
    bool done = true;
    for (int i = 0; i < kValues; ++i) {
        const auto bytes = bytes_for(i);
        done = RegSetValueExW(key, numbered(who, i).c_str(), 0, REG_BINARY, bytes.data(), bytes.size()) == 0 && done;
    }
    return done;
}

int right_values(HKEY key, const std::string& who) {
    int right = 0;
    for (int i = 0; i < kValues; ++i) {
        std::array<BYTE, 300> bytes{};
        DWORD size = bytes.size();
        DWORD type = 0;
        const LONG result = RegQueryValueExW(key, numbered(who, i).c_str(), nullptr, &type, bytes.data(), &size);
        right += result == 0 && type == REG_BINARY && size == bytes.size() && bytes == bytes_for(i) ? 1 : 0;
    }
    return right;
}

ZR_CHILD(registry_beside) {
    const HKEY key = shared_key();
    if (hear() != "set") return 1;
    say(set_values(key, "second") ? "set" : "failed");
    if (hear() != "read") return 2;
    say(std::to_string(right_values(key, "first")));
    return 0;
}

TEST(Widths, ARegistryIsChangedByBothAndSeenByBoth) {
    RegDeleteKeyW(HKEY_CURRENT_USER, u"Software\\Widths");
    const HKEY key = shared_key();
    ASSERT_NE(key, nullptr);
    Other other("registry_beside");
    const HANDLE change = CeFindFirstRegChange(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET);
    ASSERT_NE(change, INVALID_HANDLE_VALUE);
    ASSERT_EQ(other.ask("set"), "set");
    EXPECT_TRUE(is_signalled(change));
    CeFindCloseRegChange(change);
    EXPECT_TRUE(set_values(key, "first"));
    EXPECT_EQ(right_values(key, "second"), kValues);
    EXPECT_EQ(other.ask("read"), std::to_string(kValues));
    RegCloseKey(key);
}

// --- Contacts

void add_contacts(TestSession& session, const char16_t* who) {
    for (int i = 0; i < kContacts; ++i) {
        session.add(numbered("Number", i).c_str(), who, u"number@example.org");
    }
}

// How many contacts of a last name are there, whole.
int right_contacts(TestSession& session, const std::u16string& who) {
    const auto items = session.items();
    int right = 0;
    for (INT i = 1; i <= count(*items.get()); ++i) {
        Ptr<IContact> item;
        if (items->Item(i, item.dispatch()) != S_OK) continue;
        right += text(*item.get(), &IContact::get_LastName) == who &&
                         text(*item.get(), &IContact::get_Email1Address) == u"number@example.org" &&
                         text(*item.get(), &IContact::get_FirstName).starts_with(u"Number ")
                     ? 1
                     : 0;
    }
    return right;
}

ZR_CHILD(contacts_beside) {
    TestSession session;
    if (hear() != "add") return 1;
    add_contacts(session, u"Second");
    say("added");
    if (hear() != "read") return 2;
    say(std::to_string(right_contacts(session, u"First")));
    return 0;
}

TEST(Widths, ContactsAreAddedByBothAndSeenByBoth) {
    TestSession session;
    const auto items = session.items();
    while (count(*items.get()) > 0) {
        ASSERT_EQ(items->Remove(1), S_OK);
    }
    Other other("contacts_beside");
    other.begin("add");
    add_contacts(session, u"First");
    ASSERT_EQ(other.end(), "added");
    EXPECT_EQ(right_contacts(session, u"First"), kContacts);
    EXPECT_EQ(right_contacts(session, u"Second"), kContacts);
    EXPECT_EQ(other.ask("read"), std::to_string(kContacts));
}

// --- Named objects

struct Shared {
    std::uint32_t count;
    char text[28];
};

struct Objects {
    HANDLE mutex = CreateMutexW(nullptr, FALSE, u"widths mutex");
    HANDLE ping = CreateEventW(nullptr, FALSE, FALSE, u"widths ping");
    HANDLE pong = CreateEventW(nullptr, FALSE, FALSE, u"widths pong");
    HANDLE slots = CreateSemaphoreW(nullptr, 0, kTurns, u"widths semaphore with a name that needs more than one cell");
    HANDLE memory =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Shared), u"widths memory");
    Shared* shared = static_cast<Shared*>(MapViewOfFile(memory, FILE_MAP_WRITE, 0, 0, 0));

    ~Objects() {
        UnmapViewOfFile(shared);
        for (const HANDLE handle : {mutex, ping, pong, slots, memory}) {
            CloseHandle(handle);
        }
    }

    bool count_up() {
        for (int i = 0; i < kTurns; ++i) {
            if (!is_signalled(mutex)) return false;
            // Read and written apart, so that two at a time would be seen.
            const std::uint32_t before = *static_cast<volatile std::uint32_t*>(&shared->count);
            *static_cast<volatile std::uint32_t*>(&shared->count) = before + 1;
            if (!ReleaseMutex(mutex)) return false;
        }
        return true;
    }
};

ZR_CHILD(objects_beside) {
    Objects objects;
    if (GetLastError() != ERROR_ALREADY_EXISTS || !objects.shared) return 1;
    say(objects.shared->text);
    if (hear() != "count") return 2;
    say(objects.count_up() ? "counted" : "failed");
    if (hear() != "play") return 3;
    for (int i = 0; i < kTurns; ++i) {
        if (!is_signalled(objects.ping) || !SetEvent(objects.pong)) return 4;
    }
    say("played");
    if (hear() != "take") return 5;
    int taken = 0;
    while (taken < kTurns && is_signalled(objects.slots)) {
        ++taken;
    }
    say(std::to_string(taken));
    return 0;
}

TEST(Widths, NamedObjectsAreTheSameForBoth) {
    Objects objects;
    ASSERT_NE(objects.shared, nullptr);
    *objects.shared = {0, "from the first"};
    Other other("objects_beside");
    ASSERT_EQ(other.end(), "from the first");
    other.begin("count");
    EXPECT_TRUE(objects.count_up());
    ASSERT_EQ(other.end(), "counted");
    EXPECT_EQ(objects.shared->count, 2u * kTurns);
    other.begin("play");
    for (int i = 0; i < kTurns; ++i) {
        ASSERT_TRUE(SetEvent(objects.ping));
        ASSERT_TRUE(is_signalled(objects.pong)) << i;
    }
    ASSERT_EQ(other.end(), "played");
    other.begin("take");
    for (int i = 0; i < kTurns / 10; ++i) {
        ASSERT_TRUE(ReleaseSemaphore(objects.slots, 10, nullptr));
    }
    EXPECT_EQ(other.end(), std::to_string(kTurns));
}

ZR_CHILD(owner_beside) {
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, u"widths left mutex");
    if (!is_signalled(mutex)) return 1;
    say("owned");
    hear();
    return 2;
}

TEST(Widths, AKilledOwnerLeavesItsMutexToTheOther) {
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, u"widths left mutex");
    Other other("owner_beside");
    ASSERT_EQ(other.end(), "owned");
    EXPECT_EQ(WaitForSingleObject(mutex, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    other.process().kill(SIGKILL);
    EXPECT_EQ(WaitForSingleObject(mutex, kSoon), static_cast<DWORD>(WAIT_ABANDONED));
    CloseHandle(mutex);
}

}  // namespace
