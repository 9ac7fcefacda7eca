#include <gtest/gtest.h>
#include <signal.h>

#include "support/child.h"
#include "support/sandbox.h"

// What the sanitizers are told. They look for these by name.
#define ZR_TOLD(name, text)                                       \
    extern "C" [[gnu::visibility("default")]] const char* name(); \
    extern "C" const char* name() {                               \
        return text;                                              \
    }

// A forked child that starts a thread would be ended. Pango hands what it asks fontconfig for to a thread of its own;
// none of these is instrumented, so that not all of what orders their threads is seen.
ZR_TOLD(__tsan_default_options, "die_after_fork=0")
ZR_TOLD(__tsan_default_suppressions,
        "called_from_lib:libcairo.so\n"
        "called_from_lib:libfontconfig.so\n"
        "called_from_lib:libfreetype.so\n"
        "called_from_lib:libglib-2.0.so\n"
        "called_from_lib:libgobject-2.0.so\n"
        "called_from_lib:libharfbuzz.so\n"
        "called_from_lib:libpango-1.0.so\n"
        "called_from_lib:libpangocairo-1.0.so\n"
        "called_from_lib:libpangoft2-1.0.so\n")
// Fontconfig keeps distances where others keep pointers, so that what it holds cannot be seen to be held.
ZR_TOLD(__lsan_default_options, "print_suppressions=0")
ZR_TOLD(__lsan_default_suppressions, "leak:libfontconfig\n")

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    zr::test::enter_sandbox();
    if (const int result = zr::test::run_as_child(argc, argv); result >= 0) return result;
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    zr::test::leave_sandbox();
    return result;
}
