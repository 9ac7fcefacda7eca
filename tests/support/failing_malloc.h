#pragma once

// The C library's calloc and realloc, under a test's control. The test programs that link zr_test_malloc have them
// replaced.

namespace zr::test {

// While it lives, the calling thread's calloc and realloc succeed `successes` times, then fail. Keep its scope to the
// calls that are tested.
class FailingMalloc {
public:
    explicit FailingMalloc(int successes = 0);
    ~FailingMalloc();
    FailingMalloc(const FailingMalloc&) = delete;
    FailingMalloc& operator=(const FailingMalloc&) = delete;
};

}  // namespace zr::test
