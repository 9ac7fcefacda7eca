// Text that is to fit, cut as if each character were tried. The first bytes say the font, which way it is cut, and the
// room; the rest is text of all scripts.

#include <algorithm>

#include "ZrUtility/Helpers/GraphicalUtilities.h"
#include "platform/gdi.h"
#include "platform/windowing.h"
#include "support/input.h"

namespace {

using zr::fuzz::require;

constexpr WCHAR kEllipsis = 0x2026;
constexpr std::size_t kMost = 40;

HWND window_with(const char16_t* face) {
    WNDCLASSW description{};
    description.style = CS_OWNDC;
    description.lpfnWndProc = DefWindowProcW;
    description.lpszClassName = u"fuzz.font";
    RegisterClassW(&description);
    const HWND made =
        CreateWindowExW(0, description.lpszClassName, nullptr, 0, 0, 0, 9, 9, nullptr, nullptr, nullptr, nullptr);
    LOGFONTW font{};
    font.lfHeight = -13;
    std::u16string_view(face).copy(font.lfFaceName, LF_FACESIZE - 1);
    require(SelectObject(GetDC(made), CreateFontIndirectW(&font)) != nullptr);
    return made;
}

// Never given back: there are two.
HWND window_of(bool is_fixed) {
    static const HWND windows[] = {window_with(u"Sans"), window_with(u"Monospace")};
    return windows[is_fixed ? 1 : 0];
}

// 32 characters each of ASCII and of what else there is.
WCHAR character(std::uint8_t byte) {
    if (byte < 0x80) return byte == 0 ? u' ' : byte;
    constexpr char16_t others[] =
        u"\u00E9\u0416\u03A9\u05D0\u05E9\u0645\u0644\u0627\u0915\u094D\u0937\u0E01\u0E33\u65E5\u3042\uAC00\u2014\u2019"
        u"\u201C\u2026\u0301\u05B8\u200D\uFE0F\u00AD\u202E\u2028";
    constexpr std::size_t count = std::size(others) - 1;
    const std::size_t which = byte - 0x80u;
    return which < 2 * count ? others[which % count] : static_cast<WCHAR>(0xD83D + (which % 2) * (0xDE00 - 0xD83D));
}

int width_of(HWND window, std::u16string_view text) {
    SIZE size{};
    require(GetTextExtentPoint32W(GetDC(window), text.data(), static_cast<int>(text.size()), &size) != FALSE);
    return size.cx;
}

std::u16string cut_by_rounds(HWND window, std::u16string text, int room, bool at_end) {
    std::size_t start = 0;
    while (width_of(window, std::u16string_view(text).substr(start)) > room && text.size() - start > 1) {
        if (at_end) {
            text.pop_back();
            text.back() = kEllipsis;
        } else {
            text[++start] = kEllipsis;
        }
    }
    return text.size() - start > 1 ? text.substr(start) : text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const HWND window = window_of((data[0] & 1) != 0);
    const bool at_end = (data[0] & 2) != 0;
    std::u16string text;
    for (std::size_t i = 2; i < std::min(size, kMost); ++i) {
        text += character(data[i]);
    }
    const int room = width_of(window, text) * data[1] / 250 - 1;
    RECT box{0, 0, room + 2, 20};
    std::u16string cut = text;
    require(GraphicalUtilities::TrimWithEllipsisToRect(window, &box, cut.data(), at_end ? 1 : 0) == 0);
    require(cut.c_str() == cut_by_rounds(window, text, room, at_end));

    const int split = data[1] % static_cast<int>(text.size());
    cut = text;
    require(GraphicalUtilities::TrimWithEllipsisToRectEx(window, &box, cut.data(), split) == 0);
    RECT lines{0, 0, room / 2 + 2, 40};
    cut = text;
    require(GraphicalUtilities::TrimWithEllipsisToRectMultiLine(window, &lines, cut.data(), 1) == 0);
    require(std::u16string_view(cut.c_str()).size() <= text.size());
    return 0;
}
