#pragma once

#include <cstdlib>

// Whether a sanitizer looks on. It makes a step five to twenty times as long, so loops are cut there that are only so
// long because more rounds meet more: the plain run has them in full.

namespace zr::test {

#if defined(ZR_SANITIZE_ADDRESS) || defined(ZR_SANITIZE_THREAD)
inline constexpr bool kInstrumented = true;
#else
inline constexpr bool kInstrumented = false;
#endif

// Threads that a sanitizer may have of its own: one from the process's first thread on, and one from a fork on.
#if defined(ZR_SANITIZE_THREAD)
inline constexpr int kSanitizerThreads = 2;
#else
inline constexpr int kSanitizerThreads = 0;
#endif

// Such a loop takes every kStride-th step.
inline constexpr int kStride = kInstrumented ? 10 : 1;

// How many rounds of what only more rounds find more with: so many, fewer where a sanitizer looks on, or as many as the
// variable says.
inline int rounds_wanted(const char* variable, int plain, int instrumented) {
    const char* const wanted = std::getenv(variable);
    if (wanted != nullptr) return std::atoi(wanted);
    return kInstrumented ? instrumented : plain;
}

}  // namespace zr::test
