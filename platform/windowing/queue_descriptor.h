#pragma once

// What a foreign event loop polls for a queue: an epoll descriptor over an eventfd (something is in the queue) and a
// timerfd (a timer is due).

#include <cstdint>
#include <memory>

namespace zr::platform {

class QueueDescriptor {
public:
    static std::unique_ptr<QueueDescriptor> create() noexcept;  // empty when descriptors or memory are short
    ~QueueDescriptor();
    QueueDescriptor(const QueueDescriptor&) = delete;
    QueueDescriptor& operator=(const QueueDescriptor&) = delete;

    int pollable() const noexcept { return epoll_; }
    void set_ready(bool ready) noexcept;        // under the queue's lock
    void set_timer(std::int64_t due) noexcept;  // the queue's thread; TimerSet::kNever: none
    // In a forked child, which shares all of it with its parent: something of the child's own under the same number,
    // ready until somebody says otherwise. Where the host has no room for it, a descriptor that tells nothing.
    void make_own() noexcept;

private:
    QueueDescriptor() = default;
    bool open() noexcept;
    bool fill() noexcept;

    int epoll_ = -1;
    int event_ = -1;
    int timer_ = -1;
    bool ready_ = false;
    std::int64_t due_ = INT64_MAX;
};

}  // namespace zr::platform
