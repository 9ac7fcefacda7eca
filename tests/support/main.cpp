#include <gtest/gtest.h>
#include <signal.h>

#include "support/child.h"
#include "support/each_alone.h"
#include "support/sandbox.h"

// What the thread sanitizer is told, which looks for these by name. A forked child that starts a thread would be ended;
// and each process would sleep a second before it ends.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "die_after_fork=0:atexit_sleep_ms=20";
}

// Pango hands what it asks fontconfig for to a thread of its own; newer versions of libXau free when the process ends
// what a thread that has ended made. None of these is instrumented, so that not all of what orders their threads is
// seen.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libXau.so\n"
           "called_from_lib:libcairo.so\n"
           "called_from_lib:libfontconfig.so\n"
           "called_from_lib:libfreetype.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libharfbuzz.so\n"
           "called_from_lib:libpango-1.0.so\n"
           "called_from_lib:libpangocairo-1.0.so\n"
           "called_from_lib:libpangoft2-1.0.so\n";
}

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    if (zr::test::wants_each_alone(argc, argv)) return zr::test::run_each_alone(argc, argv);
    zr::test::enter_sandbox();
    if (const int result = zr::test::run_as_child(argc, argv); result >= 0) return result;
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    zr::test::leave_sandbox();
    return result;
}
