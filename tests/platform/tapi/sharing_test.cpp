// oFono's lines, calls that processes share, and services that fail.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>

#include "modem_lines.h"
#include "platform/registry.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace {

using namespace zr::test;
using Clock = std::chrono::steady_clock;

constexpr DWORD kBoth = LINECALLPRIVILEGE_MONITOR | LINECALLPRIVILEGE_OWNER;
constexpr DWORD kVoice = LINEMEDIAMODE_INTERACTIVEVOICE;

}  // namespace

// An application that takes calls over: its name. Says which it was given, answers it, and ends when it is told to.
ZR_CHILD(phone_application) {
    const std::u16string name(args[0].begin(), args[0].end());
    const LineSession session(name.c_str());
    session.open(0, LINECALLPRIVILEGE_OWNER);
    say("ready");
    const LineMessage* const given = await_message(LINE_APPNEWCALL);
    if (!given || given->params[2] != LINECALLPRIVILEGE_OWNER) return 1;
    const auto call = static_cast<HCALL>(given->params[1]);
    say("owner of " + std::to_string(state_of(call)));
    const std::string word = hear();
    if (word == "answer") {
        if (lineAnswer(call, nullptr, 0) < 0 || !await_message(LINE_REPLY)) return 2;
        say("answered");
        hear();
    }
    return 0;
}

// Becomes an owner of the first call, and waits to be killed.
ZR_CHILD(call_owner) {
    const LineSession session;
    const std::vector<HCALL> calls = new_calls(session.open(0));
    if (calls.empty() || lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER) != 0) return 1;
    say("owner");
    hear();
    return 0;
}

TEST_F(OfonoLines, ShowFollowAnswerAndDropCalls) {
    modems_->add_modem(1, false);
    const std::string first = modems_->ring(modem_, "+491");
    const LineSession session;
    ASSERT_EQ(session.count(), 2u);
    const HLINE line = session.open(0);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_OFFERING);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    ASSERT_GT(lineAnswer(calls[0], nullptr, 0), 0);
    ASSERT_NE(await_message(LINE_REPLY), nullptr);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_CONNECTED);
    // It is known to have come in also when that is not said any more.
    Roomy<LINECALLINFO> info;
    ASSERT_EQ(lineGetCallInfo(calls[0], &info.all), 0);
    EXPECT_EQ(info.all.dwOrigin, LINECALLORIGIN_INBOUND);
    EXPECT_EQ(text_in(info.all, info.all.dwCallerIDSize, info.all.dwCallerIDOffset), u"+491");
    modems_->ring(modem_, "2", ModemState::Waiting);
    const std::vector<HCALL> waiting = new_calls(line);
    ASSERT_EQ(waiting.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(waiting[0], LINECALLPRIVILEGE_OWNER), 0);
    const std::size_t before = line_messages().size();
    ASSERT_GT(lineAnswer(waiting[0], nullptr, 0), 0);
    ASSERT_NE(await_message(LINE_REPLY, before), nullptr);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_ONHOLD);
    EXPECT_EQ(state_of(waiting[0]), LINECALLSTATE_CONNECTED);
    // Dropped from the other side, and from here.
    modems_->remove_call(first);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_IDLE);
    ASSERT_GT(lineDrop(waiting[0], nullptr, 0), 0);
    ASSERT_TRUE(pump_until([&] { return state_of(waiting[0]) == LINECALLSTATE_IDLE; }));
}

// Whoever looks while the service is at it.
TEST_F(OfonoLines, GiveACallThatTheyMakeOneHandle) {
    const LineSession session;
    const HLINE line = session.open(0, kAnyPrivilege);
    for (int round = 0; round < 10; ++round) {
        line_messages().clear();
        HCALL call = 0;
        ASSERT_GT(lineMakeCall(line, &call, u"*100#", 0, nullptr), 0);
        const LineMessage* reply = nullptr;
        while (reply == nullptr) {
            EXPECT_TRUE(new_calls(line).empty());
            for (MSG message; PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);) {
                DispatchMessageW(&message);
            }
            for (const LineMessage& each : line_messages()) {
                if (each.message == LINE_REPLY) reply = &each;
            }
        }
        ASSERT_EQ(reply->params[1], 0u);
        ASSERT_GT(lineDrop(call, nullptr, 0), 0);
        const auto is_its_end = [call](const LineMessage& each) {
            return each.device == call && each.params[0] == LINECALLSTATE_IDLE;
        };
        EXPECT_NE(await_message(LINE_CALLSTATE, 0, is_its_end), nullptr);
        EXPECT_EQ(lineDeallocateCall(call), 0);
    }
}

TEST_F(OfonoLines, MakeCallsComeAndGo) {
    const LineSession session;
    const HLINE line = session.open(0, LINECALLPRIVILEGE_NONE);
    HCALL call = 0;
    ASSERT_GT(lineMakeCall(line, &call, u"*100#", 0, nullptr), 0);
    const LineMessage* const reply = await_message(LINE_REPLY);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->params[1], 0u);
    EXPECT_EQ(state_of(call), LINECALLSTATE_DIALING);
    modems_->add_modem(1);
    EXPECT_NE(await_message(LINE_CREATE), nullptr);
    modems_->remove_modem(modem_);
    EXPECT_NE(await_message(LINE_REMOVE), nullptr);
    Roomy<LINECALLSTATUS> status;
    EXPECT_EQ(lineGetCallStatus(call, &status.all), LINEERR_INVALCALLHANDLE);
}

TEST_F(OfonoLines, OfAModemThatReturnsHaveNobodyOfBefore) {
    const LineSession session;
    session.open(0, LINECALLPRIVILEGE_OWNER);
    modems_->remove_modem(modem_);
    ASSERT_NE(await_message(LINE_REMOVE), nullptr);
    ASSERT_EQ(modems_->add_modem(0), modem_);
    const LineMessage* const created = await_message(LINE_CREATE);
    ASSERT_NE(created, nullptr);
    const auto device = static_cast<DWORD>(created->params[0]);
    // Who has opened the new line is the first to have its calls.
    const LineSession later(u"later");
    later.open(device, LINECALLPRIVILEGE_OWNER);
    modems_->ring(modem_, "1");
    const LineMessage* const given = await_message(LINE_APPNEWCALL);
    ASSERT_NE(given, nullptr);
    EXPECT_EQ(given->params[2], LINECALLPRIVILEGE_OWNER);
    EXPECT_EQ(owners_of(static_cast<HCALL>(given->params[1])), 1u);
}

TEST_F(OfonoLines, ANewCallUnderAnOldPathKeepsItsOwner) {
    const std::string path = modems_->ring(modem_, "1");
    const LineSession session;
    const HLINE line = session.open(0);
    const std::vector<HCALL> old = new_calls(line);
    ASSERT_EQ(old.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(old[0], LINECALLPRIVILEGE_OWNER), 0);
    modems_->remove_call(path);
    ASSERT_EQ(state_of(old[0]), LINECALLSTATE_IDLE);
    modems_->count_anew();
    ASSERT_EQ(modems_->ring(modem_, "2"), path);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    EXPECT_EQ(lineDeallocateCall(old[0]), 0);
    EXPECT_EQ(owners_of(calls[0]), 1u);
    EXPECT_EQ(lineDeallocateCall(calls[0]), LINEERR_INVALCALLSTATE);
}

TEST_F(OfonoLines, TakeNonsenseForAnUnknownState) {
    const std::string path = modems_->ring(modem_, "1");
    const LineSession session;
    const std::vector<HCALL> calls = new_calls(session.open(0));
    ASSERT_EQ(calls.size(), 1u);
    modems_->enter(path, 99);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_UNKNOWN);
}

TEST_F(OfonoLines, HoldTenThousandCalls) {
    ASSERT_EQ(modems_->service()
                  .call(MockService::kMock, "AddMethod",
                        {zr::platform::bus_text("org.ofono.VoiceCallManager"), zr::platform::bus_text("GetCalls"),
                         zr::platform::bus_text(""), zr::platform::bus_text("a(oa{sv})"),
                         zr::platform::bus_text("ret = [(dbus.ObjectPath('/c/%d' % i), {'State': 'held'}) for i in "
                                                "range(10000)] + [(dbus.ObjectPath('/'), {'State': 'held'})]")},
                        modem_)
                  .result,
              zr::platform::BusResult::Answered);
    const LineSession session;
    const HLINE line = session.open(0);
    std::vector<unsigned char> block(sizeof(LINECALLLIST) + 10'001 * sizeof(HCALL));
    auto* const list = reinterpret_cast<LINECALLLIST*>(block.data());
    list->dwTotalSize = static_cast<DWORD>(block.size());
    // All, or that it took too long: on a busy computer the mock may.
    const LONG result = lineGetNewCalls(line, 0, LINECALLSELECT_LINE, list);
    EXPECT_TRUE(result == LINEERR_OPERATIONFAILED || (result == 0 && list->dwCallsNumEntries == 10'000u)) << result;
}

TEST_F(OfonoLines, GiveUpOnAServiceThatNeverAnswers) {
    const std::string path = modems_->ring(modem_, "1");
    const LineSession session;
    const HLINE line = session.open(0);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    modems_->process().stop();
    const LONG dropping = lineDrop(calls[0], nullptr, 0);
    ASSERT_GT(dropping, 0);
    const LineMessage* const reply = await_message(LINE_REPLY);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(static_cast<LONG>(reply->params[1]), LINEERR_OPERATIONFAILED);
    modems_->process().go_on();
}

TEST_F(OfonoLines, AreNoneWhileTheServiceSaysNothing) {
    modems_->process().stop();
    const int patience = zr::platform::voice_patience.exchange(300);
    const auto before = Clock::now();
    for (int i = 0; i < 20; ++i) {
        const LineSession session;
        EXPECT_EQ(session.result(), 0);
        EXPECT_EQ(session.count(), 0u);
    }
    // It was waited for once.
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(20));
    zr::platform::voice_patience = patience;
    modems_->process().go_on();
    modems_->add_modem(1);
    EXPECT_TRUE(pump_until([] { return LineSession().count() == 2; }));
}

TEST_F(OfonoLines, EndWithTheirBus) {
    const LineSession session;
    const HLINE line = session.open(0);
    bus_.daemon().end();
    const LineMessage* const closed = await_message(LINE_CLOSE);
    ASSERT_NE(closed, nullptr);
    EXPECT_EQ(closed->device, line);
    EXPECT_EQ(lineClose(line), LINEERR_INVALLINEHANDLE);
    HLINE again = 0;
    EXPECT_EQ(lineOpen(session.handle(), 0, &again, 0x20000, 0, 0, LINECALLPRIVILEGE_MONITOR, 0, nullptr),
              LINEERR_NODEVICE);
}

TEST_F(OfonoLines, HandACallToTheApplicationOfHighestPriority) {
    modems_->ring(modem_, "1");
    Child other("phone_application", {"other"});
    ASSERT_EQ(other.hear(), "ready");
    Child phone("phone_application", {"phone"});
    ASSERT_EQ(phone.hear(), "ready");
    ASSERT_EQ(lineSetAppPriority(u"phone", kVoice, nullptr, 0, nullptr, 1), 0);
    const LineSession session;
    const std::vector<HCALL> calls = new_calls(session.open(0));
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(lineHandoff(calls[0], nullptr, kVoice), LINEERR_NOTOWNER);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    EXPECT_EQ(lineHandoff(calls[0], nullptr, 0), LINEERR_INVALMEDIAMODE);
    EXPECT_EQ(lineHandoff(calls[0], u"nobody", 0), LINEERR_TARGETNOTFOUND);
    EXPECT_EQ(lineHandoff(calls[0], nullptr, LINEMEDIAMODE_DATAMODEM), LINEERR_TARGETNOTFOUND);
    ASSERT_EQ(lineHandoff(calls[0], nullptr, kVoice), 0);
    EXPECT_EQ(owners_of(calls[0]), 2u);
    EXPECT_EQ(phone.hear(), "owner of 2");
    // Not the only one any more.
    EXPECT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_MONITOR), 0);
    phone.say("answer");
    EXPECT_EQ(phone.hear(), "answered");
    // Each process hears of it from the bus.
    EXPECT_TRUE(pump_until([&] { return state_of(calls[0]) == LINECALLSTATE_CONNECTED; }));
    EXPECT_EQ(owners_of(calls[0]), 1u);
    phone.kill(SIGKILL);
    phone.wait();
    EXPECT_TRUE(pump_until([&] { return owners_of(calls[0]) == 0; }));
    // By its name, whatever the priorities say.
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    ASSERT_EQ(lineHandoff(calls[0], u"OTHER", 0), 0);
    EXPECT_EQ(other.hear().substr(0, 9), "owner of ");
    other.say("end");
    EXPECT_EQ(other.wait(), 0);
}

TEST_F(OfonoLines, AreNotHandedToThemselves) {
    modems_->ring(modem_, "1");
    const LineSession session(u"phone");
    const std::vector<HCALL> calls = new_calls(session.open(0, kBoth));
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    EXPECT_EQ(lineHandoff(calls[0], nullptr, kVoice), LINEERR_TARGETSELF);
    EXPECT_EQ(lineHandoff(calls[0], u"phone", 0), LINEERR_TARGETSELF);
}

TEST_F(OfonoLines, GiveIncomingCallsToTheirTaker) {
    const LineSession session(u"phone");
    const HLINE line = session.open(0, LINECALLPRIVILEGE_OWNER);
    modems_->ring(modem_, "1");
    const LineMessage* const given = await_message(LINE_APPNEWCALL);
    ASSERT_NE(given, nullptr);
    EXPECT_EQ(given->device, line);
    EXPECT_EQ(given->params[2], LINECALLPRIVILEGE_OWNER);
    EXPECT_EQ(owners_of(static_cast<HCALL>(given->params[1])), 1u);
}

TEST_F(OfonoLines, BelongToNobodyWhoWasKilled) {
    modems_->ring(modem_, "1");
    const LineSession session;
    const std::vector<HCALL> calls = new_calls(session.open(0));
    ASSERT_EQ(calls.size(), 1u);
    const int rounds = 200 / kStride;
    for (int i = 0; i < rounds; ++i) {
        Child owner("call_owner");
        ASSERT_EQ(owner.hear(), "owner") << i;
        owner.kill(SIGKILL);
        owner.wait();
    }
    EXPECT_TRUE(pump_until([&] { return owners_of(calls[0]) == 0; }));
}

TEST_F(OfonoLines, AreNotAForkedChilds) {
    modems_->ring(modem_, "1");
    const LineSession session;
    const HLINE line = session.open(0);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    const int result = in_fork([&] {
        Roomy<LINECALLSTATUS> status;
        if (lineGetCallStatus(calls[0], &status.all) != LINEERR_INVALCALLHANDLE) return 1;
        if (lineClose(line) != LINEERR_INVALLINEHANDLE || lineShutdown(session.handle()) != LINEERR_INVALAPPHANDLE) {
            return 2;
        }
        HLINEAPP own = 0;
        DWORD count = 0;
        if (lineInitialize(&own, nullptr, note_line_message, u"child", &count) != 0 || count != 1) return 3;
        return lineShutdown(own) == 0 ? 0 : 4;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_OFFERING);
    EXPECT_EQ(owners_of(calls[0]), 1u);
}
