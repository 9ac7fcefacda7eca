#include "ZrUtility/Helpers/TAPIUtilities.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_tapi.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "support/log_capture.h"
#include "support/log_categories.h"

namespace {

using zr::test::FakeCall;
using zr::test::FakeTapi;
using zr::test::kPhoneFailure;
using zr::test::kPhoneWarning;
using zr::test::LogCapture;
using Events = std::vector<std::string>;

class Tapi : public testing::Test {
protected:
    Tapi() : blocks_(ZrLiveObjects(ZrLiveKind::HeapBlocks)) {}
    ~Tapi() override { EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), blocks_); }

    // Notes which devices, lines or calls it is shown, and ends the walk at one.
    struct Seen {
        std::vector<DWORD> order;
        DWORD last = 999;
    };
    static bool add(void* context, DWORD what) {
        Seen& seen = *static_cast<Seen*>(context);
        seen.order.push_back(what);
        return what != seen.last;
    }
    static bool see_device(const HLINEAPP session, ULONG device, ULONG version, linedevcaps_tag* const caps,
                           void* context) {
        EXPECT_EQ(session, 1u);
        EXPECT_EQ(version, 0x20000u);
        EXPECT_EQ(caps->dwPermanentLineID, device);
        return add(context, device);
    }
    static bool see_line(const HLINE line, linedevcaps_tag* const caps, void* context) {
        EXPECT_EQ(line, 50u);
        return add(context, caps->dwPermanentLineID);
    }
    static bool see_call(const HCALL call, linecallstatus_tag* const status, void* context) {
        EXPECT_NE(status->dwCallState, 0u);
        return add(context, call);
    }

    FakeTapi tapi_;

private:
    const LONGLONG blocks_;
};

}  // namespace

TEST_F(Tapi, FreesWhatThereIsAndNothing) {
    EXPECT_FALSE(TAPIUtilities::Free(static_cast<void**>(nullptr)));
    EXPECT_FALSE(TAPIUtilities::Free(static_cast<TAPIUtilities::LINECALLLISTEX**>(nullptr)));
    EXPECT_FALSE(TAPIUtilities::Free(static_cast<linecallstatus_tag**>(nullptr)));
    EXPECT_FALSE(TAPIUtilities::Free(static_cast<linedevcaps_tag**>(nullptr)));
    void* nothing = nullptr;
    EXPECT_TRUE(TAPIUtilities::Free(&nothing));
    void* block = LocalAlloc(LPTR, 10);
    EXPECT_TRUE(TAPIUtilities::Free(&block));
    EXPECT_EQ(block, nullptr);
}

TEST_F(Tapi, CopiesAListWithItsOneCall) {
    TAPIUtilities::LINECALLLISTEX list{{28, 28, 28, 1, 4, 24}, 77};
    static_assert(sizeof list == 28);
    TAPIUtilities::LINECALLLISTEX copy{};
    copy = list;
    EXPECT_EQ(copy.hFirstCall, 77u);
    EXPECT_EQ(copy.dwCallsOffset, 24u);
}

TEST_F(Tapi, BeginsWithTheUsualSizes) {
    tapi_.calls = {FakeCall{LINECALLSTATE_CONNECTED, 0}};
    linedevcaps_tag* caps = nullptr;
    int error = 5;
    EXPECT_TRUE(TAPIUtilities::GetDevCaps(1, 0, 0x20000, &caps, &error));
    EXPECT_EQ(error, 0);
    TAPIUtilities::LINECALLLISTEX* list = nullptr;
    EXPECT_TRUE(TAPIUtilities::GetNewCalls(50, 0, LINECALLSELECT_LINE, &list, nullptr));
    EXPECT_EQ(list->hFirstCall, 100u);
    linecallstatus_tag* status = nullptr;
    EXPECT_TRUE(TAPIUtilities::GetCallStatus(100, &status, &error));
    EXPECT_EQ(status->dwCallState, LINECALLSTATE_CONNECTED);
    // The status is asked for its size first.
    EXPECT_EQ(tapi_.sizes, (std::vector<DWORD>{292, 28, 4, sizeof(LINECALLSTATUS)}));
    EXPECT_TRUE(TAPIUtilities::Free(&caps));
    EXPECT_TRUE(TAPIUtilities::Free(&list));
    EXPECT_TRUE(TAPIUtilities::Free(&status));
}

TEST_F(Tapi, GrowsAsOftenAsItTakes) {
    tapi_.calls = {{LINECALLSTATE_IDLE, 0}, {LINECALLSTATE_IDLE, 0}};
    tapi_.list_growths = 50;
    TAPIUtilities::LINECALLLISTEX* list = nullptr;
    EXPECT_TRUE(TAPIUtilities::GetNewCalls(50, 0, LINECALLSELECT_LINE, &list, nullptr));
    EXPECT_EQ(list->dwCallsNumEntries, 52u);
    EXPECT_EQ(list->dwTotalSize, 24u + 208u);
    TAPIUtilities::Free(&list);
    tapi_.devices[0].caps_size = 100'000;
    linedevcaps_tag* caps = nullptr;
    EXPECT_TRUE(TAPIUtilities::GetDevCaps(1, 0, 0x20000, &caps, nullptr));
    EXPECT_EQ(caps->dwTotalSize, 100'000u);
    EXPECT_EQ(LocalSize(caps), 100'000u);
    TAPIUtilities::Free(&caps);
}

TEST_F(Tapi, DoesNotGrowForTheSameSize) {
    // Says that it is too small and needs no more.
    tapi_.calls = {FakeCall{LINECALLSTATE_CONNECTED, LINEERR_STRUCTURETOOSMALL}};
    const LogCapture log;
    linecallstatus_tag* status = nullptr;
    int error = 0;
    EXPECT_FALSE(TAPIUtilities::GetCallStatus(100, &status, &error));
    EXPECT_EQ(error, LINEERR_STRUCTURETOOSMALL);
    EXPECT_EQ(status, nullptr);
    EXPECT_EQ(log.count(kPhoneFailure), 1);
}

TEST_F(Tapi, SaysAndLogsWhyNot) {
    tapi_.devices[0].caps_result = LINEERR_NODEVICE;
    tapi_.results["new calls"] = LINEERR_INVALLINEHANDLE;
    const LogCapture log;
    linedevcaps_tag* caps = nullptr;
    TAPIUtilities::LINECALLLISTEX* list = nullptr;
    int error = 0;
    EXPECT_FALSE(TAPIUtilities::GetDevCaps(1, 0, 0x20000, &caps, &error));
    EXPECT_EQ(error, LINEERR_NODEVICE);
    EXPECT_FALSE(TAPIUtilities::GetNewCalls(50, 0, LINECALLSELECT_LINE, &list, &error));
    EXPECT_EQ(error, LINEERR_INVALLINEHANDLE);
    ASSERT_EQ(log.records().size(), 2u);
    for (const auto& record : log.records()) {
        EXPECT_EQ(record.source, ".\\Helpers\\TAPIUtilities.cppzrwindowsmobile");
        EXPECT_EQ(record.category, kPhoneFailure);
    }
    EXPECT_EQ(log.records()[0].arguments[0], static_cast<ULONG>(LINEERR_NODEVICE));
}

TEST_F(Tapi, WarnsOfNowhereToPutIt) {
    const LogCapture log;
    EXPECT_FALSE(TAPIUtilities::GetDevCaps(1, 0, 0x20000, nullptr, nullptr));
    EXPECT_FALSE(TAPIUtilities::GetNewCalls(50, 0, LINECALLSELECT_LINE, nullptr, nullptr));
    EXPECT_FALSE(TAPIUtilities::GetCallStatus(100, nullptr, nullptr));
    EXPECT_EQ(log.count(kPhoneWarning), 3);
    EXPECT_TRUE(tapi_.sizes.empty());
}

TEST_F(Tapi, NeedsMemory) {
    linedevcaps_tag* caps = nullptr;
    int error = 0;
    for (LONGLONG successes = 0; successes < 2; ++successes) {
        tapi_.devices[0].caps_size = 1000;
        ZrFailHeapAfter(successes);
        EXPECT_FALSE(TAPIUtilities::GetDevCaps(1, 0, 0x20000, &caps, &error));
        ZrFailHeapAfter(-1);
        EXPECT_EQ(error, LINEERR_NOMEM);
    }
}

TEST_F(Tapi, ShowsEachDevice) {
    tapi_.devices.resize(3);
    Seen seen;
    EXPECT_TRUE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
    EXPECT_EQ(seen.order, (std::vector<DWORD>{0, 1, 2}));
    EXPECT_NE(tapi_.callback, nullptr);
    EXPECT_EQ(tapi_.events, (Events{"initialize", "negotiate 0", "negotiate 1", "negotiate 2", "shutdown"}));
    tapi_.devices.clear();
    EXPECT_TRUE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
}

TEST_F(Tapi, PassesTheCallbackOn) {
    const LINECALLBACK mine = [](DWORD, DWORD, DWORD_PTR, DWORD_PTR, DWORD_PTR, DWORD_PTR) {};
    Seen seen;
    EXPECT_TRUE(TAPIUtilities::EnumDevices(&seen, see_device, mine));
    EXPECT_EQ(tapi_.callback, mine);
}

TEST_F(Tapi, StopsWhereTheVisitorSays) {
    tapi_.devices.resize(3);
    Seen seen{{}, 1};
    EXPECT_FALSE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
    EXPECT_EQ(seen.order, (std::vector<DWORD>{0, 1}));
    EXPECT_EQ(tapi_.events.back(), "shutdown");
}

TEST_F(Tapi, PassesOverADeviceOfAnotherVersion) {
    tapi_.devices.resize(3);
    tapi_.devices[1].version_result = LINEERR_INCOMPATIBLEAPIVERSION;
    const LogCapture log;
    Seen seen;
    EXPECT_TRUE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
    EXPECT_EQ(seen.order, (std::vector<DWORD>{0, 2}));
    ASSERT_EQ(log.count(kPhoneFailure), 1);
    EXPECT_EQ(log.records()[0].arguments[0], 1u);
    // Also the last one ends nothing.
    tapi_.devices[2].version_result = LINEERR_INCOMPATIBLEAPIVERSION;
    EXPECT_TRUE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
}

TEST_F(Tapi, EndsAtADeviceWithoutCapabilities) {
    tapi_.devices.resize(3);
    tapi_.devices[1].caps_result = LINEERR_NODEVICE;
    Seen seen;
    EXPECT_FALSE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
    EXPECT_EQ(seen.order, (std::vector<DWORD>{0}));
    EXPECT_EQ(tapi_.events.back(), "shutdown");
}

TEST_F(Tapi, NeedsASession) {
    tapi_.results["initialize"] = LINEERR_NOMEM;
    const LogCapture log;
    Seen seen;
    EXPECT_FALSE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
    EXPECT_FALSE(TAPIUtilities::EnumLines(&seen, see_line, nullptr));
    EXPECT_EQ(log.count(kPhoneFailure), 2);
    EXPECT_EQ(tapi_.events, (Events{"initialize", "initialize"}));
    tapi_.results = {{"shutdown", LINEERR_OPERATIONFAILED}};
    EXPECT_TRUE(TAPIUtilities::EnumDevices(&seen, see_device, nullptr));
    EXPECT_EQ(log.count(kPhoneFailure), 3);
}

TEST_F(Tapi, OpensTheFirstLineForEachDevice) {
    tapi_.devices.resize(3);
    Seen seen;
    EXPECT_TRUE(TAPIUtilities::EnumLines(&seen, see_line, nullptr));
    EXPECT_EQ(seen.order, (std::vector<DWORD>{0, 1, 2}));
    EXPECT_EQ(tapi_.events, (Events{"initialize", "negotiate 0", "open 0 instance 0", "negotiate 1",
                                    "open 0 instance 1", "negotiate 2", "open 0 instance 2", "shutdown"}));
    Seen first{{}, 0};
    EXPECT_FALSE(TAPIUtilities::EnumLines(&first, see_line, nullptr));
    EXPECT_EQ(first.order.size(), 1u);
}

TEST_F(Tapi, GoesOnBehindALineThatCannotBeOpened) {
    tapi_.devices.resize(2);
    tapi_.results["open"] = LINEERR_ALLOCATED;
    const LogCapture log;
    Seen seen;
    EXPECT_TRUE(TAPIUtilities::EnumLines(&seen, see_line, nullptr));
    EXPECT_TRUE(seen.order.empty());
    ASSERT_EQ(log.count(kPhoneFailure), 2);
    EXPECT_EQ(log.records()[1].arguments,
              (std::vector<std::uintptr_t>{1, 0x20000, static_cast<ULONG>(LINEERR_ALLOCATED)}));
}

TEST_F(Tapi, ShowsNewCallsInOrder) {
    tapi_.calls = {{LINECALLSTATE_CONNECTED, 0}, {LINECALLSTATE_OFFERING, 0}, {LINECALLSTATE_IDLE, 0}};
    Seen seen;
    EXPECT_TRUE(TAPIUtilities::EnumNewCalls(50, &seen, see_call));
    EXPECT_EQ(seen.order, (std::vector<DWORD>{100, 101, 102}));
    Seen two{{}, 101};
    EXPECT_FALSE(TAPIUtilities::EnumNewCalls(50, &two, see_call));
    EXPECT_EQ(two.order.size(), 2u);
}

TEST_F(Tapi, IsDoneWithALineWithoutCalls) {
    Seen seen;
    EXPECT_TRUE(TAPIUtilities::EnumNewCalls(50, &seen, see_call));
    EXPECT_TRUE(seen.order.empty());
}

TEST_F(Tapi, EndsAtACallWithoutStatus) {
    tapi_.calls = {{LINECALLSTATE_CONNECTED, 0}, {0, LINEERR_INVALCALLHANDLE}, {LINECALLSTATE_IDLE, 0}};
    const LogCapture log;
    Seen seen;
    EXPECT_FALSE(TAPIUtilities::EnumNewCalls(50, &seen, see_call));
    EXPECT_EQ(seen.order, (std::vector<DWORD>{100}));
    EXPECT_EQ(log.count(kPhoneFailure), 1);
    tapi_.results["new calls"] = LINEERR_OPERATIONFAILED;
    EXPECT_FALSE(TAPIUtilities::EnumNewCalls(50, &seen, see_call));
}
