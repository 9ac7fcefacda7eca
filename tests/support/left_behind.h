#pragma once

// While it lives, the leak check passes over what the calling thread allocates: what is lost on purpose.

#if defined(ZR_SANITIZE_ADDRESS)
#include <sanitizer/lsan_interface.h>
#endif

namespace zr::test {

class LeftBehind {
public:
#if defined(ZR_SANITIZE_ADDRESS)
    LeftBehind() {
        __lsan_disable();
    }
    ~LeftBehind() {
        __lsan_enable();
    }
#else
    LeftBehind() {}
    ~LeftBehind() {}
#endif
    LeftBehind(const LeftBehind&) = delete;
    LeftBehind& operator=(const LeftBehind&) = delete;
};

}  // namespace zr::test
