#pragma once

// Where the platform keeps its state on the host.
//
// The environment is read at each call, so that a test or a parent process can set it. Nothing is thrown: a failure,
// memory shortage included, comes back as an error.

#include <string>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

struct Folder {
    std::string path;     // host path without a trailing slash; empty on failure
    DWORD error = 0;      // ERROR_SUCCESS or why there is no folder
    std::string message;  // one line that names the path and the reason; empty on success

    explicit operator bool() const { return error == 0; }
};

// ZR_HOME, or the zrutility folder under the user's XDG data folder. Created with mode 0700, parents included, when it
// does not exist. One that exists may be readable for others, as the user chose it; the right to write to it is taken
// from them. ERROR_ACCESS_DENIED when it is another user's: what is in it could be anybody's.
ZRPLATFORM_API Folder state_folder() noexcept;

// The folder of what lives as long as the user's session: $XDG_RUNTIME_DIR/zrutility, or zrutility-UID under /tmp when
// that variable is unset, or, when that is another user's, zrutility-UID.1 and so on up to 3. Created with mode 0700.
// ERROR_ACCESS_DENIED unless it is a real directory (no symbolic link) that the user owns; a wider mode is narrowed, so
// that nobody else may enter.
ZRPLATFORM_API Folder runtime_folder() noexcept;

}  // namespace zr::platform
