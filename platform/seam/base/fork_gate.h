#pragma once

// Keeps a fork out while a call is in the middle of something that a child would find half done.
//
// Some locks cannot be enumerated at a fork: those of objects that nobody lists, and those of libraries, which keep
// them to themselves. So calls hold a gate while they may hold such a lock, and a fork waits until nobody is inside.
// What a family guards by locks that it can name needs no gate.

#include <condition_variable>
#include <mutex>
#include <new>

namespace zr::platform {

class ForkGate {
public:
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

// A family's gate. Never destroyed: calls may come from a static object's destructor.
template <class Family>
ForkGate& fork_gate() noexcept {
    alignas(ForkGate) static char place[sizeof(ForkGate)];
    static auto* const gate = new (place) ForkGate;
    return *gate;
}

// Held by a call. Calls do not nest.
class [[nodiscard]] InsideGate {
public:
    explicit InsideGate(ForkGate& gate) noexcept : gate_(gate) { gate_.enter(); }
    ~InsideGate() { gate_.leave(); }
    InsideGate(const InsideGate&) = delete;
    InsideGate& operator=(const InsideGate&) = delete;

private:
    ForkGate& gate_;
};

}  // namespace zr::platform
