// When series occur: every kind of pattern beside a calendar that is walked day by day.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "calendar_support.h"

namespace {

using namespace zr::test;

struct CalendarDay {
    int year;
    int month;
    int day;
    int weekday;  // 0 is Sunday
    int month_length;
};

// Every day of 1990 to 2060, counted up one by one. Day 0 is 1 January 1990, a Monday.
constexpr DATE kDayZero = 32874;
const std::vector<CalendarDay>& calendar() {
    static const std::vector<CalendarDay> days = [] {
        std::vector<CalendarDay> all;
        int weekday = 1;
        for (int year = 1990; year <= 2060; ++year) {
            const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
            const int lengths[] = {31, leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
            for (int month = 1; month <= 12; ++month) {
                for (int day = 1; day <= lengths[month - 1]; ++day) {
                    all.push_back({year, month, day, weekday, lengths[month - 1]});
                    weekday = (weekday + 1) % 7;
                }
            }
        }
        return all;
    }();
    return days;
}

struct ModelPattern {
    LONG type = olRecursDaily;
    LONG interval = 1;
    LONG mask = 0;
    LONG day = 0;
    LONG instance = 0;
    LONG month = 0;
    std::size_t start = 0;
    LONG count = 0;       // 0: not by count
    std::size_t end = 0;  // 0: not by date
};

bool in_mask(const ModelPattern& pattern, const CalendarDay& day) {
    return (pattern.mask & 1 << day.weekday) != 0;
}

// Whether a day is the instance-th of its month that is in the mask.
bool is_instance(const ModelPattern& pattern, std::size_t at) {
    const auto& days = calendar();
    if (!in_mask(pattern, days[at])) return false;
    const std::size_t first = at - static_cast<std::size_t>(days[at].day - 1);
    if (pattern.instance == 5) {
        for (std::size_t i = at + 1; i < first + static_cast<std::size_t>(days[at].month_length); ++i) {
            if (in_mask(pattern, days[i])) return false;
        }
        return true;
    }
    int number = 0;
    for (std::size_t i = first; i <= at; ++i) {
        if (in_mask(pattern, days[i])) ++number;
    }
    return number == pattern.instance;
}

bool fits(const ModelPattern& pattern, std::size_t at) {
    const CalendarDay& day = calendar()[at];
    switch (pattern.type) {
        case olRecursDaily:
            return true;
        case olRecursWeekly:
            return in_mask(pattern, day);
        case olRecursMonthly:
            return day.day == std::min<int>(pattern.day, day.month_length);
        case olRecursMonthNth:
            return is_instance(pattern, at);
        case olRecursYearly:
            return day.month == pattern.month && day.day == std::min<int>(pattern.day, day.month_length);
        default:
            return day.month == pattern.month && is_instance(pattern, at);
    }
}

// The days on which a pattern occurs, up to the calendar's end.
std::vector<std::size_t> days_of(const ModelPattern& pattern) {
    const auto& days = calendar();
    std::vector<std::size_t> found;
    std::size_t first = pattern.start;
    while (!fits(pattern, first)) {
        ++first;
    }
    LONG passed = 0;  // days, weeks, months or years since the first
    for (std::size_t at = first; at < days.size(); ++at) {
        const CalendarDay& day = days[at];
        if (at != first) {
            if (pattern.type == olRecursDaily) ++passed;
            if (pattern.type == olRecursWeekly && day.weekday == 0) ++passed;
            if ((pattern.type == olRecursMonthly || pattern.type == olRecursMonthNth) && day.day == 1) ++passed;
            if (pattern.type >= olRecursYearly && day.day == 1 && day.month == 1) ++passed;
        }
        if (pattern.end != 0 && at > pattern.end) break;
        if (passed % pattern.interval == 0 && fits(pattern, at)) found.push_back(at);
        if (pattern.count != 0 && found.size() == static_cast<std::size_t>(pattern.count)) break;
    }
    return found;
}

class Chance {
public:
    explicit Chance(unsigned seed) : random_(seed) {}
    LONG between(LONG least, LONG most) {
        return least + static_cast<LONG>(random_() % static_cast<unsigned>(most - least + 1));
    }

private:
    std::mt19937 random_;
};

ModelPattern random_pattern(LONG type, Chance& chance) {
    ModelPattern pattern;
    pattern.type = type;
    const LONG most = type == olRecursDaily ? 40 : type >= olRecursYearly ? 5 : 9;
    pattern.interval = chance.between(0, 2) == 0 ? chance.between(1, most) : 1;
    const bool by_instance = type == olRecursMonthNth || type == olRecursYearNth;
    if (type == olRecursWeekly || by_instance)
        pattern.mask = chance.between(0, 1) == 0 ? 1 << chance.between(0, 6) : chance.between(1, 127);
    if (by_instance) pattern.instance = chance.between(1, 5);
    if (type == olRecursMonthly || type == olRecursYearly)
        pattern.day = chance.between(0, 1) == 0 ? chance.between(28, 31) : chance.between(1, 31);
    if (type >= olRecursYearly) pattern.month = chance.between(0, 2) == 0 ? 2 : chance.between(1, 12);
    pattern.start = static_cast<std::size_t>(chance.between(1000, 9000));
    if (const LONG end = chance.between(0, 2); end == 1) {
        pattern.count = chance.between(1, type == olRecursDaily ? 60 : 8);
    } else if (end == 2) {
        // No earlier than the first occurrence can be.
        pattern.end = pattern.start + static_cast<std::size_t>(chance.between(400, 4000));
    }
    return pattern;
}

DATE date_of_day(std::size_t day) {
    return kDayZero + static_cast<double>(day);
}

Ptr<IAppointment> save(const TestSession& session, const ModelPattern& model, DATE time) {
    Ptr<IAppointment> series = fresh_appointment(session, date_of_day(model.start) + time, 45);
    const auto pattern = pattern_of(*series.get());
    EXPECT_EQ(pattern->put_RecurrenceType(model.type), S_OK);
    EXPECT_EQ(pattern->put_Interval(model.interval), S_OK);
    if (model.mask != 0) {
        EXPECT_EQ(pattern->put_DayOfWeekMask(model.mask), S_OK);
    }
    if (model.day != 0) {
        EXPECT_EQ(pattern->put_DayOfMonth(model.day), S_OK);
    }
    if (model.instance != 0) {
        EXPECT_EQ(pattern->put_Instance(model.instance), S_OK);
    }
    if (model.month != 0) {
        EXPECT_EQ(pattern->put_MonthOfYear(model.month), S_OK);
    }
    if (model.count != 0) {
        EXPECT_EQ(pattern->put_Occurrences(model.count), S_OK);
    }
    if (model.end != 0) {
        EXPECT_EQ(pattern->put_PatternEndDate(date_of_day(model.end)), S_OK);
    }
    EXPECT_EQ(series->Save(), S_OK);
    return series;
}

void expect_ends(IRecurrencePattern& pattern, const ModelPattern& model, const std::vector<std::size_t>& days) {
    EXPECT_EQ(got(pattern, &IRecurrencePattern::get_PatternStartDate), date_of_day(days.front()));
    const bool endless = model.count == 0 && model.end == 0;
    EXPECT_EQ(got(pattern, &IRecurrencePattern::get_NoEndDate), endless ? VARIANT_TRUE : VARIANT_FALSE);
    EXPECT_EQ(got(pattern, &IRecurrencePattern::get_Occurrences), endless ? -1 : static_cast<LONG>(days.size()));
    EXPECT_EQ(got(pattern, &IRecurrencePattern::get_PatternEndDate),
              endless ? ZR_PIM_NO_DATE : date_of_day(days.back()));
}

// On a day whether there is an occurrence, and if so when it starts.
void expect_day(IRecurrencePattern& pattern, std::size_t day, DATE time, bool expected) {
    Ptr<IAppointment> occurrence;
    const HRESULT result = pattern.GetOccurrence(date_of_day(day) + 0.25, occurrence.out());
    ASSERT_EQ(result, expected ? S_OK : kNotFound) << "day " << day << " of the calendar";
    if (expected) {
        EXPECT_NEAR(got(*occurrence.get(), &IAppointment::get_Start), date_of_day(day) + time, 1e-9);
    }
}

class Recurrence : public testing::TestWithParam<LONG> {};

TEST_P(Recurrence, OccursOnTheDaysOfAWalkedCalendar) {
    constexpr int kPatterns = 350;
    TestSession session;
    const auto store = session.store();
    Chance chance(static_cast<unsigned>(GetParam()) + 1);
    ASSERT_EQ(store->BeginBatch(), S_OK);
    std::vector<std::pair<ModelPattern, LONG>> saved;
    for (int i = 0; i < kPatterns; ++i) {
        const ModelPattern model = random_pattern(GetParam(), chance);
        saved.emplace_back(model, oid_of(*save(session, model, 0.375).get()));
    }
    ASSERT_EQ(store->CommitBatch(), S_OK);
    for (const auto& [model, oid] : saved) {
        SCOPED_TRACE(testing::Message() << "interval " << model.interval << " mask " << model.mask << " day "
                                        << model.day << " instance " << model.instance << " month " << model.month
                                        << " start " << model.start << " count " << model.count << " end "
                                        << model.end);
        const std::vector<std::size_t> days = days_of(model);
        ASSERT_FALSE(days.empty());
        const auto pattern = pattern_of(*stored(session, oid).get());
        expect_ends(*pattern.get(), model, days);
        std::vector<std::size_t> asked = {days.front() - 1, days.front(), days.front() + 1, days.back()};
        if (days.back() + 1 < calendar().size()) asked.push_back(days.back() + 1);
        for (int i = 0; i < 3; ++i) {
            const auto any = static_cast<std::size_t>(chance.between(0, static_cast<LONG>(days.size()) - 1));
            asked.push_back(days[any]);
            asked.push_back(days[any] - 1);
            asked.push_back(days.front() + static_cast<std::size_t>(chance.between(0, 800)));
        }
        for (const std::size_t day : asked) {
            expect_day(*pattern.get(), day, 0.375, std::binary_search(days.begin(), days.end(), day));
        }
        if (testing::Test::HasFailure()) return;
    }
}

// All of them at once, as a calendar shows some weeks.
TEST_P(Recurrence, ShowsTheDaysOfAWalkedCalendar) {
    constexpr int kPatterns = 100;
    TestSession session;
    const auto store = session.store();
    Chance chance(static_cast<unsigned>(GetParam()) + 100);
    const std::size_t from = 8000;
    const std::size_t to = GetParam() < olRecursMonthly ? 8045 : 8800;
    std::vector<std::size_t> expected;
    ASSERT_EQ(store->BeginBatch(), S_OK);
    for (int i = 0; i < kPatterns; ++i) {
        const ModelPattern model = random_pattern(GetParam(), chance);
        static_cast<void>(save(session, model, 0.375));
        for (const std::size_t day : days_of(model)) {
            if (day >= from && day < to) expected.push_back(day);
        }
    }
    ASSERT_EQ(store->CommitBatch(), S_OK);
    std::sort(expected.begin(), expected.end());
    ASSERT_GT(expected.size(), 20u);
    const auto items = session.items(olFolderCalendar);
    ASSERT_EQ(items->put_IncludeRecurrences(VARIANT_TRUE), S_OK);
    SYSTEMTIME first = {};
    SYSTEMTIME end = {};
    ASSERT_EQ(session.app->VariantTimeToSystemTime(date_of_day(from), &first), S_OK);
    ASSERT_EQ(session.app->VariantTimeToSystemTime(date_of_day(to), &end), S_OK);
    char window[100];
    std::snprintf(window, sizeof window, "[Start] >= \"%d-%d-%d\" AND [Start] < \"%d/%d/%d\"", first.wYear,
                  first.wMonth, first.wDay, end.wMonth, end.wDay, end.wYear);
    Ptr<IPOutlookItemCollection> shown;
    ASSERT_EQ(items->Restrict(in(std::u16string(window, window + std::strlen(window)).c_str()), shown.out()), S_OK);
    ASSERT_EQ(count(*shown.get()), static_cast<INT>(expected.size()));
    for (std::size_t i = 0; i < expected.size(); ++i) {
        Ptr<IAppointment> item;
        ASSERT_EQ(shown->Item(static_cast<INT>(i) + 1, item.dispatch()), S_OK);
        ASSERT_NEAR(got(*item.get(), &IAppointment::get_Start), date_of_day(expected[i]) + 0.375, 1e-9);
    }
}

INSTANTIATE_TEST_SUITE_P(Types, Recurrence,
                         testing::Values(olRecursDaily, olRecursWeekly, olRecursMonthly, olRecursMonthNth,
                                         olRecursYearly, olRecursYearNth));

std::vector<DATE> first_days(IAppointment& series, DATE from, std::size_t number) {
    std::vector<DATE> found;
    for (DATE date = from; found.size() < number && date < from + 4000; ++date) {
        if (occurrence_on(series, date)) found.push_back(date);
    }
    return found;
}

TEST(RecurrenceDays, AMonthThatLacksTheDayHasItOnItsLast) {
    TestSession session;
    const auto series = saved_series(session, at(2023, 12, 31, 9), olRecursMonthly);
    EXPECT_EQ(
        first_days(*series.get(), at(2023, 12, 1), 5),
        (std::vector<DATE>{at(2023, 12, 31), at(2024, 1, 31), at(2024, 2, 29), at(2024, 3, 31), at(2024, 4, 30)}));
    const auto leap = saved_series(session, at(2024, 2, 29, 9), olRecursYearly);
    EXPECT_EQ(first_days(*leap.get(), at(2024, 1, 1), 5),
              (std::vector<DATE>{at(2024, 2, 29), at(2025, 2, 28), at(2026, 2, 28), at(2027, 2, 28), at(2028, 2, 29)}));
    EXPECT_FALSE(occurrence_on(*leap.get(), at(2025, 3, 1)));
}

TEST(RecurrenceDays, WeeksBeginOnSunday) {
    TestSession session;
    // Every second week on Sunday and Saturday, from a Saturday on: the Sunday after it is of the week that is left
    // out.
    const auto series = fresh_appointment(session, at(2024, 6, 1, 9), 60);
    const auto pattern = pattern_of(*series.get());
    pattern->put_RecurrenceType(olRecursWeekly);
    ASSERT_EQ(pattern->put_DayOfWeekMask(olSunday | olSaturday), S_OK);
    ASSERT_EQ(pattern->put_Interval(2), S_OK);
    ASSERT_EQ(series->Save(), S_OK);
    EXPECT_EQ(first_days(*series.get(), at(2024, 6, 1), 4),
              (std::vector<DATE>{at(2024, 6, 1), at(2024, 6, 9), at(2024, 6, 15), at(2024, 6, 23)}));
}

TEST(RecurrenceDays, TheLastWorkdayOfTheMonth) {
    TestSession session;
    const auto series = fresh_appointment(session, at(2024, 3, 1, 17), 30);
    const auto pattern = pattern_of(*series.get());
    pattern->put_RecurrenceType(olRecursMonthNth);
    ASSERT_EQ(pattern->put_DayOfWeekMask(olMonday | olTuesday | olWednesday | olThursday | olFriday), S_OK);
    ASSERT_EQ(pattern->put_Instance(5), S_OK);
    ASSERT_EQ(series->Save(), S_OK);
    EXPECT_EQ(got(*series.get(), &IAppointment::get_Start), at(2024, 3, 29, 17)) << "moved on to the first";
    EXPECT_EQ(got(*series.get(), &IAppointment::get_End), at(2024, 3, 29, 17, 30));
    EXPECT_EQ(first_days(*series.get(), at(2024, 3, 1), 3),
              (std::vector<DATE>{at(2024, 3, 29), at(2024, 4, 30), at(2024, 5, 31)}));
}

TEST(RecurrenceDays, BeforeTheDatesBecomePositive) {
    TestSession session;
    const auto series = saved_series(session, -365.75, olRecursDaily, 100, 10);  // 30 December 1898, 18:00
    const auto last = occurrence_on(*series.get(), 535);
    ASSERT_TRUE(last);
    EXPECT_DOUBLE_EQ(got(*last.get(), &IAppointment::get_Start), 535.75);
    const auto early = occurrence_on(*series.get(), -65.5);
    ASSERT_TRUE(early);
    EXPECT_DOUBLE_EQ(got(*early.get(), &IAppointment::get_Start), -65.75);
    EXPECT_NEAR(got(*early.get(), &IAppointment::get_End), -65 - 19 / 24.0, 1e-9);
    EXPECT_FALSE(occurrence_on(*series.get(), 635));
}

TEST(RecurrenceDays, NoneAfterTheYear4500) {
    TestSession session;
    const auto series = saved_series(session, at(4500, 12, 1, 9), olRecursDaily);
    EXPECT_TRUE(occurrence_on(*series.get(), at(4500, 12, 31)));
    EXPECT_FALSE(occurrence_on(*series.get(), at(4501, 1, 1)));
    const auto pattern = pattern_of(*series.get());
    EXPECT_EQ(pattern->put_PatternEndDate(at(4501, 1, 2)), E_INVALIDARG);
    EXPECT_EQ(pattern->put_Occurrences(31), S_OK);
    EXPECT_EQ(series->Save(), S_OK);
    EXPECT_EQ(pattern->put_Occurrences(32), S_OK);
    EXPECT_EQ(series->Save(), E_INVALIDARG);
    EXPECT_EQ(pattern->put_Occurrences(0x7FFFFFFF), S_OK);
    EXPECT_EQ(series->Save(), E_INVALIDARG);
    const auto late = fresh_appointment(session, at(4501, 1, 2, 9), 60);
    EXPECT_EQ(pattern_of(*late.get())->put_RecurrenceType(olRecursYearly), S_OK);
    EXPECT_EQ(late->Save(), E_INVALIDARG);
}

}  // namespace
