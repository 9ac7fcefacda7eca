#include <atomic>
#include <cstdint>

#include "base/fail.h"
#include "kernel/thread.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

// In the lowest bits of the value, which are free.
constexpr std::uintptr_t kOnceDone = 2;
constexpr std::uintptr_t kOnceReserved = (std::uintptr_t{1} << INIT_ONCE_CTX_RESERVED_BITS) - 1;

// Left as well when the thread is ended within the program's function.
class OnceSection {
public:
    explicit OnceSection(CRITICAL_SECTION& section) : section_(section) { EnterCriticalSection(&section); }
    ~OnceSection() { LeaveCriticalSection(&section_); }
    OnceSection(const OnceSection&) = delete;
    OnceSection& operator=(const OnceSection&) = delete;

    bool is_entered_again() const noexcept { return section_.RecursionCount > 1; }

private:
    CRITICAL_SECTION& section_;
};

bool is_done(std::uintptr_t value, PVOID* context) noexcept {
    if ((value & kOnceDone) == 0) return false;
    if (context) *context = reinterpret_cast<PVOID>(value & ~kOnceReserved);
    return true;
}

BOOL execute_once(INIT_ONCE& once, PINIT_ONCE_FN initialise, PVOID parameter, PVOID* context) {
    const std::atomic_ref<PVOID> value(once.Ptr);
    const auto load = [&] { return reinterpret_cast<std::uintptr_t>(value.load(std::memory_order_acquire)); };
    if (is_done(load(), context)) return TRUE;
    if (!initialise) return fail(ERROR_INVALID_PARAMETER, FALSE);
    const OnceSection section(once.Lock);
    if (section.is_entered_again()) return fail(ERROR_POSSIBLE_DEADLOCK, FALSE);
    if (is_done(load(), context)) return TRUE;
    PVOID made = nullptr;
    if (initialise(&once, parameter, &made) == FALSE) return FALSE;
    const auto bits = reinterpret_cast<std::uintptr_t>(made);
    if ((bits & kOnceReserved) != 0) return fail(ERROR_INVALID_PARAMETER, FALSE);
    value.store(reinterpret_cast<PVOID>(bits | kOnceDone), std::memory_order_release);
    if (context) *context = made;
    return TRUE;
}

}  // namespace
}  // namespace zr::platform

void InitOnceInitialize(PINIT_ONCE once) {
    *once = {};
}

BOOL InitOnceExecuteOnce(PINIT_ONCE once, PINIT_ONCE_FN initialise, PVOID parameter, PVOID* context) {
    zr::platform::cancellation_point();
    if (!once) return zr::platform::fail(ERROR_INVALID_PARAMETER, FALSE);
    return zr::platform::execute_once(*once, initialise, parameter, context);
}
