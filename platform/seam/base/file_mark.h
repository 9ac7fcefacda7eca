#pragma once

// Whether a descriptor is still ours. A program may close all descriptors that it finds, and have files of its own
// under their numbers then.

#include "platform/export.h"

namespace zr::platform {

// Marks an open file. Marks are numbers from 1 to 9; each belongs to one user.
ZRPLATFORM_API void mark_file(int fd, int mark) noexcept;

// Whether the descriptor is open, and the file has that mark; where the host keeps no marks, whether it is open.
ZRPLATFORM_API bool has_mark(int fd, int mark) noexcept;

}  // namespace zr::platform
