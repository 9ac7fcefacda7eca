#pragma once

// For the one source of a program that begins with WinMain: makes the program begin there. Include it there only, for
// it defines main. WinMain is given the program's own module, no previous instance, the words of the command line
// behind the program's name (in quotes where they hold blanks, a backslash in front of a quote) and SW_SHOWNORMAL.

#include <string>

#include "platform/platform.h"

inline constexpr int SW_SHOWNORMAL = 1;

int WINAPI WinMain(HINSTANCE instance, HINSTANCE previous, LPWSTR command_line, int show);

namespace zr::platform {

// Text of the host's, as the program is to see it.
inline std::u16string wide_argument(const char* text) {
    std::u16string wide(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0)), u'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, wide.data(), static_cast<int>(wide.size()));
    wide.pop_back();
    return wide;
}

inline std::u16string quoted_argument(const std::u16string& word) {
    if (!word.empty() && word.find_first_of(u" \t\"") == word.npos) return word;
    std::u16string quoted = u"\"";
    std::size_t backslashes = 0;  // in front of a quote each has to be two
    for (const WCHAR unit : word) {
        if (unit == u'"') quoted.append(backslashes + 1, u'\\');
        backslashes = unit == u'\\' ? backslashes + 1 : 0;
        quoted += unit;
    }
    return quoted.append(backslashes, u'\\') + u'"';
}

}  // namespace zr::platform

int main(int count, char** words) {
    std::u16string line;
    for (int i = 1; i < count; ++i) {
        if (i > 1) line += u' ';
        line += zr::platform::quoted_argument(zr::platform::wide_argument(words[i]));
    }
    return WinMain(GetModuleHandleW(nullptr), nullptr, line.data(), SW_SHOWNORMAL);
}
