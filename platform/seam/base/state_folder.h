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
// does not exist. A ZR_HOME that exists is used as it is, whoever may read it: the user chose it.
ZRPLATFORM_API Folder state_folder() noexcept;

// The folder of what lives as long as the user's session: $XDG_RUNTIME_DIR/zrutility, or zrutility-UID under /tmp when
// that variable is unset. Created with mode 0700. ERROR_ACCESS_DENIED unless it is a real directory (no symbolic link)
// that the user owns and nobody else may enter; a wider mode of a folder that the user owns is narrowed.
ZRPLATFORM_API Folder runtime_folder() noexcept;

}  // namespace zr::platform
