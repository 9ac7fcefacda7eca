// The clock and the zone, for zr watch.

#include <platform/platform.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/require_zone.h"
#include "zr/commands/watch.h"

namespace zr {
namespace {

constexpr double kUnitsPerSecond = 1e7;  // of a file time

LONGLONG units_of(const FILETIME& time) {
    return static_cast<LONGLONG>(static_cast<ULONGLONG>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

// An event of this process's own, for one system event.
class NotificationEvent {
public:
    NotificationEvent(const char* purpose, LONG system_event)
        : name_(to_utf16("zr.watch." + std::to_string(GetCurrentProcessId()) + "." + purpose)),
          event_(CreateEventW(nullptr, FALSE, FALSE, name_.c_str())) {
        if (event_ != nullptr && CeRunAppAtEvent(path().c_str(), system_event)) return;
        const DWORD error = GetLastError();
        if (event_ != nullptr) CloseHandle(event_);
        throw Failure{Exit::Unreadable, "the clock cannot be watched: error " + std::to_string(error)};
    }
    ~NotificationEvent() {
        CeRunAppAtEvent(path().c_str(), NOTIFICATION_EVENT_NONE);
        CloseHandle(event_);
    }
    NotificationEvent(const NotificationEvent&) = delete;
    NotificationEvent& operator=(const NotificationEvent&) = delete;

    HANDLE event() const { return event_; }
    bool take() const { return WaitForSingleObject(event_, 0) == WAIT_OBJECT_0; }

private:
    std::u16string path() const { return NAMED_EVENT_PREFIX_TEXT + name_; }

    std::u16string name_;
    HANDLE event_;
};

std::string date_text(const FILETIME& time, char separator) {
    SYSTEMTIME parts{};
    FileTimeToSystemTime(&time, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d%c%02d:%02d:%02d.%03d", parts.wYear, parts.wMonth, parts.wDay,
                  separator, parts.wHour, parts.wMinute, parts.wSecond, parts.wMilliseconds);
    return text;
}

// The time and the zone at one moment.
struct Reading {
    FILETIME utc{};
    FILETIME local{};
    bool has_zone = false;
    std::string zone;

    static Reading now() {
        Reading moment;
        GetSystemTimeAsFileTime(&moment.utc);
        moment.has_zone = FileTimeToLocalFileTime(&moment.utc, &moment.local) != FALSE;
        moment.zone = zone_name();
        return moment;
    }

    LONGLONG offset_seconds() const { return (units_of(local) - units_of(utc)) / 10'000'000; }
    std::string offset_text() const {
        const LONGLONG offset = offset_seconds();
        const LONGLONG minutes = std::abs(offset) / 60;
        char text[32];
        std::snprintf(text, sizeof text, "%c%02lld:%02lld", offset < 0 ? '-' : '+',
                      static_cast<long long>(minutes / 60), static_cast<long long>(minutes % 60));
        return text;
    }
};

double seconds_nobody_sets() {
    LARGE_INTEGER count{};
    LARGE_INTEGER frequency{};
    QueryPerformanceCounter(&count);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(count.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// How far the clock is ahead of the one that nobody sets, in seconds: by the look at both that took least time.
double clock_lead() {
    double least = HUGE_VAL;
    double lead = 0;
    for (int look = 0; look < 5; ++look) {
        FILETIME now{};
        const double before = seconds_nobody_sets();
        GetSystemTimeAsFileTime(&now);
        const double after = seconds_nobody_sets();
        if (after - before >= least) continue;
        least = after - before;
        lead = static_cast<double>(units_of(now)) / kUnitsPerSecond - (before + after) / 2;
    }
    return lead;
}

class WatchedClock final : public Watched {
public:
    explicit WatchedClock(bool json) : json_(json), lead_(clock_lead()) { print_change("now", 0); }

    std::vector<HANDLE> events() const override { return {time_.event()}; }

    void report(HANDLE) override {
        const double lead = clock_lead();
        const double moved = std::round((lead - lead_) * 1000) / 1000;
        lead_ = lead;
        // A change of the zone sets both events; its own is registered first, and so set first.
        const bool zone = zone_.take();
        if (!zone || moved != 0) print_change("clock", moved);
        if (zone) print_change("zone", 0);
    }

private:
    void print_change(const std::string& change, double moved) const {
        const Reading now = Reading::now();
        if (json_) {
            print_object(change, moved, now);
        } else {
            print_line(change, moved, now);
        }
    }

    static void print_object(const std::string& change, double moved, const Reading& now) {
        Json json = {{"change", change}, {"time", date_text(now.utc, 'T') + "Z"}};
        if (change == "clock") json.set("moved", moved);
        json.set("local", nullptr);
        json.set("offset", nullptr);
        if (now.has_zone) {
            json.set("local", date_text(now.local, 'T'));
            json.set("offset", now.offset_seconds());
        }
        json.set("zone", now.zone);
        print_json_line(json);
    }

    static void print_line(const std::string& change, double moved, const Reading& now) {
        std::string line = date_text(now.utc, 'T') + "Z " + change;
        if (moved != 0) {
            char text[48];
            std::snprintf(text, sizeof text, " moved by %+.3f s", moved);
            line += text;
        }
        line += ": ";
        line += now.has_zone ? date_text(now.local, ' ') + " " + now.offset_text() : std::string("no zone");
        print(line + " " + printable(now.zone) + "\n");
    }

    bool json_;
    double lead_;
    NotificationEvent zone_{"zone", NOTIFICATION_EVENT_TZ_CHANGE};
    NotificationEvent time_{"time", NOTIFICATION_EVENT_TIME_CHANGE};
};

}  // namespace

std::unique_ptr<Watched> watch_clock(bool json) {
    return std::make_unique<WatchedClock>(json);
}

}  // namespace zr
