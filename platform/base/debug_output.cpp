#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "base/utf.h"
#include "platform/base.h"

namespace {

// A unit of UTF-16 has at most three bytes.
constexpr std::size_t kUnitsAtOnce = 256;

bool somebody_listens() {
    const char* const wanted = std::getenv("ZR_DEBUG_OUTPUT");
    return wanted != nullptr && wanted[0] != '\0';
}

// What can be written at once without parting a pair.
std::u16string_view beginning_of(std::u16string_view text) {
    if (text.size() <= kUnitsAtOnce) return text;
    const bool parted = (text[kUnitsAtOnce - 1] & 0xFC00) == 0xD800;
    return text.substr(0, parted ? kUnitsAtOnce - 1 : kUnitsAtOnce);
}

void write_all(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(STDERR_FILENO, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

}  // namespace

void OutputDebugStringW(const WCHAR* text) {
    if (text == nullptr || !somebody_listens()) return;
    const int kept = errno;
    std::array<char, kUnitsAtOnce * 3> bytes;
    for (std::u16string_view rest(text); !rest.empty();) {
        const std::u16string_view part = beginning_of(rest);
        const std::size_t length = zr::platform::wide_to_host(part, bytes);
        write_all({bytes.data(), std::min(length, bytes.size())});
        rest.remove_prefix(part.size());
    }
    errno = kept;
}
