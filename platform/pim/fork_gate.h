#pragma once

// Keeps a fork out while a call is in the middle of something that a child would find half done.
//
// Sessions and applications have locks of their own, which nobody can enumerate. So their calls hold the gate while
// they hold such a lock, and a fork waits until nobody is inside. What the store itself guards needs no gate.

#include <condition_variable>
#include <mutex>
#include <new>

namespace zr::platform::pim {

class ForkGate {
public:
    static ForkGate& instance() noexcept {
        // Never destroyed: sessions may end in a static object's destructor.
        alignas(ForkGate) static char place[sizeof(ForkGate)];
        static auto* const gate = new (place) ForkGate;
        return *gate;
    }

    void enter() noexcept {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !closed_; });
        ++inside_;
    }
    void leave() noexcept {
        const std::lock_guard lock(mutex_);
        if (--inside_ == 0 && closed_) changed_.notify_all();
    }

    // Around a fork. Who comes now waits, so that it is not put off for ever.
    void close() noexcept {
        std::unique_lock lock(mutex_);
        closed_ = true;
        changed_.wait(lock, [this] { return inside_ == 0; });
        static_cast<void>(lock.release());  // kept until the fork is done
    }
    void open() noexcept {
        closed_ = false;
        changed_.notify_all();
        mutex_.unlock();
    }
    void open_in_child() noexcept {
        new (&changed_) std::condition_variable;  // those who waited are not here
        closed_ = false;
        mutex_.unlock();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int inside_ = 0;
    bool closed_ = false;
};

// Held by a call. Calls do not nest.
class InCall {
public:
    InCall() noexcept { ForkGate::instance().enter(); }
    ~InCall() { ForkGate::instance().leave(); }
    InCall(const InCall&) = delete;
    InCall& operator=(const InCall&) = delete;
};

}  // namespace zr::platform::pim
