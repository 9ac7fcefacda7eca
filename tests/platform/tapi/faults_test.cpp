// What must not go wrong: paths that are used again, words that come early, threads at once, no memory.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "modem_lines.h"
#include "platform/diagnostics.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace {

using namespace zr::test;

constexpr DWORD kAnyPrivilege = LINECALLPRIVILEGE_MONITOR | LINECALLPRIVILEGE_OWNER;

std::size_t count_messages(DWORD message, DWORD_PTR first = ~DWORD_PTR{0}) {
    return static_cast<std::size_t>(std::ranges::count_if(line_messages(), [&](const LineMessage& each) {
        return each.message == message && (first == ~DWORD_PTR{0} || each.params[0] == first);
    }));
}

// Repeats it with one allocation more each time until it has its way; returns how often memory was missing.
template <class Body>
int until_there_is_memory(const Body& body) {
    for (int successes = 0; successes < 2000; ++successes) {
        LONG result = 0;
        {
            const FailingNew failing(successes);
            result = body();
        }
        if (result != LINEERR_NOMEM) {
            EXPECT_GE(result, 0);
            return successes;
        }
    }
    ADD_FAILURE() << "never";
    return 0;
}

std::u16string caller_of(HCALL call) {
    Roomy<LINECALLINFO> info;
    EXPECT_EQ(lineGetCallInfo(call, &info.all), 0);
    return text_in(info.all, info.all.dwCallerIDSize, info.all.dwCallerIDOffset);
}

}  // namespace

// Opens the line as an owner, and knows of no call until it is handed one.
ZR_CHILD(unaware_application) {
    const LineSession session(u"phone");
    const HLINE line = session.open(0, LINECALLPRIVILEGE_OWNER);
    if (!new_calls(line).empty()) return 1;
    say("ready");
    const LineMessage* const given = await_message(LINE_APPNEWCALL);
    if (given == nullptr || given->params[2] != LINECALLPRIVILEGE_OWNER) return 2;
    say("given");
    hear();
    return 0;
}

TEST_F(OfonoLines, TellCallsApartThatHaveOnePath) {
    const std::string path = modems_->ring(modem_, "1");
    const LineSession session;
    const HLINE line = session.open(0);
    const std::vector<HCALL> old = new_calls(line);
    ASSERT_EQ(old.size(), 1u);
    for (int i = 2; i < 6; ++i) {
        modems_->replace(path, std::to_string(i));
        const std::vector<HCALL> calls = new_calls(line);
        ASSERT_EQ(calls.size(), 1u) << i;
        EXPECT_EQ(caller_of(calls[0]), std::u16string(1, static_cast<WCHAR>(u'0' + i)));
        EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_OFFERING);
        EXPECT_EQ(state_of(old[0]), LINECALLSTATE_IDLE);
        EXPECT_EQ(caller_of(old[0]), u"1");
    }
    ASSERT_TRUE(pump_until([] { return count_messages(LINE_CALLSTATE, LINECALLSTATE_IDLE) == 4; }));
    EXPECT_EQ(count_messages(LINE_CALLSTATE, LINECALLSTATE_DISCONNECTED), 4u);
}

TEST_F(OfonoLines, AreHandedCallsThatTheyHaveNotHeardOf) {
    Child phone("unaware_application");
    ASSERT_EQ(phone.hear(), "ready");
    modems_->be_silent(true);
    modems_->ring(modem_, "1");
    const LineSession session;
    const std::vector<HCALL> calls = new_calls(session.open(0));
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    ASSERT_EQ(lineHandoff(calls[0], u"phone", 0), 0);
    EXPECT_EQ(phone.hear(), "given");
    phone.say("end");
    EXPECT_EQ(phone.wait(), 0);
}

TEST_F(OfonoLines, LeaveNoOwnerBehindHoweverTheyAreClosed) {
    modems_->ring(modem_, "1");
    const int rounds = 400 / kStride;
    for (int i = 0; i < rounds; ++i) {
        HLINEAPP handle = 0;
        DWORD count = 0;
        const LINECALLBACK ignore = [](DWORD, DWORD, DWORD_PTR, DWORD_PTR, DWORD_PTR, DWORD_PTR) {};
        ASSERT_EQ(lineInitialize(&handle, nullptr, ignore, u"other", &count), 0);
        std::atomic<bool> ended{false};
        std::atomic<int> turns{0};
        std::thread other([&] {
            while (!ended) {
                HLINE line = 0;
                ++turns;
                if (lineOpen(handle, 0, &line, 0x20000, 0, 0, kAnyPrivilege, LINEMEDIAMODE_INTERACTIVEVOICE, nullptr) !=
                    0) {
                    break;
                }
                struct {
                    LINECALLLIST list;
                    HCALL call;
                } room{};
                room.list.dwTotalSize = sizeof room;
                if (lineGetNewCalls(line, 0, LINECALLSELECT_LINE, &room.list) == 0) {
                    lineSetCallPrivilege(room.call, LINECALLPRIVILEGE_OWNER);
                }
                if (i % 2 == 0) lineClose(line);
            }
        });
        while (turns <= i % 7) {
            std::this_thread::yield();
        }
        EXPECT_EQ(lineShutdown(handle), 0);
        ended = true;
        other.join();
        const LineSession watcher;
        const std::vector<HCALL> calls = new_calls(watcher.open(0));
        ASSERT_EQ(calls.size(), 1u);
        ASSERT_EQ(owners_of(calls[0]), 0u) << i;
        // Nobody takes calls over any more.
        ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
        ASSERT_EQ(lineHandoff(calls[0], u"other", 0), LINEERR_TARGETNOTFOUND) << i;
    }
}

TEST_F(OfonoLines, AreOpenedAndClosedWithWhatMemoryThereIs) {
    modems_->ring(modem_, "1");
    const LineSession first;
    const LONGLONG windows = ZrLiveObjects(ZrLiveKind::Windows);
    HLINEAPP session = 0;
    DWORD count = 0;
    EXPECT_GT(
        until_there_is_memory([&] { return lineInitialize(&session, nullptr, note_line_message, u"phone", &count); }),
        2);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), windows + 1);
    HLINE line = 0;
    EXPECT_GT(until_there_is_memory([&] {
                  return lineOpen(session, 0, &line, 0x20000, 0, 0, kAnyPrivilege, LINEMEDIAMODE_INTERACTIVEVOICE,
                                  nullptr);
              }),
              2);
    struct {
        LINECALLLIST list;
        HCALL calls[2];
    } room{};
    room.list.dwTotalSize = sizeof room;
    EXPECT_GT(until_there_is_memory([&] { return lineGetNewCalls(line, 0, LINECALLSELECT_LINE, &room.list); }), 2);
    ASSERT_EQ(room.list.dwCallsNumEntries, 1u);
    const HCALL call = room.calls[0];
    const HLINE watched = first.open(0);
    const std::vector<HCALL> seen = new_calls(watched);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_GT(until_there_is_memory([&] { return lineSetCallPrivilege(call, LINECALLPRIVILEGE_OWNER); }), 0);
    EXPECT_EQ(owners_of(seen[0]), 1u);
    const std::size_t before = line_messages().size();
    EXPECT_GT(until_there_is_memory([&] { return lineAnswer(call, nullptr, 0); }), 0);
    ASSERT_NE(await_message(LINE_REPLY, before), nullptr);
    EXPECT_EQ(state_of(call), LINECALLSTATE_CONNECTED);
    HCALL made = 0;
    EXPECT_GT(until_there_is_memory([&] { return lineMakeCall(line, &made, u"123", 0, nullptr); }), 0);
    ASSERT_TRUE(pump_until([] { return count_messages(LINE_REPLY) == 2; }));
    EXPECT_EQ(status_of(made).dwCallPrivilege, LINECALLPRIVILEGE_OWNER);
    EXPECT_GT(until_there_is_memory([&] { return lineClose(line); }), 0);
    EXPECT_EQ(owners_of(seen[0]), 0u);
    line = 0;
    ASSERT_EQ(lineOpen(session, 0, &line, 0x20000, 0, 0, kAnyPrivilege, LINEMEDIAMODE_INTERACTIVEVOICE, nullptr), 0);
    EXPECT_GT(until_there_is_memory([&] { return lineShutdown(session); }), 0);
    EXPECT_EQ(lineShutdown(session), LINEERR_INVALAPPHANDLE);
    ASSERT_EQ(lineSetCallPrivilege(seen[0], LINECALLPRIVILEGE_OWNER), 0);
    EXPECT_EQ(lineHandoff(seen[0], u"phone", 0), LINEERR_TARGETNOTFOUND);
}

TEST_F(OfonoLines, DeliverEachMessageOnceWithWhatMemoryThereIs) {
    const LineSession session(u"phone");
    session.open(0, kAnyPrivilege);
    session.open(0, LINECALLPRIVILEGE_MONITOR);
    for (int i = 0; i < 3; ++i) {
        modems_->ring(modem_, std::to_string(i), i == 0 ? ModemState::RingingIn : ModemState::Waiting);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int successes = 0; count_messages(LINE_CALLSTATE, LINECALLSTATE_OFFERING) < 6;
         successes = (successes + 1) % 40) {
        ASSERT_LT(std::chrono::steady_clock::now(), end);
        MSG message;
        if (!PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            MsgWaitForMultipleObjectsEx(0, nullptr, 100, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
            continue;
        }
        const FailingNew failing(successes);
        DispatchMessageW(&message);
    }
    EXPECT_EQ(count_messages(LINE_APPNEWCALL), 6u);
    EXPECT_EQ(count_messages(LINE_CALLSTATE), 6u);
}

TEST_F(OfonoLines, OfAReadingWithoutMemoryAreThoseOfTheNext) {
    const LineSession session;
    const HLINE line = session.open(0, LINECALLPRIVILEGE_MONITOR);
    ASSERT_TRUE(new_calls(line).empty());
    struct {
        LINECALLLIST list;
        HCALL calls[40];
    } room{};
    room.list.dwTotalSize = sizeof room;
    std::size_t shown = 0;
    for (int successes = 0; successes < 300; successes += kStride) {
        const std::string path = modems_->ring(modem_, "1");
        for (bool more = true; more;) {
            LONG result = 0;
            {
                const FailingNew failing(successes);
                result = lineGetNewCalls(line, 0, LINECALLSELECT_LINE, &room.list);
            }
            if (result != 0) result = lineGetNewCalls(line, 0, LINECALLSELECT_LINE, &room.list);
            ASSERT_EQ(result, 0);
            more = room.list.dwCallsNumEntries == 0;
        }
        ASSERT_EQ(room.list.dwCallsNumEntries, 1u);
        ++shown;
        modems_->remove_call(path);
        ASSERT_EQ(state_of(room.calls[0]), LINECALLSTATE_IDLE);
        ASSERT_EQ(lineDeallocateCall(room.calls[0]), 0);
    }
    EXPECT_GT(shown, 20u);
}

TEST_F(ManagerLines, AreAskedForOnceWhileTheBusSaysNothing) {
    {
        const LineSession session;
        ASSERT_EQ(session.count(), 1u);
    }
    bus_.daemon().stop();
    const int patience = zr::platform::voice_patience.exchange(300);
    // The connection ends, and a new one finds nobody who lets it in.
    const auto before = std::chrono::steady_clock::now();
    LONG last = 0;
    for (int i = 0; i < 20; ++i) {
        HLINEAPP handle = 0;
        DWORD count = 0;
        EXPECT_EQ(lineInitialize(&handle, nullptr, note_line_message, u"phone", &count), 0);
        last = lineShutdown(handle);
    }
    EXPECT_EQ(last, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
    zr::platform::voice_patience = patience;
    bus_.daemon().go_on();
}

TEST_F(OfonoLines, EndInMidCallWithTheirBus) {
    modems_->ring(modem_, "1");
    const LineSession session;
    const HLINE line = session.open(0);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    ASSERT_GT(lineAnswer(calls[0], nullptr, 0), 0);
    ASSERT_NE(await_message(LINE_REPLY), nullptr);
    ASSERT_EQ(state_of(calls[0]), LINECALLSTATE_CONNECTED);
    bus_.daemon().end();
    ASSERT_NE(await_message(LINE_CLOSE), nullptr);
    // What is known last of the call is that it is over; its handle went with the line.
    EXPECT_EQ(lineDrop(calls[0], nullptr, 0), LINEERR_INVALCALLHANDLE);
    EXPECT_EQ(lineGetNewCalls(line, 0, LINECALLSELECT_LINE, nullptr), LINEERR_INVALPOINTER);
    EXPECT_EQ(lineClose(line), LINEERR_INVALLINEHANDLE);
}

TEST_F(ManagerLines, ReplyThatTheyFailedWhenTheServiceIsKilled) {
    modems_->ring(modem_, "1");
    const LineSession session;
    const HLINE line = session.open(0);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    modems_->process().stop();
    ASSERT_GT(lineDrop(calls[0], nullptr, 0), 0);
    modems_->process().end();
    const LineMessage* const reply = await_message(LINE_REPLY);
    ASSERT_NE(reply, nullptr);
    EXPECT_LT(static_cast<LONG>(reply->params[1]), 0);
    ASSERT_NE(await_message(LINE_CLOSE), nullptr);
}

TEST_F(ManagerLines, ThreeHundredForksUnderLoad) {
    modems_->ring(modem_, "1");
    const auto use = [] {
        HLINEAPP session = 0;
        DWORD count = 0;
        const LINECALLBACK ignore = [](DWORD, DWORD, DWORD_PTR, DWORD_PTR, DWORD_PTR, DWORD_PTR) {};
        if (lineInitialize(&session, nullptr, ignore, u"other", &count) != 0) return 1;
        HLINE line = 0;
        const bool opened = count == 0 || lineOpen(session, 0, &line, 0x20000, 0, 0, kAnyPrivilege,
                                                   LINEMEDIAMODE_INTERACTIVEVOICE, nullptr) == 0;
        return lineShutdown(session) == 0 && opened ? 0 : 2;
    };
    {
        const Load load({[&] { EXPECT_EQ(use(), 0); }, [&] { EXPECT_EQ(use(), 0); }});
        for (int i = 0; i < 300 / kStride; ++i) {
            ASSERT_EQ(in_fork(use), 0) << i;
        }
    }
    const LineSession session;
    EXPECT_EQ(new_calls(session.open(0)).size(), 1u);
}
