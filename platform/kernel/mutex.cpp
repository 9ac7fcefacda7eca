#include "mutex.h"

#include <new>
#include <utility>

#include "engine.h"
#include "named_objects.h"
#include "names.h"
#include "platform/kernel.h"

namespace zr::platform {

bool Mutex::is_signalled(const Thread& waiter) const noexcept {
    const DWORD now = owner();
    return now == 0 || now == waiter.id();
}

bool Mutex::acquire(Thread& waiter) noexcept {
    ++holds_;
    if (holds_ > 1) return false;
    word_.fetch_or(waiter.id(), std::memory_order_acq_rel);
    return std::exchange(abandoned_, false);
}

bool Mutex::is_exhausted() const noexcept {
    return owner() != 0;
}

Waitable::Attempt Mutex::try_acquire(Thread& self) noexcept {
    std::uint32_t word = 0;
    if (word_.compare_exchange_strong(word, self.id(), std::memory_order_acquire, std::memory_order_relaxed)) {
        holds_ = 1;
        return std::exchange(abandoned_, false) ? Attempt::TakenAbandoned : Attempt::Taken;
    }
    if ((word & ~kHasWaiters) != self.id()) return Attempt::No;
    ++holds_;
    return Attempt::Taken;
}

void Mutex::acquired(Thread& self) noexcept {
    if (listed_) return;
    listed_ = true;
    add_ref();
    Mutex*& first = ThreadAccess::owned(self);
    previous_ = nullptr;
    next_ = first;
    if (first) first->previous_ = this;
    first = this;
}

void Mutex::take_initially(Thread& self) noexcept {
    word_.store(self.id(), std::memory_order_relaxed);
    holds_ = 1;
    acquired(self);
}

bool Mutex::unlock(Thread& self) noexcept {
    if (owner() != self.id()) return false;
    if (holds_ > 1) {
        --holds_;
    } else {
        give_up(self, false);
    }
    return true;
}

void Mutex::give_up(Thread& self, bool abandoned) noexcept {
    (previous_ ? previous_->next_ : ThreadAccess::owned(self)) = next_;
    if (next_) next_->previous_ = previous_;
    listed_ = false;
    holds_ = 0;
    abandoned_ = abandoned;
    std::uint32_t word = self.id();
    if (!word_.compare_exchange_strong(word, 0, std::memory_order_release, std::memory_order_relaxed)) {
        Wakeups wakeups;
        const std::lock_guard guard(Engine::lock);
        word_.fetch_and(kHasWaiters, std::memory_order_acq_rel);
        Engine::serve(*this, wakeups);
    }
    release();
}

void Mutex::abandon_all(Thread& self) noexcept {
    while (Mutex* mutex = ThreadAccess::owned(self)) {
        mutex->give_up(self, true);
    }
}

// Without a handle the owner can never release it; a thread that still waits for it learns what happened.
void Mutex::last_handle_closed() noexcept {
    Thread& self = ThreadAccess::current();
    if (owner() == self.id()) give_up(self, true);
}

}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES, BOOL initial_owner, LPCWSTR name) {
    cancellation_point();
    if (is_name(name)) return named::create_mutex(name, initial_owner != FALSE);
    SetLastError(ERROR_SUCCESS);
    const Ref<Mutex> mutex = Ref<Mutex>::adopt(new (std::nothrow) Mutex);
    if (!mutex) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const HANDLE handle = open_handle(*mutex);
    if (handle && initial_owner != FALSE) mutex->take_initially(ThreadAccess::current());
    return handle;
}

HANDLE OpenMutexW(DWORD, BOOL, LPCWSTR name) {
    cancellation_point();
    return named::open_mutex(name);
}

BOOL ReleaseMutex(HANDLE handle) {
    Pin pin(handle);
    const ObjectKind kind = pin ? pin.object()->kind() : ObjectKind::Other;
    bool released = false;
    if (kind == ObjectKind::Mutex) [[likely]] {
        released = static_cast<Mutex*>(pin.object())->unlock(ThreadAccess::current());
    } else if (kind == ObjectKind::NamedMutex) {
        released = static_cast<named::NamedMutex*>(pin.object())->unlock(ThreadAccess::current());
    } else {
        report_invalid_handle();
        return FALSE;
    }
    if (released) return TRUE;
    SetLastError(ERROR_NOT_OWNER);
    return FALSE;
}
