// Days in words, what is marked in lists, calendar add, imports of what is there already, and the overview.

#include <signal.h>

#include <chrono>
#include <nlohmann/json.hpp>

#include "zr/commands/own_store.h"

namespace {

using nlohmann::json;
using zr::test::expect_failure;
using zr::test::lines_of;
using zr::test::Result;
using zr::test::rows_of;
using zr::test::RunningZr;
using zr::test::write_file;
using zr::test::zr;

class CalendarDays : public zr::test::OwnStore {
protected:
    void SetUp() override {
        OwnStore::SetUp();
        setenv("TZ", "Europe/Berlin", 1);
    }
    void TearDown() override { unsetenv("TZ"); }

    static std::string event(const std::string& uid, const std::string& more) {
        return "BEGIN:VEVENT\r\nUID:" + uid + "\r\n" + more + "END:VEVENT\r\n";
    }
    static std::string calendar(const std::string& parts) {
        return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + parts + "END:VCALENDAR\r\n";
    }
    static json import(const std::string& text, std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"calendar", "import", "--json", "-"});
        const Result result = zr(options, text);
        EXPECT_EQ(result.code, 0) << result.err;
        return json::parse(result.out);
    }
    // The subjects of a list.
    static std::vector<std::string> subjects(std::vector<std::string> options) {
        options.insert(options.begin(), {"calendar", "list", "--json"});
        std::vector<std::string> all;
        for (const json& each : json::parse(zr(options).out)) {
            all.push_back(each["subject"]);
        }
        return all;
    }
    using Names = std::vector<std::string>;
};

TEST_F(CalendarDays, AreNamedInWords) {
    for (const char* const day : {"yesterday", "today", "tomorrow", "+9d", "+5w"}) {
        ASSERT_EQ(zr({"calendar", "add", day, "--start", std::string(day)}).code, 0);
    }
    EXPECT_EQ(subjects({"--from", "today"}), Names{"today"});
    EXPECT_EQ(subjects({"--from", "TODAY", "--to", "+1d"}), (Names{"today", "tomorrow"}));
    EXPECT_EQ(subjects({"--from", "-1d", "--to", "+1d"}), (Names{"yesterday", "today"}));  // counted from --from
    EXPECT_EQ(subjects({"--from", "today", "--to", "+1y"}), (Names{"today", "tomorrow", "+9d", "+5w"}));
    EXPECT_EQ(subjects({"--from", "+9d"}), Names{"+9d"});
    EXPECT_EQ(subjects({"--from", "yesterday", "--to", "+1m", "--subject", "DAY"}), (Names{"yesterday", "today"}));
    expect_failure(zr({"calendar", "list", "--from", "tommorow"}), 2, "did you mean 'tomorrow'?");
    expect_failure(zr({"calendar", "list", "--from", "today", "--to", "yesterday"}), 2, "is after --to");
    expect_failure(zr({"calendar", "list", "--from", "+99999y"}), 2, "--from");
}

TEST_F(CalendarDays, AWeekdayIsTheNextOne) {
    ASSERT_EQ(zr({"calendar", "add", "x", "--start", "wed"}).code, 0);
    const std::string start = json::parse(zr({"calendar", "list", "--json"}).out)[0]["start"];
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    ASSERT_EQ(sscanf(start.c_str(), "%4d-%2u-%2u", &year, &month, &day), 3);
    const std::chrono::sys_days found = std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
    EXPECT_EQ(std::chrono::weekday(found), std::chrono::Wednesday);
    const auto ahead = found - std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
    EXPECT_GE(ahead, std::chrono::days(-1));  // the zone may be a day ahead or behind
    EXPECT_LE(ahead, std::chrono::days(7));
}

TEST_F(CalendarDays, AddsAppointmentsAndTasks) {
    const json timed =
        json::parse(zr({"calendar", "add", "Dentist", "--start", "2026-03-02 15:30", "--end", "16:15", "--location",
                        "High Street", "--busy", "out-of-office", "--reminder", "30", "--json"})
                        .out);
    EXPECT_EQ(timed["end"], "2026-03-02T16:15:00");
    EXPECT_EQ(rows_of(zr({"calendar", "list"}).out)[0], "2026-03-02 15:30\t2026-03-02 16:15\tDentist\tHigh Street\t");
    const json shown = json::parse(zr({"calendar", "show", "--json", std::to_string(timed["oid"].get<int>())}).out)[0];
    EXPECT_EQ(shown, timed);
    // The last of whole days is the same in text and JSON.
    const json fair =
        json::parse(zr({"calendar", "add", "Fair", "--start", "2026-05-04", "--end", "2026-05-06", "--json"}).out);
    EXPECT_EQ(fair["end"], "2026-05-06");
    EXPECT_EQ(rows_of(zr({"calendar", "list"}).out)[1], "2026-05-04\t2026-05-06\tFair\t\t");
    EXPECT_EQ(subjects({"--from", "2026-05-06"}), Names{"Fair"});
    EXPECT_TRUE(subjects({"--from", "2026-05-07"}).empty());
    const json task = json::parse(zr({"calendar", "add", "-t", "Tax", "--start", "2026-07-31", "--json"}).out);
    EXPECT_EQ(task["due"], "2026-07-31");
    EXPECT_NE(
        zr({"calendar", "list", "--tasks"}).out.find("\t2026-07-31\topen\tTax\t" + task["uid"].get<std::string>()),
        std::string::npos);
    expect_failure(zr({"calendar", "add", "-t", "Tax", "--end", "2026-07-31"}), 2, "a task has no --end");
}

TEST_F(CalendarDays, ATimeThatIsLeftOutIsShownAsWhatItBecomes) {
    ASSERT_EQ(zr({"calendar", "add", "Gap", "--start", "2026-03-29 02:30", "--end", "04:00"}).code, 0);
    EXPECT_EQ(rows_of(zr({"calendar", "list"}).out)[0], "2026-03-29 03:30\t2026-03-29 04:00\tGap\t\t");
    EXPECT_EQ(zr({"calendar", "add", "Not", "--start", "2026-03-28 02:30"}).code, 0);
    EXPECT_EQ(lines_of(zr({"calendar", "list"}).out)[0].substr(10, 16), "2026-03-28 02:30");
}

TEST_F(CalendarDays, MarksWhatWasChangedOrCancelled) {
    import(calendar(
        event("s",
              "SUMMARY:Round\r\nDTSTART:20260302T090000\r\nDTEND:20260302T100000\r\nRRULE:FREQ=DAILY;COUNT=3\r\n") +
        event("s",
              "SUMMARY:Moved\r\nRECURRENCE-ID:20260303T090000\r\nDTSTART:20260303T110000\r\n"
              "DTEND:20260303T120000\r\n") +
        event("c", "SUMMARY:Off\r\nDTSTART:20260305T090000\r\nDTEND:20260305T100000\r\nSTATUS:CANCELLED\r\n")));
    std::string marks;
    for (const std::string& line : rows_of(zr({"calendar", "list", "--from", "2026-03-01", "--to", "+1w"}).out)) {
        marks += line.substr(line.rfind('\t') + 1) + ";";
    }
    EXPECT_EQ(marks, ";changed;;cancelled;");
    const json all = json::parse(zr({"calendar", "list", "--from", "2026-03-01", "--to", "+1w", "--json"}).out);
    ASSERT_EQ(all.size(), 4u);
    EXPECT_TRUE(all[1].value("changed", false));
    EXPECT_FALSE(all[2].contains("changed"));
    EXPECT_TRUE(all[3].value("cancelled", false));
}

TEST_F(CalendarDays, ImportsWhatIsThereOnce) {
    const auto text = [](const std::string& subject, int sequence) {
        return calendar(event("a", "SUMMARY:" + subject + "\r\nDTSTAMP:20260101T000000Z\r\nSEQUENCE:" +
                                       std::to_string(sequence) + "\r\nDTSTART:20260302T090000\r\n") +
                        "BEGIN:VTODO\r\nUID:a\r\nSUMMARY:" + subject + " to do\r\nEND:VTODO\r\n");
    };
    EXPECT_EQ(import(text("One", 1), {"--dry-run"})["imported"], 2);
    EXPECT_EQ(zr({"calendar", "list"}).code, 1);
    EXPECT_EQ(import(text("One", 1))["imported"], 2);
    const json again = import(text("One", 1));
    EXPECT_EQ(again["imported"], 0);
    EXPECT_EQ(again["alreadyThere"], 2);
    const json newer = import(text("Two", 2));
    EXPECT_EQ(newer["updated"], 2);
    EXPECT_EQ(subjects({}), Names{"Two"});
    EXPECT_EQ(subjects({"--tasks"}), Names{"Two to do"});
    EXPECT_EQ(import(text("Old", 1))["alreadyThere"], 1);  // the task has no revision, and is updated
    EXPECT_EQ(subjects({}), Names{"Two"});
    EXPECT_EQ(import(text("Three", 3), {"--on-duplicate", "skip"})["alreadyThere"], 2);
    EXPECT_EQ(import(text("Two", 2), {"--on-duplicate", "add"})["imported"], 2);
    EXPECT_EQ(subjects({}).size(), 2u);
    // What was exported is there.
    const std::string exported = zr({"calendar", "export"}).out;
    EXPECT_EQ(import(exported)["imported"], 0);
    EXPECT_EQ(subjects({}).size(), 2u);
}

TEST_F(CalendarDays, AnUpdateBringsAllOfASeries) {
    const std::string series =
        "SUMMARY:S\r\nDTSTART:20260302T090000\r\nDTEND:20260302T100000\r\nRRULE:FREQ=DAILY;UNTIL=20260306T080000Z\r\n";
    import(calendar(event("s", series)));
    const json changed = import(calendar(event("s", series + "EXDATE:20260304T090000\r\n")));
    EXPECT_EQ(changed["updated"], 1);
    EXPECT_EQ(subjects({"--from", "2026-03-01", "--to", "+1w"}).size(), 4u);
    EXPECT_EQ(subjects({}).size(), 1u);
    // Occurrences that stand alone have one identifier and are several.
    const auto alone = [](const char* day) {
        return event("o",
                     "SUMMARY:O\r\nRECURRENCE-ID:" + std::string(day) + "T090000\r\nDTSTART:" + day + "T090000\r\n");
    };
    for (int round = 0; round < 2; ++round) {
        zr({"calendar", "import", "-"}, calendar(alone("20260401") + alone("20260402")));
        EXPECT_EQ(subjects({"--subject", "o"}).size(), 2u);
    }
}

TEST_F(CalendarDays, ReadsFoldersAndEndsInGoodOrder) {
    std::filesystem::create_directory(folder() / "ics");
    write_file(folder() / "ics/a.ics", calendar(event("a", "SUMMARY:A\r\nDTSTART:20260302T090000\r\n")));
    write_file(folder() / "ics/b.ics", calendar(event("b", "SUMMARY:B\r\nDTSTART:20260303T090000\r\n")));
    EXPECT_EQ(zr({"calendar", "import", file("ics")}).out, "imported 2 items\n");
    RunningZr import({"calendar", "import", "-"}, RunningZr::Errors::ToOutput);
    import.write("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + event("c", "SUMMARY:C\r\nDTSTART:20260304T090000\r\n"));
    import.write("BEGIN:VEVENT\r\nUID:d\r\nSUMMARY:cut");
    // It reads on until it is told to end; the second signal would end it at once.
    import.kill(SIGINT);
    import.read_rest();
    EXPECT_EQ(import.wait(), -SIGINT);
    const std::size_t now = subjects({}).size();
    EXPECT_TRUE(now == 2 || now == 3) << now;  // C was read, or the signal came first
}

TEST_F(CalendarDays, TheOverviewTellsWhatIsKept) {
    EXPECT_EQ(zr({}).out,
              "Contacts  empty\nCalendar  empty\nMail      empty\nRegistry  empty\n\nzr --help lists the commands.\n");
    EXPECT_EQ(json::parse(zr({"--json"}).out)["mail"], (json{{"state", "empty"}}));
    EXPECT_TRUE(std::filesystem::is_empty(home()));  // to look makes nothing
    ASSERT_EQ(zr({"contacts", "add", "--first", "Jo"}).code, 0);
    ASSERT_EQ(zr({"calendar", "add", "Dentist", "--start", "tomorrow 15:30"}).code, 0);
    ASSERT_EQ(zr({"calendar", "add", "Before", "--start", "yesterday"}).code, 0);
    ASSERT_EQ(zr({"calendar", "add", "-t", "Tax"}).code, 0);
    ASSERT_EQ(zr({"mail", "import", "-q", zr::test::kData + "from-jo.eml"}).code, 0);
    ASSERT_EQ(zr({"reg", "set", "HKCU\\A"}).code, 0);
    const Result result = zr({});
    EXPECT_EQ(result.code, 0) << result.err;
    const std::vector<std::string> lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "Contacts  1 contact");
    EXPECT_TRUE(lines[1].starts_with("Calendar  2 appointments, 1 open task; next 20")) << lines[1];
    EXPECT_TRUE(lines[1].ends_with(" 15:30 Dentist")) << lines[1];
    EXPECT_TRUE(lines[2].starts_with("Mail      1 message, ")) << lines[2];
    EXPECT_EQ(lines[3], "Registry  1 key below the roots");
    json all = json::parse(zr({"--json"}).out);
    EXPECT_EQ(all["contacts"], (json{{"state", "readable"}, {"contacts", 1}}));
    EXPECT_EQ(all["calendar"]["appointments"], 2);
    EXPECT_EQ(all["calendar"]["openTasks"], 1);
    EXPECT_EQ(all["calendar"]["next"]["subject"], "Dentist");
    EXPECT_EQ(all["mail"]["messages"], 1);
    EXPECT_EQ(all["registry"]["keys"], 1);
    expect_failure(zr({"--json", "contacts", "list"}), 2, "behind the command");
}

// Numbers go to other items when one is removed; identifiers do not.
TEST_F(CalendarDays, AnIdentifierMeansTheSameItemForEver) {
    import(calendar(event("keep-me", "SUMMARY:Mine\r\nDTSTART:20260302T090000\r\n")));
    EXPECT_TRUE(zr({"calendar", "list"}).out.ends_with("\tkeep-me\n"));
    const std::string number = json::parse(zr({"calendar", "list", "--json"}).out)[0]["oid"].dump();
    EXPECT_EQ(zr({"calendar", "show", "keep-me"}).out, zr({"calendar", "show", number}).out);
    ASSERT_EQ(zr({"calendar", "remove", "keep-me"}).code, 0);
    const json other = json::parse(zr({"calendar", "add", "Other", "--start", "2026-03-03", "--json"}).out);
    EXPECT_EQ(other["oid"].dump(), number);
    expect_failure(zr({"calendar", "remove", "keep-me"}), 1, "no appointment or task keep-me");
    EXPECT_EQ(subjects({}), Names{"Other"});
    const std::string task = json::parse(zr({"calendar", "add", "-t", "Tax", "--json"}).out)["uid"];
    EXPECT_NE(zr({"calendar", "list", "-t"}).out.find("\tTax\t" + task + "\n"), std::string::npos);
    EXPECT_EQ(zr({"calendar", "remove", task}).code, 0);
    // An occurrence is shown with that of its series, which finds it.
    import(calendar(event("weekly", "SUMMARY:Round\r\nDTSTART:20260304T090000\r\nRRULE:FREQ=WEEKLY\r\n")));
    EXPECT_TRUE(zr({"calendar", "list", "--from", "2026-03-11"}).out.ends_with("\tweekly\n"));
    EXPECT_EQ(json::parse(zr({"calendar", "list", "--from", "2026-03-11", "--json"}).out)[0]["uid"], "weekly");
    EXPECT_EQ(zr({"calendar", "occurrence", "weekly", "2026-03-11"}).code, 0);
    EXPECT_EQ(zr({"calendar", "occurrence", "monthly", "2026-03-11"}).code, 1);
}

TEST_F(CalendarDays, TheOverviewNamesADamagedStore) {
    ASSERT_EQ(zr({"contacts", "add", "--first", "Jo"}).code, 0);
    ASSERT_EQ(zr({"reg", "set", "HKCU\\A"}).code, 0);
    write_file(home() / "pim.db", std::string(8192, 'x'));
    const Result result = zr({});
    EXPECT_EQ(result.code, 10) << result.err;
    EXPECT_NE(result.out.find("Contacts  damaged\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("Registry  1 key below the roots\n"), std::string::npos) << result.out;
}

}  // namespace
