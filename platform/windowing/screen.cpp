#include "platform/screen.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

#include "output.h"
#include "windowing/screen_facts.h"

namespace zr::platform {
namespace {

constexpr ScreenFacts kUsual = {240, 320, 24, 96, 96};
constexpr int kMost = 32767;
constexpr int kMostDots = 9600;

// Takes a number off the front of a text.
bool read_number(std::string_view& text, int& number, int most) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return error == std::errc() && number >= 1 && number <= most;
}

bool skip(std::string_view& text, char c) {
    if (!text.starts_with(c)) return false;
    text.remove_prefix(1);
    return true;
}

// WIDTHxHEIGHT or WIDTHxHEIGHT@DOTS.
bool read_screen(std::string_view text, ScreenFacts& screen) {
    screen = kUsual;
    if (!read_number(text, screen.width, kMost) || !skip(text, 'x') || !read_number(text, screen.height, kMost)) {
        return false;
    }
    if (skip(text, '@') && !read_number(text, screen.dots_across, kMostDots)) return false;
    screen.dots_down = screen.dots_across;
    return text.empty();
}

}  // namespace

ScreenFacts screen_facts() noexcept {
    ScreenFacts screen = kUsual;
    const char* const wanted = std::getenv("ZR_SCREEN");
    if (wanted != nullptr && read_screen(wanted, screen)) return screen;
    return find_output(screen) ? screen : kUsual;
}

}  // namespace zr::platform

int GetSystemMetrics(int index) {
    switch (index) {
        case SM_CXSCREEN:
        case SM_CXFULLSCREEN:
            return zr::platform::screen_facts().width;
        case SM_CYSCREEN:
        case SM_CYFULLSCREEN:
            return zr::platform::screen_facts().height;
        case SM_CXBORDER:
        case SM_CYBORDER:
            return 1;
        case SM_CXVSCROLL:
        case SM_CYHSCROLL:
            return 13;
        case SM_CXICON:
        case SM_CYICON:
            return 32;
        case SM_CXSMICON:
        case SM_CYSMICON:
            return 16;
        default:
            return 0;
    }
}
