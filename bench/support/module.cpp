// What the benchmark of modules copies and loads.

#include "platform/modules.h"

ZR_MODULE_VERSION(1, 2, 3, 4, 0)

extern "C" __attribute__((visibility("default"))) int ZrIGetModuleId() {
    return 7;
}
