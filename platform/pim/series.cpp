#include "series.h"

#include <limits>

#include "fields.h"
#include "last_error.h"

namespace zr::platform::pim {
namespace {

constexpr LONGLONG kLongestSeconds = LONGLONG{std::numeric_limits<LONG>::max()} * 60;

struct RuleField {
    CEPROPID id;
    LONG Rule::*member;
};
constexpr RuleField kRuleFields[] = {
    {field::Interval, &Rule::interval},       {field::DayOfWeekMask, &Rule::weekdays},
    {field::DayOfMonth, &Rule::day_of_month}, {field::Instance, &Rule::instance},
    {field::MonthOfYear, &Rule::month},
};

std::optional<LONGLONG> integer(const Values& values, CEPROPID id) {
    const Value* value = values.find(id);
    const auto* found = value != nullptr ? std::get_if<LONGLONG>(value) : nullptr;
    return found != nullptr ? std::optional(*found) : std::nullopt;
}

std::optional<Moment> moment(const Values& values, CEPROPID id) {
    const Value* value = values.find(id);
    const auto* found = value != nullptr ? std::get_if<double>(value) : nullptr;
    return found != nullptr ? std::optional(moment_of(*found)) : std::nullopt;
}

}  // namespace

Series Series::from(const Values& values) {
    Series series;
    series.start = moment(values, field::Start);
    series.end = moment(values, field::End);
    series.all_day = integer(values, field::AllDayEvent).value_or(VARIANT_FALSE) != VARIANT_FALSE;
    Rule& rule = series.rule;
    rule.first = series.start ? series.start->day : moment_of(today()).day;
    rule.type = static_cast<LONG>(integer(values, field::RecurrenceType).value_or(olRecursOnce));
    if (!rule.recurs()) return series;
    for (const RuleField& each : kRuleFields) {
        rule.*each.member = static_cast<LONG>(integer(values, each.id).value_or(0));
    }
    if (const auto count = integer(values, field::Occurrences)) {
        rule.end = Rule::End::Count;
        rule.count = static_cast<LONG>(*count);
    } else if (const auto last = moment(values, field::PatternEndDate)) {
        rule.end = Rule::End::Date;
        rule.last = last->day;
    }
    if (!rule.valid()) rule = rule_for(olRecursOnce, rule.first);
    return series;
}

void Series::round_to_days() {
    if (!all_day || !start) return;
    if (!end || seconds_between(*start, *end) < 0) end = start;
    start->second = 0;
    if (end->second != 0 || *end == *start) *end = {end->day + 1, 0};
}

HRESULT Series::begin_with_first() {
    if (!start) return fail(E_INVALIDARG, "A recurring appointment needs a start.");
    if (end && (seconds() < 0 || seconds() > kLongestSeconds))
        return fail(E_INVALIDARG, "A recurring appointment cannot end before it starts.");
    const Occurrences days(rule);
    if (!days.possible()) return fail(E_INVALIDARG, "The pattern has no occurrence, or one after the year 4500.");
    const LONG moved = days.first() - start->day;
    start->day += moved;
    if (end) end->day += moved;
    rule.first = days.first();
    return S_OK;
}

Values rule_fields(const Rule& rule) {
    Values fields;
    const auto set = [&fields](CEPROPID id, LONGLONG number, bool there) {
        fields.set(id, there ? Value(number) : Value());
    };
    set(field::RecurrenceType, rule.type, rule.recurs());
    for (const RuleField& each : kRuleFields) {
        set(each.id, rule.*each.member, rule.*each.member != 0);
    }
    set(field::Occurrences, rule.count, rule.end == Rule::End::Count);
    fields.set(field::PatternEndDate, rule.end == Rule::End::Date ? Value(date_of({rule.last, 0})) : Value());
    return fields;
}

Values occurrence_fields(const Series& series, Day day, const Values& exception) {
    Values own;
    own.set(field::Start, date_of(series.start_on(day)));
    if (series.end) own.set(field::End, date_of(series.end_on(day)));
    for (const auto& [id, value] : exception.entries()) {
        own.set(id, value);
    }
    return own;
}

bool is_rule_field(CEPROPID id) {
    for (const RuleField& each : kRuleFields) {
        if (id == each.id) return true;
    }
    return id == field::RecurrenceType || id == field::Occurrences || id == field::PatternEndDate;
}

}  // namespace zr::platform::pim
