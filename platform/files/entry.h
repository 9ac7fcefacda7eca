#pragma once

// What every function of this family does on entry and on failure.

#include <new>
#include <utility>

#include "base/fail.h"
#include "kernel/thread.h"

namespace zr::platform {

// Runs the body of a platform function: a thread that was asked to end ends here, and a memory shortage inside becomes
// `failure` with ERROR_NOT_ENOUGH_MEMORY.
template <class T, class Body>
T enter(T failure, Body&& body) {
    cancellation_point();
    try {
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, failure);
    }
}

}  // namespace zr::platform
