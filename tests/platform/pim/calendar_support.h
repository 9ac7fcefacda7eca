#pragma once

// Appointments and their patterns for tests.

#include <chrono>

#include "session_support.h"

namespace zr::test {

inline constexpr DATE kMonday = 45446;  // 3 June 2024

constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);

// A local date, as the calendar counts it.
inline DATE at(int year, unsigned month, unsigned day, int hour = 0, int minute = 0) {
    using namespace std::chrono;
    const sys_days when = std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
    const sys_days zero = std::chrono::year(1899) / 12 / 30;
    return static_cast<double>((when - zero).count()) + (hour * 60 + minute) / 1440.0;
}

// The value that a getter gives; -999 if it fails.
template <class Face, class T>
T got(Face& face, HRESULT (Face::*getter)(T*)) {
    T value = {};
    return (face.*getter)(&value) == S_OK ? value : static_cast<T>(-999);
}

inline Ptr<IAppointment> fresh_appointment(const TestSession& session, DATE start, LONG minutes,
                                           const WCHAR* subject = u"Meeting") {
    Ptr<IAppointment> made;
    EXPECT_EQ(session.app->CreateItem(olAppointmentItem, made.dispatch()), S_OK);
    EXPECT_EQ(made->put_Subject(in(subject)), S_OK);
    EXPECT_EQ(made->put_Start(start), S_OK);
    EXPECT_EQ(made->put_Duration(minutes), S_OK);
    return made;
}

inline Ptr<IRecurrencePattern> pattern_of(IAppointment& appointment) {
    Ptr<IRecurrencePattern> pattern;
    EXPECT_EQ(appointment.GetRecurrencePattern(pattern.out()), S_OK);
    return pattern;
}

inline Ptr<IExceptions> exceptions_of(IAppointment& appointment) {
    Ptr<IExceptions> exceptions;
    EXPECT_EQ(pattern_of(appointment)->get_Exceptions(exceptions.out()), S_OK);
    return exceptions;
}

inline INT exception_count(IAppointment& appointment) {
    return got(*exceptions_of(appointment).get(), &IExceptions::get_Count);
}

inline Ptr<IException> exception_at(IAppointment& appointment, INT index) {
    Ptr<IException> exception;
    EXPECT_EQ(exceptions_of(appointment)->Item(index, exception.out()), S_OK);
    return exception;
}

// Null when the series does not occur that day.
inline Ptr<IAppointment> occurrence_on(IAppointment& appointment, DATE date) {
    Ptr<IAppointment> occurrence;
    const HRESULT result = pattern_of(appointment)->GetOccurrence(date, occurrence.out());
    EXPECT_TRUE(result == S_OK || result == kNotFound) << std::hex << result;
    return occurrence;
}

inline LONG oid_of(IAppointment& appointment) {
    return got(appointment, &IAppointment::get_Oid);
}

inline Ptr<IAppointment> stored(const TestSession& session, LONG oid) {
    Ptr<IAppointment> found;
    EXPECT_EQ(session.app->GetItemFromOid(oid, found.dispatch()), S_OK);
    return found;
}

inline INT state_of(IAppointment& appointment) {
    Ptr<IZrOccurrence> occurrence;
    EXPECT_EQ(appointment.QueryInterface(IID_IZrOccurrence, occurrence.any()), S_OK);
    return got(*occurrence.get(), &IZrOccurrence::get_RecurrenceState);
}

// A saved series that begins on `start` and lasts an hour.
inline Ptr<IAppointment> saved_series(const TestSession& session, DATE start, LONG type, LONG interval = 1,
                                      LONG occurrences = 0) {
    Ptr<IAppointment> series = fresh_appointment(session, start, 60);
    const auto pattern = pattern_of(*series.get());
    EXPECT_EQ(pattern->put_RecurrenceType(type), S_OK);
    EXPECT_EQ(pattern->put_Interval(interval), S_OK);
    if (occurrences > 0) {
        EXPECT_EQ(pattern->put_Occurrences(occurrences), S_OK);
    }
    EXPECT_EQ(series->Save(), S_OK);
    return series;
}

}  // namespace zr::test
