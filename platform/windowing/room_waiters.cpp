#include "room_waiters.h"

#include <condition_variable>
#include <mutex>
#include <new>

#include "base/forks.h"
#include "message_queue.h"

namespace zr::platform {
namespace {

constinit std::mutex waiters_lock;
std::condition_variable told;  // a call of room() has returned

}  // namespace

void RoomWaiters::add(MessageQueue& queue, RoomWaiter& waiter) noexcept {
    const std::lock_guard guard(waiters_lock);
    waiter.state_ = RoomWaiter::State::Listed;
    waiter.queue_ = &queue;
    waiter.next_ = queue.room_waiters();
    queue.set_room_waiters(&waiter);
}

void RoomWaiters::remove(RoomWaiter& waiter) noexcept {
    std::unique_lock guard(waiters_lock);
    // A call that the fork caught is not made in the child.
    told.wait(guard, [&waiter] {
        return waiter.state_ != RoomWaiter::State::Calling || waiter.generation_ != fork_generation();
    });
    if (waiter.state_ == RoomWaiter::State::Listed) {
        RoomWaiter* first = waiter.queue_->room_waiters();
        if (first == &waiter) {
            waiter.queue_->set_room_waiters(waiter.next_);
        } else {
            while (first->next_ != &waiter) {
                first = first->next_;
            }
            first->next_ = waiter.next_;
        }
    }
    waiter.state_ = RoomWaiter::State::Idle;
}

void RoomWaiters::tell(MessageQueue& queue) noexcept {
    if (!queue.room_waiters()) return;
    std::unique_lock guard(waiters_lock);
    while (RoomWaiter* const waiter = queue.room_waiters()) {
        queue.set_room_waiters(waiter->next_);
        waiter->state_ = RoomWaiter::State::Calling;
        waiter->generation_ = fork_generation();
        guard.unlock();
        waiter->room();
        guard.lock();
        waiter->state_ = RoomWaiter::State::Idle;
        told.notify_all();
    }
}

void RoomWaiters::lock() noexcept {
    waiters_lock.lock();
}

void RoomWaiters::unlock() noexcept {
    waiters_lock.unlock();
}

void RoomWaiters::unlock_in_child() noexcept {
    new (&told) std::condition_variable;  // those who waited are not here
    waiters_lock.unlock();
}

void forget_room(RoomWaiter& waiter) noexcept {
    RoomWaiters::remove(waiter);
}

}  // namespace zr::platform
