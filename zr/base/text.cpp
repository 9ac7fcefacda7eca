#include "zr/base/text.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>

namespace zr {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool is_ascii_byte(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

bool is_high(char16_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool is_low(char16_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

// The code point at `at`, which moves past it; kReplacement for one byte that starts nothing valid.
char32_t next_code_point(std::string_view text, std::size_t& at, bool& valid, bool surrogates = false) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(at);
    valid = true;
    if (first < 0x80) {
        ++at;
        return first;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    static constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
    char32_t c = first & (0xFF >> (length + 1));
    bool good = first >= 0xC2 && first <= 0xF4 && at + length <= text.size();
    for (std::size_t i = 1; good && i < length; ++i) {
        good = (byte(at + i) & 0xC0) == 0x80;
        c = c << 6 | (byte(at + i) & 0x3F);
    }
    if (!good || c < smallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF && !surrogates)) {
        valid = false;
        ++at;
        return kReplacement;
    }
    at += length;
    return c;
}

std::string encode(std::u16string_view text, bool surrogates) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (is_high(text[i]) && i + 1 < text.size() && is_low(text[i + 1])) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
        } else if (!surrogates && (is_high(text[i]) || is_low(text[i]))) {
            c = kReplacement;
        }
        append_utf8(out, c);
    }
    return out;
}

// Whether all of it was valid.
bool decode(std::string_view text, bool surrogates, std::u16string& out) {
    const auto end = std::find_if_not(text.begin(), text.end(), is_ascii_byte);
    out.assign(text.begin(), end);
    out.reserve(text.size());
    bool all_valid = true;
    for (auto at = static_cast<std::size_t>(end - text.begin()); at < text.size();) {
        bool valid;
        const char32_t c = next_code_point(text, at, valid, surrogates);
        all_valid = all_valid && valid;
        if (c < 0x10000) {
            out += static_cast<char16_t>(c);
        } else {
            out += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
        }
    }
    return all_valid;
}

bool hides_or_reorders(char32_t c) {
    // The joiners U+200C and U+200D are spelling in several scripts and stay.
    return c == 0x200B || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2060 && c <= 0x2069) ||
           c == 0x2028 || c == 0x2029 || c == 0xFEFF;
}

}  // namespace

void append_utf8(std::string& out, char32_t c) {
    const auto put = [&](char32_t byte) { out += static_cast<char>(byte); };
    if (c < 0x80) {
        put(c);
    } else if (c < 0x800) {
        put(0xC0 | c >> 6);
        put(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        put(0xE0 | c >> 12);
        put(0x80 | (c >> 6 & 0x3F));
        put(0x80 | (c & 0x3F));
    } else {
        put(0xF0 | c >> 18);
        put(0x80 | (c >> 12 & 0x3F));
        put(0x80 | (c >> 6 & 0x3F));
        put(0x80 | (c & 0x3F));
    }
}

std::string to_utf8(std::u16string_view text) {
    return encode(text, false);
}

std::string to_utf8_with_surrogates(std::u16string_view text) {
    return encode(text, true);
}

std::u16string to_utf16(std::string_view text) {
    std::u16string out;
    decode(text, false, out);
    return out;
}

bool to_utf16_with_surrogates(std::string_view text, std::u16string& out) {
    return decode(text, true, out);
}

bool is_ascii(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(), is_ascii_byte);
}

bool is_utf8(std::string_view bytes) {
    std::size_t at =
        static_cast<std::size_t>(std::find_if_not(bytes.begin(), bytes.end(), is_ascii_byte) - bytes.begin());
    bool valid = true;
    while (valid && at < bytes.size()) {
        next_code_point(bytes, at, valid);
    }
    return valid;
}

bool decode_charset(std::string_view bytes, const std::string& charset, std::string& out) {
    if (equal_ignoring_case(charset, "UTF-8") || equal_ignoring_case(charset, "UTF8")) {
        if (!is_utf8(bytes)) return false;
        out = bytes;
        return true;
    }
    gsize read = 0;
    gsize written = 0;
    const std::unique_ptr<gchar, decltype(&g_free)> text(
        g_convert(bytes.data(), static_cast<gssize>(bytes.size()), "UTF-8", charset.c_str(), &read, &written, nullptr),
        &g_free);
    if (!text || read != bytes.size()) return false;
    out.assign(text.get(), written);
    return true;
}

std::string decode_windows_1252(std::string_view bytes) {
    static constexpr std::array<char16_t, 32> upper_controls = {
        0x20AC, 0x81,   0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
        0x2039, 0x0152, 0x8D,   0x017D, 0x8F,   0x90,   0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
        0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x9D,   0x017E, 0x0178};
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        append_utf8(out, byte >= 0x80 && byte < 0xA0 ? upper_controls[byte - 0x80] : byte);
    }
    return out;
}

std::string printable(std::string_view text) {
    std::string out;
    bool valid;
    for (std::size_t at = 0; at < text.size();) {
        const char32_t c = next_code_point(text, at, valid);
        char escape[12];
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || (c >= 0x7F && c < 0xA0)) {
            std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(c));
            out += escape;
        } else if (hides_or_reorders(c)) {
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        } else {
            append_utf8(out, c);
        }
    }
    return out;
}

std::string quoted(std::string_view text) {
    std::string doubled;
    for (const char c : text) {
        if (c == '"' || c == '\\') doubled += '\\';
        doubled += c;
    }
    return '"' + printable(doubled) + '"';
}

std::string unmistakable(std::string_view text) {
    return text.starts_with('"') || printable(text) != text ? quoted(text) : std::string(text);
}

std::string folded(std::string_view text) {
    if (!is_utf8(text)) return std::string(text);
    const std::unique_ptr<gchar, decltype(&g_free)> out(g_utf8_casefold(text.data(), static_cast<gssize>(text.size())),
                                                        &g_free);
    return out.get();
}

bool contains_folded(std::string_view text, const std::string& folded_part) {
    return folded(text).find(folded_part) != std::string::npos;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && g_ascii_strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string upper(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        c = g_ascii_toupper(c);
    }
    return out;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace zr
