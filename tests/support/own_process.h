#pragma once

// The test's own process as the host sees it: its threads and its descriptors.

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>

#include "support/instrumented.h"

namespace zr::test {

// What a sanitizer and an emulator (the presets for ARM name its libraries) add to the program's threads.
inline int added_threads() {
    return kSanitizerThreads + (getenv("QEMU_LD_PREFIX") != nullptr ? 1 : 0);
}

inline int count_threads() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// One more than there are: the folder that is read.
inline int count_descriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// Waits until there are no more threads than that: one that has ended may still be listed for a moment, here and when
// the number to compare with was taken. False when there are more for too long.
inline bool until_threads(int most) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (count_threads() > most) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::yield();
    }
    return true;
}

// Whether the thread sleeps, or is gone.
inline bool sleeps(const std::filesystem::path& thread) {
    std::ifstream file(thread / "stat");
    std::string text;
    // It may go in the middle of this: then the rest cannot be read.
    if (!std::getline(file, text)) return true;
    const std::size_t name_end = text.rfind(')');
    return name_end == std::string::npos || text.compare(name_end, 3, ") S") == 0;
}

// Whether all threads but the calling one sleep, three looks in a row; looks so often at most.
inline bool others_sleep(int looks) {
    const std::string self = std::to_string(gettid());
    for (int asleep = 0; asleep < 3; --looks) {
        if (looks == 0) return false;
        bool all = true;
        std::error_code gone;
        for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", gone)) {
            all = all && (thread.path().filename() == self || sleeps(thread.path()));
        }
        asleep = all ? asleep + 1 : 0;
        std::this_thread::yield();
    }
    return true;
}

}  // namespace zr::test
