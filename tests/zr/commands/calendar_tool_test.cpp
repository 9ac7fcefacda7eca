// zr calendar, as a user runs it.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/instrumented.h"
#include "support/sandbox.h"
#include "zr/base/json.h"
#include "zr/commands/tool.h"
#include "zr/icalendar/event_writer.h"
#include "zr/icalendar/random_calendar.h"
#include "zr/stores/calendar.h"

namespace {

using nlohmann::json;
using zr::test::calendar_text;
using zr::test::event_text;
using zr::test::kData;
using zr::test::lines_of;
using zr::test::Result;
using zr::test::rows_of;
using zr::test::RunningZr;
using zr::test::use_zone;
using zr::test::zr;

constexpr const char* kFirst = "150994945";  // the first identifier of an appointment

// Each case has a store of its own.
class CalendarTool : public testing::Test {
protected:
    void SetUp() override {
        use_zone("Europe/Oslo");
        use_store("state");
    }
    void use_store(const std::string& name) {
        std::filesystem::create_directory(folder_.host() / name);
        setenv("ZR_HOME", (folder_.host() / name).c_str(), 1);
    }
    static void import(const std::string& text) {
        const Result result = zr({"calendar", "import", "-"}, text);
        ASSERT_EQ(result.code, 0) << result.err;
    }
    static json list(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"calendar", "list", "--json"});
        return json::parse(zr(more).out);
    }
    static std::string exported() {
        const Result result = zr({"calendar", "export"});
        EXPECT_EQ(result.code, 0) << result.err;
        return result.out;
    }

private:
    zr::test::TempFolder folder_;
};

TEST_F(CalendarTool, ImportsTheSamplesWhole) {
    Result result = zr({"calendar", "import", kData + "web.ics", kData + "tablet.ics"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, "imported 7 items\n");
    use_zone("America/New_York");
    result = zr({"calendar", "import", kData + "office.ics", kData + "desktop.ics"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, "imported 5 items\n");
    std::string lines;
    for (const std::string& line : rows_of(zr({"calendar", "list"}).out)) {
        lines += line + "\n";
    }
    EXPECT_EQ(
        lines,
        "2026-01-01 08:30\t2026-01-01 09:00\tClose the books\t\tevery month on the first Mon, Tue, Wed, Thu, Fri\n"
        "2026-01-05 09:30\t2026-01-05 10:00\tStandup ☕\tRom 4, 2. etasje\tevery week on Mon, Thu until "
        "2026-06-29\n"
        "2026-01-14 19:00\t2026-01-14 21:00\tChoir\t\tevery 2 weeks on Wed\n"
        "2026-01-27 10:00\t2026-01-27 11:00\tBoard meeting\tBoardroom\tevery month on the last Tue until "
        "2026-08-25\n"
        "2026-02-13 18:00\t2026-02-13 19:30\tDinner with Zoë\t\t\n"
        "2026-03-02\t2026-03-03\tOffsite\t\t\n"
        "2026-03-10 02:00\t2026-03-10 03:00\t打ち合わせ\t東京タワー\\n港区芝公園4-2-8\t\n"
        "2026-04-01 07:00\t2026-04-01 07:30\tRun, wherever I am\t\tevery 2 days until 2026-04-19\n"
        "2026-04-29\t2026-04-29\tÅsa’s birthday\t\tevery year on day 29 of April\n"
        "2026-07-04\t2026-07-18\tSommerferie\t\t\n");
    EXPECT_EQ(rows_of(zr({"calendar", "list", "--tasks"}).out),
              (std::vector<std::string>{"\tdone\tLearn the alto part", "2026-03-31\topen\tFile the taxes"}));
}

TEST_F(CalendarTool, KeepsWhatASampleSays) {
    ASSERT_EQ(zr({"calendar", "import", kData + "web.ics"}).code, 0);
    const json series = list()[0];
    EXPECT_EQ(series["uid"], "4f1c9d7e2b@example.com");
    EXPECT_EQ(series["reminderMinutes"], 10);
    EXPECT_EQ(series["until"], "2026-06-29");
    ASSERT_EQ(series["exceptions"].size(), 3u);
    EXPECT_EQ(series["exceptions"][0]["day"], "2026-01-15");
    EXPECT_EQ(series["exceptions"][0]["start"], "2026-01-15T13:00:00");
    EXPECT_EQ(series["exceptions"][1], (json{{"day", "2026-04-06"}, {"deleted", true}}));
    // Attendees and all the rest are written again, each to the letter.
    const std::string text = exported();
    std::string unfolded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 3, "\r\n ") == 0) {
            i += 2;
        } else {
            unfolded += text[i];
        }
    }
    for (const char* line :
         {"ORGANIZER;CN=Kari Nordmann:mailto:kari@example.no",
          "ATTENDEE;CUTYPE=INDIVIDUAL;ROLE=REQ-PARTICIPANT;PARTSTAT=NEEDS-ACTION;CN=\"Doe, Jo\";"
          "X-NUM-GUESTS=0:mailto:jo@example.com",
          "X-EXAMPLE-CONFERENCE:https://meet.example.com/abc-defg-hij", "EXDATE;TZID=Europe/Oslo:20260514T093000",
          "RECURRENCE-ID;TZID=Europe/Oslo:20260115T093000", "RRULE:FREQ=WEEKLY;BYDAY=MO,TH;UNTIL=20260629T215959Z",
          "DESCRIPTION:Blockers first\\, then plans.\\n\\nNotes: "
          "https://notes.example.com/standup\\; everybody writes."}) {
        EXPECT_NE(unfolded.find(std::string("\r\n") + line + "\r\n"), std::string::npos) << line;
    }
}

TEST_F(CalendarTool, NamesWhatIsDamagedAndImportsTheRest) {
    const std::string file = kData + "damaged.ics";
    const Result result = zr({"calendar", "import", file});
    EXPECT_EQ(result.code, 7);
    EXPECT_EQ(result.out, "imported 2 items; 1 not in full; left out 4 components\n");
    EXPECT_EQ(lines_of(result.err),
              (std::vector<std::string>{
                  "zr: " + file + ":4: component left out: VEVENT: no END:VEVENT before the next component begins",
                  "zr: " + file + ":14: not in full: VEVENT hourly: a line without a colon",
                  "zr: " + file +
                      ":12: not in full: VEVENT hourly: RRULE: more often than daily; kept, but the appointment is a "
                      "single one",
                  "zr: " + file +
                      ":18: component left out: VEVENT no-date: DTSTART: 20261332 is no date from 1601 to "
                      "4500",
                  "zr: " + file + ":21: component left out: VJOURNAL: the contact store keeps nothing of this kind",
                  "zr: " + file + ":1: component left out: the file ends inside this calendar"}));
    EXPECT_NE(exported().find("\r\nRRULE:FREQ=HOURLY;INTERVAL=4\r\n"), std::string::npos);
    const json told = json::parse(zr({"calendar", "import", "--json", file}).out);
    EXPECT_EQ(told["leftOut"], 4);
    EXPECT_EQ(told["problems"][1]["effect"], "not in full");
    EXPECT_EQ(told["problems"][1]["line"], 14);
    EXPECT_EQ(zr({"calendar", "import", "-"}, "\n").err,
              "zr: standard input:1: component left out: no calendar in this file\n");
    const Result empty = zr({"calendar", "import", "-"});
    EXPECT_EQ(empty.code, 0) << empty.err;
    EXPECT_EQ(empty.out, "imported 0 items\n");
    EXPECT_EQ(zr({"calendar", "import", "-"}, calendar_text("")).code, 0);
    EXPECT_EQ(zr({"calendar", "import", "/no/such.ics"}).code, 6);
    EXPECT_EQ(zr({"calendar", "import", kData + "phone-2.1.vcf"}).code, 7);
}

// Expanded, not expanded, and expanded further: nothing is there twice.
TEST_F(CalendarTool, ExpandsWhatTheCalendarCannotHold) {
    const std::string text =
        calendar_text(event_text("UID:a\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Pay\r\nDTSTART;VALUE=DATE:"
                                 "20260110\r\nRRULE:FREQ=MONTHLY;BYMONTHDAY=10,20\r\n"));
    const auto imported = [&](std::vector<std::string> options) {
        options.insert(options.begin(), {"calendar", "import", "-"});
        const Result result = zr(options, text);
        return std::to_string(result.code) + " " + result.out;
    };
    EXPECT_EQ(imported({}), "7 imported 1 item; 1 not in full\n");
    EXPECT_EQ(imported({}), "7 imported 0 items; 1 was there already; 1 not in full\n");
    const std::vector<std::string> spring = {"--expand", "--from", "2026-03-01", "--to", "+1m"};
    EXPECT_EQ(imported(spring), "0 imported 1 item; 1 updated\n");
    EXPECT_EQ(imported(spring), "0 imported 0 items; 2 were there already\n");
    EXPECT_EQ(imported({"--expand", "--from", "2026-03-20", "--to", "2026-04-10"}),
              "0 imported 1 item; 1 was there already\n");
    std::string days;
    for (const json& item : list()) {
        EXPECT_EQ(item["uid"], "a");
        EXPECT_EQ(item["end"], item["start"]);
        days += item["start"].get<std::string>() + " ";
    }
    EXPECT_EQ(days, "2026-03-10 2026-03-20 2026-04-10 ");
    // What it says of itself comes in again.
    const std::string text_of_it = exported();
    use_store("again");
    EXPECT_EQ(zr({"calendar", "import", "-"}, text_of_it).out, "imported 3 items\n");
    EXPECT_EQ(exported(), text_of_it);
    EXPECT_EQ(imported({"--from", "today"}), "2 ");
    EXPECT_EQ(imported({"--expand", "--from", "today", "--to", "-1d"}), "2 ");
    EXPECT_EQ(imported({"--expand", "--to", "2400-01-01"}), "2 ");
}

TEST_F(CalendarTool, ShowsAnOccurrence) {
    import(calendar_text(
        event_text("UID:s\r\nSUMMARY:Choir\r\nDTSTART;TZID=Europe/Oslo:20260318T190000\r\n"
                   "DTEND;TZID=Europe/Oslo:20260318T203000\r\nRRULE:FREQ=WEEKLY;COUNT=5\r\n"
                   "EXDATE;TZID=Europe/Oslo:20260408T190000\r\n") +
        event_text("UID:s\r\nSUMMARY:Choir in church\r\nRECURRENCE-ID;TZID=Europe/Oslo:20260401T190000\r\n"
                   "DTSTART;TZID=Europe/Oslo:20260402T170000\r\nDTEND;TZID=Europe/Oslo:20260402T180000\r\n") +
        event_text("UID:t\r\nSUMMARY:Once\r\nDTSTART;VALUE=DATE:20260318\r\n")));
    const std::string series = list()[1]["oid"].dump();
    const std::string once = list()[0]["oid"].dump();
    const auto occurrence = [&](const std::string& day) {
        return json::parse(zr({"calendar", "occurrence", "--json", series, day}).out);
    };
    // Before and behind the night in which the clock is put.
    json found = occurrence("2026-03-25");
    EXPECT_EQ(found["subject"], "Choir");
    EXPECT_EQ(found["start"], "2026-03-25T19:00:00");
    EXPECT_EQ(found["end"], "2026-03-25T20:30:00");
    EXPECT_EQ(found["exception"], false);
    EXPECT_EQ(found["recurrenceId"], "20260325T180000Z");
    found = occurrence("2026-04-01");
    EXPECT_EQ(found["subject"], "Choir in church");
    EXPECT_EQ(found["start"], "2026-04-02T17:00:00");
    EXPECT_EQ(found["day"], "2026-04-01");
    EXPECT_EQ(found["exception"], true);
    EXPECT_EQ(found["recurrenceId"], "20260401T170000Z");
    const auto refused = [&](const std::string& oid, const std::string& day) {
        const Result result = zr({"calendar", "occurrence", oid, day});
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.out, "");
        return result.err;
    };
    EXPECT_EQ(refused(series, "2026-04-08"), "zr: the occurrence of " + series + " on 2026-04-08 was deleted\n");
    EXPECT_EQ(refused(series, "2026-04-02"), "zr: no occurrence of " + series + " on 2026-04-02\n");
    EXPECT_EQ(refused(series, "2026-04-22"), "zr: no occurrence of " + series + " on 2026-04-22\n");
    EXPECT_EQ(refused(once, "2026-03-18"), "zr: appointment " + once + " does not recur\n");
    EXPECT_EQ(refused("7", "2026-03-18"), "zr: no appointment 7\n");
    const std::string text = zr({"calendar", "occurrence", series, "2026-04-01"}).out;
    EXPECT_NE(text.find("Recurrence id:          20260401T170000Z\nException:              yes\n"), std::string::npos)
        << text;
}

TEST_F(CalendarTool, ListsTheOccurrencesOfSomeDays) {
    import(calendar_text(event_text("SUMMARY:Daily\r\nDTSTART:20260301T090000\r\nRRULE:FREQ=DAILY\r\n") +
                         event_text("SUMMARY:Trip\r\nDTSTART;VALUE=DATE:20260303\r\nDTEND;VALUE=DATE:20260306\r\n") +
                         event_text("SUMMARY:Midnight\r\nDTSTART:20260305T000000\r\n")));
    const auto subjects = [](const std::vector<std::string>& options) {
        std::string text;
        for (const json& item : list(options)) {
            text += item["start"].get<std::string>().substr(8, 2) + " " + item["subject"].get<std::string>() + ",";
        }
        return text;
    };
    EXPECT_EQ(subjects({"--from", "2026-03-04", "--to", "2026-03-05"}), "03 Trip,04 Daily,05 Midnight,05 Daily,");
    EXPECT_EQ(subjects({"--from", "2026-03-05", "--reverse", "-n", "2"}), "05 Daily,05 Midnight,");
    EXPECT_EQ(subjects({"--to", "2026-03-02"}), "01 Daily,02 Daily,");
    EXPECT_EQ(subjects({"--reverse"}), "05 Midnight,03 Trip,01 Daily,");
    EXPECT_EQ(zr({"calendar", "list", "--from", "2020-01-01"}).code, 1);
}

TEST_F(CalendarTool, ShowsAndRemoves) {
    EXPECT_EQ(zr({"calendar", "list"}).code, 1);
    ASSERT_EQ(zr({"calendar", "import", kData + "tablet.ics"}).code, 0);
    const std::string shown = zr({"calendar", "show", kFirst, "218103809"}).out;
    EXPECT_NE(shown.find("Subject:                打ち合わせ\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("Reminder:               15 minutes before\n"), std::string::npos);
    EXPECT_NE(shown.find("\n\nIdentifier:             218103809\nSubject:                File the taxes\n"),
              std::string::npos);
    EXPECT_EQ(zr({"calendar", "remove", "--json", kFirst, "218103809", "5"}).out,
              std::string("{\"removed\":[") + kFirst + ",218103809]}\n");
    EXPECT_EQ(zr({"calendar", "show", kFirst}).code, 1);
    EXPECT_EQ(zr({"calendar", "remove", kFirst}).code, 1);
    EXPECT_EQ(list().size(), 2u);
    EXPECT_EQ(zr({"calendar", "list", "--tasks"}).code, 1);
}

TEST_F(CalendarTool, ExportsWhatItImports) {
    int seed = 100;
    for (const char* zone : {"Europe/Oslo", "America/New_York", "UTC"}) {
        use_zone(zone);
        zr::test::RandomCalendar random(static_cast<unsigned>(++seed));
        const zr::CalendarWriter writer(1999, std::chrono::sys_days(std::chrono::year(2026) / 2 / 3));
        std::string text;
        writer.begin(text);
        for (int i = 0; i < 120; ++i) {
            writer.write(random.event(i), text);
            writer.write(random.task(i), text);
        }
        zr::CalendarWriter::end(text);
        use_store(std::string("first") + std::to_string(seed));
        import(text);
        const std::string first = exported();
        // The store has given back each item, with its exceptions, as the file had it.
        const zr::test::ReadCalendar in = zr::test::read_calendar(text);
        const zr::test::ReadCalendar out = zr::test::read_calendar(first);
        EXPECT_TRUE(out.problems.empty());
        ASSERT_EQ(in.events.size(), out.events.size());
        for (std::size_t i = 0; i < in.events.size(); ++i) {
            ASSERT_EQ(in.events[i], out.events[i]) << zone << "\n"
                                                   << zr::event_json(0, in.events[i]).text(false) << "\n"
                                                   << zr::event_json(0, out.events[i]).text(false);
        }
        EXPECT_EQ(in.tasks, out.tasks);
        use_store(std::string("second") + std::to_string(seed));
        import(first);
        EXPECT_EQ(exported(), first);
    }
}

TEST_F(CalendarTool, GivesItemsOfTheDeviceAnIdentifier) {
    import(calendar_text(event_text("SUMMARY:A\r\nDTSTART:20260301T090000\r\nDTSTAMP:20260101T000000Z\r\n") +
                         event_text("SUMMARY:B\r\nDTSTART:20260301T090000\r\nDTSTAMP:20260101T000000Z\r\n")));
    const std::string text = exported();
    EXPECT_EQ(exported(), text);
    const auto read = zr::test::read_calendar(text);
    ASSERT_EQ(read.events.size(), 2u);
    EXPECT_NE(read.events[0].uid, "");
    EXPECT_NE(read.events[0].uid, read.events[1].uid);
}

TEST_F(CalendarTool, ImportsALargeCalendar) {
    constexpr int kItems = 10000 / zr::test::kStride;
    std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
    for (int i = 0; i < kItems; ++i) {
        text +=
            event_text("UID:" + std::to_string(i) + "\r\nSUMMARY:Event " + std::to_string(i) + "\r\nDTSTART:2026010" +
                       std::to_string(1 + i % 9) + "T090000Z\r\nDURATION:PT1H\r\nX-MORE:" + std::string(200, 'x') +
                       "\r\n" + (i % 10 == 0 ? "RRULE:FREQ=WEEKLY;COUNT=9\r\n" : ""));
    }
    const Result result = zr({"calendar", "import", "-"}, text + "END:VCALENDAR\r\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "imported " + std::to_string(kItems) + " items\n");
    EXPECT_EQ(zr({"calendar", "show", std::to_string(std::stoi(kFirst) + kItems - 1)}).code, 0);
    EXPECT_EQ(zr({"calendar", "show", std::to_string(std::stoi(kFirst) + kItems)}).code, 1);
}

TEST_F(CalendarTool, LeavesWholeItemsWhenItIsKilled) {
    {
        RunningZr import({"calendar", "import", "-", "--quiet"});
        for (int calendar = 0; calendar < 900; ++calendar) {
            const std::string uid = std::to_string(calendar);
            import.write(calendar_text(
                event_text("UID:" + uid +
                           "\r\nDTSTART:20260301T090000\r\nRRULE:FREQ=DAILY\r\nEXDATE:20260302T090000\r\n") +
                event_text("UID:" + uid + "\r\nRECURRENCE-ID:20260303T090000\r\nDTSTART:20260303T100000\r\n")));
        }
        import.kill(SIGKILL);
        EXPECT_EQ(import.wait(), -SIGKILL);
    }
    const json items = list();
    EXPECT_GE(items.size(), 300u);
    EXPECT_LT(items.size(), 900u);
    for (const json& item : items) {
        ASSERT_EQ(item["exceptions"].size(), 2u);
    }
}

}  // namespace
