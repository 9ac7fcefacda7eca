#include "zr/vcard/lines.h"

#include <glib.h>

#include <algorithm>
#include <utility>

#include "zr/base/content_line.h"
#include "zr/base/text.h"

namespace zr {
namespace {

bool is_base64(std::string_view line) {
    return !line.empty() && std::all_of(line.begin(), line.end(),
                                        [](char c) { return g_ascii_isalnum(c) || c == '+' || c == '/' || c == '='; });
}

std::string decode_quoted_printable(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '=' && i + 2 < text.size() && g_ascii_isxdigit(text[i + 1]) && g_ascii_isxdigit(text[i + 2])) {
            out += static_cast<char>(g_ascii_xdigit_value(text[i + 1]) << 4 | g_ascii_xdigit_value(text[i + 2]));
            i += 2;
        } else if (text[i] != '=' || i + 1 != text.size()) {
            out += text[i];
        }
    }
    return out;
}

// Whether text of this set may look like ASCII and mean something else.
bool shifts_ascii(std::string_view charset) {
    return charset.starts_with("ISO-2022") || charset.starts_with("UTF-7") || charset.starts_with("HZ");
}

// Whether a value means itself, whatever its set.
bool is_plain_ascii(std::string_view value) {
    return std::all_of(value.begin(), value.end(), [](char c) { return c >= ' ' && c < 0x7F && c != '\\'; });
}

// Makes every backslash of a written value one of the escapes of vCard 3.0: a needless one goes, a plain one is
// doubled.
std::string with_clean_escapes(std::string_view value) {
    std::string out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\r') {
            out += "\\n";  // a carriage return inside of a line would end it for other readers
            continue;
        }
        if (value[i] != '\\') {
            out += value[i];
            continue;
        }
        const char next = i + 1 < value.size() ? value[i + 1] : '\0';
        if (next == 'n' || next == 'N' || next == ';' || next == ',' || next == '\\') {
            out += '\\';
            out += next;
            ++i;
        } else if (next == ':' || next == '"') {
            out += next;
            ++i;
        } else {
            out += "\\\\";
        }
    }
    return out;
}

}  // namespace

bool PropertyLines::next(PropertyLine& property) {
    while (at_ < card_.lines.size()) {
        CardHeader header;
        if (!take_line(header)) continue;
        build(header, property);
        return true;
    }
    return false;
}

// Takes the next line and reads its header; false when it is blank or no property.
bool PropertyLines::take_line(CardHeader& header) {
    line_ = card_.lines[at_].number;
    text_ = card_.line(at_++);
    if (trimmed(text_).empty()) return false;
    if (!read_card_header(text_, header)) {
        lost(header.trouble);
        return false;
    }
    if (header.base64) append_bare_base64();
    return true;
}

// Some programs write the lines of a photo without the blank that folding asks for.
void PropertyLines::append_bare_base64() {
    while (at_ < card_.lines.size() && is_base64(card_.line(at_))) {
        text_ += card_.line(at_++);
    }
}

void PropertyLines::build(const CardHeader& header, PropertyLine& property) {
    property.line = line_;
    property.name = header.name;
    const std::string_view text = text_;
    const bool agent =
        trimmed(text.substr(header.value)).empty() && at_ < card_.lines.size() && is_card_begin(card_.line(at_));
    property.text = text.substr(0, header.name_end);
    property.name_end = property.text.size();
    property.text += header.parameters;
    if (!is_utf8(property.text)) property.text = decode_windows_1252(property.text);
    property.text += ':';
    property.value = property.text.size();
    const std::string_view value = text.substr(header.value);
    if (agent) {
        read_agent(property);
    } else if (header.quoted_printable) {
        // A semicolon that is written as such separates; an encoded one is text.
        for (std::size_t at = 0;;) {
            const std::size_t stop = std::min(value.find(';', at), value.size());
            const bool escaped = stop > at && stop < value.size() && value[stop - 1] == '\\';
            const std::string_view part = value.substr(at, stop - at - (escaped ? 1 : 0));
            append_escaped_text(property.text, to_utf8_value(decode_quoted_printable(part), header.charset));
            if (stop == value.size()) break;
            property.text += escaped ? "\\;" : ";";
            at = stop + 1;
        }
    } else if (header.base64) {
        std::copy_if(value.begin(), value.end(), std::back_inserter(property.text), [](char c) {
            return is_base64({&c, 1});
        });
    } else if (is_plain_ascii(value) && !shifts_ascii(header.charset)) {
        property.text += value;
    } else {
        std::string decoded = to_utf8_value(value, header.charset);
        property.text +=
            decoded.find_first_of("\\\r") == std::string_view::npos ? decoded : with_clean_escapes(decoded);
    }
}

// The card of another person inside this one becomes the text that vCard 3.0 writes for it.
void PropertyLines::read_agent(PropertyLine& property) {
    int depth = 0;
    std::string nested;
    while (at_ < card_.lines.size()) {
        const std::string_view line = card_.line(at_++);
        nested += line;
        nested += '\n';
        if (is_card_begin(line)) ++depth;
        if (is_card_end(line) && --depth == 0) break;
    }
    append_escaped_text(property.text, to_utf8_value(nested, ""));
}

// The bytes of a value as UTF-8: of the declared set, else as they are, else read as Windows-1252 and said so.
std::string PropertyLines::to_utf8_value(std::string_view value, const std::string& charset) {
    std::string decoded;
    const bool ascii = std::all_of(value.begin(), value.end(),
                                   [](char c) { return c != '\0' && static_cast<unsigned char>(c) < 0x80; });
    if (ascii && !shifts_ascii(charset)) return std::string(value);
    if (!charset.empty() && !card_.utf16 && decode_charset(value, charset, decoded)) {
        // as declared
    } else if (is_utf8(value)) {
        decoded = value;
        if (!charset.empty() && !card_.utf16 && !ascii) guessed("not " + charset + " as declared; read as UTF-8");
    } else if (card_.utf16) {
        decoded = to_utf8(to_utf16(value));
        guessed("not valid UTF-16; the unreadable characters are marked");
    } else {
        decoded = decode_windows_1252(value);
        guessed((charset.empty() ? "not valid UTF-8" : "not " + charset + " as declared") + "; read as Windows-1252");
    }
    for (std::size_t nul = decoded.find('\0'); nul != std::string::npos; nul = decoded.find('\0', nul)) {
        decoded.replace(nul, 1, "\xEF\xBF\xBD");
        if (problems_.empty() || problems_.back().line != line_) guessed("holds a zero byte; it is marked");
    }
    return decoded;
}

}  // namespace zr
