#include <algorithm>

#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "window_access.h"

using namespace zr::platform;

namespace {

constexpr DWORD kMostHandles = MAXIMUM_WAIT_OBJECTS - 1;

// One call of MsgWaitForMultipleObjectsEx.
class MessageWait {
public:
    MessageWait(MessageQueue& queue, DWORD milliseconds, DWORD mask, DWORD flags)
        : queue_(queue),
          deadline_(Deadline::after(milliseconds)),
          mask_(mask & MessageQueue::kKinds),
          flags_(flags),
          looked_at_(queue.exchange_looked_at(0)) {}
    ~MessageWait() {
        queue_.exchange_looked_at(queue_.exchange_looked_at(0) | looked_at_);
        queue_.clear_bits(MessageQueue::kNews);
    }
    MessageWait(const MessageWait&) = delete;
    MessageWait& operator=(const MessageWait&) = delete;

    bool add(DWORD count, const HANDLE* handles) {
        for (DWORD i = 0; i < count; ++i) {
            if (!set_.add(handles[i])) return false;
        }
        count_ = count;
        // A wait for all of nothing but input is a wait for input.
        if (count > 0 && flags_ & MWMO_WAITALL) mode_ = WaitMode::All;
        return set_.add(queue_);
    }
    bool has_duplicates() const { return set_.has_duplicates(); }

    DWORD run() {
        for (;;) {
            queue_.expire_timers();
            const WaitResult result = wait_once();
            switch (result.status) {
                case WaitResult::Status::TimedOut:
                    if (deadline_.ns <= Deadline::now()) return WAIT_TIMEOUT;
                    break;  // a timer is due
                case WaitResult::Status::Interrupted:
                    if (is_input()) queue_.set_news();
                    break;
                case WaitResult::Status::Failed:
                    return result.code();
                case WaitResult::Status::Abandoned:
                case WaitResult::Status::Satisfied:
                    if (mode_ == WaitMode::All) queue_.clear_bits(MessageQueue::arrived(mask_));
                    if (mode_ == WaitMode::All || result.index < count_ || is_input()) return result.code();
                    break;
            }
        }
    }

private:
    std::uint32_t wanted() const { return MessageQueue::arrived(mask_) | (flags_ & MWMO_INPUTAVAILABLE ? mask_ : 0); }

    WaitResult wait_once() {
        if (mode_ == WaitMode::Any) {
            queue_.want(wanted() | QS_SENDMESSAGE);
        } else {
            queue_.want(wanted() | MessageQueue::kNews, QS_SENDMESSAGE);
        }
        Deadline until = deadline_;
        if (mask_ & QS_TIMER) until = std::min(until, Deadline{queue_.timers().next_due()});
        return set_.wait(mode_, until);
    }

    // Handles what was sent. Whether there is input that ends the wait: that is reported then, and counts as looked at.
    bool is_input() {
        std::uint32_t found = queue_.bits() & wanted();
        if (queue_.serve_sent()) {
            // Procedures ran; what they looked at and left is still news here.
            const std::uint32_t looked_at = queue_.exchange_looked_at(0) & wanted();
            found |=
                (queue_.bits() & wanted()) | (looked_at & MessageQueue::arrived(queue_.bits() & MessageQueue::kKinds));
        }
        if (found) queue_.clear_bits(MessageQueue::arrived(mask_));
        return found != 0;
    }

    MessageQueue& queue_;
    const Deadline deadline_;
    const DWORD mask_;
    const DWORD flags_;
    const std::uint32_t looked_at_;  // what a wait around this one is to know
    DWORD count_ = 0;
    WaitMode mode_ = WaitMode::Any;
    WaitSet set_;
};

}  // namespace

DWORD MsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, DWORD milliseconds, DWORD wake_mask,
                                  DWORD flags) {
    constexpr DWORD kFlags = MWMO_WAITALL | MWMO_ALERTABLE | MWMO_INPUTAVAILABLE;
    if (count > kMostHandles || (count > 0 && !handles) || (flags & ~kFlags)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    MessageQueue* queue = MessageQueue::current();
    if (!queue) return WAIT_FAILED;
    MessageWait wait(*queue, milliseconds, wake_mask, flags);
    if (!wait.add(count, handles)) return WAIT_FAILED;
    if (flags & MWMO_WAITALL && wait.has_duplicates()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return wait.run();
}

DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL wait_all, DWORD milliseconds,
                                DWORD wake_mask) {
    return MsgWaitForMultipleObjectsEx(count, handles, milliseconds, wake_mask, wait_all ? MWMO_WAITALL : 0);
}
