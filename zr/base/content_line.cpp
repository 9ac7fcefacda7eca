#include "zr/base/content_line.h"

#include <algorithm>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::size_t kLineBytes = 75;

bool is_name_character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool is_continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The first of `marks` from `at` on that is not inside of quotes.
std::size_t find_unquoted(std::string_view text, std::string_view marks, std::size_t at) {
    bool quoted = false;
    for (; at < text.size(); ++at) {
        if (text[at] == '"') quoted = !quoted;
        if (!quoted && marks.find(text[at]) != std::string_view::npos) return at;
    }
    return std::string_view::npos;
}

}  // namespace

bool ContentLine::is(std::string_view wanted) const {
    return equal_ignoring_case(name, wanted);
}

std::optional<std::string> ContentLine::parameter(std::string_view wanted) const {
    for (std::size_t at = 0; at < parameters.size();) {
        const std::size_t end = std::min(find_unquoted(parameters, ";", at + 1), parameters.size());
        const std::string_view one = parameters.substr(at + 1, end - at - 1);
        at = end;
        const std::size_t equals = one.find('=');
        if (equals == std::string_view::npos || !equal_ignoring_case(trimmed(one.substr(0, equals)), wanted)) continue;
        std::string found(trimmed(one.substr(equals + 1)));
        std::erase(found, '"');
        return found;
    }
    return std::nullopt;
}

bool split_content_line(std::string_view text, ContentLine& line, std::string& why) {
    const auto name_end =
        static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_name_character) - text.begin());
    const std::size_t colon = find_unquoted(text, ":", name_end);
    if (colon == std::string_view::npos) {
        why = text.find(':') == std::string_view::npos ? "a line without a colon" : "a quote without an end";
        return false;
    }
    if (name_end == 0 || (text[name_end] != ':' && text[name_end] != ';')) {
        why = "a line without a property name";
        return false;
    }
    line.name = text.substr(0, name_end);
    line.parameters = text.substr(name_end, colon - name_end);
    line.value = text.substr(colon + 1);
    return true;
}

std::string component_named(std::string_view mark, std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !equal_ignoring_case(trimmed(line.substr(0, colon)), mark)) return {};
    return upper(trimmed(line.substr(colon + 1)));
}

std::string unescaped_text(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\' || i + 1 == value.size()) {
            out += value[i];
            continue;
        }
        const char c = value[++i];
        if (c == 'n' || c == 'N') {
            out += '\n';
        } else if (c == '\\' || c == ',' || c == ';' || c == ':' || c == '"') {
            out += c;
        } else {
            out += '\\';
            out += c;
        }
    }
    return out;
}

void append_escaped_text(std::string& out, std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        switch (text[i]) {
            case '\\':
            case ';':
            case ',':
                out += '\\';
                out += text[i];
                break;
            case '\r':
                out += "\\n";
                if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
                break;
            case '\n':
                out += "\\n";
                break;
            default:
                out += text[i];
        }
    }
}

void append_folded(std::string& out, std::string_view line) {
    std::size_t room = kLineBytes;
    while (line.size() > room) {
        std::size_t cut = room;
        while (cut > 1 && is_continuation(line[cut])) {
            --cut;
        }
        out += line.substr(0, cut);
        out += "\r\n ";
        line.remove_prefix(cut);
        room = kLineBytes - 1;
    }
    out += line;
    out += "\r\n";
}

}  // namespace zr
