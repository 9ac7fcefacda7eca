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

// The function of this name behind this program's own: of a sanitizer that is linked into the program, else the next
// library's. Null while it is looked up: the search may want memory itself, and does without.
template <class Function>
Function next(std::atomic<Function>& known, Function linked, const char* name) {
    if (linked != nullptr) return linked;
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

extern "C" [[gnu::weak]] void* __interceptor_calloc(std::size_t count, std::size_t size);
extern "C" [[gnu::weak]] void* __interceptor_realloc(void* block, std::size_t size);

extern "C" [[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) noexcept {
    const Calloc function = mayAllocate() ? next(nextCalloc, &__interceptor_calloc, "calloc") : nullptr;
    return function != nullptr ? function(count, size) : nullptr;
}

extern "C" [[gnu::visibility("default")]] void* realloc(void* block, std::size_t size) noexcept {
    const Realloc function = mayAllocate() ? next(nextRealloc, &__interceptor_realloc, "realloc") : nullptr;
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
