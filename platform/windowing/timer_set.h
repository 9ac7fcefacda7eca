#pragma once

// One thread's timers, ordered by when they are due. Only that thread uses them.
//
// A timer waits in `pending`, is moved to `ready` when its time has come, and goes back, to its next time, when its
// message is taken. So a timer has at most one message due, and finding the next one costs the same however many wait.

#include <cstdint>
#include <map>
#include <utility>

#include "platform/windowing.h"

namespace zr::platform {

class TimerSet {
public:
    static constexpr std::int64_t kNever = INT64_MAX;

    struct Timer;
    using Order = std::multimap<std::int64_t, Timer*>;  // equal times in order of setting
    struct Timer {
        HWND window;
        UINT_PTR id;
        TIMERPROC procedure;
        std::int64_t period;
        Order* place;
        Order::iterator at;
        bool shown = false;  // its message was looked at and left
    };

    TimerSet() = default;
    TimerSet(const TimerSet&) = delete;
    TimerSet& operator=(const TimerSet&) = delete;

    bool empty() const noexcept { return timers_.empty(); }
    const Timer* find(HWND window, UINT_PTR id) const {
        const auto found = timers_.find(key(window, id));
        return found == timers_.end() ? nullptr : &found->second;
    }
    bool has(HWND window, UINT_PTR id) const { return find(window, id) != nullptr; }
    // Of a timer without window. No other thread's timer gets the same one, so that a table that threads share, or that
    // outlives one, can tell timers by it.
    UINT_PTR fresh_id();
    // All times are nanoseconds of the monotonic clock. May throw std::bad_alloc; the timer is as it was then.
    void set(HWND window, UINT_PTR id, std::int64_t period, TIMERPROC procedure, std::int64_t now);
    bool kill(HWND window, UINT_PTR id);
    void kill_window(HWND window);
    void clear();

    // When the first timer is or was due.
    std::int64_t first_due() const noexcept {
        if (!ready_.empty()) return ready_.begin()->first;
        return pending_.empty() ? kNever : pending_.begin()->first;
    }
    // When the first timer is due that expire() has not found yet.
    std::int64_t next_due() const noexcept { return pending_.empty() ? kNever : pending_.begin()->first; }

    bool expire(std::int64_t now);  // true when a timer became ready
    const Order& ready() const noexcept { return ready_; }
    void take(Timer& timer, std::int64_t now);  // its message was taken: wait for the next time

private:
    using Key = std::pair<UINT_PTR, UINT_PTR>;
    static Key key(HWND window, UINT_PTR id) { return {reinterpret_cast<UINT_PTR>(window), id}; }

    void move(Timer& timer, Order& to, std::int64_t due);

    std::map<Key, Timer> timers_;
    Order pending_;
    Order ready_;
};

}  // namespace zr::platform
