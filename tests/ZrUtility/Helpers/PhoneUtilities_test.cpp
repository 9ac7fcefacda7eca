#include "ZrUtility/Helpers/PhoneUtilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "fake_tapi.h"
#include "platform/diagnostics.h"
#include "support/log_capture.h"
#include "support/log_categories.h"
#include "support/mock_modems.h"

namespace {

using zr::test::FakeDevice;
using zr::test::FakeTapi;
using zr::test::kPhoneFailure;
using zr::test::LogCapture;
using zr::test::MockModemManager;
using zr::test::ModemState;
using zr::test::PrivateBus;
using Events = std::vector<std::string>;

class Phone : public testing::Test {
protected:
    Phone() : blocks_(ZrLiveObjects(ZrLiveKind::HeapBlocks)) {}
    ~Phone() override { EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), blocks_); }

    void have(std::vector<DWORD> states) {
        tapi_.calls.clear();
        for (const DWORD state : states) {
            tapi_.calls.push_back({state, 0});
        }
    }
    // What was done with lines and calls since the last time.
    Events done() {
        Events events;
        events.swap(tapi_.events);
        std::erase_if(events, [](const std::string& each) {
            return each == "initialize" || each == "shutdown" || each == "new calls" || each.starts_with("negotiate");
        });
        return events;
    }

    FakeTapi tapi_;

private:
    const LONGLONG blocks_;
};

constexpr DWORD kIdle = LINECALLSTATE_IDLE;
constexpr DWORD kGone = LINECALLSTATE_DISCONNECTED;
constexpr DWORD kRings = LINECALLSTATE_OFFERING;
constexpr DWORD kTalks = LINECALLSTATE_CONNECTED;

}  // namespace

TEST_F(Phone, HasACurrentCallWhenOneIsNotOver) {
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
    for (const DWORD state : {kRings, kTalks, LINECALLSTATE_ONHOLD, LINECALLSTATE_DIALING, LINECALLSTATE_UNKNOWN}) {
        have({kIdle, kGone, state, kIdle});
        done();
        EXPECT_TRUE(PhoneUtilities::IsCurrentVoiceCall()) << state;
        // The line stays open, and the calls behind are not looked at.
        EXPECT_EQ(done(), (Events{"open 0 instance 0", "deallocate 100", "deallocate 101", "deallocate 102"}));
    }
    have({kIdle, kGone});
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
}

TEST_F(Phone, LooksAtVoiceLinesOnly) {
    have({kRings});
    tapi_.devices = {FakeDevice{0, 0, LINEMEDIAMODE_DATAMODEM, sizeof(LINEDEVCAPS)}};
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_TRUE(PhoneUtilities::EndCurrentVoiceCall());
    EXPECT_TRUE(PhoneUtilities::AnswerIncomingVoiceCall());
    EXPECT_EQ(std::ranges::count(tapi_.events, "new calls"), 0);
    EXPECT_EQ(std::ranges::count(tapi_.events, "close"), 3);
}

TEST_F(Phone, RingsUpToTheFirstCallThatDoesNot) {
    have({kRings});
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_EQ(done(), (Events{"open 0 instance 0", "deallocate 100", "close"}));
    have({kTalks, kRings});
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_EQ(done(), (Events{"open 0 instance 0", "deallocate 100", "close"}));
    have({kRings, kTalks, kRings});
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_EQ(done(), (Events{"open 0 instance 0", "deallocate 100", "deallocate 101", "close"}));
    have({kIdle, kRings});
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
}

TEST_F(Phone, GoesThroughAllLines) {
    have({kTalks});
    tapi_.devices.resize(2);
    EXPECT_TRUE(PhoneUtilities::IsCurrentVoiceCall());
    EXPECT_EQ(done(), (Events{"open 0 instance 0", "deallocate 100", "open 0 instance 1", "deallocate 100"}));
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_EQ(done(),
              (Events{"open 0 instance 0", "deallocate 100", "close", "open 0 instance 1", "deallocate 100", "close"}));
}

TEST_F(Phone, DropsWhatIsNotOver) {
    have({kIdle, kTalks, kGone, kRings});
    EXPECT_TRUE(PhoneUtilities::EndCurrentVoiceCall());
    EXPECT_EQ(done(),
              (Events{"open 0 instance 0", "deallocate 100", "own 101", "drop 101", "monitor 101", "deallocate 101",
                      "deallocate 102", "own 103", "drop 103", "monitor 103", "deallocate 103", "close"}));
}

TEST_F(Phone, AnswersWhatRings) {
    have({kTalks, kRings});
    const LogCapture log;
    EXPECT_TRUE(PhoneUtilities::AnswerIncomingVoiceCall());
    EXPECT_EQ(done(), (Events{"open 0 instance 0", "deallocate 100", "own 101", "answer 101", "handoff 101",
                              "monitor 101", "deallocate 101", "close"}));
    EXPECT_TRUE(log.records().empty());
}

TEST_F(Phone, LogsEachFailureAndGoesOn) {
    have({kRings, kRings});
    for (const char* const function : {"privilege", "drop", "answer", "handoff", "deallocate", "close"}) {
        tapi_.results[function] = LINEERR_OPERATIONFAILED;
    }
    {
        const LogCapture log;
        EXPECT_TRUE(PhoneUtilities::EndCurrentVoiceCall());
        EXPECT_EQ(log.count(kPhoneFailure), 2 * 4 + 1);
        for (const auto& record : log.records()) {
            EXPECT_EQ(record.source, ".\\Helpers\\PhoneUtilities.cppzrwindowsmobile");
            EXPECT_EQ(record.arguments, (std::vector<std::uintptr_t>{static_cast<ULONG>(LINEERR_OPERATIONFAILED)}));
        }
    }
    const LogCapture log;
    EXPECT_TRUE(PhoneUtilities::AnswerIncomingVoiceCall());
    EXPECT_EQ(log.count(kPhoneFailure), 2 * 5 + 1);
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_TRUE(PhoneUtilities::IsCurrentVoiceCall());
}

TEST_F(Phone, LooksAtLinesThatAreForVoiceAmongOthers) {
    have({kRings});
    tapi_.devices = {FakeDevice{0, 0, LINEMEDIAMODE_INTERACTIVEVOICE | LINEMEDIAMODE_DATAMODEM, sizeof(LINEDEVCAPS)}};
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_TRUE(PhoneUtilities::IsCurrentVoiceCall());
    tapi_.devices = {FakeDevice{0, 0, ~DWORD{LINEMEDIAMODE_INTERACTIVEVOICE}, sizeof(LINEDEVCAPS)}};
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
}

TEST_F(Phone, KeepsAnAnswerThoughTheWalkFailsBehindIt) {
    have({kRings});
    tapi_.devices.resize(2);
    tapi_.devices[1].caps_result = LINEERR_NODEVICE;
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_TRUE(PhoneUtilities::IsCurrentVoiceCall());
    tapi_.devices.resize(1);
    have({kRings, kRings});
    tapi_.calls[1].status_result = LINEERR_INVALCALLHANDLE;
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    tapi_.results["close"] = tapi_.results["shutdown"] = LINEERR_OPERATIONFAILED;
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
}

TEST_F(Phone, FailsAtEachStepWithoutHarm) {
    struct Step {
        const char* what;
        bool hides;  // the calls
        bool goes_on;
    };
    for (const auto& [what, hides, goes_on] :
         {Step{"initialize", true, false}, Step{"open", true, true}, Step{"new calls", true, true},
          Step{"close", false, true}, Step{"shutdown", false, true}, Step{"deallocate", false, true}}) {
        have({kRings});
        tapi_.devices.resize(2);
        tapi_.results = {{what, LINEERR_OPERATIONFAILED}};
        const LogCapture log;
        EXPECT_EQ(PhoneUtilities::IsIncomingVoiceCall(), !hides) << what;
        EXPECT_EQ(PhoneUtilities::IsCurrentVoiceCall(), !hides) << what;
        EXPECT_GE(log.count(kPhoneFailure), 1) << what;
        tapi_.events.clear();
        EXPECT_TRUE(PhoneUtilities::EndCurrentVoiceCall()) << what;
        EXPECT_TRUE(PhoneUtilities::AnswerIncomingVoiceCall()) << what;
        EXPECT_EQ(std::ranges::count(tapi_.events, "drop 100"), hides ? 0 : 2) << what;
        EXPECT_EQ(std::ranges::count(tapi_.events, "answer 100"), hides ? 0 : 2) << what;
        EXPECT_EQ(std::ranges::count(tapi_.events, "open 0 instance 1"), goes_on ? 2 : 0) << what;
        EXPECT_EQ(std::ranges::count(tapi_.events, "shutdown"), what == std::string("initialize") ? 0 : 2) << what;
    }
    // A status that cannot be read ends the calls of that line, and a device of another version is passed over.
    tapi_.results.clear();
    have({kRings});
    tapi_.calls[0].status_result = LINEERR_INVALCALLHANDLE;
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
    have({kRings});
    tapi_.devices[0].version_result = LINEERR_INCOMPATIBLEAPIVERSION;
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    tapi_.devices[1].version_result = LINEERR_INCOMPATIBLEAPIVERSION;
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
}

TEST_F(Phone, SaysNoWhenTheWalkFails) {
    have({kRings});
    tapi_.results["initialize"] = LINEERR_NODRIVER;
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_TRUE(PhoneUtilities::EndCurrentVoiceCall());
    EXPECT_TRUE(PhoneUtilities::AnswerIncomingVoiceCall());
}

// The same with modems.
TEST(PhoneWithModems, AsksAnswersAndEnds) {
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
    PrivateBus bus;
    ZR_NEEDS_BUS(bus);
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    MockModemManager modems;
    ASSERT_EQ(modems.why(), "");
    const std::string modem = modems.add_modem(0);
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
    const std::string call = modems.ring(modem, "+4930123");
    EXPECT_TRUE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_TRUE(PhoneUtilities::IsCurrentVoiceCall());
    // When the call returns the modem has been told.
    EXPECT_TRUE(PhoneUtilities::AnswerIncomingVoiceCall());
    EXPECT_EQ(modems.count_calls(call, "Accept"), 1u);
    EXPECT_FALSE(PhoneUtilities::IsIncomingVoiceCall());
    EXPECT_TRUE(PhoneUtilities::IsCurrentVoiceCall());
    EXPECT_TRUE(PhoneUtilities::EndCurrentVoiceCall());
    EXPECT_EQ(modems.count_calls(call, "Hangup"), 1u);
    EXPECT_FALSE(PhoneUtilities::IsCurrentVoiceCall());
}
