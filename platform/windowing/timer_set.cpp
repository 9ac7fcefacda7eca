#include "timer_set.h"

#include <atomic>

namespace zr::platform {

UINT_PTR TimerSet::fresh_id() {
    static std::atomic<UINT> next{1};
    for (;;) {
        const UINT id = next.fetch_add(1, std::memory_order_relaxed);
        if (id != 0 && !has(nullptr, id)) return id;
    }
}

void TimerSet::set(HWND window, UINT_PTR id, std::int64_t period, TIMERPROC procedure, std::int64_t now) {
    if (const auto found = timers_.find(key(window, id)); found != timers_.end()) {
        found->second.period = period;
        found->second.procedure = procedure;
        found->second.shown = false;
        move(found->second, pending_, now + period);
        return;
    }
    const auto added = timers_.emplace(key(window, id), Timer{window, id, procedure, period, &pending_, {}}).first;
    try {
        added->second.at = pending_.emplace(now + period, &added->second);
    } catch (...) {
        timers_.erase(added);
        throw;
    }
}

bool TimerSet::kill(HWND window, UINT_PTR id) {
    const auto found = timers_.find(key(window, id));
    if (found == timers_.end()) return false;
    found->second.place->erase(found->second.at);
    timers_.erase(found);
    return true;
}

void TimerSet::kill_window(HWND window) {
    auto at = timers_.lower_bound(key(window, 0));
    while (at != timers_.end() && at->second.window == window) {
        at->second.place->erase(at->second.at);
        at = timers_.erase(at);
    }
}

void TimerSet::clear() {
    pending_.clear();
    ready_.clear();
    timers_.clear();
}

bool TimerSet::expire(std::int64_t now) {
    bool found = false;
    while (!pending_.empty() && pending_.begin()->first <= now) {
        move(*pending_.begin()->second, ready_, pending_.begin()->first);
        found = true;
    }
    return found;
}

void TimerSet::take(Timer& timer, std::int64_t now) {
    // The beat is kept: times that passed meanwhile are left out, not made up for.
    const std::int64_t due = timer.at->first;
    const std::int64_t missed = now > due ? (now - due) / timer.period : 0;
    move(timer, pending_, due + (missed + 1) * timer.period);
}

// The node itself moves, so that nothing is allocated.
void TimerSet::move(Timer& timer, Order& to, std::int64_t due) {
    auto node = timer.place->extract(timer.at);
    node.key() = due;
    timer.at = to.insert(std::move(node));
    timer.place = &to;
}

}  // namespace zr::platform
