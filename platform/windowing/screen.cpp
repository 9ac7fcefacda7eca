#include "platform/screen.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace {

struct Size {
    int width;
    int height;
};

constexpr Size kUsual = {240, 320};
constexpr int kMost = 32767;

// Takes a number off the front of a text.
bool read_extent(std::string_view& text, int& extent) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), extent);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return error == std::errc() && extent >= 1 && extent <= kMost;
}

Size screen() {
    const char* const wanted = std::getenv("ZR_SCREEN");
    if (wanted == nullptr) return kUsual;
    std::string_view text = wanted;
    Size size{};
    if (!read_extent(text, size.width) || !text.starts_with('x')) return kUsual;
    text.remove_prefix(1);
    return read_extent(text, size.height) && text.empty() ? size : kUsual;
}

}  // namespace

int GetSystemMetrics(int index) {
    if (index == SM_CXSCREEN) return screen().width;
    if (index == SM_CYSCREEN) return screen().height;
    return 0;
}
