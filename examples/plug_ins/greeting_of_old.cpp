// The same plug-in as it was in an earlier version of the product.

#include <platform/modules.h>

#include "greeting.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

ZR_MODULE_VERSION(1, 4, 0, 96, 0)

EXPORT int ZrIGetModuleId() {
    return kGreetingModule;
}

EXPORT const char* Greet(const char*) {
    return "Hello.";
}
