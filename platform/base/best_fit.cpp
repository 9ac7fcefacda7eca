#include "best_fit.h"

#include <algorithm>
#include <iterator>

namespace zr::platform {
namespace {

using Byte = unsigned char;

// U+0100 to U+017F; NUL: none, or one of the code page's own.
constexpr WCHAR kLatinFirst = 0x100;
constexpr char kLatin[] =
    "AaAaAaCcCcCcCcDd"
    "\xD0"
    "dEeEeEeEeEeGgGg"
    "GgGgHhHhIiIiIiIi"
    "Ii\0\0JjKk\0LlLlLl\0"
    "\0LlNnNnNn\0\0\0OoOo"
    "Oo\0\0RrRrRrSsSsSs"
    "\0\0TtTtTtUuUuUuUu"
    "UuUuWwYy\0ZzZz\0\0\0";
static_assert(sizeof kLatin == 128 + 1);

constexpr WCHAR kWideFirst = 0xFF01;  // full-width forms of '!' to '~'
constexpr WCHAR kWideLast = 0xFF5E;

struct Pair {
    WCHAR character;
    Byte byte;
};
constexpr Pair kOthers[] = {
    {0x0180, 'b'},  {0x0189, 0xD0}, {0x0191, 0x83}, {0x0197, 'I'},  {0x019A, 'l'},  {0x019F, 'O'},  {0x01A0, 'O'},
    {0x01A1, 'o'},  {0x01AB, 't'},  {0x01AE, 'T'},  {0x01AF, 'U'},  {0x01B0, 'u'},  {0x01B6, 'z'},  {0x01C0, '|'},
    {0x01C3, '!'},  {0x01CD, 'A'},  {0x01CE, 'a'},  {0x01CF, 'I'},  {0x01D0, 'i'},  {0x01D1, 'O'},  {0x01D2, 'o'},
    {0x01D3, 'U'},  {0x01D4, 'u'},  {0x01D5, 'U'},  {0x01D6, 'u'},  {0x01D7, 'U'},  {0x01D8, 'u'},  {0x01D9, 'U'},
    {0x01DA, 'u'},  {0x01DB, 'U'},  {0x01DC, 'u'},  {0x01DE, 'A'},  {0x01DF, 'a'},  {0x01E4, 'G'},  {0x01E5, 'g'},
    {0x01E6, 'G'},  {0x01E7, 'g'},  {0x01E8, 'K'},  {0x01E9, 'k'},  {0x01EA, 'O'},  {0x01EB, 'o'},  {0x01EC, 'O'},
    {0x01ED, 'o'},  {0x01F0, 'j'},  {0x0261, 'g'},  {0x02B9, '\''}, {0x02BA, '"'},  {0x02BC, '\''}, {0x02C4, '^'},
    {0x02C8, '\''}, {0x02C9, 0xAF}, {0x02CA, 0xB4}, {0x02CB, '`'},  {0x02CD, '_'},  {0x02DA, 0xB0}, {0x0300, '`'},
    {0x0301, 0xB4}, {0x0302, '^'},  {0x0303, '~'},  {0x0304, 0xAF}, {0x0305, 0xAF}, {0x0308, 0xA8}, {0x030A, 0xB0},
    {0x030E, '"'},  {0x0327, 0xB8}, {0x0331, '_'},  {0x0332, '_'},  {0x037E, ';'},  {0x0393, 'G'},  {0x0398, 'T'},
    {0x03A3, 'S'},  {0x03A6, 'F'},  {0x03A9, 'O'},  {0x03B1, 'a'},  {0x03B4, 'd'},  {0x03B5, 'e'},  {0x03BC, 0xB5},
    {0x03C0, 'p'},  {0x03C3, 's'},  {0x03C4, 't'},  {0x03C6, 'f'},  {0x04BB, 'h'},  {0x0589, ':'},  {0x066A, '%'},
    {0x2000, ' '},  {0x2001, ' '},  {0x2002, ' '},  {0x2003, ' '},  {0x2004, ' '},  {0x2005, ' '},  {0x2006, ' '},
    {0x2010, '-'},  {0x2011, '-'},  {0x2017, '='},  {0x2024, 0xB7}, {0x2032, '\''}, {0x2035, '`'},  {0x2044, '/'},
    {0x2070, 0xB0}, {0x2074, '4'},  {0x2075, '5'},  {0x2076, '6'},  {0x2077, '7'},  {0x2078, '8'},  {0x207F, 'n'},
    {0x2080, '0'},  {0x2081, '1'},  {0x2082, '2'},  {0x2083, '3'},  {0x2084, '4'},  {0x2085, '5'},  {0x2086, '6'},
    {0x2087, '7'},  {0x2088, '8'},  {0x2089, '9'},  {0x20A1, 0xA2}, {0x20A4, 0xA3}, {0x20A7, 'P'},  {0x2102, 'C'},
    {0x2107, 'E'},  {0x210A, 'g'},  {0x210B, 'H'},  {0x210C, 'H'},  {0x210D, 'H'},  {0x210E, 'h'},  {0x2110, 'I'},
    {0x2111, 'I'},  {0x2112, 'L'},  {0x2113, 'l'},  {0x2115, 'N'},  {0x2118, 'P'},  {0x2119, 'P'},  {0x211A, 'Q'},
    {0x211B, 'R'},  {0x211C, 'R'},  {0x211D, 'R'},  {0x2124, 'Z'},  {0x2128, 'Z'},  {0x212A, 'K'},  {0x212B, 0xC5},
    {0x212C, 'B'},  {0x212D, 'C'},  {0x212E, 'e'},  {0x212F, 'e'},  {0x2130, 'E'},  {0x2131, 'F'},  {0x2133, 'M'},
    {0x2134, 'o'},  {0x2205, 0xD8}, {0x2212, '-'},  {0x2213, 0xB1}, {0x2215, '/'},  {0x2216, '\\'}, {0x2217, '*'},
    {0x2218, 0xB0}, {0x2219, 0xB7}, {0x221A, 'v'},  {0x221E, '8'},  {0x2223, '|'},  {0x2229, 'n'},  {0x2236, ':'},
    {0x223C, '~'},  {0x2248, 0x98}, {0x2261, '='},  {0x2264, '='},  {0x2265, '='},  {0x226A, 0xAB}, {0x226B, 0xBB},
    {0x22C5, 0xB7}, {0x2302, 0xA6}, {0x2303, '^'},  {0x2310, 0xAC}, {0x2320, '('},  {0x2321, ')'},  {0x2329, '<'},
    {0x232A, '>'},  {0x3000, ' '},  {0x3008, '<'},  {0x3009, '>'},  {0x300A, 0xAB}, {0x300B, 0xBB}, {0x301A, '['},
    {0x301B, ']'},  {0x30FB, 0xB7},
};
static_assert(std::is_sorted(std::begin(kOthers), std::end(kOthers),
                             [](const Pair& left, const Pair& right) { return left.character < right.character; }));

}  // namespace

int best_fit_1252(WCHAR character) noexcept {
    if (character < kLatinFirst) return -1;
    if (character < kLatinFirst + 128) {
        const auto byte = static_cast<Byte>(kLatin[character - kLatinFirst]);
        return byte ? byte : -1;
    }
    if (character >= kWideFirst && character <= kWideLast) return character - kWideFirst + '!';
    const auto* const at = std::lower_bound(std::begin(kOthers), std::end(kOthers), character,
                                            [](const Pair& pair, WCHAR wanted) { return pair.character < wanted; });
    return at != std::end(kOthers) && at->character == character ? at->byte : -1;
}

}  // namespace zr::platform
