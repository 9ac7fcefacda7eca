#include "mutex.h"

#include <new>

#include "named/objects.h"
#include "names.h"
#include "platform/kernel.h"
#include "quick_pin.h"

namespace zr::platform {

bool Mutex::is_signalled(const Thread& waiter) const noexcept {
    const DWORD now = owner();
    return now == 0 || now == waiter.lock_id() || is_left_behind();
}

bool Mutex::acquire(Thread& waiter) noexcept {
    if (is_left_behind()) {
        word_.fetch_and(~(kOwner | kKept), std::memory_order_acq_rel);
        holds_ = 0;
        listed_ = false;
        abandoned_ = true;
    }
    ++holds_;
    if (holds_ > 1) return false;
    word_.fetch_or(waiter.lock_id(), std::memory_order_acq_rel);
    return std::exchange(abandoned_, false);
}

bool Mutex::is_exhausted() const noexcept {
    return owner() != 0;
}

Waitable::Attempt Mutex::try_acquire(Thread& self) noexcept {
    const Attempt attempt = try_lock(self);
    if (attempt != Attempt::No && !has_handle()) keep_while_owned();
    return attempt;
}

void Mutex::acquired(Thread& self) noexcept {
    if (!listed_) enlist_owned(self);
}

void Mutex::enlist_owned(Thread& self) noexcept {
    link_owned(self);
    if (!has_handle()) keep_while_owned();
}

void Mutex::delist_owned(Thread& self) noexcept {
    (previous_ ? previous_->next_ : ThreadAccess::owned(self)) = next_;
    if (next_) next_->previous_ = previous_;
    listed_ = false;
}

// An owned mutex without handles. Who took it last looks at the handles after it has changed the word, and who closes
// the last handle changes the word after that: so one of the two, or both, come here.
void Mutex::keep_while_owned() noexcept {
    add_ref();
    std::uint32_t word = word_.fetch_or(0, std::memory_order_acq_rel);
    while ((word & kOwner) != 0 && (word & kKept) == 0) {
        if (word_.compare_exchange_weak(word, word | kKept, std::memory_order_acq_rel)) return;
    }
    release();
}

void Mutex::take_initially(Thread& self) noexcept {
    word_.store(self.lock_id(), std::memory_order_relaxed);
    holds_ = 1;
    enlist_owned(self);
}

bool Mutex::unlock(Thread& self) noexcept {
    if (owner() != self.lock_id()) return false;
    if (holds_ > 1) {
        --holds_;
    } else {
        give_up(self, false);
    }
    return true;
}

bool Mutex::try_unlock(Thread& self) noexcept {
    std::uint32_t word = self.lock_id();
    if (word_.load(std::memory_order_relaxed) != word) return false;
    if (holds_ > 1) {
        --holds_;
        return true;
    }
    // All of it before the word, as the next owner may be there at once.
    delist_owned(self);
    holds_ = 0;
    if (word_.compare_exchange_strong(word, 0, std::memory_order_release, std::memory_order_relaxed)) return true;
    holds_ = 1;
    enlist_owned(self);
    return false;
}

// Whoever waits may be all that keeps the mutex, and gone as soon as it has it.
void Mutex::give_up(Thread& self, bool abandoned) noexcept {
    if (!abandoned && try_unlock(self)) return;
    add_ref();
    delist_owned(self);
    holds_ = 0;
    abandoned_ = abandoned;
    std::uint32_t word = 0;
    {
        Wakeups wakeups;
        const std::lock_guard guard(Engine::lock);
        Engine::hold(*this);
        word = word_.fetch_and(kHasWaiters, std::memory_order_acq_rel);
        pass_on(wakeups);
    }
    if ((word & kKept) != 0) release();
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
    if (owner() == self.lock_id()) {
        give_up(self, true);
    } else {
        keep_while_owned();
    }
}

}  // namespace zr::platform

using namespace zr::platform;
using named::NamedMutex;

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

namespace {

bool release_quickly(Thread& self, HANDLE handle) noexcept {
    Ref<NamedMutex> left;
    {
        const QuickPin quick(self, handle);
        if (Mutex* const mutex = quick.get<Mutex>()) return mutex->try_unlock(self);
        NamedMutex* const mutex = quick.get<NamedMutex>();
        if (!mutex || !mutex->try_unlock(self, left)) return false;
    }
    if (left) left->drop_kept(self);
    return true;
}

}  // namespace

BOOL ReleaseMutex(HANDLE handle) {
    Thread& self = ThreadAccess::current();
    if (release_quickly(self, handle)) [[likely]]
        return TRUE;
    Pin pin(handle);
    const ObjectKind kind = pin ? pin.object()->kind() : ObjectKind::Other;
    bool released = false;
    if (kind == ObjectKind::Mutex) [[likely]] {
        note_use(pin);
        released = static_cast<Mutex*>(pin.object())->unlock(self);
    } else if (kind == ObjectKind::NamedMutex) {
        note_use(pin);
        released = static_cast<NamedMutex*>(pin.object())->unlock(self);
    } else {
        report_invalid_handle();
        return FALSE;
    }
    if (released) return TRUE;
    SetLastError(ERROR_NOT_OWNER);
    return FALSE;
}
