#pragma once

// The zones of the system, and the C library's word on them.

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/types.h"
#include "support/instrumented.h"
#include "time/clock.h"

namespace zr::test {

// What TZ can be set to: the files below the zone folder, one for each content. Under a sanitizer, some of them.
inline std::vector<std::string> system_zones() {
    namespace fs = std::filesystem;
    const fs::path folder = "/usr/share/zoneinfo";
    std::map<std::string, std::string> by_content;
    for (auto entry = fs::recursive_directory_iterator(folder); entry != fs::recursive_directory_iterator(); ++entry) {
        const std::string name = fs::relative(entry->path(), folder).string();
        if (name == "right" || name == "posix") entry.disable_recursion_pending();
        if (!entry->is_regular_file()) continue;
        std::ifstream file(entry->path(), std::ios::binary);
        const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (!content.starts_with("TZif")) continue;
        std::string& first = by_content[content];
        if (first.empty() || name < first) first = name;
    }
    std::vector<std::string> zones;
    for (auto& [content, name] : by_content)
        zones.push_back(std::move(name));
    std::ranges::sort(zones);
    std::size_t kept = 0;
    for (std::size_t at = 0; at < zones.size(); at += kStride)
        std::swap(zones[kept++], zones[at]);
    zones.resize(kept);
    return zones;
}

// For the platform and the C library. Null: the system's zone.
inline void set_zone(const char* zone) {
    if (zone != nullptr)
        setenv("TZ", zone, 1);
    else
        unsetenv("TZ");
    tzset();
}

inline std::tm c_local_time(std::int64_t second) {
    const std::time_t time = second;
    std::tm local{};
    localtime_r(&time, &local);
    return local;
}

inline std::int64_t c_utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    return timegm(&parts);
}

inline constexpr std::int64_t kEpochSeconds = 11'644'473'600;

inline FILETIME file_time(std::int64_t second) {
    const auto units = static_cast<std::uint64_t>(second + kEpochSeconds) * 10'000'000;
    return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}
inline std::uint64_t units(const FILETIME& time) {
    return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}
inline std::int64_t unix_second(const FILETIME& time) {
    return static_cast<std::int64_t>(units(time) / 10'000'000) - kEpochSeconds;
}

// Stops the platform's clock at a second of UTC while it lives.
class StoppedClock {
public:
    explicit StoppedClock(std::int64_t second) {
        set(second);
        zr::platform::use_clock([]() noexcept { return now_; });
    }
    ~StoppedClock() { zr::platform::use_clock(nullptr); }
    StoppedClock(const StoppedClock&) = delete;
    StoppedClock& operator=(const StoppedClock&) = delete;

    void set(std::int64_t second) { now_ = units(file_time(second)); }

private:
    inline static std::uint64_t now_ = 0;
};

}  // namespace zr::test
