// Paths between a program that talks in the host's terms and the platform.

#include <algorithm>
#include <string>

#include "entry.h"
#include "files/host_path.h"
#include "platform/files.h"

namespace zr::platform {
namespace {

template <class Char>
DWORD hand_out(const std::basic_string<Char>& text, Char* out, DWORD size) {
    const auto length = static_cast<DWORD>(text.size());
    if (length >= size) return length + 1;
    if (!out) return fail(ERROR_INVALID_PARAMETER, DWORD{0});
    std::copy_n(text.c_str(), length + 1, out);
    return length;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

DWORD ZrHandheldPath(const char* host, LPWSTR out, DWORD size) {
    return enter(DWORD{0}, [&] {
        if (!host) return fail(ERROR_INVALID_PARAMETER, DWORD{0});
        std::u16string path;
        if (!handheld_path(host, path)) return fail(ERROR_PATH_NOT_FOUND, DWORD{0});
        if (path.size() >= MAX_PATH) return fail(ERROR_FILENAME_EXCED_RANGE, DWORD{0});
        return hand_out(path, out, size);
    });
}

DWORD ZrHostPath(LPCWSTR path, char* out, DWORD size) {
    return enter(DWORD{0}, [&] {
        const HostPath host = spelled_host_path(path);
        return host.error ? fail(host.error, DWORD{0}) : hand_out(host.path, out, size);
    });
}
