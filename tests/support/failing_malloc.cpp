#include "support/failing_malloc.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace {

constexpr int kUnlimited = -1;
thread_local int successesLeft = kUnlimited;
thread_local bool lookingUp = false;

// The function of this name behind this program's own: the C library's, or a sanitizer's. Null while it is looked up:
// the search may want memory itself, and does without.
template <class Function>
Function next(std::atomic<Function>& known, const char* name) {
    Function function = known.load(std::memory_order_relaxed);
    if (function != nullptr || lookingUp) return function;
    lookingUp = true;
    function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    lookingUp = false;
    known.store(function, std::memory_order_relaxed);
    return function;
}

bool mayAllocate() {
    if (successesLeft == 0) {
        errno = ENOMEM;
        return false;
    }
    if (successesLeft > 0) --successesLeft;
    return true;
}

using Calloc = void* (*)(std::size_t, std::size_t);
using Realloc = void* (*)(void*, std::size_t);
std::atomic<Calloc> nextCalloc{nullptr};
std::atomic<Realloc> nextRealloc{nullptr};

}  // namespace

extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
    const Calloc function = mayAllocate() ? next(nextCalloc, "calloc") : nullptr;
    return function != nullptr ? function(count, size) : nullptr;
}

extern "C" void* realloc(void* block, std::size_t size) noexcept {
    const Realloc function = mayAllocate() ? next(nextRealloc, "realloc") : nullptr;
    return function != nullptr ? function(block, size) : nullptr;
}

namespace zr::test {

FailingMalloc::FailingMalloc(int successes) {
    successesLeft = successes;
}

FailingMalloc::~FailingMalloc() {
    successesLeft = kUnlimited;
}

}  // namespace zr::test
