#pragma once

// operator new, under a test's control. The test programs that link zr_test_memory have theirs replaced.

namespace zr::test {

// While it lives, the calling thread's operator new succeeds `successes` times, then fails. Keep its scope to the calls
// that are tested.
class FailingNew {
public:
    explicit FailingNew(int successes = 0);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;
};

// How many blocks of operator new are alive in this process.
long live_news();

}  // namespace zr::test
