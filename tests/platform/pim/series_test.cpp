// Series, their patterns, exceptions and occurrences, as a calendar uses them.

#include <string>
#include <vector>

#include "calendar_support.h"

namespace {

using namespace zr::test;

DATE start_of(IAppointment& appointment) {
    return got(appointment, &IAppointment::get_Start);
}

std::u16string subject_of(IAppointment& appointment) {
    return text(appointment, &IAppointment::get_Subject);
}

// A weekly series on Mondays, 09:00 to 10:00, ten times, subject "Meeting".
Ptr<IAppointment> mondays(const TestSession& session) {
    return saved_series(session, kMonday + 0.375, olRecursWeekly, 1, 10);
}

TEST(Pattern, OfAnAppointmentThatDoesNotRecur) {
    TestSession session;
    const auto appointment = fresh_appointment(session, kMonday + 0.375, 60);
    const auto pattern = pattern_of(*appointment.get());
    EXPECT_EQ(got(*appointment.get(), &IAppointment::get_IsRecurring), VARIANT_FALSE);
    EXPECT_EQ(state_of(*appointment.get()), olApptNotRecurring);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_RecurrenceType), olRecursOnce);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternStartDate), kMonday);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternEndDate), kMonday);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Occurrences), 1);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_NoEndDate), VARIANT_FALSE);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Interval), 0);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Duration), 60);
    EXPECT_EQ(pattern->put_Interval(2), E_INVALIDARG);
    EXPECT_EQ(pattern->put_Occurrences(2), E_INVALIDARG);
    EXPECT_EQ(pattern->put_NoEndDate(VARIANT_TRUE), E_INVALIDARG);
    EXPECT_EQ(exception_count(*appointment.get()), 0);
    Ptr<IAppointment> occurrence;
    EXPECT_EQ(pattern->GetOccurrence(kMonday, occurrence.out()), E_UNEXPECTED) << "not saved";
    ASSERT_EQ(appointment->Save(), S_OK);
    EXPECT_EQ(pattern->GetOccurrence(kMonday, occurrence.out()), kNotFound);
    EXPECT_FALSE(occurrence);
}

TEST(Pattern, TheTypeSetsItsFieldsFromTheStart) {
    TestSession session;
    const auto appointment = fresh_appointment(session, at(2024, 7, 31, 9), 60);  // the fifth Wednesday
    const auto pattern = pattern_of(*appointment.get());
    struct Fields {
        LONG type, mask, day, instance, month;
    };
    constexpr Fields kExpected[] = {{olRecursDaily, 0, 0, 0, 0},    {olRecursWeekly, olWednesday, 0, 0, 0},
                                    {olRecursMonthly, 0, 31, 0, 0}, {olRecursMonthNth, olWednesday, 0, 5, 0},
                                    {olRecursYearly, 0, 31, 0, 7},  {olRecursYearNth, olWednesday, 0, 5, 7}};
    for (const Fields& expected : kExpected) {
        ASSERT_EQ(pattern->put_RecurrenceType(expected.type), S_OK);
        EXPECT_EQ(got(*appointment.get(), &IAppointment::get_IsRecurring), VARIANT_TRUE);
        EXPECT_EQ(state_of(*appointment.get()), olApptMaster);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_RecurrenceType), expected.type);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Interval), 1);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_DayOfWeekMask), expected.mask);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_DayOfMonth), expected.day);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Instance), expected.instance);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_MonthOfYear), expected.month);
        // Only the fields of the type can be put.
        EXPECT_EQ(pattern->put_DayOfWeekMask(olMonday), expected.mask != 0 ? S_OK : E_INVALIDARG);
        EXPECT_EQ(pattern->put_DayOfMonth(1), expected.day != 0 ? S_OK : E_INVALIDARG);
        EXPECT_EQ(pattern->put_Instance(2), expected.instance != 0 ? S_OK : E_INVALIDARG);
        EXPECT_EQ(pattern->put_MonthOfYear(2), expected.month != 0 ? S_OK : E_INVALIDARG);
        EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_NoEndDate), VARIANT_TRUE);
    }
    EXPECT_EQ(pattern->put_RecurrenceType(4), E_INVALIDARG);
    EXPECT_EQ(pattern->put_RecurrenceType(7), E_INVALIDARG);
    EXPECT_EQ(pattern->put_RecurrenceType(-2), E_INVALIDARG);
}

TEST(Pattern, RefusesValuesOutOfRange) {
    TestSession session;
    const auto appointment = fresh_appointment(session, kMonday + 0.375, 60);
    const auto pattern = pattern_of(*appointment.get());
    ASSERT_EQ(pattern->put_RecurrenceType(olRecursYearNth), S_OK);
    for (const LONG value : {0, 1000, -1}) {
        EXPECT_EQ(pattern->put_Interval(value), E_INVALIDARG);
    }
    EXPECT_EQ(pattern->put_Interval(999), S_OK);
    for (const LONG value : {0, 128, -1}) {
        EXPECT_EQ(pattern->put_DayOfWeekMask(value), E_INVALIDARG);
    }
    for (const LONG value : {0, 6}) {
        EXPECT_EQ(pattern->put_Instance(value), E_INVALIDARG);
    }
    for (const LONG value : {0, 13}) {
        EXPECT_EQ(pattern->put_MonthOfYear(value), E_INVALIDARG);
    }
    for (const LONG value : {0, -1}) {
        EXPECT_EQ(pattern->put_Occurrences(value), E_INVALIDARG);
    }
    EXPECT_EQ(pattern->put_PatternEndDate(1e7), E_INVALIDARG);
    EXPECT_EQ(pattern->put_PatternStartDate(ZR_PIM_NO_DATE), E_INVALIDARG);
    EXPECT_EQ(pattern->put_StartTime(-1e7), E_INVALIDARG);
    EXPECT_EQ(pattern->put_Duration(-1), E_INVALIDARG);
    ASSERT_EQ(pattern->put_RecurrenceType(olRecursMonthly), S_OK);
    for (const LONG value : {0, 32}) {
        EXPECT_EQ(pattern->put_DayOfMonth(value), E_INVALIDARG);
    }
    EXPECT_EQ(pattern->get_Interval(nullptr), E_POINTER);
    EXPECT_EQ(pattern->get_Exceptions(nullptr), E_POINTER);
    EXPECT_EQ(pattern->GetOccurrence(kMonday, nullptr), E_POINTER);
    EXPECT_EQ(appointment->GetRecurrencePattern(nullptr), E_POINTER);
}

TEST(Pattern, TheEndIsWhatWasPutLast) {
    TestSession session;
    const auto series = mondays(session);
    const auto pattern = pattern_of(*series.get());
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Occurrences), 10);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternEndDate), kMonday + 63);
    ASSERT_EQ(pattern->put_PatternEndDate(kMonday + 20.5), S_OK);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Occurrences), 3);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternEndDate), kMonday + 14) << "the last one's day";
    ASSERT_EQ(pattern->put_NoEndDate(VARIANT_TRUE), S_OK);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Occurrences), -1);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternEndDate), ZR_PIM_NO_DATE);
    ASSERT_EQ(pattern->put_NoEndDate(VARIANT_FALSE), S_OK);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Occurrences), 10);
    ASSERT_EQ(pattern->put_PatternEndDate(ZR_PIM_NO_DATE), S_OK);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_NoEndDate), VARIANT_TRUE);
    ASSERT_EQ(pattern->put_PatternEndDate(kMonday - 1), S_OK);
    EXPECT_EQ(series->Save(), E_INVALIDARG) << "no occurrence at all";
    ASSERT_EQ(pattern->put_Occurrences(2), S_OK);
    EXPECT_EQ(series->Save(), S_OK);
    EXPECT_EQ(
        got(*pattern_of(*stored(session, oid_of(*series.get())).get()).get(), &IRecurrencePattern::get_PatternEndDate),
        kMonday + 7);
}

TEST(Pattern, MovesTheAppointment) {
    TestSession session;
    const auto series = mondays(session);
    const auto pattern = pattern_of(*series.get());
    EXPECT_DOUBLE_EQ(got(*pattern.get(), &IRecurrencePattern::get_StartTime), 0.375);
    EXPECT_NEAR(got(*pattern.get(), &IRecurrencePattern::get_EndTime), 10 / 24.0, 1e-9);
    ASSERT_EQ(pattern->put_StartTime(at(2000, 1, 1, 23, 30)), S_OK);
    EXPECT_NEAR(start_of(*series.get()), kMonday + 23.5 / 24, 1e-9);
    EXPECT_EQ(got(*series.get(), &IAppointment::get_Duration), 60) << "the end moves along, past midnight";
    ASSERT_EQ(pattern->put_EndTime(0.125), S_OK);
    EXPECT_EQ(got(*series.get(), &IAppointment::get_Duration), 210);
    ASSERT_EQ(pattern->put_Duration(15), S_OK);
    EXPECT_NEAR(got(*pattern.get(), &IRecurrencePattern::get_EndTime), 23.75 / 24, 1e-9);
    ASSERT_EQ(pattern->put_PatternStartDate(kMonday + 2), S_OK);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternStartDate), kMonday + 2) << "as put until Save";
    ASSERT_EQ(series->Save(), S_OK);
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternStartDate), kMonday + 7);
    EXPECT_NEAR(start_of(*series.get()), kMonday + 7 + 23.5 / 24, 1e-9);
    const auto occurrence = occurrence_on(*series.get(), kMonday + 14);
    ASSERT_TRUE(occurrence);
    EXPECT_NEAR(start_of(*occurrence.get()), kMonday + 14 + 23.5 / 24, 1e-9);
    EXPECT_NEAR(got(*occurrence.get(), &IAppointment::get_End), kMonday + 14 + 23.75 / 24, 1e-9);
}

TEST(Pattern, IsNoneAfterClearing) {
    TestSession session;
    const auto series = mondays(session);
    ASSERT_EQ(occurrence_on(*series.get(), kMonday + 7)->Delete(), S_OK);
    EXPECT_EQ(exception_count(*series.get()), 1);
    ASSERT_EQ(series->ClearRecurrencePattern(), S_OK);
    EXPECT_EQ(got(*series.get(), &IAppointment::get_IsRecurring), VARIANT_FALSE);
    EXPECT_EQ(exception_count(*series.get()), 0);
    EXPECT_EQ(got(*stored(session, oid_of(*series.get())).get(), &IAppointment::get_IsRecurring), VARIANT_TRUE);
    ASSERT_EQ(series->Save(), S_OK);
    const auto single = stored(session, oid_of(*series.get()));
    EXPECT_EQ(got(*single.get(), &IAppointment::get_IsRecurring), VARIANT_FALSE);
    EXPECT_DOUBLE_EQ(start_of(*single.get()), kMonday + 0.375);
    EXPECT_EQ(pattern_of(*single.get())->put_RecurrenceType(olRecursWeekly), S_OK);
    ASSERT_EQ(single->Save(), S_OK);
    EXPECT_EQ(exception_count(*single.get()), 0) << "the old exceptions are gone";
    EXPECT_TRUE(occurrence_on(*single.get(), kMonday + 7));
}

TEST(Pattern, NeedsATimeThatMakesSense) {
    TestSession session;
    Ptr<IAppointment> appointment;
    ASSERT_EQ(session.app->CreateItem(olAppointmentItem, appointment.dispatch()), S_OK);
    const auto pattern = pattern_of(*appointment.get());
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_PatternStartDate), ZR_PIM_NO_DATE);
    EXPECT_EQ(pattern->put_EndTime(0.5), E_INVALIDARG);
    ASSERT_EQ(pattern->put_RecurrenceType(olRecursDaily), S_OK);
    EXPECT_EQ(appointment->Save(), E_INVALIDARG) << "no start";
    ASSERT_EQ(pattern->put_PatternStartDate(kMonday + 0.5), S_OK);
    ASSERT_EQ(pattern->put_StartTime(0.75), S_OK);
    ASSERT_EQ(appointment->put_End(kMonday), S_OK);
    EXPECT_EQ(appointment->Save(), E_INVALIDARG) << "ends before it starts";
    ASSERT_EQ(appointment->put_End(ZR_PIM_NO_DATE), S_OK);
    ASSERT_EQ(appointment->Save(), S_OK);
    const auto occurrence = occurrence_on(*appointment.get(), kMonday + 1);
    ASSERT_TRUE(occurrence);
    EXPECT_DOUBLE_EQ(start_of(*occurrence.get()), kMonday + 1.75);
    EXPECT_EQ(got(*occurrence.get(), &IAppointment::get_End), ZR_PIM_NO_DATE);
    EXPECT_EQ(got(*occurrence.get(), &IAppointment::get_Duration), 0);
}

TEST(Pattern, LivesLongerThanItsAppointmentsReference) {
    TestSession session;
    Ptr<IRecurrencePattern> pattern = pattern_of(*mondays(session).get());
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Occurrences), 10);
    Ptr<IExceptions> exceptions;
    ASSERT_EQ(pattern->get_Exceptions(exceptions.out()), S_OK);
    pattern.reset();
    EXPECT_EQ(got(*exceptions.get(), &IExceptions::get_Count), 0);
    Ptr<IException> exception;
    EXPECT_EQ(exceptions->Item(1, exception.out()), E_INVALIDARG);
    EXPECT_EQ(exceptions->Item(0, exception.out()), E_INVALIDARG);
    Ptr<IPOutlookApp> app;
    EXPECT_EQ(exceptions->get_Application(app.out()), S_OK);
    EXPECT_EQ(app.get(), session.app.get());
    Ptr<IUnknown> face;
    EXPECT_EQ(exceptions->QueryInterface(IID_IExceptions, face.any()), S_OK);
    EXPECT_EQ(exceptions->QueryInterface(IID_IContact, face.any()), E_NOINTERFACE);
}

TEST(Occurrence, HasTheSeriesFieldsOnItsDay) {
    TestSession session;
    const auto series = mondays(session);
    const auto occurrence = occurrence_on(*series.get(), kMonday + 7 + 0.9);
    ASSERT_TRUE(occurrence);
    EXPECT_DOUBLE_EQ(start_of(*occurrence.get()), kMonday + 7.375);
    EXPECT_EQ(got(*occurrence.get(), &IAppointment::get_Duration), 60);
    EXPECT_EQ(subject_of(*occurrence.get()), u"Meeting");
    EXPECT_EQ(oid_of(*occurrence.get()), oid_of(*series.get()));
    EXPECT_EQ(got(*occurrence.get(), &IAppointment::get_IsRecurring), VARIANT_TRUE);
    EXPECT_EQ(state_of(*occurrence.get()), olApptOccurrence);
    Ptr<IZrOccurrence> face;
    ASSERT_EQ(occurrence->QueryInterface(IID_IZrOccurrence, face.any()), S_OK);
    EXPECT_EQ(got(*face.get(), &IZrOccurrence::get_OriginalDate), kMonday + 7);
    Ptr<IAppointment> whole;
    ASSERT_EQ(face->get_Series(whole.out()), S_OK);
    EXPECT_EQ(state_of(*whole.get()), olApptMaster);
    const auto pattern = pattern_of(*occurrence.get());
    EXPECT_EQ(got(*pattern.get(), &IRecurrencePattern::get_Occurrences), 10);
    EXPECT_EQ(pattern->put_Occurrences(3), E_ACCESSDENIED);
    EXPECT_EQ(pattern->put_Duration(3), E_ACCESSDENIED);
    EXPECT_EQ(pattern->put_RecurrenceType(olRecursOnce), E_ACCESSDENIED);
    EXPECT_EQ(occurrence->ClearRecurrencePattern(), E_ACCESSDENIED);
    EXPECT_EQ(occurrence->Save(), S_OK) << "nothing was put";
    EXPECT_EQ(exception_count(*series.get()), 0);
    ASSERT_EQ(series->QueryInterface(IID_IZrOccurrence, face.any()), S_OK);
    DATE date = 0;
    EXPECT_EQ(face->get_OriginalDate(&date), E_UNEXPECTED);
    EXPECT_EQ(face->get_Series(whole.out()), E_UNEXPECTED);
}

TEST(Occurrence, BecomesAnExceptionWhenSaved) {
    TestSession session;
    const auto series = mondays(session);
    const auto moved = occurrence_on(*series.get(), kMonday + 14);
    ASSERT_EQ(moved->put_Start(kMonday + 15.5), S_OK);
    ASSERT_EQ(moved->put_Duration(30), S_OK);
    ASSERT_EQ(moved->put_Subject(in(u"Moved")), S_OK);
    EXPECT_EQ(exception_count(*series.get()), 0);
    ASSERT_EQ(moved->Save(), S_OK);
    EXPECT_EQ(state_of(*moved.get()), olApptException);
    EXPECT_EQ(subject_of(*moved.get()), u"Moved");
    const auto again = stored(session, oid_of(*series.get()));
    ASSERT_EQ(exception_count(*again.get()), 1);
    const auto exception = exception_at(*again.get(), 1);
    EXPECT_EQ(got(*exception.get(), &IException::get_Deleted), VARIANT_FALSE);
    EXPECT_EQ(got(*exception.get(), &IException::get_OriginalDate), kMonday + 14);
    Ptr<IAppointment> item;
    ASSERT_EQ(exception->get_AppointmentItem(item.out()), S_OK);
    EXPECT_EQ(subject_of(*item.get()), u"Moved");
    EXPECT_DOUBLE_EQ(start_of(*item.get()), kMonday + 15.5);
    EXPECT_EQ(got(*item.get(), &IAppointment::get_Duration), 30);
    EXPECT_EQ(text(*item.get(), &IAppointment::get_Location), u"");
    EXPECT_EQ(subject_of(*occurrence_on(*again.get(), kMonday + 14).get()), u"Moved");
    EXPECT_FALSE(occurrence_on(*again.get(), kMonday + 15)) << "where it was moved to";
    EXPECT_EQ(subject_of(*occurrence_on(*again.get(), kMonday + 21).get()), u"Meeting");
    EXPECT_EQ(subject_of(*series.get()), u"Meeting");
    // What was not put still follows the series; what was put does not, also when it was emptied.
    ASSERT_EQ(item->put_Body(in(u"")), S_OK);
    ASSERT_EQ(item->Save(), S_OK);
    ASSERT_EQ(again->put_Location(in(u"Here")), S_OK);
    ASSERT_EQ(again->put_Subject(in(u"Renamed")), S_OK);
    ASSERT_EQ(again->put_Body(in(u"Body")), S_OK);
    ASSERT_EQ(again->Save(), S_OK);
    EXPECT_EQ(exception_count(*again.get()), 1) << "the pattern is as it was";
    const auto last = occurrence_on(*again.get(), kMonday + 14);
    EXPECT_EQ(text(*last.get(), &IAppointment::get_Location), u"Here");
    EXPECT_EQ(subject_of(*last.get()), u"Moved");
    EXPECT_EQ(text(*last.get(), &IAppointment::get_Body), u"");
    EXPECT_DOUBLE_EQ(start_of(*last.get()), kMonday + 15.5);
}

TEST(Occurrence, IsGoneWhenDeleted) {
    TestSession session;
    const auto series = mondays(session);
    const auto changed = occurrence_on(*series.get(), kMonday);
    ASSERT_EQ(changed->put_Subject(in(u"Changed")), S_OK);
    ASSERT_EQ(changed->Save(), S_OK);
    ASSERT_EQ(changed->Delete(), S_OK);
    EXPECT_EQ(changed->Delete(), kNotFound);
    EXPECT_EQ(changed->put_Subject(in(u"Again")), S_OK);
    EXPECT_EQ(changed->Save(), kNotFound);
    EXPECT_FALSE(occurrence_on(*series.get(), kMonday));
    ASSERT_EQ(occurrence_on(*series.get(), kMonday + 21)->Delete(), S_OK);
    ASSERT_EQ(exception_count(*series.get()), 2);
    for (const INT index : {1, 2}) {
        const auto exception = exception_at(*series.get(), index);
        EXPECT_EQ(got(*exception.get(), &IException::get_Deleted), VARIANT_TRUE);
        EXPECT_EQ(got(*exception.get(), &IException::get_OriginalDate), index == 1 ? kMonday : kMonday + 21);
        Ptr<IAppointment> item;
        EXPECT_EQ(exception->get_AppointmentItem(item.out()), kNotFound);
    }
    EXPECT_EQ(got(*pattern_of(*series.get()).get(), &IRecurrencePattern::get_Occurrences), 10) << "they still count";
    EXPECT_EQ(start_of(*series.get()), kMonday + 0.375);
    EXPECT_TRUE(occurrence_on(*series.get(), kMonday + 63));
}

TEST(Occurrence, CopiesAsAnAppointmentOfItsOwn) {
    TestSession session;
    const auto series = mondays(session);
    const auto occurrence = occurrence_on(*series.get(), kMonday + 7);
    ASSERT_EQ(occurrence->put_Location(in(u"There")), S_OK);
    Ptr<IAppointment> copy;
    ASSERT_EQ(occurrence->Copy(copy.out()), S_OK);
    ASSERT_EQ(copy->Save(), S_OK);
    EXPECT_NE(oid_of(*copy.get()), oid_of(*series.get()));
    EXPECT_EQ(got(*copy.get(), &IAppointment::get_IsRecurring), VARIANT_FALSE);
    EXPECT_DOUBLE_EQ(start_of(*copy.get()), kMonday + 7.375);
    EXPECT_EQ(text(*copy.get(), &IAppointment::get_Location), u"There");
    EXPECT_EQ(subject_of(*copy.get()), u"Meeting");
    EXPECT_EQ(exception_count(*series.get()), 0);
    ASSERT_EQ(occurrence->Save(), S_OK);
    ASSERT_EQ(series->Copy(copy.out()), S_OK);
    ASSERT_EQ(copy->Save(), S_OK);
    EXPECT_EQ(got(*pattern_of(*copy.get()).get(), &IRecurrencePattern::get_Occurrences), 10);
    EXPECT_EQ(exception_count(*copy.get()), 0);
    EXPECT_EQ(exception_count(*series.get()), 1);
}

TEST(Occurrence, HasPropertiesOfItsOwn) {
    TestSession session;
    const auto series = mondays(session);
    const auto put = [](IAppointment& appointment, ULONG number) {
        Ptr<IItem> item;
        ASSERT_EQ(appointment.QueryInterface(IID_IItem, item.any()), S_OK);
        CEPROPVAL value = {};
        value.propid = PIMPR_SOURCE_ID;
        value.val.ulVal = number;
        ASSERT_EQ(item->SetProps(0, 1, &value), S_OK);
        ASSERT_EQ(item->Save(), S_OK);
    };
    const auto read = [](IAppointment& appointment) -> ULONG {
        Ptr<IItem> item;
        appointment.QueryInterface(IID_IItem, item.any());
        const CEPROPID id = PIMPR_SOURCE_ID;
        CEPROPVAL block[4] = {};
        CEPROPVAL* values = block;
        ULONG size = sizeof block;
        EXPECT_EQ(item->GetProps(&id, 0, 1, &values, &size, nullptr), S_OK);
        return block[0].val.ulVal;
    };
    put(*series.get(), 7);
    const auto occurrence = occurrence_on(*series.get(), kMonday + 7);
    EXPECT_EQ(read(*occurrence.get()), 7u);
    put(*occurrence.get(), 8);
    EXPECT_EQ(read(*occurrence_on(*series.get(), kMonday + 7).get()), 8u);
    EXPECT_EQ(read(*stored(session, oid_of(*series.get())).get()), 7u);
}

TEST(Exceptions, GoWhenThePatternOrTheTimeChanges) {
    TestSession session;
    const auto with_exception = [&] {
        auto series = mondays(session);
        const auto occurrence = occurrence_on(*series.get(), kMonday + 7);
        occurrence->put_Subject(in(u"Changed"));
        EXPECT_EQ(occurrence->Save(), S_OK);
        EXPECT_EQ(exception_count(*series.get()), 1);
        return series;
    };
    const auto expect = [&](IAppointment& series, INT left) {
        EXPECT_EQ(exception_count(series), left);
        EXPECT_EQ(exception_count(*stored(session, oid_of(series)).get()), 1) << "not before the Save";
        ASSERT_EQ(series.Save(), S_OK);
        EXPECT_EQ(exception_count(*stored(session, oid_of(series)).get()), left);
    };
    using Change = HRESULT (*)(IAppointment&, IRecurrencePattern&);
    const Change kDrops[] = {
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_Interval(2); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_DayOfWeekMask(olMonday | olFriday); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_RecurrenceType(olRecursDaily); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_Occurrences(11); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_PatternStartDate(kMonday + 7); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_StartTime(0.5); },
        [](IAppointment& series, IRecurrencePattern&) { return series.put_Start(kMonday + 0.5); },
        [](IAppointment& series, IRecurrencePattern&) { return series.put_End(kMonday + 0.5); },
        [](IAppointment& series, IRecurrencePattern&) { return series.put_Duration(61); },
        [](IAppointment& series, IRecurrencePattern&) { return series.put_AllDayEvent(VARIANT_TRUE); },
    };
    for (const Change change : kDrops) {
        const auto series = with_exception();
        ASSERT_EQ(change(*series.get(), *pattern_of(*series.get()).get()), S_OK);
        expect(*series.get(), 0);
    }
    const Change kKeeps[] = {
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_Interval(1); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_DayOfWeekMask(olMonday); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_RecurrenceType(olRecursWeekly); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_Occurrences(10); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_PatternEndDate(kMonday + 63); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_NoEndDate(VARIANT_FALSE); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_PatternStartDate(kMonday); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_StartTime(0.375); },
        [](IAppointment&, IRecurrencePattern& pattern) { return pattern.put_EndTime(10 / 24.0); },
        [](IAppointment& series, IRecurrencePattern&) { return series.put_Duration(60); },
        [](IAppointment& series, IRecurrencePattern&) { return series.put_AllDayEvent(VARIANT_FALSE); },
        [](IAppointment& series, IRecurrencePattern&) { return series.put_Subject(in(u"Other")); },
    };
    for (const Change change : kKeeps) {
        const auto series = with_exception();
        ASSERT_EQ(change(*series.get(), *pattern_of(*series.get()).get()), S_OK);
        expect(*series.get(), 1);
    }
}

TEST(Exceptions, AskForASavedPattern) {
    TestSession session;
    const auto series = mondays(session);
    const auto pattern = pattern_of(*series.get());
    ASSERT_EQ(pattern->put_Interval(2), S_OK);
    Ptr<IAppointment> occurrence;
    EXPECT_EQ(pattern->GetOccurrence(kMonday, occurrence.out()), E_UNEXPECTED);
    ASSERT_EQ(series->Save(), S_OK);
    EXPECT_EQ(pattern->GetOccurrence(kMonday, occurrence.out()), S_OK);
    EXPECT_EQ(pattern->GetOccurrence(kMonday + 7, occurrence.out()), kNotFound);
    EXPECT_EQ(pattern->GetOccurrence(1e7, occurrence.out()), E_INVALIDARG);
}

TEST(Exceptions, AreRefusedOnceTheSeriesLeftTheDay) {
    TestSession session;
    const auto series = mondays(session);
    const auto occurrence = occurrence_on(*series.get(), kMonday + 7);
    ASSERT_EQ(occurrence->put_Subject(in(u"Late")), S_OK);
    ASSERT_EQ(pattern_of(*series.get())->put_Interval(2), S_OK);
    ASSERT_EQ(series->Save(), S_OK);
    EXPECT_EQ(occurrence->Save(), kNotFound);
    EXPECT_EQ(occurrence->Delete(), kNotFound);
    EXPECT_EQ(exception_count(*series.get()), 0);
    const auto other = occurrence_on(*series.get(), kMonday + 14);
    ASSERT_EQ(other->put_Subject(in(u"Late")), S_OK);
    ASSERT_EQ(series->Delete(), S_OK);
    EXPECT_EQ(other->Save(), kNotFound);
    EXPECT_EQ(other->Delete(), kNotFound);
    Ptr<IZrOccurrence> face;
    ASSERT_EQ(other->QueryInterface(IID_IZrOccurrence, face.any()), S_OK);
    Ptr<IAppointment> whole;
    EXPECT_EQ(face->get_Series(whole.out()), kNotFound);
}

TEST(Exceptions, GoWithTheSeries) {
    TestSession session;
    const auto series = mondays(session);
    ASSERT_EQ(occurrence_on(*series.get(), kMonday + 7)->Delete(), S_OK);
    const LONG oid = oid_of(*series.get());
    ASSERT_EQ(series->Delete(), S_OK);
    const auto next = mondays(session);
    EXPECT_EQ(oid_of(*next.get()), oid) << "the identifier is handed out again";
    EXPECT_EQ(exception_count(*next.get()), 0);
}

TEST(Exceptions, InABatch) {
    TestSession session;
    const auto store = session.store();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    const auto series = mondays(session);
    const auto occurrence = occurrence_on(*series.get(), kMonday + 7);
    ASSERT_TRUE(occurrence) << "of an item in hand";
    ASSERT_EQ(occurrence->put_Subject(in(u"Changed")), S_OK);
    ASSERT_EQ(occurrence->Save(), S_OK);
    EXPECT_EQ(subject_of(*occurrence.get()), u"Changed");
    ASSERT_EQ(occurrence_on(*series.get(), kMonday + 14)->Delete(), S_OK);
    EXPECT_FALSE(occurrence_on(*series.get(), kMonday + 70));
    ASSERT_EQ(series->put_Location(in(u"Here")), S_OK);
    ASSERT_EQ(series->Save(), S_OK) << "keeps the exceptions of the batch";
    ASSERT_EQ(store->CommitBatch(), S_OK);
    EXPECT_EQ(exception_count(*series.get()), 2);
    EXPECT_EQ(state_of(*occurrence.get()), olApptException);
    EXPECT_EQ(subject_of(*occurrence_on(*series.get(), kMonday + 7).get()), u"Changed");
    // Dropped with a batch that is rolled back, kept then; and dropped by the Save after it.
    ASSERT_EQ(store->BeginBatch(), S_OK);
    ASSERT_EQ(pattern_of(*series.get())->put_Occurrences(11), S_OK);
    ASSERT_EQ(series->Save(), S_OK);
    EXPECT_EQ(exception_count(*series.get()), 0);
    ASSERT_EQ(store->RollbackBatch(), S_OK);
    EXPECT_EQ(exception_count(*stored(session, oid_of(*series.get())).get()), 2);
    EXPECT_EQ(got(*pattern_of(*series.get()).get(), &IRecurrencePattern::get_Occurrences), 11);
    ASSERT_EQ(series->Save(), S_OK);
    EXPECT_EQ(exception_count(*series.get()), 0);
    // An occurrence whose batch is rolled back can be saved again.
    ASSERT_EQ(store->BeginBatch(), S_OK);
    const auto late = occurrence_on(*series.get(), kMonday + 70);
    ASSERT_EQ(late->put_Subject(in(u"Late")), S_OK);
    ASSERT_EQ(late->Save(), S_OK);
    ASSERT_EQ(store->RollbackBatch(), S_OK);
    EXPECT_EQ(exception_count(*series.get()), 0);
    EXPECT_EQ(state_of(*late.get()), olApptOccurrence);
    ASSERT_EQ(late->Save(), S_OK);
    EXPECT_EQ(exception_count(*series.get()), 1);
}

TEST(Appointment, KeepsItsDurationWhenItMoves) {
    TestSession session;
    const auto appointment = fresh_appointment(session, kMonday + 0.375, 60);
    ASSERT_EQ(appointment->put_Start(kMonday + 1.5), S_OK);
    EXPECT_NEAR(got(*appointment.get(), &IAppointment::get_End), kMonday + 1 + 13 / 24.0, 1e-9);
    ASSERT_EQ(appointment->put_Start(ZR_PIM_NO_DATE), S_OK);
    ASSERT_EQ(appointment->put_Start(kMonday), S_OK);
    EXPECT_NEAR(got(*appointment.get(), &IAppointment::get_End), kMonday + 1 + 13 / 24.0, 1e-9);
    EXPECT_EQ(appointment->put_Start(1e8), E_INVALIDARG);
    EXPECT_EQ(start_of(*appointment.get()), kMonday);
    const auto series = mondays(session);
    const auto occurrence = occurrence_on(*series.get(), kMonday + 7);
    ASSERT_EQ(occurrence->put_Start(kMonday + 8.5), S_OK);
    ASSERT_EQ(occurrence->Save(), S_OK);
    EXPECT_EQ(got(*occurrence_on(*series.get(), kMonday + 7).get(), &IAppointment::get_Duration), 60);
}

TEST(AllDay, TakesWholeDays) {
    TestSession session;
    const auto event = fresh_appointment(session, kMonday + 0.375, 60);
    ASSERT_EQ(event->put_AllDayEvent(VARIANT_TRUE), S_OK);
    ASSERT_EQ(event->Save(), S_OK);
    EXPECT_EQ(start_of(*event.get()), kMonday);
    EXPECT_EQ(got(*event.get(), &IAppointment::get_End), kMonday + 1);
    ASSERT_EQ(event->put_End(kMonday + 2.5), S_OK);
    ASSERT_EQ(event->Save(), S_OK);
    EXPECT_EQ(got(*event.get(), &IAppointment::get_Duration), 3 * 1440);
    ASSERT_EQ(event->put_End(kMonday + 2), S_OK);
    ASSERT_EQ(event->Save(), S_OK);
    EXPECT_EQ(got(*event.get(), &IAppointment::get_Duration), 2 * 1440);
    ASSERT_EQ(event->put_End(kMonday - 2), S_OK);
    ASSERT_EQ(event->Save(), S_OK);
    EXPECT_EQ(got(*event.get(), &IAppointment::get_Duration), 1440);
    const auto pattern = pattern_of(*event.get());
    ASSERT_EQ(pattern->put_RecurrenceType(olRecursYearly), S_OK);
    ASSERT_EQ(event->Save(), S_OK);
    const auto birthday = occurrence_on(*event.get(), at(2030, 6, 3));
    ASSERT_TRUE(birthday);
    EXPECT_EQ(got(*birthday.get(), &IAppointment::get_AllDayEvent), VARIANT_TRUE);
    EXPECT_EQ(start_of(*birthday.get()), at(2030, 6, 3));
    EXPECT_EQ(got(*birthday.get(), &IAppointment::get_End), at(2030, 6, 4));
    ASSERT_EQ(birthday->put_Start(at(2030, 6, 4, 12)), S_OK);
    ASSERT_EQ(birthday->Save(), S_OK);
    EXPECT_EQ(start_of(*birthday.get()), at(2030, 6, 4));
    EXPECT_EQ(got(*birthday.get(), &IAppointment::get_End), at(2030, 6, 5));
}

// What a calendar shows, as "day:subject" from the Monday on.
std::string occurrences_shown(IPOutlookItemCollection& items) {
    std::string all;
    for (INT i = 1; i <= count(items); ++i) {
        Ptr<IAppointment> item;
        EXPECT_EQ(items.Item(i, item.dispatch()), S_OK);
        const std::u16string subject = subject_of(*item.get());
        all += std::to_string(static_cast<int>(start_of(*item.get()) - kMonday)) + ":" +
               std::string(subject.begin(), subject.end()) + " ";
    }
    return all;
}

Ptr<IPOutlookItemCollection> view(const TestSession& session, const WCHAR* restriction) {
    const auto items = session.items(olFolderCalendar);
    EXPECT_EQ(items->put_IncludeRecurrences(VARIANT_TRUE), S_OK);
    Ptr<IPOutlookItemCollection> found;
    EXPECT_EQ(items->Restrict(in(restriction), found.out()), S_OK);
    return found;
}

TEST(CalendarView, ShowsSinglesOccurrencesAndExceptionsInOrder) {
    TestSession session;
    const auto series = mondays(session);
    ASSERT_EQ(fresh_appointment(session, kMonday + 8.5, 60, u"Single")->Save(), S_OK);
    const auto june = view(session, u"[Start] >= \"2024-06-03\" AND [Start] < \"2024-07-01\"");
    EXPECT_EQ(occurrences_shown(*june.get()), "0:Meeting 7:Meeting 8:Single 14:Meeting 21:Meeting ");
    // Changes show at once: moved inside, moved in from outside, moved out, deleted.
    const auto move = [&](int day, DATE to, const WCHAR* subject) {
        const auto occurrence = occurrence_on(*series.get(), kMonday + day);
        ASSERT_EQ(occurrence->put_Start(to), S_OK);
        ASSERT_EQ(occurrence->put_Subject(in(subject)), S_OK);
        ASSERT_EQ(occurrence->Save(), S_OK);
    };
    move(7, kMonday + 9.5, u"Later");
    move(63, kMonday + 1.5, u"Early");
    move(21, kMonday + 40, u"Out");
    ASSERT_EQ(occurrence_on(*series.get(), kMonday + 14)->Delete(), S_OK);
    EXPECT_EQ(occurrences_shown(*june.get()), "0:Meeting 1:Early 8:Single 9:Later ");
    ASSERT_EQ(june->Sort(in(u"[Start]"), VARIANT_TRUE), S_OK);
    EXPECT_EQ(occurrences_shown(*june.get()), "9:Later 8:Single 1:Early 0:Meeting ");
    EXPECT_EQ(june->Sort(in(u"[Subject]"), VARIANT_FALSE), E_INVALIDARG);
    Ptr<IAppointment> found;
    ASSERT_EQ(june->Find(in(u"[Subject] < \"m\""), found.dispatch()), S_OK);
    EXPECT_EQ(subject_of(*found.get()), u"Later");
    ASSERT_EQ(june->FindNext(found.dispatch()), S_OK);
    EXPECT_EQ(subject_of(*found.get()), u"Early");
    EXPECT_EQ(state_of(*found.get()), olApptException);
    EXPECT_EQ(june->FindNext(found.dispatch()), S_FALSE);
    EXPECT_FALSE(found);
    ASSERT_EQ(june->Remove(4), S_OK);
    EXPECT_EQ(occurrences_shown(*june.get()), "9:Later 8:Single 1:Early ");
    EXPECT_FALSE(occurrence_on(*series.get(), kMonday));
    ASSERT_EQ(june->Remove(2), S_OK);
    EXPECT_EQ(occurrences_shown(*june.get()), "9:Later 1:Early ");
    Ptr<IPOutlookItemCollection> less;
    ASSERT_EQ(june->Restrict(in(u"[Subject] = \"early\""), less.out()), S_OK);
    EXPECT_EQ(occurrences_shown(*less.get()), "1:Early ");
    ASSERT_EQ(series->Delete(), S_OK);
    EXPECT_EQ(occurrences_shown(*june.get()), "");
    EXPECT_EQ(count(*less.get()), 0);
    EXPECT_EQ(june->Remove(1), E_INVALIDARG);
    EXPECT_EQ(june->Item(1, found.dispatch()), E_INVALIDARG);
}

TEST(CalendarView, ShowsWhatIsUnderWay) {
    TestSession session;
    const auto nights = fresh_appointment(session, kMonday + 0.9, 3 * 1440, u"Long");
    ASSERT_EQ(pattern_of(*nights.get())->put_RecurrenceType(olRecursWeekly), S_OK);
    ASSERT_EQ(nights->Save(), S_OK);
    EXPECT_EQ(occurrences_shown(*view(session, u"[End] > \"2024-06-13 9:00 PM\" AND [Start] < \"6/14/2024\"").get()),
              "7:Long ");
    EXPECT_EQ(occurrences_shown(*view(session, u"[End] > \"2024-06-13 21:36\" AND [Start] < \"6/14/2024\"").get()), "");
    EXPECT_EQ(occurrences_shown(*view(session, u"[End] <= \"2024-06-14\"").get()), "0:Long 7:Long ");
}

TEST(CalendarView, NeedsToKnowUntilWhen) {
    TestSession session;
    const auto items = session.items(olFolderCalendar);
    Ptr<IPOutlookItemCollection> found;
    ASSERT_EQ(items->put_IncludeRecurrences(VARIANT_TRUE), S_OK);
    for (const WCHAR* open : {u"[Start] > \"2024-06-03\"", u"[Subject] = \"x\"",
                              u"[Start] < \"2024-06-03\" OR [Subject] = \"x\"", u"[Start] <> \"2024-06-03\""}) {
        EXPECT_EQ(items->Restrict(in(open), found.out()), E_INVALIDARG);
        EXPECT_FALSE(found);
    }
    ASSERT_EQ(items->put_IncludeRecurrences(VARIANT_FALSE), S_OK);
    static_cast<void>(mondays(session));
    ASSERT_EQ(items->Restrict(in(u"[BusyStatus] = 0 AND [AllDayEvent] = FALSE"), found.out()), S_OK);
    EXPECT_EQ(occurrences_shown(*found.get()), "0:Meeting ") << "the series itself";
    EXPECT_EQ(items->Sort(in(u"[Start]"), VARIANT_FALSE), S_OK);
    EXPECT_EQ(items->Sort(in(u"[BusyStatus]"), VARIANT_FALSE), E_INVALIDARG);
}

TEST(Collection, SortsByDate) {
    TestSession session;
    for (const DATE start : {kMonday + 5.5, kMonday - 1, DATE{-3.25}, kMonday + 5.25, DATE{-3.75}}) {
        ASSERT_EQ(fresh_appointment(session, start, 10, u"x")->Save(), S_OK);
    }
    const auto items = session.items(olFolderCalendar);
    ASSERT_EQ(items->Sort(in(u"[Start]"), VARIANT_FALSE), S_OK);
    std::vector<DATE> starts;
    for (INT i = 1; i <= count(*items.get()); ++i) {
        Ptr<IAppointment> item;
        ASSERT_EQ(items->Item(i, item.dispatch()), S_OK);
        starts.push_back(start_of(*item.get()));
    }
    EXPECT_EQ(starts, (std::vector<DATE>{-3.25, -3.75, kMonday - 1, kMonday + 5.25, kMonday + 5.5}))
        << "before the first day the time of day counts on from the whole part";
}

}  // namespace
