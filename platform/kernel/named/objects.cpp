#include "named/objects.h"

#include <new>
#include <utility>

#include "base/host_error.h"
#include "named/queue.h"
#include "named/timer_watch.h"
#include "names.h"
#include "platform/base.h"

namespace zr::platform::named {
namespace {

// The object of that name, opened, or made as `wanted` says; with the locks held. kNone and an error when neither.
std::uint32_t find_or_make(Session& session, std::u16string_view name, Kind kind, const NewObject* wanted,
                           DWORD& error) noexcept {
    Region& region = session.region();
    const std::uint32_t hash = hash_of(name);
    const std::uint32_t found = find_living(region, name, hash);
    if (found != kNone) {
        const bool fits = region.at<Object>(found).kind == kind;
        error = fits ? ERROR_ALREADY_EXISTS : ERROR_INVALID_HANDLE;
        return fits ? found : kNone;
    }
    error = ERROR_FILE_NOT_FOUND;
    if (!wanted) return kNone;
    int number = 0;
    const std::uint32_t made = make(region, *wanted, name, hash, session.place(), number);
    error = room_error(number);
    return made;
}

// A reference to what stands for that object in this process, which is `fresh` if nothing does yet. The object is open.
template <class Local>
Ref<Local> local_for(Session& session, std::uint32_t index, const Ref<Local>& fresh) noexcept {
    zr::platform::Object* there = nullptr;
    if (Member* const member = Member::find_local(index, there)) {
        member->join(session, index, there);
        return Ref<Local>::adopt(static_cast<Local*>(there));
    }
    fresh->member().join(session, index, fresh.get());
    return fresh;
}

struct Opened {
    HANDLE handle;
    DWORD error;  // ERROR_ALREADY_EXISTS beside a handle: it was there
};

template <class Local>
Opened open_named(Session& session, std::u16string_view name, const NewObject* wanted, Thread* owner) noexcept {
    // References go when no lock is held any more.
    const Ref<Local> fresh = Ref<Local>::adopt(new (std::nothrow) Local);
    if (!fresh) return {nullptr, ERROR_NOT_ENOUGH_MEMORY};
    Ref<Local> local;
    DWORD error = ERROR_SUCCESS;
    HANDLE handle = nullptr;
    {
        const std::lock_guard guard(Member::lock());
        {
            const SessionHold hold(session);
            const std::uint32_t index = find_or_make(session, name, Local::kNamedKind, wanted, error);
            if (index == kNone) return {nullptr, error};
            local = local_for(session, index, fresh);
        }
        if constexpr (std::is_same_v<Local, NamedTimer>) local->enlist();
        handle = open_handle(*local);
        if (!handle) return {nullptr, GetLastError()};
    }
    if constexpr (std::is_same_v<Local, NamedMutex>) {
        if (owner && error == ERROR_SUCCESS) local->taken_initially(*owner);
    }
    return {handle, error};
}

template <class Local>
HANDLE open_existing(LPCWSTR name) noexcept {
    DWORD error = ERROR_INVALID_PARAMETER;
    if (name && *name) {
        Session* const session = Session::begin();
        if (!session) return nullptr;
        const Opened opened = open_named<Local>(*session, name, nullptr, nullptr);
        if (opened.handle) return opened.handle;
        error = opened.error;
    }
    SetLastError(error);
    return nullptr;
}

}  // namespace

// --- Events ----------------------------------------------------------------------------------------------------------

bool NamedEvent::set() noexcept {
    if (!member_.is_valid()) return false;
    std::atomic<std::uint64_t>& state = word();
    std::uint64_t seen = state.load(std::memory_order_relaxed);
    while ((seen & ~kSignalled) == member_.base()) {
        // Also when it is set already: who takes the signal has to see what the setter did before.
        if (state.compare_exchange_weak(seen, seen | kSignalled, std::memory_order_acq_rel)) return true;
    }
    const SessionHold hold(member_.session());
    state.fetch_or(kSignalled, std::memory_order_acq_rel);
    serve(member_.session().region(), member_.index());
    return true;
}

bool NamedEvent::reset() noexcept {
    if (!member_.is_valid()) return false;
    std::atomic<std::uint64_t>& state = word();
    std::uint64_t seen = state.load(std::memory_order_relaxed);
    while ((seen & ~kSignalled) == member_.base()) {
        if (state.compare_exchange_weak(seen, member_.base(), std::memory_order_acq_rel)) return true;
    }
    const SessionHold hold(member_.session());
    state.fetch_and(~kSignalled, std::memory_order_acq_rel);
    return true;
}

bool NamedEvent::pulse() noexcept {
    if (!member_.is_valid()) return false;
    const SessionHold hold(member_.session());
    serve(member_.session().region(), member_.index(), true);
    word().fetch_and(~kSignalled, std::memory_order_acq_rel);
    return true;
}

Waitable::Attempt NamedEvent::try_acquire(Thread&) noexcept {
    if (!member_.is_valid()) return Attempt::No;
    std::atomic<std::uint64_t>& state = word();
    std::uint64_t seen = state.load(std::memory_order_acquire);
    if (member_.object().manual_reset != 0) return (seen & kSignalled) != 0 ? Attempt::Taken : Attempt::No;
    if (seen != (member_.base() | kSignalled)) return Attempt::No;
    return state.compare_exchange_strong(seen, member_.base(), std::memory_order_acq_rel, std::memory_order_relaxed)
               ? Attempt::Taken
               : Attempt::No;
}

// --- Semaphores ------------------------------------------------------------------------------------------------------

DWORD NamedSemaphore::release_count(LONG count, LONG* before) noexcept {
    if (!member_.is_valid()) return ERROR_INVALID_HANDLE;
    const auto more = static_cast<std::uint64_t>(count);
    const std::uint64_t most = member_.object().size;
    const auto fits = [&](std::uint64_t word) { return more <= most - (word & kCount); };
    std::atomic<std::uint64_t>& state = word();
    std::uint64_t seen = state.load(std::memory_order_relaxed);
    while ((seen & ~kCount) == member_.base() && fits(seen)) {
        if (!state.compare_exchange_weak(seen, seen + more, std::memory_order_acq_rel)) continue;
        if (before) *before = static_cast<LONG>(seen & kCount);
        return ERROR_SUCCESS;
    }
    const SessionHold hold(member_.session());
    // Marked, so that from here on nobody takes or gives without the lock.
    named::hold(member_.object());
    seen = state.load(std::memory_order_acquire);
    const bool room = fits(seen);
    if (room) {
        if (before) *before = static_cast<LONG>(seen & kCount);
        state.fetch_add(more, std::memory_order_acq_rel);
        serve(member_.session().region(), member_.index());
    }
    let_go(member_.object());
    return room ? ERROR_SUCCESS : ERROR_TOO_MANY_POSTS;
}

Waitable::Attempt NamedSemaphore::try_acquire(Thread&) noexcept {
    if (!member_.is_valid()) return Attempt::No;
    std::uint64_t seen = word().load(std::memory_order_acquire);
    while ((seen & ~kCount) == member_.base() && (seen & kCount) != 0) {
        if (word().compare_exchange_weak(seen, seen - 1, std::memory_order_acq_rel)) return Attempt::Taken;
    }
    return Attempt::No;
}

// --- Mutexes ---------------------------------------------------------------------------------------------------------

Waitable::Attempt NamedMutex::try_acquire(Thread& self) noexcept {
    return member_.is_valid() ? take(member_.session().owner(self)) : Attempt::No;
}

void NamedMutex::acquired(Thread& self) noexcept {
    if (holds_++ != 0) return;
    ThreadAccess::named_owner(self) = {&member_.session(), member_.session().owner(self)};
    enlist_owned(self);
    if (without_handle_.load(std::memory_order_relaxed)) keep_for_owner();
}

// Who closes the last handle says so and then looks whose the mutex is; who takes it or gives it up changes that and
// then looks whether it was said. Both by a read-modify-write of the word, so that one of the two sees the other, and
// what they do about it they do one after the other.
void NamedMutex::last_handle_closed() noexcept {
    without_handle_.store(true, std::memory_order_relaxed);
    keep_for_owner();
    Shared::last_handle_closed();
}

void NamedMutex::keep_for_owner() noexcept {
    if (!member_.is_valid()) return;
    const std::lock_guard guard(Member::lock());
    const std::uint64_t seen = word().fetch_or(0, std::memory_order_acq_rel);
    const Session& session = member_.session();
    if ((seen & kOwner) == 0 || owner_place(seen) != session.place() ||
        owner_generation(seen) != session.generation()) {
        return;
    }
    // What is kept for an owner that has given it up, but has not yet come to dropping this, goes on to the next.
    if (std::exchange(kept_for_, owner_tid(seen)) == 0) add_ref();
}

void NamedMutex::drop_kept(const Thread& self) noexcept {
    {
        const std::lock_guard guard(Member::lock());
        if (kept_for_ != self.id()) return;
        kept_for_ = 0;
    }
    release();
}

bool NamedMutex::unlock(Thread& self) noexcept {
    if (!member_.is_valid()) return false;
    if ((word().load(std::memory_order_relaxed) & kOwner) != member_.session().owner(self)) return false;
    if (holds_ > 1) {
        --holds_;
    } else {
        give_up(self, 0);
    }
    return true;
}

// The caller keeps the mutex alive.
void NamedMutex::give_up(Thread& self, std::uint64_t mark) noexcept {
    delist_owned(self);
    holds_ = 0;
    Session& session = member_.session();
    std::uint64_t seen = member_.base() | session.owner(self);
    if (!word().compare_exchange_strong(seen, member_.base() | mark, std::memory_order_acq_rel,
                                        std::memory_order_relaxed)) {
        const SessionHold hold(session);
        word().exchange(member_.base() | kWaiters | mark, std::memory_order_acq_rel);
        let_go(member_.object());
        serve(session.region(), member_.index());
    }
    if (without_handle_.load(std::memory_order_relaxed)) drop_kept(self);
}

void NamedMutex::abandon_all(Thread& self) noexcept {
    while (NamedMutex* mutex = ThreadAccess::named_owned(self)) {
        const Ref<NamedMutex> kept = Ref<NamedMutex>::retain(*mutex);
        mutex->give_up(self, kAbandoned);
    }
}

// --- Making and opening ----------------------------------------------------------------------------------------------

HANDLE create_event(std::u16string_view name, bool manual_reset, bool signalled) noexcept {
    Session* const session = Session::begin();
    if (!session) return nullptr;
    const NewObject wanted{.kind = Kind::Event, .manual_reset = manual_reset, .word = signalled ? kSignalled : 0};
    const Opened opened = open_named<NamedEvent>(*session, name, &wanted, nullptr);
    SetLastError(opened.error);
    return opened.handle;
}

HANDLE create_mutex(std::u16string_view name, bool owned) noexcept {
    Session* const session = Session::begin();
    if (!session) return nullptr;
    Thread& self = ThreadAccess::current();
    const NewObject wanted{.kind = Kind::Mutex, .word = owned ? session->owner(self) : 0};
    const Opened opened = open_named<NamedMutex>(*session, name, &wanted, owned ? &self : nullptr);
    SetLastError(opened.error);
    return opened.handle;
}

HANDLE create_semaphore(std::u16string_view name, LONG initial, LONG most) noexcept {
    Session* const session = Session::begin();
    if (!session) return nullptr;
    const NewObject wanted{
        .kind = Kind::Semaphore, .word = static_cast<std::uint64_t>(initial), .size = static_cast<std::uint64_t>(most)};
    const Opened opened = open_named<NamedSemaphore>(*session, name, &wanted, nullptr);
    SetLastError(opened.error);
    return opened.handle;
}

namespace {

// The day's clock may be set to any time at any moment, which only an alarm is told.
bool begin_alarm(AlarmUse& alarm) noexcept {
    const DWORD error = alarm.begin(DueClock::OfDay);
    if (error != ERROR_SUCCESS) SetLastError(error);
    return error == ERROR_SUCCESS;
}

}  // namespace

HANDLE create_timer(std::u16string_view name, bool manual_reset) noexcept {
    Session* const session = Session::begin();
    AlarmUse alarm;
    if (!session || !begin_alarm(alarm)) return nullptr;
    const NewObject wanted{.kind = Kind::Timer, .manual_reset = manual_reset, .protection = kNotSet};
    const Opened opened = open_named<NamedTimer>(*session, name, &wanted, nullptr);
    SetLastError(opened.error);
    return opened.handle;
}

HANDLE open_event(LPCWSTR name) noexcept {
    return open_existing<NamedEvent>(name);
}

HANDLE open_mutex(LPCWSTR name) noexcept {
    return open_existing<NamedMutex>(name);
}

HANDLE open_semaphore(LPCWSTR name) noexcept {
    return open_existing<NamedSemaphore>(name);
}

HANDLE open_timer(LPCWSTR name) noexcept {
    AlarmUse alarm;
    if (is_name(name) && !begin_alarm(alarm)) return nullptr;
    return open_existing<NamedTimer>(name);
}

}  // namespace zr::platform::named
