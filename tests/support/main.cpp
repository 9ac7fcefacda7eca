#include <gtest/gtest.h>
#include <signal.h>

#include "support/child.h"
#include "support/sandbox.h"

// The thread sanitizer would end a forked child that starts a thread.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "die_after_fork=0";
}

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    zr::test::enter_sandbox();
    if (const int result = zr::test::run_as_child(argc, argv); result >= 0) return result;
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    zr::test::leave_sandbox();
    return result;
}
