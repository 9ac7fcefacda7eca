#pragma once

#include <setjmp.h>
#include <unwind.h>

#include "platform/kernel.h"

namespace zr::platform {

// What a thread of CreateThread's runs, and the place on its stack to which an early end leads back.
struct ThreadStart {
    LPTHREAD_START_ROUTINE routine = nullptr;
    LPVOID parameter = nullptr;
    jmp_buf base{};
    std::uintptr_t base_frame = 0;  // frames above this address are the platform's own
    _Unwind_Exception exception{};  // not on the stack, which is gone while it is unwound
};

}  // namespace zr::platform
