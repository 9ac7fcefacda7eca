#include "zr/base/terminal.h"

#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace zr {
namespace {

constexpr std::string_view kCut = "…";

bool is_coloured_terminal() {
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    if (refused != nullptr && *refused != '\0') return false;
    if (terminal == nullptr || std::string_view(terminal) == "dumb") return false;
    return is_at_terminal();
}

// The character at the beginning of the text: how many bytes and cells it has.
struct Character {
    std::size_t bytes = 1;
    std::size_t cells = 1;
};

Character first_of(std::string_view text) {
    const gunichar c = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    // What is no character is shown as something of one cell.
    if (c > 0x10FFFF) return {};
    const auto bytes = static_cast<std::size_t>(g_unichar_to_utf8(c, nullptr));
    return {bytes, g_unichar_iszerowidth(c) ? 0U : g_unichar_iswide(c) ? 2U : 1U};
}

std::string in_style(const char* style, std::string_view text) {
    return shows_colour() && !text.empty() ? "\033[" + std::string(style) + "m" + std::string(text) + "\033[0m"
                                           : std::string(text);
}

}  // namespace

bool is_at_terminal() {
    static const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    return terminal;
}

TerminalSize terminal_size() {
    static const TerminalSize size = [] {
        TerminalSize known;
        winsize told = {};
        if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &told) != 0) return known;
        if (told.ws_col > 0) known.columns = told.ws_col;
        if (told.ws_row > 0) known.rows = told.ws_row;
        return known;
    }();
    return size;
}

bool shows_colour() {
    static const bool colour = is_coloured_terminal();
    return colour;
}

std::string strong(std::string_view text) {
    return in_style("1", text);
}

std::string as_reference(std::string_view text) {
    return in_style("36", text);
}

std::size_t cells_of(std::string_view text) {
    std::size_t cells = 0;
    while (!text.empty()) {
        const Character character = first_of(text);
        cells += character.cells;
        text.remove_prefix(character.bytes);
    }
    return cells;
}

std::string cut_to_cells(std::string_view text, std::size_t cells) {
    if (cells_of(text) <= cells) return std::string(text);
    std::size_t kept = 0;
    std::size_t taken = 0;
    while (kept < text.size()) {
        const Character character = first_of(text.substr(kept));
        if (taken + character.cells + 1 > cells) break;
        taken += character.cells;
        kept += character.bytes;
    }
    return std::string(text.substr(0, kept)) + std::string(kCut);
}

}  // namespace zr
