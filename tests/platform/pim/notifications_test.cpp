#include <signal.h>

#include <deque>
#include <map>

#include "platform/windowing.h"
#include "session_support.h"
#include "support/child.h"

namespace {

using namespace zr::test;

// A hidden window whose messages are collected.
class Listener {
public:
    Listener() {
        WNDCLASSW shape = {};
        shape.lpfnWndProc = &Listener::procedure;
        shape.lpszClassName = u"pim.test.listener";
        RegisterClassW(&shape);
        window_ = CreateWindowExW(0, u"pim.test.listener", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, this);
        EXPECT_NE(window_, nullptr);
        SetWindowLongW(window_, GWL_USERDATA, reinterpret_cast<LONG_PTR>(this));
    }
    ~Listener() { DestroyWindow(window_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    HWND window() const { return window_; }
    // The next notification; waits for it.
    std::pair<UINT, LONG> next() {
        while (seen_.empty()) {
            MSG message;
            if (GetMessageW(&message, nullptr, 0, 0) <= 0) return {};
            DispatchMessageW(&message);
        }
        const auto first = seen_.front();
        seen_.pop_front();
        return first;
    }
    // What is there without waiting.
    bool idle() {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            DispatchMessageW(&message);
        }
        return seen_.empty();
    }

private:
    static LRESULT procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        auto* self = reinterpret_cast<Listener*>(GetWindowLongW(window, GWL_USERDATA));
        if (self != nullptr && message >= 0x8100 && message <= 0x8107) {
            EXPECT_EQ(lparam, olFolderContacts);
            self->seen_.emplace_back(message, static_cast<LONG>(wparam));
        }
        return DefWindowProcW(window, message, wparam, lparam);
    }

    HWND window_ = nullptr;
    std::deque<std::pair<UINT, LONG>> seen_;
};

void subscribe(TestSession& session, ULONG flags, bool save = false) {
    Ptr<IItem> item;
    ASSERT_EQ(session.folder()->QueryInterface(IID_IItem, item.any()), S_OK);
    CEPROPVAL value = {};
    value.propid = PIMPR_FOLDERNOTIFICATIONS;
    value.val.ulVal = flags;
    ASSERT_EQ(item->SetProps(0, 1, &value), S_OK);
    if (save) {
        ASSERT_EQ(item->Save(), S_OK);
    }
}

void change(TestSession& session, LONG oid) {
    const auto item = session.contact(oid);
    item->put_JobTitle(in(u"changed"));
    ASSERT_EQ(item->Save(), S_OK);
}

using Note = std::pair<UINT, LONG>;

ZR_CHILD(remote_writer) {
    TestSession session;
    say("ready");
    for (std::string command = hear(); !command.empty(); command = hear()) {
        if (command == "add") session.add(u"r", u"");
        if (command == "change") change(session, 1);
        if (command == "remove") session.items()->Remove(1);
        if (command == "burst") {
            for (int i = 0; i < 300; ++i) {
                session.add(u"r", u"");
            }
        }
        if (command == "flood") {
            const auto store = session.store();
            store->BeginBatch();
            for (int i = 0; i < 10500; ++i) {
                session.add(u"r", u"");
            }
            store->CommitBatch();
        }
        say("done");
    }
    return 0;
}

TEST(Notifications, LocalChangesReachEveryWindowThatAsked) {
    Listener one;
    Listener two;
    TestSession first(one.window());
    TestSession second(two.window());
    ASSERT_EQ(first.logon, S_OK);
    first.add(u"quiet", u"");
    EXPECT_TRUE(one.idle()) << "the folder was not asked to report";
    subscribe(first, PIMFOLDERNOTIFICATION_LOCAL | PIMFOLDERNOTIFICATION_REMOTE);
    const LONG oid = first.add(u"a", u"");
    for (Listener* each : {&one, &two}) {
        EXPECT_EQ(each->next(), Note(PIM_ITEM_CREATED_LOCAL, oid));
    }
    change(second, oid);
    ASSERT_EQ(first.contact(oid)->Delete(), S_OK);
    ASSERT_EQ(first.contact(1)->Save(), S_OK) << "nothing was put: nothing is reported";
    for (Listener* each : {&one, &two}) {
        EXPECT_EQ(each->next(), Note(PIM_ITEM_CHANGED_LOCAL, oid));
        EXPECT_EQ(each->next(), Note(PIM_ITEM_DELETED_LOCAL, oid));
        EXPECT_TRUE(each->idle());
    }
    second.app->Logoff();
    first.add(u"b", u"");
    EXPECT_EQ(one.next().first, PIM_ITEM_CREATED_LOCAL);
    EXPECT_TRUE(two.idle());
    subscribe(first, PIMFOLDERNOTIFICATION_REMOTE);
    first.add(u"c", u"");
    EXPECT_TRUE(one.idle());
}

TEST(Notifications, BatchesAreReportedAfterTheirCommit) {
    Listener listener;
    TestSession session(listener.window());
    subscribe(session, 3);
    const auto store = session.store();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    session.add(u"a", u"");
    session.add(u"b", u"");
    EXPECT_TRUE(listener.idle());
    ASSERT_EQ(store->RollbackBatch(), S_OK);
    EXPECT_TRUE(listener.idle());
    ASSERT_EQ(store->BeginBatch(), S_OK);
    session.add(u"a", u"");
    session.add(u"b", u"");
    ASSERT_EQ(store->CommitBatch(), S_OK);
    EXPECT_EQ(listener.next(), Note(PIM_ITEM_CREATED_LOCAL, 1));
    EXPECT_EQ(listener.next(), Note(PIM_ITEM_CREATED_LOCAL, 2));
}

TEST(Notifications, RemoteChangesArriveInOrder) {
    Listener listener;
    TestSession session(listener.window());
    subscribe(session, 3);
    Child child("remote_writer");
    ASSERT_EQ(child.hear(), "ready");
    child.say("add");
    EXPECT_EQ(listener.next(), Note(PIM_ITEM_CREATED_REMOTE, 1));
    child.say("change");
    EXPECT_EQ(listener.next(), Note(PIM_ITEM_CHANGED_REMOTE, 1));
    child.say("remove");
    EXPECT_EQ(listener.next(), Note(PIM_ITEM_DELETED_REMOTE, 1));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(child.hear(), "done");
    }
    child.say("burst");
    EXPECT_EQ(child.hear(), "done");
    const LONG own = session.add(u"local", u"");
    EXPECT_EQ(own, 301);
    for (LONG oid = 1; oid <= 300; ++oid) {
        ASSERT_EQ(listener.next(), Note(PIM_ITEM_CREATED_REMOTE, oid));
    }
    EXPECT_EQ(listener.next(), Note(PIM_ITEM_CREATED_LOCAL, own));
    child.say("");
    EXPECT_EQ(child.wait(), 0);
}

TEST(Notifications, NothingIsLostWhenMoreChangesPileUpThanAQueueHolds) {
    Listener listener;
    TestSession session(listener.window());
    subscribe(session, PIMFOLDERNOTIFICATION_REMOTE);
    Child child("remote_writer");
    ASSERT_EQ(child.hear(), "ready");
    child.say("flood");
    ASSERT_EQ(child.hear(), "done");
    for (LONG oid = 1; oid <= 10500; ++oid) {
        ASSERT_EQ(listener.next(), Note(PIM_ITEM_CREATED_REMOTE, oid));
    }
    EXPECT_TRUE(listener.idle());
}

TEST(Notifications, AKilledWritersCommitsAreReported) {
    Listener listener;
    TestSession session(listener.window());
    subscribe(session, PIMFOLDERNOTIFICATION_REMOTE);
    Child child("remote_writer");
    ASSERT_EQ(child.hear(), "ready");
    child.say("burst");
    std::map<LONG, int> reported;
    for (int i = 0; i < 20; ++i) {
        ++reported[listener.next().second];
    }
    child.kill(SIGKILL);
    child.wait();
    // Whatever the killed process committed is there, and every one of it is reported once.
    const INT committed = count(*session.items().get());
    EXPECT_GE(committed, 20);
    while (static_cast<INT>(reported.size()) < committed) {
        ++reported[listener.next().second];
    }
    EXPECT_TRUE(listener.idle());
    for (LONG oid = 1; oid <= committed; ++oid) {
        EXPECT_EQ(reported[oid], 1);
    }
}

TEST(Notifications, SavedOnesReachOtherProcesses) {
    Listener listener;
    TestSession session(listener.window());
    {
        TestSession other;
        subscribe(other, PIMFOLDERNOTIFICATION_LOCAL, true);
        subscribe(other, 0, false);
    }
    session.add(u"a", u"");
    EXPECT_TRUE(listener.idle()) << "what was set without Save still holds in this process";
    session.app->Logoff();
    ASSERT_EQ(session.app->Logon(listener.window()), S_OK);
    session.add(u"b", u"");
    EXPECT_EQ(listener.next(), Note(PIM_ITEM_CREATED_LOCAL, 2));
}

TEST(Notifications, SessionsComeAndGoWhileOthersWrite) {
    Child child("remote_writer");
    ASSERT_EQ(child.hear(), "ready");
    child.say("burst");
    for (int i = 0; i < 30; ++i) {
        Listener listener;
        TestSession session(listener.window());
        ASSERT_EQ(session.logon, S_OK);
        subscribe(session, 3);
        session.add(u"l", u"");
        while (listener.next().first != PIM_ITEM_CREATED_LOCAL) {
        }
    }
    EXPECT_EQ(child.hear(), "done");
}

}  // namespace
