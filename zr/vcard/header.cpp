#include "zr/vcard/header.h"

#include <glib.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::size_t npos = std::string_view::npos;
constexpr std::size_t kMostKinds = 8;  // of one property that count

bool is_name_character(char c) {
    return g_ascii_isalnum(c) || c == '-' || c == '_';
}

bool is_name(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), is_name_character);
}

bool read_parameter(std::string_view parameter, CardHeader& header) {
    if (parameter.empty()) return true;
    const std::size_t equals = parameter.find('=');
    const std::string key = equals == npos ? "" : upper(trimmed(parameter.substr(0, equals)));
    const std::string_view written = trimmed(equals == npos ? parameter : parameter.substr(equals + 1));
    const auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; };
    if (!is_name(equals == npos ? written : key) || std::any_of(written.begin(), written.end(), is_control)) {
        return false;
    }
    const bool encoding = key.empty() || key == "ENCODING";
    const std::string value = key.empty() || encoding || key == "CHARSET" ? upper(written) : std::string();
    if (key == "CHARSET") {
        header.charset = value;
    } else if (encoding && value == "QUOTED-PRINTABLE") {
        header.quoted_printable = !header.base64;
    } else if (encoding && (value == "BASE64" || (value == "B" && !key.empty()))) {
        if (header.base64 || header.quoted_printable) return true;
        header.base64 = true;
        header.parameters += ";ENCODING=b";
    } else if (!encoding || key.empty()) {
        if (value == "8BIT" || value == "7BIT") return true;
        header.parameters += ';';
        header.parameters += key.empty() ? written : trimmed(parameter.substr(0, equals));
        if (!key.empty()) (header.parameters += '=') += written;
    } else if (value != "8BIT" && value != "7BIT") {
        header.trouble = "an unknown encoding";
        return false;
    }
    return true;
}

// The parameters before `end`, where the colon is. Quotes count where they are `balanced`.
std::vector<std::string_view> parameters_of(std::string_view text, std::size_t at, std::size_t end, bool balanced) {
    std::vector<std::string_view> parameters;
    while (at < end) {
        const std::size_t stop = std::min(balanced ? find_unquoted(text, ';', at + 1) : text.find(';', at + 1), end);
        parameters.push_back(text.substr(at + 1, stop - at - 1));
        at = stop;
    }
    return parameters;
}

// The types of a list without PREF.
std::string other_types(std::string_view types) {
    std::string others;
    while (!types.empty()) {
        const std::size_t comma = std::min(find_unquoted(types, ','), types.size());
        const std::string_view type = types.substr(0, comma);
        types.remove_prefix(std::min(comma + 1, types.size()));
        if (equal_ignoring_case(trimmed(type), "PREF")) continue;
        if (!others.empty()) others += ',';
        others += type;
    }
    return others;
}

}  // namespace

std::size_t find_unquoted(std::string_view text, char mark, std::size_t from) {
    bool quoted = false;
    for (std::size_t i = from; i < text.size(); ++i) {
        if (text[i] == '"') quoted = !quoted;
        if (!quoted && text[i] == mark) return i;
    }
    return npos;
}

bool read_card_header(std::string_view text, CardHeader& header) {
    header = {};
    std::size_t end = find_unquoted(text, ':');
    const bool balanced = end != npos;
    if (!balanced) end = text.find(':');
    header.trouble = "a line without a colon";
    if (end == npos) return false;
    header.value = end + 1;
    header.name_end = std::min(text.find(';'), end);
    const std::size_t dot = text.substr(0, header.name_end).rfind('.');
    header.name = dot == npos ? 0 : dot + 1;
    header.trouble = "a line without a name";
    if (!is_name(text.substr(header.name, header.name_end - header.name)) ||
        (dot != npos && !is_name(text.substr(0, dot)))) {
        return false;
    }
    header.trouble = "a parameter that cannot be read";
    for (const std::string_view written : parameters_of(text, header.name_end, end, balanced)) {
        std::string parameter(written);
        if (!balanced) std::erase(parameter, '"');
        if (!read_parameter(parameter, header)) return false;
    }
    return true;
}

std::vector<std::string_view> card_parameters(std::string_view line, const CardHeader& header) {
    return parameters_of(line, header.name_end, header.value - 1, find_unquoted(line, ':') != npos);
}

bool is_plain_kind(std::string_view word) {
    const auto is_plain = [](char c) { return is_name_character(c) || c == '.' || c == '+'; };
    return !word.empty() && std::all_of(word.begin(), word.end(), is_plain);
}

std::string with_kinds_only(std::string_view line) {
    CardHeader header;
    if (!read_card_header(line, header)) return std::string(line);
    std::string out(line.substr(0, header.name_end));
    std::vector<std::string> seen;
    for (const std::string_view parameter : card_parameters(line, header)) {
        const std::size_t equals = parameter.find('=');
        const std::string_view name = equals == npos ? "TYPE" : trimmed(parameter.substr(0, equals));
        if (!equal_ignoring_case(name, "TYPE") && !equal_ignoring_case(name, "PREF")) continue;
        std::string words(trimmed(equals == npos ? parameter : parameter.substr(equals + 1)));
        std::erase(words, '"');
        for (std::string_view rest = words; !rest.empty() && seen.size() < kMostKinds;) {
            const std::size_t comma = std::min(rest.find(','), rest.size());
            const std::string_view word = trimmed(rest.substr(0, comma));
            rest.remove_prefix(std::min(comma + 1, rest.size()));
            std::string known = upper(name) + "=" + upper(word);
            if (!is_plain_kind(word)) continue;
            if (std::find(seen.begin(), seen.end(), known) != seen.end()) continue;
            seen.push_back(std::move(known));
            (((out += ';') += name) += '=') += word;
        }
    }
    return out += line.substr(header.value - 1);
}

std::string without_preference(std::string_view line) {
    CardHeader header;
    if (!read_card_header(line, header)) return std::string(line);
    std::string out(line.substr(0, header.name_end));
    for (const std::string_view parameter : card_parameters(line, header)) {
        const std::size_t equals = parameter.find('=');
        const std::string_view name = trimmed(parameter.substr(0, equals));
        if (equal_ignoring_case(name, "PREF")) continue;
        std::string kept(parameter);
        if (equals != npos && equal_ignoring_case(name, "TYPE")) {
            const std::string types = other_types(parameter.substr(equals + 1));
            if (types.empty()) continue;
            kept = std::string(parameter.substr(0, equals + 1)) + types;
        }
        (out += ';') += kept;
    }
    return out += line.substr(header.value - 1);
}

std::string without_encoding(std::string_view line) {
    CardHeader header;
    if (!read_card_header(line, header)) return std::string(line);
    std::string out(line.substr(0, header.name_end));
    for (const std::string_view parameter : card_parameters(line, header)) {
        const std::string_view name = trimmed(parameter.substr(0, parameter.find('=')));
        if (!equal_ignoring_case(name, "ENCODING")) (out += ';') += parameter;
    }
    return out += line.substr(header.value - 1);
}

// The value begins behind the first colon that is not in quotes. Until there is one, the line may still be anything.
bool SoftBreaks::operator()(std::string_view line, long number) {
    if (number != line_) *this = {};
    line_ = number;
    for (; kind_ == Kind::Unknown && searched_ < line.size(); ++searched_) {
        if (line[searched_] == '"') quoted_ = !quoted_;
        if (quoted_ || line[searched_] != ':') continue;
        CardHeader header;
        const bool readable = read_card_header(line.substr(0, searched_ + 1), header);
        kind_ = readable && header.quoted_printable ? Kind::Soft : Kind::Hard;
    }
    return kind_ == Kind::Soft;
}

}  // namespace zr
