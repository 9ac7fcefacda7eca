// Series when things go wrong: stores of an older version, killed writers, two programs at once, no memory.

#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>
#include <vector>

#include "calendar_support.h"
#include "store_query.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/forked.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

// A store as the first version wrote it, with a contact and an appointment, one hour on 3 June 2024.
void make_store_of_first_version() {
    std::filesystem::create_directories(sandbox_home());
    query(store_path(),
          "PRAGMA encoding = 'UTF-16'; PRAGMA journal_mode = WAL;"
          "CREATE TABLE folder(id INTEGER PRIMARY KEY, next INTEGER NOT NULL);"
          "INSERT INTO folder VALUES(9, (9 << 24) + 2), (10, 2), (13, 13 << 24 | 1);"
          "CREATE TABLE free_oid(oid INTEGER PRIMARY KEY);"
          "CREATE TABLE contact(oid INTEGER PRIMARY KEY, file_as TEXT, title TEXT, first_name TEXT, middle_name TEXT,"
          " last_name TEXT, suffix TEXT, company TEXT, email1 TEXT, email2 TEXT, email3 TEXT, job_title TEXT,"
          " own_file_as INTEGER NOT NULL);"
          "INSERT INTO contact(oid, file_as, first_name, last_name, email2, own_file_as)"
          " VALUES(1, 'B, A', 'A', 'B', 'A@b.c', 0);"
          "CREATE TABLE entry(oid INTEGER PRIMARY KEY);"
          "INSERT INTO entry VALUES((9 << 24) + 1);"
          "CREATE TABLE property(oid INTEGER NOT NULL, id INTEGER NOT NULL, value, PRIMARY KEY(oid, id)) WITHOUT ROWID;"
          "INSERT INTO property VALUES((9 << 24) + 1, (0x7E5A << 16) + 5, 45446.375),"
          " ((9 << 24) + 1, (0x7E52 << 16) + 5, 45446.5), ((9 << 24) + 1, (0x7E5B << 16) + 31, 'Old');"
          "CREATE TABLE change(seq INTEGER PRIMARY KEY, kind INTEGER NOT NULL, oid INTEGER NOT NULL,"
          " origin INTEGER NOT NULL);"
          "INSERT INTO change VALUES(1, 3, 0, 0);"
          "PRAGMA application_id = 1517441101; PRAGMA user_version = 1;");
}

TEST(Migration, AStoreOfTheFirstVersionIsTakenOverInPlace) {
    make_store_of_first_version();
    TestSession session;
    ASSERT_EQ(session.logon, S_OK);
    EXPECT_EQ(query(store_path(), "PRAGMA user_version"), "6");
    EXPECT_EQ(text(*session.contact(1).get(), &IContact::get_FileAs), u"B, A");
    LONG found = 0;
    EXPECT_EQ(session.store()->FindByEmail(u"a@b.c", 0, &found), S_OK);
    EXPECT_EQ(found, 1);
    const auto appointment = stored(session, 0x09000001);
    EXPECT_EQ(text(*appointment.get(), &IAppointment::get_Subject), u"Old");
    EXPECT_EQ(got(*appointment.get(), &IAppointment::get_Duration), 180);
    EXPECT_EQ(got(*appointment.get(), &IAppointment::get_IsRecurring), VARIANT_FALSE);
    ASSERT_EQ(pattern_of(*appointment.get())->put_RecurrenceType(olRecursDaily), S_OK);
    ASSERT_EQ(appointment->Save(), S_OK);
    ASSERT_EQ(occurrence_on(*appointment.get(), kMonday + 1)->Delete(), S_OK);
    EXPECT_EQ(exception_count(*stored(session, 0x09000001).get()), 1);
    for (const auto& entry : std::filesystem::directory_iterator(sandbox_home())) {
        EXPECT_EQ(entry.path().string().find("damaged"), std::string::npos);
    }
}

TEST(Migration, OfAStoreThatIsLargerThanTheCache) {
    make_store_of_first_version();
    query(store_path(),
          "WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 20001)"
          " INSERT INTO contact(oid, file_as, last_name, own_file_as)"
          " SELECT i, hex(zeroblob(500)), 'name ' || i, 1 FROM n");
    query(store_path(), "UPDATE folder SET next = 20002 WHERE id = 10");
    const TestSession session;
    ASSERT_EQ(session.logon, S_OK) << "a store of 40 MB";
    EXPECT_EQ(count(*session.items().get()), 20001);
    EXPECT_EQ(text(*session.contact(20001).get(), &IContact::get_LastName), u"name 20001");
    EXPECT_EQ(query(store_path(), "PRAGMA integrity_check"), "ok");
}

ZR_CHILD(log_on_once) {
    TestSession session;
    return session.logon == S_OK && count(*session.items().get()) == 1 ? 0 : 1;
}

TEST(Migration, ByManyProcessesAtOnce) {
    make_store_of_first_version();
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(std::make_unique<Child>("log_on_once"));
    }
    for (const auto& child : children) {
        EXPECT_EQ(child->wait(), 0);
    }
    EXPECT_EQ(query(store_path(), "PRAGMA user_version"), "6");
}

// Turns the series of the store to and fro: weekly with exceptions, daily without any. A byte after each save.
[[noreturn]] void turn_to_and_fro(int saved) {
    TestSession session;
    const auto series = stored(session, 0x09000001);
    const auto pattern = pattern_of(*series.get());
    const auto save = [&](IAppointment& appointment) {
        if (appointment.Save() != S_OK || write(saved, "s", 1) != 1) _exit(1);
    };
    for (;;) {
        pattern->put_RecurrenceType(olRecursWeekly);
        series->put_Subject(in(u"weekly"));
        save(*series.get());
        for (int week = 1; week <= 3; ++week) {
            const auto occurrence = occurrence_on(*series.get(), kMonday + 7 * week);
            occurrence->put_Subject(in(u"exception"));
            occurrence->put_Location(in(u"elsewhere"));
            save(*occurrence.get());
        }
        pattern->put_RecurrenceType(olRecursDaily);
        series->put_Subject(in(u"daily"));
        save(*series.get());
    }
}

std::string named(const char* number, const char* type) {
    return std::string("(SELECT value FROM property WHERE oid = (9 << 24) + 1 AND id = (") + number + " << 16) + " +
           type + ")";
}

TEST(SeriesFaults, AKillInTheMiddleOfSaveLeavesBeforeOrAfter) {
    constexpr int kRounds = 30;
    {
        TestSession session;
        ASSERT_EQ(saved_series(session, kMonday + 0.375, olRecursDaily)->put_Subject(in(u"daily")), S_OK);
        const auto series = stored(session, 0x09000001);
        ASSERT_EQ(series->put_Subject(in(u"daily")), S_OK);
        ASSERT_EQ(series->Save(), S_OK);
    }
    const std::string daily = named("0x7E63", "3") + " = 0";
    const std::string exceptions = "(SELECT count(*) FROM exception WHERE id = 0)";
    const std::string fields = "(SELECT count(*) FROM exception WHERE id <> 0)";
    for (int round = 0; round < kRounds; ++round) {
        int saved[2];
        ASSERT_EQ(pipe(saved), 0);
        const pid_t child = zr::test::fork_beside_threads();
        if (child == 0) turn_to_and_fro(saved[1]);
        close(saved[1]);
        char byte = 0;
        // Then it is on its way to the next save, or in the middle of it.
        for (int saves = round % 11 + 1; saves > 0; --saves) {
            ASSERT_EQ(read(saved[0], &byte, 1), 1);
        }
        for (int i = 0; i < round % 7 * 3; ++i) {
            sched_yield();
        }
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        close(saved[0]);
        ASSERT_EQ(query(store_path(), "SELECT " + named("0x7E5B", "31") + " = CASE WHEN " + daily +
                                          " THEN 'daily' ELSE 'weekly' END"),
                  "1");
        ASSERT_EQ(query(store_path(), "SELECT NOT (" + daily + ") OR " + exceptions + " = 0"), "1")
            << "exceptions of another pattern";
        ASSERT_EQ(query(store_path(), "SELECT " + fields + " = 2 * " + exceptions), "1") << "half an exception";
    }
    EXPECT_EQ(query(store_path(), "PRAGMA integrity_check"), "ok");
    TestSession session;
    EXPECT_TRUE(occurrence_on(*stored(session, 0x09000001).get(), kMonday));
}

ZR_CHILD(change_series_on_command) {
    TestSession session;
    say("ready");
    for (std::string command = hear(); !command.empty(); command = hear()) {
        const auto series = stored(session, 0x09000001);
        if (command == "delete") occurrence_on(*series.get(), kMonday + 7)->Delete();
        if (command == "move") {
            const auto occurrence = occurrence_on(*series.get(), kMonday + 14);
            occurrence->put_Start(kMonday + 16.5);
            occurrence->Save();
        }
        if (command == "daily") {
            pattern_of(*series.get())->put_RecurrenceType(olRecursDaily);
            series->Save();
        }
        say("done");
    }
    return 0;
}

TEST(SeriesProcesses, SeeEachOthersExceptionsAndPatterns) {
    TestSession session;
    const auto series = saved_series(session, kMonday + 0.375, olRecursWeekly);
    const auto pattern = pattern_of(*series.get());
    Child child("change_series_on_command");
    ASSERT_EQ(child.hear(), "ready");
    const auto run = [&](const char* command) {
        child.say(command);
        ASSERT_EQ(child.hear(), "done");
    };
    const auto late = occurrence_on(*series.get(), kMonday + 7);
    ASSERT_TRUE(late);
    run("delete");
    EXPECT_FALSE(occurrence_on(*series.get(), kMonday + 7));
    late->put_Subject(in(u"late"));
    EXPECT_EQ(late->Save(), kNotFound) << "deleted by the other program meanwhile";
    run("move");
    EXPECT_DOUBLE_EQ(got(*occurrence_on(*series.get(), kMonday + 14).get(), &IAppointment::get_Start), kMonday + 16.5);
    EXPECT_EQ(exception_count(*series.get()), 2);
    const auto other = occurrence_on(*series.get(), kMonday + 21);
    run("daily");
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_RecurrenceType), olRecursDaily);
    EXPECT_EQ(exception_count(*series.get()), 0);
    EXPECT_TRUE(occurrence_on(*series.get(), kMonday + 8));
    other->put_Subject(in(u"still a day of the series"));
    EXPECT_EQ(other->Save(), S_OK);
    // A pattern that is saved is whole, though another program stored another kind meanwhile.
    ASSERT_EQ(pattern->put_RecurrenceType(olRecursMonthly), S_OK);
    run("daily");
    ASSERT_EQ(series->Save(), S_OK);
    const auto now = stored(session, 0x09000001);
    EXPECT_EQ(got(*pattern_of(*now.get()).get(), &IRecurrencePattern::get_DayOfMonth), 3);
    EXPECT_EQ(exception_count(*now.get()), 0);
    child.say("");
    EXPECT_EQ(child.wait(), 0);
}

ZR_CHILD(change_all_occurrences) {
    TestSession session;
    const auto series = stored(session, 0x09000001);
    for (int day = 0; day < 60; ++day) {
        Ptr<IAppointment> occurrence;
        if (pattern_of(*series.get())->GetOccurrence(kMonday + day, occurrence.out()) != S_OK) continue;
        occurrence->put_Subject(in(u"changed"));
        const HRESULT result = day % 3 == 0 ? occurrence->Delete() : occurrence->Save();
        if (FAILED(result) && result != kNotFound) return 1;
    }
    return 0;
}

TEST(SeriesProcesses, ChangeOneSeriesAtTheSameTime) {
    TestSession session;
    const auto series = saved_series(session, kMonday + 0.375, olRecursDaily);
    Child one("change_all_occurrences");
    Child two("change_all_occurrences");
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
    ASSERT_EQ(exception_count(*series.get()), 60);
    for (INT i = 0; i < 60; ++i) {
        EXPECT_EQ(got(*exception_at(*series.get(), i + 1).get(), &IException::get_Deleted),
                  i % 3 == 0 ? VARIANT_TRUE : VARIANT_FALSE);
    }
}

TEST(SeriesThreads, WorkOnOneSeriesWithObjectsOfTheirOwn) {
    constexpr int kThreads = 3;
    constexpr int kDays = 30;
    TestSession session;
    const LONG oid = oid_of(*saved_series(session, kMonday + 0.375, olRecursDaily, 1, kThreads * kDays).get());
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            const auto items = session.items(olFolderCalendar);
            items->put_IncludeRecurrences(VARIANT_TRUE);
            Ptr<IPOutlookItemCollection> shown;
            ASSERT_EQ(items->Restrict(in(u"[Start] < \"2025-01-01\""), shown.out()), S_OK);
            const auto series = stored(session, oid);
            for (int day = 0; day < kDays; ++day) {
                const auto occurrence = occurrence_on(*series.get(), kMonday + number * kDays + day);
                ASSERT_TRUE(occurrence);
                ASSERT_EQ(occurrence->Delete(), S_OK);
                EXPECT_LE(count(*shown.get()), kThreads * kDays - day - 1);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(exception_count(*stored(session, oid).get()), kThreads * kDays);
}

// Runs `work` with ever more memory until it succeeds; each failure must say so.
void until_memory_suffices(const char* what, const std::function<HRESULT()>& work) {
    for (int successes = 0; successes < 500; ++successes) {
        HRESULT result = S_OK;
        {
            const FailingNew failing(successes);
            result = work();
        }
        if (result == S_OK) {
            EXPECT_GT(successes, 0) << what << " takes no memory: nothing was tested";
            return;
        }
        ASSERT_EQ(result, E_OUTOFMEMORY) << what << " after " << successes;
    }
    FAIL() << what << " never succeeds";
}

TEST(SeriesWithoutMemory, FailsCleanlyAndWorksAfterwards) {
    TestSession session;
    const auto series = saved_series(session, kMonday + 0.375, olRecursDaily);
    const LONG oid = oid_of(*series.get());
    Ptr<IRecurrencePattern> pattern;
    until_memory_suffices("GetRecurrencePattern", [&] { return series->GetRecurrencePattern(pattern.out()); });
    until_memory_suffices("put_RecurrenceType", [&] {
        const HRESULT result = pattern->put_RecurrenceType(olRecursWeekly);
        const FailingNew enough(1000);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_RecurrenceType),
                  result == S_OK ? olRecursWeekly : olRecursDaily);
        return result;
    });
    until_memory_suffices("put_Start", [&] {
        const HRESULT result = series->put_Start(kMonday + 0.5);
        const FailingNew enough(1000);
        EXPECT_EQ(got(*series.get(), &IAppointment::get_Duration), 60) << "start and end together";
        return result;
    });
    EXPECT_EQ(got(*pattern_of(*stored(session, oid).get()).get(), &IRecurrencePattern::get_RecurrenceType),
              olRecursDaily);
    until_memory_suffices("Save", [&] { return series->Save(); });
    Ptr<IAppointment> occurrence;
    until_memory_suffices("GetOccurrence", [&] { return pattern->GetOccurrence(kMonday + 7, occurrence.out()); });
    ASSERT_TRUE(occurrence);
    until_memory_suffices("put_Subject", [&] { return occurrence->put_Subject(in(u"A subject longer than a word")); });
    until_memory_suffices("Save of an occurrence", [&] { return occurrence->Save(); });
    EXPECT_EQ(text(*occurrence.get(), &IAppointment::get_Subject), u"A subject longer than a word");
    Ptr<IExceptions> exceptions;
    until_memory_suffices("get_Exceptions", [&] { return pattern->get_Exceptions(exceptions.out()); });
    Ptr<IException> exception;
    until_memory_suffices("Item", [&] { return exceptions->Item(1, exception.out()); });
    until_memory_suffices("get_AppointmentItem", [&] { return exception->get_AppointmentItem(occurrence.out()); });
    EXPECT_EQ(text(*occurrence.get(), &IAppointment::get_Subject), u"A subject longer than a word");
    Ptr<IAppointment> copy;
    until_memory_suffices("Copy", [&] { return series->Copy(copy.out()); });
    until_memory_suffices("Save of a copy", [&] { return copy->Save(); });
    EXPECT_EQ(count(*session.items(olFolderCalendar).get()), 2) << "saved once";
    const auto items = session.items(olFolderCalendar);
    ASSERT_EQ(items->put_IncludeRecurrences(VARIANT_TRUE), S_OK);
    Ptr<IPOutlookItemCollection> shown;
    until_memory_suffices("Restrict", [&] {
        return items->Restrict(in(u"[Start] < \"2024-07-01\" AND [Start] > \"2024-06-11\""), shown.out());
    });
    INT number = 0;
    until_memory_suffices("get_Count", [&] { return shown->get_Count(&number); });
    EXPECT_EQ(number, 4) << "of the series and of its copy";
    until_memory_suffices("Item of a view", [&] { return shown->Item(1, copy.dispatch()); });
    EXPECT_EQ(got(*copy.get(), &IAppointment::get_Start), kMonday + 14.5);
    Ptr<IDispatch> found;
    until_memory_suffices("Find", [&] { return shown->Find(in(u"[Subject] <> \"Meeting\""), found.out()) & ~S_FALSE; });
    until_memory_suffices("ClearRecurrencePattern", [&] { return series->ClearRecurrencePattern(); });
    EXPECT_EQ(occurrence->Delete(), S_OK);
    EXPECT_EQ(exception_count(*stored(session, oid).get()), 1);
}

}  // namespace
