// Conversions of times beside the C library's. Both sides go through the same times, spread over forty years.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <array>
#include <cstdint>

#include "ZrUtility/Helpers/WindowsUtilities.h"
#include "platform/time.h"

namespace {

constexpr std::int64_t kEpochSeconds = 11'644'473'600;
constexpr std::size_t kTimes = 1024;

struct Times {
    std::array<time_t, kTimes> seconds;
    std::array<FILETIME, kTimes> file_times;
    std::array<struct tm, kTimes> parts;
    std::array<SYSTEMTIME, kTimes> system_times;
};

const Times& times() {
    static const Times all = [] {
        Times made{};
        for (std::size_t i = 0; i < kTimes; ++i) {
            const std::int64_t second = 631'152'000 + static_cast<std::int64_t>(i) * 1'232'353;  // from 1990 on
            const auto units = static_cast<std::uint64_t>(second + kEpochSeconds) * 10'000'000;
            made.seconds[i] = second;
            made.file_times[i] = {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
            gmtime_r(&made.seconds[i], &made.parts[i]);
            FileTimeToSystemTime(&made.file_times[i], &made.system_times[i]);
        }
        return made;
    }();
    return all;
}

// Runs `convert(i)` with i going round.
template <class Convert>
void go_round(benchmark::State& state, Convert convert) {
    times();
    std::size_t i = 0;
    for (auto _ : state) {
        convert(i);
        i = (i + 1) % kTimes;
    }
}

void set_zone() {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
}

// ---- UTC

void to_calendar_ours(benchmark::State& state) {
    go_round(state, [](std::size_t i) {
        SYSTEMTIME parts;
        benchmark::DoNotOptimize(FileTimeToSystemTime(&times().file_times[i], &parts));
        benchmark::DoNotOptimize(parts);
    });
}
void to_calendar_gmtime(benchmark::State& state) {
    go_round(state, [](std::size_t i) {
        tm parts;
        benchmark::DoNotOptimize(gmtime_r(&times().seconds[i], &parts));
        benchmark::DoNotOptimize(parts);
    });
}
BENCHMARK(to_calendar_ours)->Name("utc_to_calendar/ours");
BENCHMARK(to_calendar_gmtime)->Name("utc_to_calendar/gmtime_r");

void from_calendar_ours(benchmark::State& state) {
    go_round(state, [](std::size_t i) {
        FILETIME time;
        benchmark::DoNotOptimize(SystemTimeToFileTime(&times().system_times[i], &time));
        benchmark::DoNotOptimize(time);
    });
}
void from_calendar_timegm(benchmark::State& state) {
    go_round(state, [](std::size_t i) {
        tm parts = times().parts[i];  // it is written to
        benchmark::DoNotOptimize(timegm(&parts));
    });
}
BENCHMARK(from_calendar_ours)->Name("calendar_to_utc/ours");
BENCHMARK(from_calendar_timegm)->Name("calendar_to_utc/timegm");

// ---- Local time: the calendar date that clocks show

void to_local_ours(benchmark::State& state) {
    set_zone();
    go_round(state, [](std::size_t i) {
        FILETIME local;
        SYSTEMTIME parts;
        WindowsUtilities::WUFileTimeToLocalFileTime(&times().file_times[i], &local);
        benchmark::DoNotOptimize(FileTimeToSystemTime(&local, &parts));
        benchmark::DoNotOptimize(parts);
    });
}
// The platform's own, with the bias of now.
void to_local_platform_ours(benchmark::State& state) {
    set_zone();
    go_round(state, [](std::size_t i) {
        FILETIME local;
        SYSTEMTIME parts;
        FileTimeToLocalFileTime(&times().file_times[i], &local);
        benchmark::DoNotOptimize(FileTimeToSystemTime(&local, &parts));
        benchmark::DoNotOptimize(parts);
    });
}
void to_local_localtime(benchmark::State& state) {
    set_zone();
    go_round(state, [](std::size_t i) {
        tm parts;
        benchmark::DoNotOptimize(localtime_r(&times().seconds[i], &parts));
        benchmark::DoNotOptimize(parts);
    });
}
// As the library has it: each of two steps looks whether the zone is still the same one, by TZ and by the time of the
// last look at its file, and says what it did by a calendar date.
void to_local_least(benchmark::State& state) {
    set_zone();
    go_round(state, [](std::size_t i) {
        tm parts;
        for (int step = 0; step < 2; ++step) {
            timespec now;
            benchmark::DoNotOptimize(getenv("TZ"));
            clock_gettime(CLOCK_REALTIME_COARSE, &now);
            benchmark::DoNotOptimize(now);
        }
        benchmark::DoNotOptimize(localtime_r(&times().seconds[i], &parts));
        benchmark::DoNotOptimize(parts);
    });
}
BENCHMARK(to_local_ours)->Name("utc_to_local/ours");
BENCHMARK(to_local_least)->Name("utc_to_local/asking_localtime_r");
BENCHMARK(to_local_localtime)->Name("utc_to_local/localtime_r");
BENCHMARK(to_local_platform_ours)->Name("utc_to_local_now/ours");
BENCHMARK(to_local_localtime)->Name("utc_to_local_now/localtime_r");

void from_local_ours(benchmark::State& state) {
    set_zone();
    go_round(state, [](std::size_t i) {
        FILETIME local;
        FILETIME utc;
        SystemTimeToFileTime(&times().system_times[i], &local);
        WindowsUtilities::WULocalFileTimeToFileTime(&local, &utc);
        benchmark::DoNotOptimize(utc);
    });
}
void from_local_mktime(benchmark::State& state) {
    set_zone();
    go_round(state, [](std::size_t i) {
        tm parts = times().parts[i];
        parts.tm_isdst = -1;
        benchmark::DoNotOptimize(mktime(&parts));
    });
}
BENCHMARK(from_local_ours)->Name("local_to_utc/ours");
BENCHMARK(from_local_mktime)->Name("local_to_utc/mktime");

// ---- A date of a mail header

void mail_date_ours(benchmark::State& state) {
    BYTE text[25];
    go_round(state, [&text](std::size_t i) {
        FILETIME time = times().file_times[i];
        int length;
        WindowsUtilities::FileTimeToRFC822Date(&time, text, &length);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    });
}
void mail_date_strftime(benchmark::State& state) {
    char text[25];
    go_round(state, [&text](std::size_t i) {
        tm parts;
        gmtime_r(&times().seconds[i], &parts);
        benchmark::DoNotOptimize(strftime(text, sizeof text, "%d %b %Y %H:%M:%S GMT", &parts));
        benchmark::ClobberMemory();
    });
}
BENCHMARK(mail_date_ours)->Name("FileTimeToRFC822Date/ours");
BENCHMARK(mail_date_strftime)->Name("FileTimeToRFC822Date/strftime");

}  // namespace
