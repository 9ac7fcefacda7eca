#pragma once

// Handheld paths as paths of the host, and back.
//
// The rules stand in platform/files.h. The root is read from ZR_ROOT once, at the first use. All functions may be
// called from any thread; those that return a string may throw std::bad_alloc, nothing else.

#include <string>
#include <string_view>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

constexpr bool is_separator(WCHAR c) {
    return c == u'\\' || c == u'/';
}

// The host folder that is the root, without a trailing slash: empty for "/".
ZRPLATFORM_API const std::string& host_root();

// One name, converted without loss. A backslash in a host name is U+F05C in the handheld's; where the host name holds
// U+F05B or U+F05C itself, U+F05B stands before it.
ZRPLATFORM_API std::u16string handheld_name(std::string_view host);
ZRPLATFORM_API std::string host_name(std::u16string_view name);

struct HostPath {
    std::string path;     // absolute, no trailing slash but for "/"; meaningful without error only
    DWORD error = 0;      // why there is none: ERROR_PATH_NOT_FOUND, ERROR_FILENAME_EXCED_RANGE, ...
    bool exists = false;  // the last name was there (new_host_path)
    bool root = false;    // it is the root itself
    // The path ends in a separator, so it can be a folder's only: what is there but is none is ERROR_INVALID_NAME, and
    // nothing else may be made there.
    bool names_folder = false;

    explicit operator bool() const { return error == 0; }
};

// The path with its names taken as they are written; the file system is not looked at.
ZRPLATFORM_API HostPath spelled_host_path(LPCWSTR path);

// Whether there is a folder, or a link to one.
ZRPLATFORM_API bool is_folder(const std::string& host_path);

// The path of what is there, names matched ignoring case. The last name may be a link to anywhere or nowhere.
ZRPLATFORM_API HostPath existing_host_path(LPCWSTR path);

// The same, but the last name may be missing: then it is where a file of this name is to be made, or
// ERROR_INVALID_NAME when the handheld forbids such a name.
ZRPLATFORM_API HostPath new_host_path(LPCWSTR path);

// The handheld path of an absolute host path. False when it lies outside the root. Neither is looked up; "." and ".."
// in the host path must have been resolved.
ZRPLATFORM_API bool handheld_path(std::string_view host, std::u16string& path);

}  // namespace zr::platform
