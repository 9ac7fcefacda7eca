#pragma once

// Reads a POSIX rule: std offset [dst [offset] [,date[/time],date[/time]]].

#include <cstdint>
#include <string>
#include <string_view>

#include "time/zone.h"

namespace zr::platform {

class ZoneRuleReader {
public:
    explicit ZoneRuleReader(std::string_view text) : rest_(text) {}

    // Adds the rule's types to the zone, and the rule. False when the text is none; the zone is then in some state.
    bool read(Zone& zone);

private:
    bool take(char wanted);
    bool read_name(std::string& name);
    bool read_number(unsigned greatest, unsigned& number);
    bool read_clock(unsigned most_hours, std::int32_t& seconds);
    bool read_offset(std::int32_t& east);
    bool read_day(RuleDay& day);
    bool read_dates(RuleDay& to_daylight, RuleDay& to_standard);

    std::string_view rest_;
};

}  // namespace zr::platform
