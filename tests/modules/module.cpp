// A module for the tests: its identity and version come from the build.

#include "platform/modules.h"

#ifdef MODULE_VERSION
#define WITH_VERSION(...) ZR_MODULE_VERSION(__VA_ARGS__)
WITH_VERSION(MODULE_VERSION)
#endif

#ifdef MODULE_CRASHES
#include <signal.h>
namespace {
const int crash = raise(SIGSEGV);
}
#endif

#ifdef MODULE_ENDS
#include <unistd.h>
#endif

#ifdef MODULE_ID
extern "C" __attribute__((visibility("default"))) int ZrIGetModuleId() {
#ifdef MODULE_ENDS
    _exit(0);
#endif
    return MODULE_ID;
}
#else
extern "C" __attribute__((visibility("default"))) int SomethingElse() {
    return 1;
}
#endif
