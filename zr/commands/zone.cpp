// zr zone: the device's time zone, its number and its next changes.

#include <ZrUtility/Helpers/WindowsUtilities.h>
#include <platform/base.h>
#include <platform/time.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/commands/require_zone.h"

namespace zr {
namespace {

struct ZoneOptions {
    LONG next = 4;
    bool json = false;
};

struct Zone {
    std::string name;
    TIME_ZONE_INFORMATION information{};
    DWORD id = TIME_ZONE_ID_UNKNOWN;
    std::optional<WORD> exact;
    std::optional<WORD> coarse;
    FILETIME now{};
    std::vector<ZR_ZONE_TRANSITION> transitions;

    bool has_daylight() const { return id != TIME_ZONE_ID_UNKNOWN; }
    LONG standard_bias() const { return (information.Bias + information.StandardBias) * 60; }
    LONG daylight_bias() const { return (information.Bias + information.DaylightBias) * 60; }
    LONG bias_now() const { return id == TIME_ZONE_ID_DAYLIGHT ? daylight_bias() : standard_bias(); }
};

// 0 says that there is no number, and is the number of the zone twelve hours west.
std::optional<WORD> index_of(const Zone& zone, bool coarse) {
    constexpr LONG kBiasOfIndex0 = 720;
    const WORD index = WindowsUtilities::GetCurrentTZIndex(coarse ? 1 : 0);
    if (index == 0 && (zone.information.Bias != kBiasOfIndex0 || zone.has_daylight())) return std::nullopt;
    return index;
}

Zone device_zone(LONG transitions) {
    Zone zone;
    zone.name = zone_name();
    zone.id = require_zone(zone.information);
    zone.exact = index_of(zone, false);
    zone.coarse = index_of(zone, true);
    GetSystemTimeAsFileTime(&zone.now);
    FILETIME after = zone.now;
    ZR_ZONE_TRANSITION transition{};
    for (LONG i = 0; i < transitions && ZrGetNextZoneTransition(&after, &transition); ++i) {
        zone.transitions.push_back(transition);
        after = transition.When;
    }
    return zone;
}

std::string text_of(const SYSTEMTIME& time, char between) {
    char text[64];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u%c%02u:%02u:%02u", time.wYear, time.wMonth, time.wDay, between,
                  time.wHour, time.wMinute, time.wSecond);
    return text;
}

// With a bias in seconds: the time that clocks show with it.
std::string text_of(const FILETIME& time, LONG bias, char between) {
    FILETIME shifted{};
    ULONGLONG units = (ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime) -
                      static_cast<ULONGLONG>(LONGLONG{bias} * 10'000'000);
    WindowsUtilities::Int64ToFileTime(&shifted, units);
    SYSTEMTIME parts{};
    FileTimeToSystemTime(&shifted, &parts);
    return text_of(parts, between);
}

std::string offset_text(LONG bias) {
    const unsigned seconds = static_cast<unsigned>(std::abs(bias));
    char text[32];
    std::snprintf(text, sizeof text, "%c%02u:%02u", bias > 0 ? '-' : '+', seconds / 3600, seconds / 60 % 60);
    std::string whole = text;
    if (seconds % 60 != 0) {
        std::snprintf(text, sizeof text, ":%02u", seconds % 60);
        whole += text;
    }
    return whole;
}

std::string time_text(const WCHAR* name, LONG bias) {
    return printable(to_utf8(name)) + " (UTC" + offset_text(bias) + ")";
}

constexpr const char* kWeeks[] = {"", "first", "second", "third", "fourth", "last"};
constexpr const char* kDays[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
constexpr const char* kMonths[] = {"",     "January", "February",  "March",   "April",    "May",     "June",
                                   "July", "August",  "September", "October", "November", "December"};

std::string clock_text(const SYSTEMTIME& rule) {
    char text[32];
    std::snprintf(text, sizeof text, "%02u:%02u:%02u", rule.wHour, rule.wMinute, rule.wSecond);
    return text;
}

std::string rule_text(const SYSTEMTIME& rule) {
    return std::string("the ") + kWeeks[rule.wDay] + " " + kDays[rule.wDayOfWeek] + " of " + kMonths[rule.wMonth] +
           " at " + clock_text(rule);
}

std::string index_text(const std::optional<WORD>& index) {
    return index ? std::to_string(*index) : "none";
}

void print_text(const Zone& zone) {
    const TIME_ZONE_INFORMATION& information = zone.information;
    const bool daylight = zone.id == TIME_ZONE_ID_DAYLIGHT;
    print("zone      " + printable(zone.name) + "\n");
    print("now       " + text_of(zone.now, zone.bias_now(), ' ') + " " +
          time_text(daylight ? information.DaylightName : information.StandardName, zone.bias_now()) + "\n");
    if (zone.has_daylight()) {
        print("standard  " + time_text(information.StandardName, zone.standard_bias()) + " from " +
              rule_text(information.StandardDate) + "\n");
        print("daylight  " + time_text(information.DaylightName, zone.daylight_bias()) + " from " +
              rule_text(information.DaylightDate) + "\n");
    } else {
        print("standard  " + time_text(information.StandardName, zone.standard_bias()) + " all year\n");
    }
    print("index     exact " + index_text(zone.exact) + ", coarse " + index_text(zone.coarse) + "\n");
    if (zone.transitions.empty()) print("next      no change\n");
    for (const ZR_ZONE_TRANSITION& next : zone.transitions) {
        print("next      " + text_of(next.When, 0, ' ') + " UTC: " + time_text(next.NameBefore, next.BiasBefore) +
              " to " + time_text(next.Name, next.Bias) + "\n");
    }
}

Json json_of(const std::optional<WORD>& index) {
    return index ? Json(*index) : Json(nullptr);
}

Json json_of_time(const WCHAR* name, LONG bias) {
    return {{"name", to_utf8(name)}, {"offset", -bias}};
}

Json json_of_rule(const WCHAR* name, LONG bias, const SYSTEMTIME& rule) {
    Json json = json_of_time(name, bias);
    json.set("month", rule.wMonth);
    json.set("week", rule.wDay);
    json.set("weekday", rule.wDayOfWeek);
    json.set("time", clock_text(rule));
    return json;
}

void print_json(const Zone& zone) {
    const TIME_ZONE_INFORMATION& information = zone.information;
    Json json = {{"zone", zone.name},
                 {"utc", text_of(zone.now, 0, 'T') + "Z"},
                 {"local", text_of(zone.now, zone.bias_now(), 'T')},
                 {"offset", -zone.bias_now()}};
    if (zone.has_daylight()) {
        json.set("daylight_now", zone.id == TIME_ZONE_ID_DAYLIGHT);
        json.set("standard", json_of_rule(information.StandardName, zone.standard_bias(), information.StandardDate));
        json.set("daylight", json_of_rule(information.DaylightName, zone.daylight_bias(), information.DaylightDate));
    } else {
        json.set("daylight_now", false);
        json.set("standard", json_of_time(information.StandardName, zone.standard_bias()));
        json.set("daylight", nullptr);
    }
    json.set("exact_index", json_of(zone.exact));
    json.set("coarse_index", json_of(zone.coarse));
    Json transitions = Json::array();
    for (const ZR_ZONE_TRANSITION& next : zone.transitions) {
        transitions.add({{"utc", text_of(next.When, 0, 'T') + "Z"},
                         {"before", json_of_time(next.NameBefore, next.BiasBefore)},
                         {"after", json_of_time(next.Name, next.Bias)}});
    }
    json.set("transitions", std::move(transitions));
    print_json_line(json);
}

Exit show_zone(const ZoneOptions& options) {
    const Zone zone = device_zone(options.next);
    options.json ? print_json(zone) : print_text(zone);
    return Exit::Ok;
}

}  // namespace

void add_zone(Command zr) {
    const auto options = std::make_shared<ZoneOptions>();
    Command command = zr.add_command("zone", "Show the device's time zone, its number and its next changes");
    command.add_option("-n,--next", options->next, "How many changes to show").positive().shows_default();
    command.add_flag("--json", options->json, "Print one JSON object");
    command.footer(
        "The zone is the one that TZ names, else the system's. Its index is the number by which the server knows\n"
        "it: exact, by the rules of this year, and coarse, by the offset and whether there is daylight time.\n"
        "\n"
        "Examples:\n"
        "  zr zone\n"
        "  TZ=Europe/Dublin zr zone --next 2");
    command.runs([options] { return show_zone(*options); });
}

}  // namespace zr
