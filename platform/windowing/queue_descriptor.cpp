#include "queue_descriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "base/host_fd.h"

namespace zr::platform {

std::unique_ptr<QueueDescriptor> QueueDescriptor::create() noexcept {
    std::unique_ptr<QueueDescriptor> made(new (std::nothrow) QueueDescriptor);
    if (made && !made->open()) made.reset();
    return made;
}

bool QueueDescriptor::open() noexcept {
    epoll_ = above_standard(epoll_create1(EPOLL_CLOEXEC));
    return fill();
}

bool QueueDescriptor::fill() noexcept {
    event_ = above_standard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    timer_ = above_standard(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (epoll_ < 0 || event_ < 0 || timer_ < 0) return false;
    epoll_event readable{};
    readable.events = EPOLLIN;
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, event_, &readable) == 0 &&
           epoll_ctl(epoll_, EPOLL_CTL_ADD, timer_, &readable) == 0;
}

// Three are closed before three are made, so the child need not have room for more.
void QueueDescriptor::make_own() noexcept {
    for (const int descriptor : {timer_, event_, epoll_}) {
        if (descriptor >= 0) close(descriptor);
    }
    const int made = epoll_create1(EPOLL_CLOEXEC);
    if (made >= 0 && made != epoll_) {
        dup3(made, epoll_, O_CLOEXEC);
        close(made);
    }
    const std::int64_t due = due_;
    ready_ = false;
    due_ = INT64_MAX;
    if (!fill()) return;
    set_timer(due);
    set_ready(true);
}

QueueDescriptor::~QueueDescriptor() {
    for (const int descriptor : {timer_, event_, epoll_}) {
        if (descriptor >= 0) close(descriptor);
    }
}

void QueueDescriptor::set_ready(bool ready) noexcept {
    if (ready == ready_) return;
    // Neither can fail: the count only goes between 0 and 1.
    eventfd_t count = 1;
    if (ready) {
        eventfd_write(event_, count);
    } else {
        eventfd_read(event_, &count);
    }
    ready_ = ready;
}

void QueueDescriptor::set_timer(std::int64_t due) noexcept {
    if (due == due_) return;
    constexpr std::int64_t kSecond = 1'000'000'000;
    itimerspec when{};
    if (due != INT64_MAX) {
        // All zero would disarm.
        const std::int64_t at = std::max<std::int64_t>(due, 1);
        when.it_value.tv_sec = static_cast<time_t>(at / kSecond);
        when.it_value.tv_nsec = static_cast<long>(at % kSecond);
    }
    timerfd_settime(timer_, TFD_TIMER_ABSTIME, &when, nullptr);
    due_ = due;
}

}  // namespace zr::platform
