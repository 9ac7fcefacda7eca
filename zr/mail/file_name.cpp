#include "zr/mail/file_name.h"

#include <algorithm>

#include "zr/base/text.h"

namespace zr {

std::string safe_file_name(const std::string& name, const std::string& otherwise) {
    constexpr std::size_t kLongest = 200;
    // Behind the last separator of either kind, without what could steer a terminal.
    std::string safe = name.substr(name.find_last_of("/\\") + 1);
    if (printable(safe) != safe) {
        std::string kept;
        for (std::size_t i = 0; i < safe.size();) {
            std::size_t length = 1;
            while (i + length < safe.size() && (static_cast<unsigned char>(safe[i + length]) & 0xC0) == 0x80) {
                ++length;
            }
            const std::string character = safe.substr(i, length);
            kept += printable(character) == character ? character : "_";
            i += length;
        }
        safe = kept;
    }
    const std::size_t begin = std::min(safe.find_first_not_of(". "), safe.size());
    safe.erase(0, begin);
    while (safe.ends_with(' ') || safe.ends_with('.')) {
        safe.pop_back();
    }
    if (safe.size() > kLongest) {
        // The ending says what it is.
        const std::size_t dot = safe.rfind('.');
        std::string ending = dot == std::string::npos || safe.size() - dot > 20 ? "" : safe.substr(dot);
        std::size_t end = kLongest - ending.size();
        while (end > 0 && (static_cast<unsigned char>(safe[end]) & 0xC0) == 0x80) {
            --end;
        }
        safe = safe.substr(0, end) + ending;
    }
    return safe.empty() ? otherwise : safe;
}

}  // namespace zr
