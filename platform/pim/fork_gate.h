#pragma once

// Keeps a fork out while a call is in the middle of something that a child would find half done.
//
// Sessions and applications have locks of their own, which nobody can enumerate. So their calls hold the gate while
// they hold such a lock, and a fork waits until nobody is inside. What the store itself guards needs no gate.

#include <pthread.h>

namespace zr::platform::pim {

class ForkGate {
public:
    static void close() noexcept { pthread_rwlock_wrlock(&lock_); }
    static void open() noexcept { pthread_rwlock_unlock(&lock_); }
    // Who closed it was a thread of the parent.
    static void open_in_child() noexcept { lock_ = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP; }

private:
    friend class InCall;

    // A fork does not wait for calls that begin after it.
    static inline pthread_rwlock_t lock_ = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
};

// Held by a call. Calls do not nest.
class InCall {
public:
    InCall() noexcept { pthread_rwlock_rdlock(&ForkGate::lock_); }
    ~InCall() { pthread_rwlock_unlock(&ForkGate::lock_); }
    InCall(const InCall&) = delete;
    InCall& operator=(const InCall&) = delete;
};

}  // namespace zr::platform::pim
