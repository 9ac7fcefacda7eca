#include <new>

#include "engine.h"
#include "named/objects.h"
#include "names.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "quick_pin.h"
#include "semaphore_object.h"

namespace zr::platform {

bool Semaphore::try_release(LONG count, LONG* before) noexcept {
    std::uint32_t word = word_.load(std::memory_order_relaxed);
    while ((word & kHasWaiters) == 0 && fits(word, count)) {
        if (!word_.compare_exchange_weak(word, word + static_cast<std::uint32_t>(count), std::memory_order_acq_rel,
                                         std::memory_order_relaxed)) {
            continue;
        }
        if (before) *before = static_cast<LONG>(word);
        return true;
    }
    return false;
}

bool Semaphore::release_count(LONG count, LONG* before) noexcept {
    if (try_release(count, before)) return true;
    Wakeups wakeups;
    const std::lock_guard guard(Engine::lock);
    // Marked, so that from here on nobody takes or gives without the lock.
    Engine::hold(*this);
    const std::uint32_t now = word_.load(std::memory_order_acquire) & ~kHasWaiters;
    const bool room = fits(now, count);
    if (room) {
        if (before) *before = static_cast<LONG>(now);
        word_.fetch_add(static_cast<std::uint32_t>(count), std::memory_order_acq_rel);
        Engine::serve(*this, wakeups);
    }
    Engine::let_go(*this);
    return room;
}

bool Semaphore::is_signalled(const Thread&) const noexcept {
    return (word_.load(std::memory_order_acquire) & ~kHasWaiters) != 0;
}

bool Semaphore::acquire(Thread&) noexcept {
    word_.fetch_sub(1, std::memory_order_acq_rel);
    return false;
}

bool Semaphore::is_exhausted() const noexcept {
    return (word_.load(std::memory_order_relaxed) & ~kHasWaiters) == 0;
}

Waitable::Attempt Semaphore::try_take() noexcept {
    std::uint32_t word = word_.load(std::memory_order_relaxed);
    while (word != 0 && (word & kHasWaiters) == 0) {
        if (word_.compare_exchange_weak(word, word - 1, std::memory_order_acq_rel, std::memory_order_relaxed)) {
            return Attempt::Taken;
        }
    }
    return Attempt::No;
}

Waitable::Attempt Semaphore::try_acquire(Thread&) noexcept {
    return try_take();
}

namespace {

HANDLE create_semaphore(LONG initial, LONG most) noexcept {
    SetLastError(ERROR_SUCCESS);
    const auto semaphore = Ref<Semaphore>::adopt(new (std::nothrow) Semaphore(initial, most));
    if (semaphore) return open_handle(*semaphore);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

// An error code.
DWORD release_semaphore(HANDLE handle, LONG count, LONG* before) noexcept {
    Pin pin(handle);
    const ObjectKind kind = pin ? pin.object()->kind() : ObjectKind::Other;
    if (kind == ObjectKind::Semaphore) {
        if (count <= 0) return ERROR_INVALID_PARAMETER;
        note_use(pin);
        return static_cast<Semaphore*>(pin.object())->release_count(count, before) ? ERROR_SUCCESS
                                                                                   : ERROR_TOO_MANY_POSTS;
    }
    if (kind != ObjectKind::NamedSemaphore) return ERROR_INVALID_HANDLE;
    return count > 0 ? static_cast<named::NamedSemaphore*>(pin.object())->release_count(count, before)
                     : ERROR_INVALID_PARAMETER;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES, LONG initial_count, LONG maximum_count, LPCWSTR name) {
    cancellation_point();
    if (maximum_count <= 0 || initial_count < 0 || initial_count > maximum_count) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return is_name(name) ? named::create_semaphore(name, initial_count, maximum_count)
                         : create_semaphore(initial_count, maximum_count);
}

HANDLE OpenSemaphoreW(DWORD, BOOL, LPCWSTR name) {
    cancellation_point();
    return named::open_semaphore(name);
}

BOOL ReleaseSemaphore(HANDLE handle, LONG count, LONG* before) {
    if (count > 0) {
        Thread& self = ThreadAccess::current();
        const QuickPin quick(self, handle);
        Semaphore* const semaphore = quick.get<Semaphore>();
        if (semaphore && semaphore->try_release(count, before)) return TRUE;
    }
    const DWORD error = release_semaphore(handle, count, before);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}
