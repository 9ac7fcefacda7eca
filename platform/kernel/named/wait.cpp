#include "named/wait.h"

#include <optional>

#include "base/host_error.h"
#include "named/queue.h"
#include "platform/base.h"

namespace zr::platform::named {
namespace {

// One wait of one thread.
class Wait {
public:
    Wait(Session& session, Thread& self, std::span<Waitable* const> objects, WaitMode mode) noexcept
        : session_(session), region_(session.region()), self_(self), objects_(objects), mode_(mode) {
        for (const Waitable* object : objects) {
            mixed_ |= !Engine::is_named(*object);
        }
    }

    WaitResult run(Deadline deadline);

private:
    // The engine's lock, where objects of this process take part, and the region's.
    class Locks {
    public:
        explicit Locks(const Wait& wait) noexcept {
            if (wait.mixed_) engine_.emplace(Engine::lock);
            region_.emplace(wait.session_);
        }

    private:
        std::optional<std::lock_guard<FutexLock>> engine_;
        std::optional<SessionHold> region_;
    };

    bool get_sleeper() noexcept;
    void fill_blocks() noexcept;
    void hold_all() noexcept;
    void let_go_all() noexcept;
    bool take() noexcept;
    bool take_any() noexcept;
    bool take_all() noexcept;
    void begin_sleep() noexcept;
    void withdraw() noexcept;
    bool sleep(Deadline deadline);
    bool is_granted() const noexcept { return sleeper_->state.load(std::memory_order_acquire) == Sleeper::Granted; }
    void finish_granted() noexcept;
    void finish_completed() noexcept;

    Session& session_;
    Region& region_;
    Thread& self_;
    const std::span<Waitable* const> objects_;
    const WaitMode mode_;
    bool mixed_ = false;
    std::uint32_t index_ = kNone;  // the sleeper's
    Sleeper* sleeper_ = nullptr;
    WaitResult result_{WaitResult::Status::TimedOut, 0};
    WaitBlock blocks_[kMaxWait];
};

Shared& shared(Waitable& object) noexcept {
    return static_cast<Shared&>(object);
}

// Each thread has a sleeper of its own from its first sleep on.
bool Wait::get_sleeper() noexcept {
    NamedSleeper& own = ThreadAccess::named_sleeper(self_);
    if (own.session != &session_) {
        int error = 0;
        const std::uint32_t index = region_.find_vacant<Sleeper>(
            [](const Sleeper& sleeper) { return sleeper.state.load(std::memory_order_relaxed) == Sleeper::Vacant; },
            error);
        if (index == kNone) {
            SetLastError(error_from_errno(error));
            return false;
        }
        Sleeper& sleeper = region_.at<Sleeper>(index);
        sleeper.process = session_.place();
        sleeper.process_generation = session_.generation();
        sleeper.thread = self_.id();
        sleeper.count = 0;
        sleeper.state.store(Sleeper::Idle, std::memory_order_relaxed);
        own = {&session_, index};
    }
    index_ = own.index;
    sleeper_ = &region_.at<Sleeper>(index_);
    return true;
}

void Wait::fill_blocks() noexcept {
    sleeper_->count = 0;
    sleeper_->wait_all = mode_ == WaitMode::All ? 1 : 0;
    sleeper_->mixed = mixed_ ? 1 : 0;
    for (std::uint32_t i = 0; i < objects_.size(); ++i) {
        if (!Engine::is_named(*objects_[i])) continue;
        sleeper_->blocks[sleeper_->count++] = {shared(*objects_[i]).member().index(), i, 0, kNone, kNone};
    }
}

void Wait::hold_all() noexcept {
    for (Waitable* object : objects_) {
        if (Engine::is_named(*object)) {
            hold(shared(*object).member().object());
        } else {
            Engine::hold(*object);
        }
    }
}

void Wait::let_go_all() noexcept {
    for (Waitable* object : objects_) {
        if (Engine::is_named(*object)) {
            let_go(shared(*object).member().object());
        } else {
            Engine::let_go(*object);
        }
    }
}

bool Wait::take_any() noexcept {
    for (std::uint32_t i = 0; i < objects_.size(); ++i) {
        if (!Engine::is_signalled(*objects_[i], self_)) continue;
        const bool abandoned = Engine::acquire(*objects_[i], self_);
        result_ = {abandoned ? WaitResult::Status::Abandoned : WaitResult::Status::Satisfied, i};
        return true;
    }
    return false;
}

// The named objects first: should the process be killed in between, what it had taken of its own dies with it.
bool Wait::take_all() noexcept {
    bool ready = true;
    bool interrupted = false;
    for (const Waitable* object : objects_) {
        ready = ready && Engine::is_signalled(*object, self_);
        interrupted = interrupted || Engine::interrupts(*object, self_);
    }
    if (!ready && !interrupted) return false;
    result_ = {ready ? WaitResult::Status::Satisfied : WaitResult::Status::Interrupted, 0};
    if (!ready) return true;
    bool abandoned = acquire_all(region_, *sleeper_);
    for (Waitable* object : objects_) {
        if (!Engine::is_named(*object)) abandoned |= Engine::acquire(*object, self_);
    }
    if (abandoned) result_.status = WaitResult::Status::Abandoned;
    return true;
}

bool Wait::take() noexcept {
    return mode_ == WaitMode::All ? take_all() : take_any();
}

void Wait::begin_sleep() noexcept {
    sleeper_->parking.exchange(kAwake, std::memory_order_acq_rel);
    ThreadAccess::park_at(self_, &sleeper_->parking);
    enlist(region_, index_);
    if (!mixed_) return;
    Engine::enlist(self_, objects_, mode_, blocks_);
    ThreadAccess::mixed(self_) = true;
}

// Out of all queues. With the locks held.
void Wait::withdraw() noexcept {
    if (sleeper_->state.load(std::memory_order_relaxed) == Sleeper::Waiting) delist(region_, index_);
    if (mixed_) {
        Engine::delist(self_);
        Engine::stop_waiting(self_);
        ThreadAccess::mixed(self_) = false;
    }
}

void Wait::finish_granted() noexcept {
    const std::uint32_t granted = sleeper_->granted;
    result_.status = sleeper_->abandoned != 0 ? WaitResult::Status::Abandoned : WaitResult::Status::Satisfied;
    result_.index = granted == Sleeper::kAllBlocks ? 0 : sleeper_->blocks[granted].place;
    sleeper_->state.store(Sleeper::Idle, std::memory_order_release);
}

void Wait::finish_completed() noexcept {
    ThreadAccess::mixed(self_) = false;
    result_ = Engine::completed(self_, mode_);
}

// Sleeps until the wait is satisfied (true), or the deadline passes or the thread has to end (false).
bool Wait::sleep(Deadline deadline) {
    for (;;) {
        bool in_time = true;
        if (!ThreadAccess::must_end(self_)) {
            in_time = ThreadAccess::park_on(self_, sleeper_->parking, deadline, FutexScope::Shared);
            if (!mixed_ && is_granted()) {
                finish_granted();
                return true;
            }
        }
        const Locks locks(*this);
        if (is_granted()) {
            withdraw();
            finish_granted();
            return true;
        }
        if (mixed_ && Engine::is_completed(self_)) {
            finish_completed();
            return true;
        }
        const bool stop = !in_time || ThreadAccess::must_end(self_);
        if (stop || (mixed_ && take())) {
            withdraw();
            return !stop;
        }
        sleeper_->parking.exchange(kAwake, std::memory_order_acq_rel);
    }
}

WaitResult Wait::run(Deadline deadline) {
    {
        const Locks locks(*this);
        const bool needs_sleeper = mode_ == WaitMode::All || deadline != Deadline::at_once();
        if (needs_sleeper && !get_sleeper()) return {WaitResult::Status::Failed, 0};
        if (needs_sleeper) fill_blocks();
        hold_all();
        if (take() || deadline == Deadline::at_once()) {
            let_go_all();
            return result_;
        }
        begin_sleep();
    }
    const bool satisfied = sleep(deadline);
    ThreadAccess::park_at(self_, nullptr);
    if (!satisfied) cancellation_point();
    return result_;
}

}  // namespace

bool Shared::is_signalled(const Thread& waiter) const noexcept {
    Session& session = member_.session();
    return named::is_signalled(session.region(), member_.object(), session.owner(waiter));
}

bool Shared::acquire(Thread& waiter) noexcept {
    Session& session = member_.session();
    return named::acquire(session.region(), member_.object(), session.owner(waiter));
}

WaitResult wait(Thread& self, std::span<Waitable* const> objects, WaitMode mode, Deadline deadline) {
    Session* const session = Session::current();
    for (Waitable* object : objects) {
        if (!Engine::is_named(*object) || shared(*object).member().is_valid()) continue;
        report_invalid_handle();
        return {WaitResult::Status::Failed, 0};
    }
    return Wait(*session, self, objects, mode).run(deadline);
}

void serve_mixed(Thread& thread, Waitable& object, std::uint32_t index, Wakeups& wakeups) noexcept {
    const NamedSleeper& own = ThreadAccess::named_sleeper(thread);
    const SessionHold hold(*own.session);
    Region& region = own.session->region();
    Sleeper& sleeper = region.at<Sleeper>(own.index);
    if (sleeper.state.load(std::memory_order_relaxed) != Sleeper::Waiting) return;  // another process was faster
    if (!Engine::take_for(thread, object, [&] { return acquire_all(region, sleeper); })) return;
    delist(region, own.index);
    Engine::complete(thread, index, wakeups);
}

void forget_sleeper(Thread& self) noexcept {
    NamedSleeper& own = ThreadAccess::named_sleeper(self);
    if (!own.session || own.session != Session::current()) return;
    const SessionHold hold(*own.session);
    Region& region = own.session->region();
    region.at<Sleeper>(own.index).state.store(Sleeper::Vacant, std::memory_order_relaxed);
    region.now_vacant<Sleeper>(own.index);
    own = {};
}

}  // namespace zr::platform::named
