// A module for the tests: its identity and version come from the build.

#include "platform/modules.h"

#ifdef MODULE_VERSION
#define WITH_VERSION(...) ZR_MODULE_VERSION(__VA_ARGS__)
WITH_VERSION(MODULE_VERSION)
#endif

#ifdef MODULE_ID
extern "C" __attribute__((visibility("default"))) int ZrIGetModuleId() {
    return MODULE_ID;
}
#else
extern "C" __attribute__((visibility("default"))) int SomethingElse() {
    return 1;
}
#endif
