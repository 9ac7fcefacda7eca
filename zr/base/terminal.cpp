#include "zr/base/terminal.h"

#include <unistd.h>

#include <cstdlib>

namespace zr {

bool shows_colour() {
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    if (refused != nullptr && *refused != '\0') return false;
    if (terminal == nullptr || std::string_view(terminal) == "dumb") return false;
    return ::isatty(STDOUT_FILENO) == 1;
}

std::string strong(std::string_view text) {
    return shows_colour() ? "\033[1m" + std::string(text) + "\033[0m" : std::string(text);
}

}  // namespace zr
