#pragma once

// The sentences behind the calls that say in words what went wrong.

#include <span>
#include <string_view>

#include "platform/types.h"

namespace zr::platform {

// Writes the sentence (UTF-8) into `room`, cut to what it holds, and terminates it. For fixed buffers: it has to work
// when memory has run out.
void keep_sentence(std::span<WCHAR> room, std::string_view sentence) noexcept;

}  // namespace zr::platform
