// Sessions that a process takes along when it is forked, and stores that are set aside while they are open.

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/registry.h"
#include "platform/windowing.h"
#include "session_support.h"
#include "store_query.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

std::atomic<bool> g_threads_close_late{false};

// A byte from one process to another.
class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe(ends_), 0); }
    ~Pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void say() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
    void hear() const {
        char byte = 0;
        EXPECT_EQ(read(ends_[0], &byte, 1), 1);
    }

private:
    int ends_[2] = {-1, -1};
};

bool save(const TestSession& session, const WCHAR* name) {
    const auto made = session.fresh();
    return made->put_LastName(in(name)) == S_OK && made->Save() == S_OK;
}

ZR_CHILD(contacts_there) {
    TestSession session;
    return session.logon == S_OK ? count(*session.items().get()) : 255;
}

// Counted by a process that has nothing to do with any other.
int contacts_there() {
    return Child("contacts_there").wait();
}

ZR_CHILD(forker_that_leaves) {
    TestSession session;
    if (!save(session, u"parent")) return 1;
    const Pipe gone;
    const Forked child([&] {
        gone.hear();  // the parent has logged off
        for (const WCHAR* name : {u"one", u"two", u"three"}) {
            if (!save(session, name)) return 2;
        }
        return count(*session.items().get()) == 4 ? 0 : 3;
    });
    if (session.app->Logoff() != S_OK) return 4;
    gone.say();
    return child.wait();
}

TEST(Forks, AChildsContactsStayWhenItsParentLogsOff) {
    EXPECT_EQ(Child("forker_that_leaves").wait(), 0);
    EXPECT_EQ(contacts_there(), 4);
    EXPECT_EQ(query(store_path(), "PRAGMA integrity_check"), "ok");
}

ZR_CHILD(adds_many) {
    TestSession session;
    say("ready");
    for (int i = 0; i < 200; ++i) {
        if (!save(session, u"other")) return 1;
    }
    return 0;
}

TEST(Forks, ParentAndChildAndOthersWriteAtTheSameTime) {
    TestSession session;
    Child other("adds_many");
    ASSERT_EQ(other.hear(), "ready");
    const auto add = [&] {
        for (int i = 0; i < 50; ++i) {
            if (!save(session, u"mine")) return 1;
        }
        return 0;
    };
    const Forked one(add);
    const Forked two(add);
    EXPECT_EQ(add(), 0);
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
    EXPECT_EQ(other.wait(), 0);
    EXPECT_EQ(contacts_there(), 350 % 256) << "an exit code has eight bits";
    EXPECT_EQ(count(*session.items().get()), 350);
    EXPECT_EQ(query(store_path(), "SELECT count(*) FROM contact WHERE last_name IS NULL"), "0");
}

class NoteWindow {
public:
    NoteWindow() {
        WNDCLASSW shape = {};
        shape.lpfnWndProc = &DefWindowProcW;
        shape.lpszClassName = u"pim.test.forks";
        RegisterClassW(&shape);
        window_ = CreateWindowExW(0, u"pim.test.forks", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    }
    ~NoteWindow() { DestroyWindow(window_); }
    NoteWindow(const NoteWindow&) = delete;
    NoteWindow& operator=(const NoteWindow&) = delete;
    HWND window() const { return window_; }
    // The next notification; waits for it.
    UINT next() const {
        MSG message = {};
        while (GetMessageW(&message, window_, 0, 0) > 0) {
            if (message.message >= PIM_ITEM_CREATED_LOCAL && message.message <= PIM_ITEM_CHANGED_REMOTE)
                return message.message;
        }
        return 0;
    }

private:
    HWND window_;
};

void tell_all(TestSession& session) {
    Ptr<IItem> item;
    ASSERT_EQ(session.folder()->QueryInterface(IID_IItem, item.any()), S_OK);
    CEPROPVAL value = {};
    value.propid = PIMPR_FOLDERNOTIFICATIONS;
    value.val.ulVal = PIMFOLDERNOTIFICATION_LOCAL | PIMFOLDERNOTIFICATION_REMOTE;
    ASSERT_EQ(item->SetProps(0, 1, &value), S_OK);
}

TEST(Forks, AChildsChangesAreRemoteToItsParent) {
    const NoteWindow window;
    TestSession session(window.window());
    ASSERT_EQ(session.logon, S_OK);
    tell_all(session);
    ASSERT_TRUE(save(session, u"own"));
    EXPECT_EQ(window.next(), PIM_ITEM_CREATED_LOCAL);
    const Forked child([&] { return save(session, u"child's") ? 0 : 1; });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(window.next(), PIM_ITEM_CREATED_REMOTE);
    ASSERT_TRUE(save(session, u"own"));
    EXPECT_EQ(window.next(), PIM_ITEM_CREATED_LOCAL);
}

TEST(Forks, AChildOfThreadsAtWorkWorksOn) {
    constexpr int kForks = 300 / zr::test::kStride;
    TestSession session;
    ASSERT_TRUE(save(session, u"first"));
    std::atomic<int> saved{1};
    const auto with_the_same_session = [&] {
        EXPECT_TRUE(save(session, u"thread's"));
        EXPECT_GT(count(*session.items().get()), 0);
        ++saved;
    };
    const auto with_its_own_session = [&] {
        const TestSession own;
        ASSERT_EQ(own.logon, S_OK) << testing::PrintToString(std::u16string(ZrPimLastErrorText()));
        EXPECT_TRUE(save(own, u"thread's"));
        ++saved;
    };
    {
        const Load load({with_the_same_session, with_its_own_session});
        for (int round = 0; round < kForks; ++round) {
            const Forked child([&] {
                if (!save(session, u"child's")) return 1;
                return count(*session.items().get()) > round ? 0 : 2;
            });
            ASSERT_EQ(child.wait(), 0) << round;
            ASSERT_TRUE(save(session, u"parent's"));
        }
    }
    EXPECT_EQ(count(*session.items().get()), saved + 2 * kForks);
    EXPECT_EQ(query(store_path(), "PRAGMA integrity_check"), "ok");
}

TEST(Forks, ABatchIsTheParentsAlone) {
    TestSession session;
    const auto store = session.store();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    ASSERT_TRUE(save(session, u"in the batch"));
    const Forked child([&] {
        const auto item = session.fresh();
        item->put_LastName(in(u"lost"));
        if (SUCCEEDED(item->Save())) return 1;
        if (SUCCEEDED(store->CommitBatch())) return 2;
        // What the parent has in hand is none of the child's business, and a clear error.
        const auto again = session.fresh();
        again->put_LastName(in(u"later"));
        if (again->Save() != HRESULT_FROM_WIN32(ERROR_BUSY)) return 3;
        return std::u16string(ZrPimLastErrorText()).find(u"forked") != std::u16string::npos ? 0 : 4;
    });
    EXPECT_EQ(child.wait(), 0);
    ASSERT_TRUE(save(session, u"in the batch, too"));
    EXPECT_EQ(store->CommitBatch(), S_OK);
    EXPECT_EQ(contacts_there(), 2);
}

}  // namespace

// In the place of the C library's, for the platform.
extern "C" __attribute__((visibility("default"))) int close(int file) {
    if (g_threads_close_late && gettid() != getpid()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    // The next one may be a sanitizer's, which must know what is closed.
    static const auto own = reinterpret_cast<decltype(&close)>(dlsym(RTLD_NEXT, "close"));
    return own(file);
}

namespace {

// A session's end leaves it to the listener's thread to close what it listened with. Here that thread takes its time.
TEST(Forks, AtTheEndOfListeningTheChildHasNoneOfItsFiles) {
    const auto listens = [] {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::any_of(begin(files), end(files), [](const auto& file) {
            std::error_code closed;
            return std::filesystem::read_symlink(file.path(), closed) == "anon_inode:inotify";
        });
    };
    const NoteWindow window;
    for (int round = 0; round < 5; ++round) {
        {
            TestSession session(window.window());
            ASSERT_EQ(session.logon, S_OK);
            tell_all(session);
            ASSERT_TRUE(listens());
            g_threads_close_late = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(round));
        const Forked child([&] {
            g_threads_close_late = false;
            if (listens()) return 1;
            TestSession session;
            return save(session, u"child's") ? 0 : 2;
        });
        g_threads_close_late = false;
        EXPECT_EQ(child.wait(), 0) << round;
    }
    EXPECT_EQ(contacts_there(), 5);
}

// The thread that writes may be inside SQLite, whose locks are those of all stores: then the child has none of them,
// and is told so at once.
TEST(Forks, BesideAThreadThatKeepsAStoreTheChildHasNone) {
    TestSession session;
    ASSERT_TRUE(save(session, u"before"));
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, u"k", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr), 0);
    const Pipe begun;
    const Pipe go;
    std::thread writer([&] {
        TestSession own;
        const auto store = own.store();
        ASSERT_EQ(store->BeginBatch(), S_OK);
        ASSERT_TRUE(save(own, u"in the batch"));
        begun.say();
        go.hear();
        EXPECT_EQ(store->CommitBatch(), S_OK);
    });
    begun.hear();
    const Forked child([&] {
        if (save(session, u"lost")) return 1;
        if (std::u16string(ZrPimLastErrorText()).find(u"forked") == std::u16string::npos) return 2;
        const DWORD value = 1;
        const LONG result =
            RegSetValueExW(key, u"v", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
        return result == static_cast<LONG>(ERROR_BUSY) ? 0 : 3;
    });
    EXPECT_EQ(child.wait(), 0);
    go.say();
    writer.join();
    EXPECT_TRUE(save(session, u"after"));
    EXPECT_EQ(RegCloseKey(key), 0);
    EXPECT_EQ(contacts_there(), 3);
}

// --- stores that are set aside ---

std::string bytes_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

ZR_CHILD(finds_the_damage) {
    TestSession session;
    return session.logon == HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT) ? 0 : 1;
}

TEST(SetAside, IsNoticedByWhoHasTheStoreOpen) {
    TestSession session;
    ASSERT_TRUE(save(session, u"before"));
    const auto old = session.contact(1);
    ASSERT_EQ(query(store_path(), "PRAGMA wal_checkpoint(TRUNCATE)"), "0");
    {
        std::fstream file(store_path(), std::ios::in | std::ios::out | std::ios::binary);
        for (int page = 1; page < 8; ++page) {
            file.seekp(page * 4096);
            file << std::string(4096, '\xEE');
        }
    }
    std::ofstream(store_path().string() + ".suspect").flush();
    ASSERT_EQ(Child("finds_the_damage").wait(), 0);
    ASSERT_EQ(set_aside().size(), 1u);
    const std::string kept = bytes_of(set_aside()[0]);
    ASSERT_TRUE(save(session, u"after"));
    EXPECT_EQ(count(*session.items().get()), 1) << "the new store";
    EXPECT_EQ(contacts_there(), 1);
    EXPECT_EQ(bytes_of(set_aside()[0]), kept);
    EXPECT_FALSE(std::filesystem::exists(set_aside()[0].string() + "-wal") &&
                 std::filesystem::file_size(set_aside()[0].string() + "-wal") != 0);
    // What was in hand is of the old store.
    EXPECT_EQ(old->put_LastName(in(u"changed")), S_OK);
    EXPECT_EQ(old->Save(), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
}

}  // namespace
