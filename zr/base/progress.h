#pragma once

// A progress bar on standard error, when that is a terminal, and nothing otherwise.

#include <chrono>
#include <cstdint>
#include <string>

namespace zr {

class Progress {
public:
    // `items` is what is counted, such as "contacts".
    Progress(bool wanted, const char* items);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // `total` 0: unknown, only `count` is shown. Cheap to call often.
    void show(const std::string& what, std::uint64_t done, std::uint64_t total, long count);
    // Takes the bar away, so that another line can be printed.
    void clear();

private:
    bool on_;
    const char* items_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point next_;
};

}  // namespace zr
