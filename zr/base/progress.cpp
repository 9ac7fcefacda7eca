#include "zr/base/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::chrono::milliseconds kInterval(100);
constexpr int kWidth = 30;

}  // namespace

Progress::Progress(bool wanted, const char* items)
    : on_(wanted && ::isatty(STDERR_FILENO) == 1), items_(items), next_(std::chrono::steady_clock::now() + kInterval) {}

Progress::~Progress() {
    clear();
}

void Progress::show(const std::string& what, std::uint64_t done, std::uint64_t total, long count) {
    if (!on_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_) return;
    next_ = now + kInterval;
    drawn_ = true;
    std::string bar;
    if (total > 0) {
        const int filled = static_cast<int>(std::min(done, total) * kWidth / total);
        bar = "[" + std::string(static_cast<std::size_t>(filled), '#') +
              std::string(static_cast<std::size_t>(kWidth - filled), ' ') + "] " +
              std::to_string(std::min(done, total) * 100 / total) + "%  ";
    }
    const std::string line = "\r\x1b[K" + bar + std::to_string(count) + " " + items_ + "  " + printable(what);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

void Progress::clear() {
    if (!drawn_) return;
    drawn_ = false;
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
}

}  // namespace zr
