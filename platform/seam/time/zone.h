#pragma once

// A time zone, out of a zone file's bytes or a POSIX rule. Seconds count from 1970 in UTC, without leap seconds.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/export.h"

namespace zr::platform {

struct ZoneTime {
    std::int32_t offset = 0;  // seconds east of UTC
    std::string_view name;    // short, such as CET; as long as the zone lives

    friend bool operator==(const ZoneTime&, const ZoneTime&) = default;
};

struct ZoneChange {
    std::int64_t at;
    ZoneTime before;
    ZoneTime after;
};

// A day of each year, and a second counted from that day's midnight, which may be one of days around it.
struct RuleDay {
    enum class Form { MonthAndWeek, DayOfYear, DayWithoutLeapDay };

    Form form = Form::MonthAndWeek;
    unsigned month = 1;  // MonthAndWeek: the week-th weekday of the month, 5 is the last
    unsigned week = 1;
    unsigned weekday = 0;
    unsigned day = 0;  // DayOfYear: from 0; DayWithoutLeapDay: from 1, 29 February is not counted
    std::int32_t second = 7200;

    // Local seconds since 1970, by the clock that is shown until then.
    std::int64_t in(int year) const noexcept;
};

class ZRPLATFORM_API Zone {
public:
    // The format is that of tzfile(5), all versions. Nothing when the bytes are no such file. May throw std::bad_alloc.
    static std::optional<Zone> of_file(std::string_view bytes);
    // A POSIX rule such as "CET-1CEST,M3.5.0,M10.5.0/3". A zone with daylight time and no dates has those of the USA.
    static std::optional<Zone> of_rule(std::string_view text);
    static Zone utc();

    ZoneTime at(std::int64_t second) const;
    // The first change after a second; one that changes neither offset nor name is none.
    std::optional<ZoneChange> next(std::int64_t second) const;
    // The rule for the time behind the last known change, which goes on for ever, as a zone of its own. Nothing when
    // that has no daylight time.
    std::optional<Zone> for_ever() const;

private:
    friend class ZoneFileReader;
    friend class ZoneRuleReader;

    struct Type {
        std::int32_t offset;
        std::string name;
    };
    struct Change {
        std::int64_t at;
        std::size_t type;
    };
    struct Rule {
        std::size_t standard;
        std::size_t daylight;  // the same: none
        RuleDay to_daylight;
        RuleDay to_standard;
    };

    Zone() = default;
    std::size_t type_at(std::int64_t second) const;
    std::size_t rule_type_at(std::int64_t second) const;
    std::optional<ZoneChange> next_by_rule(std::int64_t second) const;
    std::vector<Change> rule_changes(std::int64_t around, int years) const;
    std::int64_t end_of_changes() const;
    ZoneTime time_of(std::size_t type) const { return {types_[type].offset, types_[type].name}; }

    std::vector<Type> types_;  // the first one is in force before the first change
    std::vector<Change> changes_;
    std::optional<Rule> rule_;  // behind the last change
};

}  // namespace zr::platform
