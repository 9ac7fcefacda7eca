// A plug-in: a shared object with an identity, a version and something to call. examples/modules.cpp looks for it.
//
//   g++ -std=c++20 -shared -fPIC greeting.cpp -o greeting.so $(pkg-config --cflags ZrUtility)
//
// The version stands in the file, where it is read without loading it:
//
//   $ readelf -n greeting.so
//   Displaying notes found in: .note.zrutility.version
//     Owner                Data size        Description
//     ZrUtility            0x00000034       NT_VERSION (version)
//      description data: bd 04 ef fe 00 00 01 00 01 00 02 00 a1 01 00 00 01 00 02 00 a1 01 00 00 ...
//
// After the signature (FEEF04BD) and the structure's own version come the file's and the product's version, twice
// 2.1.0.417 here.

#include "greeting.h"

#include <platform/modules.h>

#include <string>

#define EXPORT extern "C" __attribute__((visibility("default")))

ZR_MODULE_VERSION(2, 1, 0, 417, 0)

EXPORT int ZrIGetModuleId() {
    return kGreetingModule;
}

EXPORT const char* Greet(const char* name) {
    static std::string text;
    text = std::string("Good morning, ") + name + "!";
    return text.c_str();
}
