// From a series and a time to one of its appointments: in the store, and where something fails.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZrUtility/Helpers/WindowsUtilities.h"
#include "fake_series.h"
#include "platform/base.h"
#include "platform/pim/calendar_support.h"
#include "support/log_capture.h"
#include "support/log_categories.h"
#include "support/source_lines.h"
#include "support/zones.h"

namespace {

using namespace zr::test;

constexpr const char* kLogSource = ".\\Helpers\\WindowsUtilities.cppzrwindowsmobile";

// The day of the fakes: 4 May 2026, in Tokyo from 15:00 UTC of the 3rd on.
const DATE kDay = at(2026, 5, 4);
const std::int64_t kMidnight = c_utc(2026, 5, 3, 15);

class FakeSeries : public testing::Test {
protected:
    FakeSeries() {
        set_zone("Asia/Tokyo");
        app = new FakeApplication(world);
    }
    ~FakeSeries() override {
        if (out != nullptr && out != kUntouched) out->Release();
        app->Release();
        EXPECT_EQ(world.alive, 0) << "something was not released";
    }

    int find(std::int64_t second = kMidnight + 9 * 3600) {
        FILETIME instance = file_time(second);
        return WindowsUtilities::GetChildAppointmentFromParent(app, 7, &instance, &out);
    }
    void expect_one_failure(HRESULT result) {
        EXPECT_EQ(out, nullptr);
        ASSERT_EQ(log.records().size(), 1u);
        const LoggedRecord record = log.records()[0];
        EXPECT_EQ(record.source, kLogSource);
        EXPECT_THAT(line_of(record), testing::HasSubstr("LogFailure(__LINE__"));
        EXPECT_EQ(record.category, kTimeFailure);
        ASSERT_EQ(record.arguments.size(), 2u);
        EXPECT_EQ(record.arguments[0], static_cast<ULONG>(result));
        EXPECT_EQ(record.arguments[1], 1234u);
    }

    inline static IAppointment* const kUntouched = reinterpret_cast<IAppointment*>(8);
    SeriesWorld world;
    FakeApplication* app = nullptr;
    IAppointment* out = kUntouched;
    LogCapture log;
};

TEST_F(FakeSeries, ThePatternIsAskedForTheLocalTime) {
    EXPECT_EQ(find(), 102);
    EXPECT_NE(out, nullptr);
    EXPECT_EQ(world.asked, kDay + 0.375);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(FakeSeries, AnExceptionOfTheDayIsTakenInstead) {
    world.deleted = {kDay - 1};
    world.changed = {kDay + 1, kDay, kDay + 2};
    EXPECT_EQ(find(), 102);
    EXPECT_NE(out, nullptr);
    EXPECT_EQ(world.asked, 0);
    EXPECT_EQ(world.exceptions_read, 3);  // the walk stops there
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_THAT(line_of(log.records()[0]), testing::HasSubstr("LogFound(__LINE__"));
    EXPECT_EQ(log.records()[0].category, kTimeInformation);
    EXPECT_EQ(log.records()[0].arguments[0], 7u);
}

TEST_F(FakeSeries, TheDayIsTheLocalOne) {
    world.changed = {kDay};
    EXPECT_EQ(find(kMidnight - 1), 102);
    EXPECT_NE(world.asked, 0);  // the evening before: no exception
    out->Release();
    out = nullptr;
    world.asked = 0;
    EXPECT_EQ(find(kMidnight), 102);
    EXPECT_EQ(world.asked, 0);
}

TEST_F(FakeSeries, AnExceptionWhoseAppointmentIsNotThereFails) {
    world.changed = {kDay, kDay};
    world.results["get_AppointmentItem"] = E_FAIL;
    SetLastError(1234);
    EXPECT_EQ(find(), 103);
    EXPECT_EQ(world.exceptions_read, 1);
    EXPECT_EQ(world.asked, 0);
    expect_one_failure(E_FAIL);
}

TEST_F(FakeSeries, ADeletedOccurrenceIsLeftToThePattern) {
    world.deleted = {kDay};
    world.results["GetOccurrence"] = kNotFound;
    SetLastError(1234);
    EXPECT_EQ(find(), 103);
    expect_one_failure(kNotFound);
}

TEST_F(FakeSeries, ASeriesOfDeletedOccurrencesHasNone) {
    world.deleted = {kDay, kDay + 1};
    world.occurrences = 2;
    SetLastError(1234);
    EXPECT_EQ(find(), 103);
    EXPECT_EQ(world.asked, 0);
    expect_one_failure(S_FALSE);
}

TEST_F(FakeSeries, AnItemThatIsNotThereFails) {
    world.results["GetItemFromOid"] = kNotFound;
    SetLastError(1234);
    EXPECT_EQ(find(), 103);
    expect_one_failure(kNotFound);
}

TEST_F(FakeSeries, WhatIsNoAppointmentHasNoPattern) {
    world.results["QueryInterface"] = E_NOINTERFACE;
    SetLastError(1234);
    EXPECT_EQ(find(), 101);
    expect_one_failure(E_NOINTERFACE);
}

TEST_F(FakeSeries, APatternThatCannotBeReadFails) {
    world.results["GetRecurrencePattern"] = E_OUTOFMEMORY;
    SetLastError(1234);
    EXPECT_EQ(find(), 101);
    expect_one_failure(E_OUTOFMEMORY);
}

TEST_F(FakeSeries, ExceptionsThatCannotBeReadFail) {
    world.results["get_Exceptions"] = E_UNEXPECTED;
    SetLastError(1234);
    EXPECT_EQ(find(), 101);
    expect_one_failure(E_UNEXPECTED);
}

TEST_F(FakeSeries, AnExceptionThatCannotBeReadIsPassedOver) {
    world.changed = {kDay};
    world.results["Item"] = E_FAIL;
    EXPECT_EQ(find(), 102);
    EXPECT_NE(world.asked, 0);
}

TEST_F(FakeSeries, AnExceptionsOriginalDayAndTheSeriesTimeMakeTheIdentifier) {
    world.start = at(2026, 1, 1, 9, 30);
    auto* const parent = new FakeAppointment(world);
    auto* const exception = new FakeException(world, kDay, false);
    EXPECT_EQ(unix_second(WindowsUtilities::getRecurrenceId(parent, exception)), kMidnight + 9 * 3600 + 1800);
    parent->Release();
    exception->Release();
}

// ---- In the store

struct SeriesStore {
    SeriesStore() { set_zone("Europe/Berlin"); }

    int find(LONG oid, std::int64_t second) {
        FILETIME instance = file_time(second);
        return WindowsUtilities::GetChildAppointmentFromParent(session.app.get(), oid, &instance, child.out());
    }

    StoppedClock clock{c_utc(2026, 1, 15)};
    TestSession session;
    Ptr<IAppointment> child;
};

TEST(SeriesInTheStore, AnOccurrenceIsFoundInSummerAndWinter) {
    SeriesStore store;
    const auto series = saved_series(store.session, at(2026, 1, 5, 9), olRecursWeekly);
    const LONG oid = oid_of(*series.get());
    EXPECT_EQ(store.find(oid, c_utc(2026, 2, 2, 8)), 102);
    EXPECT_EQ(got(*store.child.get(), &IAppointment::get_Start), at(2026, 2, 2, 9));
    EXPECT_EQ(store.find(oid, c_utc(2026, 7, 6, 7)), 102);
    EXPECT_EQ(got(*store.child.get(), &IAppointment::get_Start), at(2026, 7, 6, 9));
    EXPECT_EQ(store.find(oid, c_utc(2026, 7, 7, 7)), 103);  // a Tuesday
    EXPECT_FALSE(store.child);
}

TEST(SeriesInTheStore, AMovedOccurrenceIsFoundByItsOldDay) {
    SeriesStore store;
    const auto series = saved_series(store.session, at(2026, 1, 5, 9), olRecursDaily, 1, 10);
    const LONG oid = oid_of(*series.get());
    {
        const auto moved = occurrence_on(*series.get(), at(2026, 1, 7));
        ASSERT_EQ(moved->put_Start(at(2026, 3, 1, 15)), S_OK);
        ASSERT_EQ(moved->Save(), S_OK);
    }
    ASSERT_EQ(store.find(oid, c_utc(2026, 1, 7, 8)), 102);
    EXPECT_EQ(got(*store.child.get(), &IAppointment::get_Start), at(2026, 3, 1, 15));
    const auto exception = exception_at(*series.get(), 1);
    const FILETIME id = WindowsUtilities::getRecurrenceId(series.get(), exception.get());
    EXPECT_EQ(unix_second(id), c_utc(2026, 1, 7, 8));
}

TEST(SeriesInTheStore, DeletedOccurrencesAreNotFound) {
    SeriesStore store;
    const auto series = saved_series(store.session, at(2026, 1, 5, 9), olRecursDaily, 1, 2);
    const LONG oid = oid_of(*series.get());
    ASSERT_EQ(occurrence_on(*series.get(), at(2026, 1, 5))->Delete(), S_OK);
    EXPECT_EQ(store.find(oid, c_utc(2026, 1, 5, 8)), 103);
    EXPECT_EQ(store.find(oid, c_utc(2026, 1, 6, 8)), 102);
    ASSERT_EQ(occurrence_on(*series.get(), at(2026, 1, 6))->Delete(), S_OK);
    EXPECT_EQ(store.find(oid, c_utc(2026, 1, 6, 8)), 103);
}

TEST(SeriesInTheStore, ASeriesForEverHasItsOccurrences) {
    SeriesStore store;
    const auto series = saved_series(store.session, at(2026, 1, 5, 9), olRecursYearly);
    EXPECT_EQ(store.find(oid_of(*series.get()), c_utc(2126, 1, 5, 8)), 102);
}

TEST(SeriesInTheStore, ContactsAndNothingHaveNone) {
    SeriesStore store;
    const LONG contact = store.session.add(u"Jo", u"Doe");
    EXPECT_EQ(store.find(contact, c_utc(2026, 1, 5, 8)), 101);
    EXPECT_EQ(store.find(424242, c_utc(2026, 1, 5, 8)), 103);
    EXPECT_FALSE(store.child);
}

}  // namespace
