// Lines and calls as ModemManager has them.

#include <gtest/gtest.h>

#include "modem_lines.h"
#include "platform/diagnostics.h"

namespace {

using namespace zr::test;

}  // namespace

TEST(LinesWithoutBus, AreNone) {
    const LineSession session;
    ASSERT_EQ(session.result(), 0);
    EXPECT_EQ(session.count(), 0u);
    DWORD version = 0;
    LINEEXTENSIONID extension{};
    EXPECT_EQ(lineNegotiateAPIVersion(session.handle(), 0, 0x10003, 0x20000, &version, &extension),
              LINEERR_BADDEVICEID);
    HLINE line = 0;
    EXPECT_EQ(lineOpen(session.handle(), 0, &line, 0x20000, 0, 0, LINECALLPRIVILEGE_MONITOR, 0, nullptr),
              LINEERR_BADDEVICEID);
    EXPECT_EQ(lineOpen(session.handle(), LINEMAPPER, &line, 0x20000, 0, 0, LINECALLPRIVILEGE_MONITOR, 0, nullptr),
              LINEERR_LINEMAPPERFAILED);
}

TEST(LinesWithoutBus, RefuseWhatIsWrong) {
    HLINEAPP handle = 0;
    DWORD count = 0;
    EXPECT_EQ(lineInitialize(nullptr, nullptr, note_line_message, u"a", &count), LINEERR_INVALPOINTER);
    EXPECT_EQ(lineInitialize(&handle, nullptr, nullptr, u"a", &count), LINEERR_INVALPOINTER);
    EXPECT_EQ(lineInitialize(&handle, nullptr, note_line_message, u"a", nullptr), LINEERR_INVALPOINTER);
    const LineSession session;
    HLINE line = 0;
    const auto open = [&](DWORD version, DWORD privileges, DWORD modes) {
        return lineOpen(session.handle(), 0, &line, version, 0, 0, privileges, modes, nullptr);
    };
    EXPECT_EQ(open(0x10002, LINECALLPRIVILEGE_MONITOR, 0), LINEERR_INCOMPATIBLEAPIVERSION);
    EXPECT_EQ(open(0x20001, LINECALLPRIVILEGE_MONITOR, 0), LINEERR_INCOMPATIBLEAPIVERSION);
    EXPECT_EQ(open(0x20000, 0, 0), LINEERR_INVALPRIVSELECT);
    EXPECT_EQ(open(0x20000, 8, 0), LINEERR_INVALPRIVSELECT);
    EXPECT_EQ(open(0x20000, LINECALLPRIVILEGE_NONE | LINECALLPRIVILEGE_MONITOR, 0), LINEERR_INVALPRIVSELECT);
    EXPECT_EQ(open(0x20000, LINECALLPRIVILEGE_OWNER, 0), LINEERR_INVALMEDIAMODE);
}

TEST(LinesWithoutBus, RefuseStaleAndForeignHandles) {
    HLINEAPP ended = 0;
    {
        const LineSession session;
        ended = session.handle();
    }
    const LineSession session;
    for (const DWORD handle : {DWORD{0}, DWORD{1}, ended, ~DWORD{0}}) {
        DWORD version = 0;
        LINEEXTENSIONID extension{};
        Roomy<LINEDEVCAPS> caps;
        Roomy<LINECALLLIST> list;
        Roomy<LINECALLSTATUS> status;
        Roomy<LINECALLINFO> info;
        HLINE line = 0;
        HCALL call = 0;
        EXPECT_EQ(lineShutdown(handle), LINEERR_INVALAPPHANDLE);
        EXPECT_EQ(lineNegotiateAPIVersion(handle, 0, 0x10003, 0x20000, &version, &extension), LINEERR_INVALAPPHANDLE);
        EXPECT_EQ(lineGetDevCaps(handle, 0, 0x20000, 0, &caps.all), LINEERR_INVALAPPHANDLE);
        EXPECT_EQ(lineOpen(handle, 0, &line, 0x20000, 0, 0, LINECALLPRIVILEGE_NONE, 0, nullptr),
                  LINEERR_INVALAPPHANDLE);
        EXPECT_EQ(lineClose(handle), LINEERR_INVALLINEHANDLE);
        EXPECT_EQ(lineGetNewCalls(handle, 0, LINECALLSELECT_LINE, &list.all), LINEERR_INVALLINEHANDLE);
        EXPECT_EQ(lineMakeCall(handle, &call, u"1", 0, nullptr), LINEERR_INVALLINEHANDLE);
        EXPECT_EQ(lineGetCallStatus(handle, &status.all), LINEERR_INVALCALLHANDLE);
        EXPECT_EQ(lineGetCallInfo(handle, &info.all), LINEERR_INVALCALLHANDLE);
        EXPECT_EQ(lineSetCallPrivilege(handle, LINECALLPRIVILEGE_OWNER), LINEERR_INVALCALLHANDLE);
        EXPECT_EQ(lineAnswer(handle, nullptr, 0), LINEERR_INVALCALLHANDLE);
        EXPECT_EQ(lineDrop(handle, nullptr, 0), LINEERR_INVALCALLHANDLE);
        EXPECT_EQ(lineHandoff(handle, nullptr, LINEMEDIAMODE_INTERACTIVEVOICE), LINEERR_INVALCALLHANDLE);
        EXPECT_EQ(lineDeallocateCall(handle), LINEERR_INVALCALLHANDLE);
    }
    // A session is no line and no call.
    EXPECT_EQ(lineClose(session.handle()), LINEERR_INVALLINEHANDLE);
    EXPECT_EQ(lineDrop(session.handle(), nullptr, 0), LINEERR_INVALCALLHANDLE);
}

TEST(LinesWithoutBus, LeaveNoWindowBehind) {
    const LONGLONG windows = ZrLiveObjects(ZrLiveKind::Windows);
    for (int i = 0; i < 100; ++i) {
        const LineSession session;
        EXPECT_EQ(session.result(), 0);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), windows);
}

TEST_F(ManagerLines, AreItsModemsThoseWithVoiceFirst) {
    modems_->add_modem(1, false);
    modems_->add_modem(2);
    const LineSession session;
    ASSERT_EQ(session.result(), 0);
    ASSERT_EQ(session.count(), 3u);
    std::vector<DWORD> modes;
    for (DWORD device = 0; device < 3; ++device) {
        Roomy<LINEDEVCAPS> caps;
        ASSERT_EQ(lineGetDevCaps(session.handle(), device, 0x20000, 0, &caps.all), 0);
        modes.push_back(caps.all.dwMediaModes);
        EXPECT_EQ(text_in(caps.all, caps.all.dwProviderInfoSize, caps.all.dwProviderInfoOffset), u"ModemManager");
    }
    EXPECT_EQ(modes, (std::vector<DWORD>{LINEMEDIAMODE_INTERACTIVEVOICE, LINEMEDIAMODE_INTERACTIVEVOICE,
                                         LINEMEDIAMODE_DATAMODEM}));
    Roomy<LINEDEVCAPS> none;
    EXPECT_EQ(lineGetDevCaps(session.handle(), 3, 0x20000, 0, &none.all), LINEERR_BADDEVICEID);
}

TEST_F(ManagerLines, NegotiateAVersion) {
    const LineSession session;
    ASSERT_EQ(session.count(), 1u);
    const auto negotiate = [&](DWORD low, DWORD high) {
        DWORD version = 0;
        LINEEXTENSIONID extension{1, 2, 3, 4};
        const LONG result = lineNegotiateAPIVersion(session.handle(), 0, low, high, &version, &extension);
        EXPECT_TRUE(result != 0 || extension.dwExtensionID3 == 0);
        return result != 0 ? result : static_cast<LONG>(version);
    };
    EXPECT_EQ(negotiate(0x20000, 0x20000), 0x20000);
    EXPECT_EQ(negotiate(0x10003, 0x10004), 0x10004);
    EXPECT_EQ(negotiate(0x10000, 0x30000), 0x20000);
    EXPECT_EQ(negotiate(0x10000, 0x10002), LINEERR_INCOMPATIBLEAPIVERSION);
    EXPECT_EQ(negotiate(0x20001, 0x30000), LINEERR_INCOMPATIBLEAPIVERSION);
    EXPECT_EQ(negotiate(0x20000, 0x10003), LINEERR_INCOMPATIBLEAPIVERSION);
}

TEST_F(ManagerLines, SayWhatTheyNeedAndLeaveOutWhatDoesNotFit) {
    const LineSession session;
    Roomy<LINEDEVCAPS> roomy;
    ASSERT_EQ(lineGetDevCaps(session.handle(), 0, 0x20000, 0, &roomy.all), 0);
    EXPECT_EQ(text_in(roomy.all, roomy.all.dwLineNameSize, roomy.all.dwLineNameOffset), u"Maker Model 0");
    EXPECT_EQ(text_in(roomy.all, roomy.all.dwSwitchInfoSize, roomy.all.dwSwitchInfoOffset), u"+49300000");
    const DWORD needed = roomy.all.dwNeededSize;
    EXPECT_EQ(roomy.all.dwUsedSize, needed);
    for (DWORD total : {DWORD{12}, DWORD{sizeof(LINEDEVCAPS) - 1}}) {
        Roomy<LINEDEVCAPS> small;
        small.all.dwTotalSize = total;
        EXPECT_EQ(lineGetDevCaps(session.handle(), 0, 0x20000, 0, &small.all), LINEERR_STRUCTURETOOSMALL);
        EXPECT_EQ(small.all.dwNeededSize, needed);
    }
    for (DWORD total = sizeof(LINEDEVCAPS); total <= needed; ++total) {
        Roomy<LINEDEVCAPS> tight;
        tight.all.dwTotalSize = total;
        const unsigned char* const end = reinterpret_cast<const unsigned char*>(&tight) + total;
        EXPECT_EQ(lineGetDevCaps(session.handle(), 0, 0x20000, 0, &tight.all), 0);
        EXPECT_EQ(tight.all.dwNeededSize, needed);
        EXPECT_LE(tight.all.dwUsedSize, total);
        EXPECT_EQ(tight.all.dwUsedSize == needed, total == needed);
        EXPECT_EQ(*end, 0);
    }
}

TEST_F(ManagerLines, ComeAndGoWhileASessionIsThere) {
    const LineSession session;
    const HLINE line = session.open(0, LINECALLPRIVILEGE_MONITOR, 77);
    modems_->add_modem(5);
    const LineMessage* const created = await_message(LINE_CREATE);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(created->params[0], 1u);
    const HLINE second = session.open(1);
    modems_->remove_modem(modem_);
    const LineMessage* const closed = await_message(LINE_CLOSE);
    ASSERT_NE(closed, nullptr);
    EXPECT_EQ(closed->device, line);
    EXPECT_EQ(closed->instance, 77u);
    const LineMessage* const removed = await_message(LINE_REMOVE);
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(removed->params[0], 0u);
    EXPECT_EQ(lineClose(line), LINEERR_INVALLINEHANDLE);
    HLINE none = 0;
    EXPECT_EQ(lineOpen(session.handle(), 0, &none, 0x20000, 0, 0, LINECALLPRIVILEGE_MONITOR, 0, nullptr),
              LINEERR_NODEVICE);
    EXPECT_EQ(lineClose(second), 0);
}

TEST_F(ManagerLines, ShowTheCallsOnThem) {
    const std::string call = modems_->ring(modem_, "+49301234567");
    const LineSession session;
    const HLINE line = session.open(0);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_TRUE(new_calls(line).empty());
    const LINECALLSTATUS status = status_of(calls[0]);
    EXPECT_EQ(status.dwCallState, LINECALLSTATE_OFFERING);
    EXPECT_EQ(status.dwCallPrivilege, LINECALLPRIVILEGE_MONITOR);
    EXPECT_EQ(status.dwCallFeatures, 0u);
    EXPECT_GE(status.tStateEntryTime.wYear, 2020);
    Roomy<LINECALLINFO> info;
    ASSERT_EQ(lineGetCallInfo(calls[0], &info.all), 0);
    EXPECT_EQ(info.all.hLine, line);
    EXPECT_EQ(info.all.dwOrigin, LINECALLORIGIN_INBOUND);
    EXPECT_EQ(info.all.dwCallerIDFlags, LINECALLPARTYID_ADDRESS);
    EXPECT_EQ(text_in(info.all, info.all.dwCallerIDSize, info.all.dwCallerIDOffset), u"+49301234567");
    EXPECT_EQ(info.all.dwNumOwners, 0u);
    EXPECT_EQ(info.all.dwNumMonitors, 1u);
    // Given up it is new again.
    EXPECT_EQ(lineDeallocateCall(calls[0]), 0);
    EXPECT_EQ(new_calls(line).size(), 1u);
}

TEST_F(ManagerLines, FollowEachState) {
    const LineSession session;
    const HLINE line = session.open(0);
    const std::string path = modems_->ring(modem_, "1", ModemState::Dialing);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    constexpr std::pair<ModemState, DWORD> states[] = {
        {ModemState::RingingOut, LINECALLSTATE_RINGBACK}, {ModemState::Active, LINECALLSTATE_CONNECTED},
        {ModemState::Held, LINECALLSTATE_ONHOLD},         {ModemState::Waiting, LINECALLSTATE_OFFERING},
        {ModemState::RingingIn, LINECALLSTATE_OFFERING},  {ModemState::Terminated, LINECALLSTATE_IDLE}};
    for (const auto& [state, expected] : states) {
        modems_->enter(path, state);
        EXPECT_EQ(state_of(calls[0]), expected);
    }
    // It is over for good, also when it is taken away.
    EXPECT_TRUE(new_calls(line).empty());
    modems_->remove_call(path);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_IDLE);
    EXPECT_EQ(lineDeallocateCall(calls[0]), 0);
}

TEST_F(ManagerLines, HaveNoCallThatWasNotBegun) {
    const std::string path = modems_->ring(modem_, "1", ModemState::Unknown);
    const LineSession session;
    const HLINE line = session.open(0);
    EXPECT_TRUE(new_calls(line).empty());
    modems_->enter(path, ModemState::Dialing);
    EXPECT_EQ(new_calls(line).size(), 1u);
}

TEST_F(ManagerLines, AreToldOfCalls) {
    const LineSession session;
    const HLINE line = session.open(0, LINECALLPRIVILEGE_MONITOR, 5);
    const std::string path = modems_->ring(modem_, "1");
    const LineMessage* const arrived = await_message(LINE_APPNEWCALL);
    ASSERT_NE(arrived, nullptr);
    EXPECT_EQ(arrived->device, line);
    EXPECT_EQ(arrived->instance, 5u);
    EXPECT_EQ(arrived->params[2], LINECALLPRIVILEGE_MONITOR);
    const auto call = static_cast<HCALL>(arrived->params[1]);
    const auto is_state = [call](DWORD state) {
        return [call, state](const LineMessage& each) { return each.device == call && each.params[0] == state; };
    };
    const LineMessage* const rings = await_message(LINE_CALLSTATE, 0, is_state(LINECALLSTATE_OFFERING));
    ASSERT_NE(rings, nullptr);
    EXPECT_EQ(rings->params[2], LINECALLPRIVILEGE_MONITOR);
    modems_->enter(path, ModemState::Active);
    EXPECT_NE(await_message(LINE_CALLSTATE, 0, is_state(LINECALLSTATE_CONNECTED)), nullptr);
    modems_->enter(path, ModemState::Terminated);
    const LineMessage* const over = await_message(LINE_CALLSTATE, 0, is_state(LINECALLSTATE_DISCONNECTED));
    ASSERT_NE(over, nullptr);
    EXPECT_EQ(over->params[1], LINEDISCONNECTMODE_NORMAL);
    EXPECT_NE(await_message(LINE_CALLSTATE, 0, is_state(LINECALLSTATE_IDLE)), nullptr);
}

TEST_F(ManagerLines, AnswerAndDropForOwners) {
    const std::string path = modems_->ring(modem_, "1");
    const LineSession session;
    const HLINE line = session.open(0, LINECALLPRIVILEGE_MONITOR, 9);
    const std::vector<HCALL> calls = new_calls(line);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(lineAnswer(calls[0], nullptr, 0), LINEERR_NOTOWNER);
    EXPECT_EQ(lineDrop(calls[0], nullptr, 0), LINEERR_NOTOWNER);
    EXPECT_EQ(lineSetCallPrivilege(calls[0], 7), LINEERR_INVALCALLPRIVILEGE);
    ASSERT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_OWNER), 0);
    EXPECT_EQ(status_of(calls[0]).dwCallFeatures, LINECALLFEATURE_DROP | LINECALLFEATURE_ANSWER);
    const LONG answering = lineAnswer(calls[0], nullptr, 0);
    ASSERT_GT(answering, 0);
    const LineMessage* const answered = await_message(LINE_REPLY);
    ASSERT_NE(answered, nullptr);
    EXPECT_EQ(answered->instance, 9u);
    EXPECT_EQ(answered->params[0], static_cast<DWORD_PTR>(answering));
    EXPECT_EQ(answered->params[1], 0u);
    EXPECT_EQ(modems_->count_calls(path, "Accept"), 1u);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_CONNECTED);
    EXPECT_EQ(lineAnswer(calls[0], nullptr, 0), LINEERR_INVALCALLSTATE);
    // Its only owner keeps it until it is over.
    EXPECT_EQ(lineSetCallPrivilege(calls[0], LINECALLPRIVILEGE_MONITOR), LINEERR_INVALCALLSTATE);
    EXPECT_EQ(lineDeallocateCall(calls[0]), LINEERR_INVALCALLSTATE);
    const LONG dropping = lineDrop(calls[0], nullptr, 0);
    ASSERT_GT(dropping, answering);
    ASSERT_NE(
        await_message(LINE_REPLY, 0,
                      [&](const LineMessage& each) { return each.params[0] == static_cast<DWORD_PTR>(dropping); }),
        nullptr);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_IDLE);
    EXPECT_EQ(lineDrop(calls[0], nullptr, 0), LINEERR_INVALCALLSTATE);
    EXPECT_EQ(lineDeallocateCall(calls[0]), 0);
}

TEST_F(ManagerLines, HoldOneCallForAnother) {
    const std::string first = modems_->ring(modem_, "1", ModemState::Active);
    const std::string second = modems_->ring(modem_, "2", ModemState::Waiting);
    const LineSession session;
    const std::vector<HCALL> calls = new_calls(session.open(0));
    ASSERT_EQ(calls.size(), 2u);
    ASSERT_EQ(lineSetCallPrivilege(calls[1], LINECALLPRIVILEGE_OWNER), 0);
    ASSERT_GT(lineAnswer(calls[1], nullptr, 0), 0);
    ASSERT_NE(await_message(LINE_REPLY), nullptr);
    EXPECT_EQ(state_of(calls[0]), LINECALLSTATE_ONHOLD);
    EXPECT_EQ(state_of(calls[1]), LINECALLSTATE_CONNECTED);
}

TEST_F(ManagerLines, MakeCalls) {
    const LineSession session;
    const HLINE line = session.open(0, LINECALLPRIVILEGE_NONE);
    HCALL call = 0;
    for (const LPCWSTR wrong : {u"", u"+", u"abc", u"12;3", u"1+2"}) {
        EXPECT_EQ(lineMakeCall(line, &call, wrong, 0, nullptr), LINEERR_INVALADDRESS);
    }
    const LONG request = lineMakeCall(line, &call, u"+49 (30) 123-45", 0, nullptr);
    ASSERT_GT(request, 0);
    const LineMessage* const reply = await_message(LINE_REPLY);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->params[1], 0u);
    EXPECT_EQ(state_of(call), LINECALLSTATE_DIALING);
    EXPECT_EQ(status_of(call).dwCallPrivilege, LINECALLPRIVILEGE_OWNER);
    Roomy<LINECALLINFO> info;
    ASSERT_EQ(lineGetCallInfo(call, &info.all), 0);
    EXPECT_EQ(info.all.dwOrigin, LINECALLORIGIN_OUTBOUND);
    EXPECT_EQ(text_in(info.all, info.all.dwCalledIDSize, info.all.dwCalledIDOffset), u"+493012345");
    EXPECT_EQ(info.all.dwNumOwners, 1u);
    modems_->enter("/org/freedesktop/ModemManager1/Call/1", ModemState::Active);
    EXPECT_EQ(state_of(call), LINECALLSTATE_CONNECTED);
}

TEST_F(ManagerLines, GiveCallsAllOrNotAtAll) {
    for (int i = 0; i < 3; ++i) {
        modems_->ring(modem_, std::to_string(i), ModemState::Held);
    }
    const LineSession session;
    const HLINE line = session.open(0);
    struct {
        LINECALLLIST list;
        HCALL calls[3];
    } room{};
    room.list.dwTotalSize = sizeof room - 1;
    EXPECT_EQ(lineGetNewCalls(line, 0, LINECALLSELECT_LINE, &room.list), LINEERR_STRUCTURETOOSMALL);
    EXPECT_EQ(room.list.dwNeededSize, sizeof room);
    room.list.dwTotalSize = sizeof room;
    EXPECT_EQ(lineGetNewCalls(line, 0, LINECALLSELECT_CALL, &room.list), LINEERR_INVALCALLSELECT);
    EXPECT_EQ(lineGetNewCalls(line, 1, LINECALLSELECT_ADDRESS, &room.list), LINEERR_INVALADDRESSID);
    EXPECT_EQ(lineGetNewCalls(line, 0, LINECALLSELECT_ADDRESS, &room.list), 0);
    EXPECT_EQ(room.list.dwCallsNumEntries, 3u);
    EXPECT_EQ(room.list.dwCallsSize, 12u);
    EXPECT_EQ(room.list.dwCallsOffset, 24u);
    for (int i = 0; i < 3; ++i) {
        Roomy<LINECALLINFO> info;
        ASSERT_EQ(lineGetCallInfo(room.calls[i], &info.all), 0);
        EXPECT_EQ(text_in(info.all, info.all.dwCalledIDSize, info.all.dwCalledIDOffset)[0], u'0' + i);
    }
}
