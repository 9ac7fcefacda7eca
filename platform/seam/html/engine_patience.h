#pragma once

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

// How many milliseconds an engine may take to start, to load or draw a document, and for a call of an object. Tests on
// a busy computer have more of it.
struct EnginePatience {
    DWORD start = 30'000;
    DWORD load = 30'000;
    DWORD call = 5'000;
};
ZRPLATFORM_API EnginePatience& engine_patience() noexcept;

}  // namespace zr::platform
