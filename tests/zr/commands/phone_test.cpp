// zr phone.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/mock_modems.h"
#include "zr/commands/own_store.h"
#include "zr/commands/tool.h"

namespace {

using nlohmann::json;
using zr::test::expect_failure;
using zr::test::lines_of;
using zr::test::MockModemManager;
using zr::test::ModemState;
using zr::test::PrivateBus;
using zr::test::Result;
using zr::test::RunningZr;

Result phone(std::vector<std::string> args) {
    args.insert(args.begin(), "phone");
    return zr::test::zr(args);
}

// The service may be slower than zr waits for one: then it is asked again.
Result phone_until(const std::vector<std::string>& args, const std::function<bool(const Result&)>& fits) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        Result result = phone(args);
        if (fits(result) || std::chrono::steady_clock::now() > end) return result;
    }
}

bool succeeded(const Result& result) {
    return result.code == 0 && !result.out.empty();
}

class PhoneTool : public zr::test::OwnStore {
protected:
    void SetUp() override {
        OwnStore::SetUp();
        ZR_NEEDS_BUS(bus_);
        modems_.emplace();
        ASSERT_EQ(modems_->why(), "");
        modem_ = modems_->add_modem(0);
        const Result added = zr::test::zr({"contacts", "import", "-"},
                                          "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Ray;Ada;;;\r\nFN:Ada Ray\r\n"
                                          "TEL;TYPE=CELL:0171 5550100\r\nTEL;TYPE=CELL:0172 5550101\r\n"
                                          "TEL;TYPE=CELL:0173 5550102\r\nEND:VCARD\r\n");
        ASSERT_EQ(added.code, 0) << added.err;
    }
    PrivateBus bus_;
    std::optional<MockModemManager> modems_;
    std::string modem_;
};

}  // namespace

TEST(PhoneToolWithoutBus, HasNoLines) {
    EXPECT_EQ(phone({"lines"}).code, 0);
    EXPECT_EQ(phone({"lines"}).out, "");
    EXPECT_EQ(json::parse(phone({"lines", "--json"}).out), json::array());
    EXPECT_EQ(json::parse(phone({"calls", "--json"}).out), json::array());
    expect_failure(phone({"answer"}), 1, "no call rings");
    expect_failure(phone({"hangup"}), 1, "no such call");
    expect_failure(phone({"dial", "123"}), 1, "no such line");
}

TEST_F(PhoneTool, ListsLinesAndCalls) {
    modems_->add_modem(1, false);
    EXPECT_EQ(phone_until({"lines"}, succeeded).out,
              "0\tMaker Model 0\tvoice, ModemManager, +49300000\n1\tMaker Model 1\tdata, ModemManager, +49300001\n");
    const json lines =
        json::parse(phone_until({"lines", "--json"}, [](const Result& each) { return each.out != "[]\n"; }).out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], json({{"line", 0},
                              {"name", "Maker Model 0"},
                              {"voice", true},
                              {"number", "+49300000"},
                              {"service", "ModemManager"}}));
    EXPECT_EQ(lines[1]["voice"], false);
    // By any of the contact's numbers, also those that are only kept.
    modems_->ring(modem_, "+491715550100", ModemState::Active);
    modems_->ring(modem_, "+491735550102", ModemState::Waiting);
    modems_->ring(modem_, "+493012345", ModemState::Held);
    EXPECT_EQ(phone_until({"calls"}, succeeded).out,
              "active\tto +491715550100\tAda Ray\nringing\tfrom +491735550102\tAda Ray\nheld\tto +493012345\n");
    const json calls =
        json::parse(phone_until({"calls", "--json"}, [](const Result& each) { return each.out.size() > 3; }).out);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(
        calls[1],
        json(
            {{"line", 0}, {"state", "ringing"}, {"incoming", true}, {"number", "+491735550102"}, {"name", "Ada Ray"}}));
}

TEST_F(PhoneTool, AnswersAndEndsCalls) {
    const std::string call = modems_->ring(modem_, "+491725550101");
    EXPECT_EQ(phone_until({"answer"}, succeeded).out, "active\tfrom +491725550101\tAda Ray\n");
    EXPECT_EQ(modems_->count_calls(call, "Accept"), 1u);
    const auto is_none = [](const Result& each) { return each.code == 1 && !each.err.empty(); };
    expect_failure(phone_until({"answer"}, is_none), 1, "no call rings");
    expect_failure(phone_until({"hangup", "030 555"}, is_none), 1, "no such call");
    EXPECT_EQ(modems_->count_calls(call, "Hangup"), 0u);
    EXPECT_EQ(phone_until({"hangup", "0172 5550101"}, succeeded).out, "ended\tfrom +491725550101\tAda Ray\n");
    EXPECT_EQ(modems_->count_calls(call, "Hangup"), 1u);
}

TEST_F(PhoneTool, Dials) {
    const auto is_refused = [](const Result& each) { return each.code == 2; };
    expect_failure(phone_until({"dial", "Ada"}, is_refused), 2, "cannot be dialled");
    expect_failure(phone({"dial", "123", "--line", "7"}), 1, "no such line");
    const Result dialled = phone_until({"dial", "0171 555-0100", "--json"}, succeeded);
    const json calls = json::parse(dialled.out);
    ASSERT_EQ(calls.size(), 1u) << dialled.out;
    EXPECT_EQ(calls[0]["state"], "dialing");
    EXPECT_EQ(calls[0]["number"], "01715550100");
    EXPECT_EQ(calls[0]["name"], "Ada Ray");
    EXPECT_EQ(calls[0]["incoming"], false);
}

TEST_F(PhoneTool, WatchesCallsAsTheyComeAndGo) {
    const std::string call = modems_->ring(modem_, "+491715550100");
    RunningZr watch({"phone", "watch"});
    // Those that were there are told as such, unless the service is slow.
    const std::string first = watch.read_line();
    EXPECT_TRUE(first == "now\tringing\tfrom +491715550100\tAda Ray" ||
                first == "new\tringing\tfrom +491715550100\tAda Ray")
        << first;
    modems_->enter(call, ModemState::Active);
    EXPECT_EQ(watch.read_line(), "changed\tactive\tfrom +491715550100\tAda Ray");
    modems_->enter(call, ModemState::Terminated);
    EXPECT_EQ(watch.read_line(), "changed\tended\tfrom +491715550100\tAda Ray");
    modems_->ring(modem_, "", ModemState::RingingIn);
    EXPECT_EQ(watch.read_line(), "new\tringing\tfrom unknown");
    // A modem that comes later is watched, too.
    const std::string later = modems_->add_modem(1);
    modems_->ring(later, "+4930\x1b", ModemState::Dialing);
    EXPECT_EQ(watch.read_line(), "new\tdialing\tto +4930\\x1b");
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}
