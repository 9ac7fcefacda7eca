#include "zone_rule_reader.h"

namespace zr::platform {

namespace {

constexpr std::size_t kLeastName = 3;
constexpr std::size_t kLongestName = 255;
constexpr unsigned kMostOffsetHours = 24;
constexpr unsigned kMostRuleHours = 167;

// What a zone with daylight time and no dates has.
constexpr std::string_view kUsualDates = ",M3.2.0,M11.1.0";

// As the C library's in every locale.
bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

bool ZoneRuleReader::take(char wanted) {
    if (!rest_.starts_with(wanted)) return false;
    rest_.remove_prefix(1);
    return true;
}

bool ZoneRuleReader::read_name(std::string& name) {
    const bool quoted = take('<');
    std::size_t length = 0;
    while (length < rest_.size()) {
        const char c = rest_[length];
        if (!is_letter(c) && !(quoted && (is_digit(c) || c == '+' || c == '-'))) break;
        ++length;
    }
    if (length < kLeastName || length > kLongestName) return false;
    name = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return !quoted || take('>');
}

bool ZoneRuleReader::read_number(unsigned greatest, unsigned& number) {
    if (rest_.empty() || !is_digit(rest_.front())) return false;
    number = 0;
    while (!rest_.empty() && is_digit(rest_.front())) {
        number = number * 10 + static_cast<unsigned>(rest_.front() - '0');
        if (number > greatest) return false;
        rest_.remove_prefix(1);
    }
    return true;
}

// [+-]hh[:mm[:ss]]
bool ZoneRuleReader::read_clock(unsigned most_hours, std::int32_t& seconds) {
    const bool negative = take('-');
    if (!negative) take('+');
    unsigned hours = 0;
    unsigned minutes = 0;
    unsigned rest = 0;
    if (!read_number(most_hours, hours)) return false;
    if (take(':')) {
        if (!read_number(59, minutes)) return false;
        if (take(':') && !read_number(59, rest)) return false;
    }
    seconds = static_cast<std::int32_t>((hours * 60 + minutes) * 60 + rest);
    if (negative) seconds = -seconds;
    return true;
}

// POSIX counts to the west.
bool ZoneRuleReader::read_offset(std::int32_t& east) {
    if (!read_clock(kMostOffsetHours, east)) return false;
    east = -east;
    return true;
}

bool ZoneRuleReader::read_day(RuleDay& day) {
    if (take('M')) {
        day.form = RuleDay::Form::MonthAndWeek;
        if (!read_number(12, day.month) || day.month == 0 || !take('.')) return false;
        if (!read_number(5, day.week) || day.week == 0 || !take('.')) return false;
        if (!read_number(6, day.weekday)) return false;
    } else if (take('J')) {
        day.form = RuleDay::Form::DayWithoutLeapDay;
        if (!read_number(365, day.day) || day.day == 0) return false;
    } else {
        day.form = RuleDay::Form::DayOfYear;
        if (!read_number(365, day.day)) return false;
    }
    return !take('/') || read_clock(kMostRuleHours, day.second);
}

bool ZoneRuleReader::read_dates(RuleDay& to_daylight, RuleDay& to_standard) {
    if (rest_.empty()) rest_ = kUsualDates;
    return take(',') && read_day(to_daylight) && take(',') && read_day(to_standard) && rest_.empty();
}

bool ZoneRuleReader::read(Zone& zone) {
    Zone::Type standard{};
    if (!read_name(standard.name) || !read_offset(standard.offset)) return false;
    Zone::Rule rule{};
    rule.standard = rule.daylight = zone.types_.size();
    const std::int32_t hour_ahead = standard.offset + 3600;
    zone.types_.push_back(std::move(standard));
    if (!rest_.empty()) {
        Zone::Type daylight{hour_ahead, {}};
        if (!read_name(daylight.name)) return false;
        if (!rest_.empty() && rest_.front() != ',' && !read_offset(daylight.offset)) return false;
        if (!read_dates(rule.to_daylight, rule.to_standard)) return false;
        rule.daylight = zone.types_.size();
        zone.types_.push_back(std::move(daylight));
    }
    zone.rule_ = rule;
    return true;
}

std::optional<Zone> Zone::of_rule(std::string_view text) {
    Zone zone;
    if (!ZoneRuleReader(text).read(zone)) return std::nullopt;
    return zone;
}

}  // namespace zr::platform
