#pragma once

// What the platform and its screen module say to each other. The module asks display servers, and may wait for as long
// as one says nothing: it is called on a thread that may. Nothing throws.

#include "windowing/screen_facts.h"

namespace zr::platform {

struct ScreenFunctions {
    // What is known of the output that the server of that name shows on first. False: there is no such server, or it
    // does not say.
    bool (*ask_wayland)(const char* name, ScreenFacts& facts) noexcept;
    bool (*ask_x11)(const char* name, ScreenFacts& facts) noexcept;
};

using ScreenFunctionsOf = const ScreenFunctions* (*)();
inline constexpr const char* kScreenModule = "libzrplatform_screen.so";
inline constexpr const char* kScreenFunctions = "zr_screen_functions";

}  // namespace zr::platform
