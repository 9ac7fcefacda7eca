#include "named/session.h"

#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "at_fork.h"
#include "base/host_error.h"
#include "base/state_folder.h"
#include "engine.h"
#include "named/timer_watch.h"
#include "platform/base.h"

namespace zr::platform::named {
namespace {

constexpr std::size_t kWatchStack = 256 * 1024;
constexpr std::size_t kMemberBuckets = 1024;

std::atomic<Session*> the_session = nullptr;
Session* inherited = nullptr;  // a forked child keeps its parent's, which its objects name
std::mutex session_lock;

std::mutex members_lock;
Member* members[kMemberBuckets];

// The file is made sticky: what cleans up runtime directories leaves such files alone.
constexpr mode_t kFileMode = S_ISVTX | S_IRUSR | S_IWUSR;

}  // namespace

bool RegionFile::open(Region& region, bool create, DWORD& error) noexcept {
    const Folder folder = runtime_folder();
    if (!folder) {
        error = folder.error;
        return false;
    }
    int number = 0;
    try {
        path_ = folder.path + "/" + kFileName;
        number = lock_.take(path_.c_str(), create ? FileLock::Missing::IsMade : FileLock::Missing::Fails, kFileMode);
        if (number == 0) number = region.attach(lock_, folder.path, create);
    } catch (const std::bad_alloc&) {
        number = ENOMEM;
    }
    error = room_error(number);
    return number == 0;
}

Session* Session::current() noexcept {
    return the_session.load(std::memory_order_acquire);
}

Session* Session::begin() noexcept {
    if (Session* const session = current()) return session;
    const std::lock_guard guard(session_lock);
    if (Session* const session = current()) return session;
    Session* const session = new (std::nothrow) Session;
    if (!session) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (const DWORD error = session->join(); error != ERROR_SUCCESS) {
        delete session;
        SetLastError(error);
        return nullptr;
    }
    the_session.store(session, std::memory_order_release);
    return session;
}

DWORD Session::join() noexcept {
    RegionFile file;
    DWORD error = ERROR_SUCCESS;
    if (!file.open(region_, true, error)) return error;
    if (!take_place() || !start_watch()) {
        region_.detach();
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return ERROR_SUCCESS;
}

bool Session::take_place() noexcept {
    const Hold hold(region_);
    clear_dead(region_);
    for (place_ = 0; place_ < kProcesses; ++place_) {
        Process& process = region_.process(place_);
        if (process.state.load(std::memory_order_relaxed) != Process::Vacant) continue;
        process.id.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
        generation_ = process.generation.load(std::memory_order_relaxed);
        birth_ = ++region_.header().births * kProcesses + place_;
        process.birth.store(birth_, std::memory_order_relaxed);
        process.life.store(0, std::memory_order_relaxed);
        return true;
    }
    return false;
}

// Returns when the thread runs and holds the life lock.
bool Session::start_watch() noexcept {
    if (!life_.start(&Session::live, this, kWatchStack)) return false;
    while (watching_.load(std::memory_order_acquire) == 0) {
        futex_wait(watching_, 0, Deadline::never());
    }
    return true;
}

void Session::live(void* argument) {
    Session& self = *static_cast<Session*>(argument);
    Process& process = self.region_.process(self.place_);
    self.lives_.begin(process.life);
    {
        const Hold hold(self.region_);
        process.state.store(Process::Taken, std::memory_order_release);
    }
    self.announce();
    self.watching_.store(1, std::memory_order_release);
    futex_wake(&self.watching_, INT_MAX);
    self.watch();
}

// Who watched the process behind this one has to watch this one from now on.
void Session::announce() noexcept {
    const std::uint32_t next = next_place();
    if (next != place_) region_.wake_watch_of(next);
}

// Every process watches the next one in the circle, and clears up after it when it has ended: so each end is noticed at
// once by one process, and should that end meanwhile too, by the one before it. Timers are signalled meanwhile.
void Session::watch() noexcept {
    const std::atomic<std::uint32_t>& timers = region_.header().timers;
    for (;;) {
        const std::uint32_t heard = timers.load(std::memory_order_acquire);
        const Deadline due = expire_named_timers(*this);
        const std::uint32_t next = next_place();
        if (next != place_ && !region_.lives(next)) {
            const Hold hold(region_);
            clear_place(region_, next);
            continue;
        }
        std::atomic<std::uint32_t>& word = region_.process(next).life;
        std::uint32_t seen = word.load(std::memory_order_acquire);
        // A lock that nobody holds must not be marked: who takes the place just now would wait for its own lock.
        if ((seen & FUTEX_OWNER_DIED) != 0 || (seen & FUTEX_TID_MASK) == 0) continue;
        const std::uint32_t marked = seen | FUTEX_WAITERS;
        if (!word.compare_exchange_strong(seen, marked, std::memory_order_acq_rel)) continue;
        if (next_place() != next || timers.load(std::memory_order_acquire) != heard) continue;
        futex_wait(word, marked, due, FutexScope::Shared);
    }
}

SessionHold::SessionHold(Session& session) noexcept : Hold(session.region()) {
    const Process& process = session.region().process(session.place());
    if (process.generation.load(std::memory_order_relaxed) == session.generation()) return;
    // Others have been told that this process ended: it is being killed, and this thread just has not noticed yet.
    session.region().header().lock.give_back();
    for (;;) {
        pause();
    }
}

std::mutex& Member::lock() noexcept {
    return members_lock;
}

void Member::join(Session& session, std::uint32_t index, zr::platform::Object* owner) noexcept {
    if (!session_) {
        session_ = &session;
        index_ = index;
        object_ = &session.region().at<Object>(index);
        base_ = std::uint64_t{object_->generation} << kGenerationShift;
        owner_ = owner;
        next_ = members[index % kMemberBuckets];
        members[index % kMemberBuckets] = this;
    }
    open_ = true;
    named::join(session.region(), index, session.place());
}

Member::~Member() {
    if (!session_) return;
    const std::lock_guard guard(members_lock);
    Member** link = &members[index_ % kMemberBuckets];
    while (*link != this) {
        link = &(*link)->next_;
    }
    *link = next_;
    if (!is_valid() || !is_last(false)) return;
    const SessionHold hold(*session_);
    named::leave(session_->region(), index_, session_->place());
}

void Member::close(const zr::platform::Object& owner) noexcept {
    const std::lock_guard guard(members_lock);
    if (owner.has_handle()) return;  // opened again meanwhile
    open_ = false;
    if (!is_valid() || !is_last(true)) return;
    const SessionHold hold(*session_);
    named::close_by(session_->region(), index_, session_->place());
}

// Whether no other member stands for the same object, or none that is open.
bool Member::is_last(bool open_only) const noexcept {
    for (const Member* other = members[index_ % kMemberBuckets]; other; other = other->next_) {
        if (other == this || other->index_ != index_ || other->session_ != session_) continue;
        if (other->base_ == base_ && (other->open_ || !open_only)) return false;
    }
    return true;
}

Member* Member::find_local(std::uint32_t index, zr::platform::Object*& owner) noexcept {
    for (Member* member = members[index % kMemberBuckets]; member; member = member->next_) {
        if (member->index_ != index || !member->is_valid() || !member->owner_) continue;
        // One that is being deleted has no reference left to share.
        if (!member->owner_->try_add_ref()) continue;
        owner = member->owner_;
        return member;
    }
    return nullptr;
}

}  // namespace zr::platform::named

namespace zr::platform {

void at_fork::lock_session() noexcept {
    named::session_lock.lock();
    named::members_lock.lock();
}

void at_fork::unlock_session() noexcept {
    named::members_lock.unlock();
    named::session_lock.unlock();
}

// The child is a process of its own, without a place: the next use of a named object begins a session for it.
void at_fork::forget_session() noexcept {
    named::forget_thread();
    if (named::Session* const parents = named::the_session.exchange(nullptr)) named::inherited = parents;
}

}  // namespace zr::platform
