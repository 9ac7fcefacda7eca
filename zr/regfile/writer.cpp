#include "zr/regfile/writer.h"

#include <platform/base.h>
#include <platform/registry.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr const char* kLineEnd = "\r\n";
constexpr std::size_t kWidth = 77;  // of lines of bytes, without what ends them

// The text in Windows-1252; nothing when a character of it is not there.
std::optional<std::string> narrowed(std::u16string_view text) {
    std::string bytes(text.size(), '\0');
    if (text.empty()) return bytes;
    BOOL lossy = FALSE;
    const int size = static_cast<int>(text.size());
    const int written =
        WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(), size, bytes.data(), size, nullptr, &lossy);
    if (written != size || lossy) return std::nullopt;
    return bytes;
}

// Whether a reader would take one of the lines for UTF-8.
bool looks_like_utf8(std::string_view lines) {
    for (std::size_t at = 0; at < lines.size();) {
        const std::size_t end = std::min(lines.find('\n', at), lines.size());
        const std::string_view line = lines.substr(at, end - at);
        std::u16string wide;
        if (!is_ascii(line) && to_utf16_with_surrogates(line, wide)) return true;
        at = end + 1;
    }
    return false;
}

std::string escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

// In quotes, where that is the same and can be seen; else nothing.
std::optional<std::string> quoted_data(const RegValue& value) {
    if (value.type != REG_SZ) return std::nullopt;
    const std::optional<std::u16string> text = reg_text(value);
    const auto is_hidden = [](char16_t c) { return (c < 0x20 && c != u'\t') || c == 0x7F; };
    if (!text || std::any_of(text->begin(), text->end(), is_hidden)) return std::nullopt;
    const std::string utf8 = to_utf8_with_surrogates(*text);
    if (!is_utf8(utf8)) return std::nullopt;
    return "\"" + escaped(utf8) + "\"";
}

std::string hex_prefix(DWORD type) {
    char text[16];
    std::snprintf(text, sizeof text, type == REG_BINARY ? "hex:" : "hex(%x):", type);
    return text;
}

}  // namespace

RegWriter::RegWriter(RegVersion version, RegEncoding encoding, Write write)
    : version_(version), encoding_(encoding), write_(std::move(write)) {}

void RegWriter::begin() {
    if (encoding_ == RegEncoding::Utf16) write_("\xFF\xFE");
    if (encoding_ == RegEncoding::Utf8) write_("\xEF\xBB\xBF");
    put(std::string(version_ == RegVersion::V4 ? kRegHeader4 : kRegHeader5) + kLineEnd);
}

std::string RegWriter::key(const RegPath& path) {
    if (path.below.find_first_of(u"\r\n") != std::u16string::npos) return "a line break in a key's name";
    if (!put(kLineEnd + ("[" + to_utf8_with_surrogates(reg_path_text(path)) + "]") + kLineEnd))
        return "a name that Windows-1252 does not have";
    return {};
}

std::string RegWriter::value(std::u16string_view name, const RegValue& value) {
    const std::string start = name.empty() ? "@=" : "\"" + escaped(to_utf8_with_surrogates(name)) + "\"=";
    if (value.type == REG_DWORD && value.data.size() == sizeof(DWORD)) {
        std::string number = "dword:";
        for (std::size_t i = value.data.size(); i-- > 0;) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(value.data[i])));
            number += digits;
        }
        return put(start + number + kLineEnd) ? "" : "a name that Windows-1252 does not have";
    }
    const std::optional<std::string> text = quoted_data(value);
    if (text && put(start + *text + kLineEnd)) return {};
    return put_bytes(start, value);
}

std::string RegWriter::put_bytes(const std::string& start, const RegValue& value) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string data = value.data;
    if (version_ == RegVersion::V4 && (value.type == REG_EXPAND_SZ || value.type == REG_MULTI_SZ)) {
        const auto narrow = data.size() % 2 == 0 ? narrowed(reg_units(data)) : std::nullopt;
        if (!narrow) return "data of " + reg_type_name(value.type) + " that is no text in Windows-1252";
        data = *narrow;
    }
    std::string lines = start + hex_prefix(value.type);
    lines.reserve(lines.size() + 4 * data.size());
    std::size_t width = lines.size();
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (width + 3 > kWidth && i > 0) {
            lines += "\\\r\n  ";
            width = 2;
        }
        const auto byte = static_cast<unsigned char>(data[i]);
        lines += digits[byte >> 4];
        lines += digits[byte & 0xF];
        if (i + 1 < data.size()) lines += ',';
        width += 3;
    }
    return put(lines + kLineEnd) ? "" : "a name that Windows-1252 does not have";
}

// False when the encoding does not have it, or when it would be read back as something else.
bool RegWriter::put(std::string_view lines) {
    if (encoding_ == RegEncoding::Utf8) {
        write_(lines);
        return true;
    }
    std::u16string wide;
    to_utf16_with_surrogates(lines, wide);
    if (encoding_ == RegEncoding::Utf16) {
        write_(reg_bytes(wide));
        return true;
    }
    const std::optional<std::string> bytes = narrowed(wide);
    if (!bytes || looks_like_utf8(*bytes)) return false;
    write_(*bytes);
    return true;
}

}  // namespace zr
