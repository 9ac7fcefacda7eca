#include "zr/regfile/value.h"

#include <platform/registry.h>

#include <charconv>
#include <cstring>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/text.h"

namespace zr {
namespace {

struct TypeName {
    DWORD type;
    const char* name;
};

constexpr TypeName kTypes[] = {
    {REG_NONE, "REG_NONE"},
    {REG_SZ, "REG_SZ"},
    {REG_EXPAND_SZ, "REG_EXPAND_SZ"},
    {REG_BINARY, "REG_BINARY"},
    {REG_DWORD, "REG_DWORD"},
    {REG_DWORD_BIG_ENDIAN, "REG_DWORD_BIG_ENDIAN"},
    {REG_LINK, "REG_LINK"},
    {REG_MULTI_SZ, "REG_MULTI_SZ"},
    {REG_RESOURCE_LIST, "REG_RESOURCE_LIST"},
    {REG_FULL_RESOURCE_DESCRIPTOR, "REG_FULL_RESOURCE_DESCRIPTOR"},
    {REG_RESOURCE_REQUIREMENTS_LIST, "REG_RESOURCE_REQUIREMENTS_LIST"},
    {REG_QWORD, "REG_QWORD"},
    {REG_MUI_SZ, "REG_MUI_SZ"},
};
constexpr std::string_view kPrefix = "REG_";

bool is_text(DWORD type) {
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MUI_SZ;
}

// How many bytes a number of this type has; 0 for types that are no number.
std::size_t number_size(DWORD type) {
    return type == REG_DWORD || type == REG_DWORD_BIG_ENDIAN ? 4 : type == REG_QWORD ? 8 : 0;
}

std::optional<ULONGLONG> number_of(const RegValue& value) {
    const std::size_t size = number_size(value.type);
    if (size == 0 || value.data.size() != size) return std::nullopt;
    ULONGLONG number = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t place = value.type == REG_DWORD_BIG_ENDIAN ? i : size - 1 - i;
        number = number << 8 | static_cast<unsigned char>(value.data[place]);
    }
    return number;
}

std::string bytes_of_number(DWORD type, ULONGLONG number) {
    const std::size_t size = number_size(type);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i, number >>= 8) {
        bytes[type == REG_DWORD_BIG_ENDIAN ? size - 1 - i : i] = static_cast<char>(number & 0xFF);
    }
    return bytes;
}

template <class Number>
std::optional<Number> parse_number(std::string_view text) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (hex) text.remove_prefix(2);
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::string hex_of(std::string_view data, const char* between) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(data.size() * (2 + std::strlen(between)));
    for (const char c : data) {
        const auto byte = static_cast<unsigned char>(c);
        if (!text.empty()) text += between;
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

// Pairs of digits, with blanks or commas between them or not.
std::string bytes_of_hex(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if (c != ' ' && c != ',') digits += c;
    }
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        unsigned byte = 0;
        const char* const end = digits.data() + i + 2;
        const bool whole = i + 2 <= digits.size();
        if (!whole || std::from_chars(digits.data() + i, end, byte, 16).ptr != end)
            throw Failure{Exit::Usage, "'" + std::string(text) + "' is not made of bytes such as 0a ff"};
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::u16string unicode(const std::string& word) {
    if (!is_utf8(word)) throw Failure{Exit::Usage, "'" + word + "' is not valid UTF-8"};
    return to_utf16(word);
}

// JSON and terminals get the text itself only where nothing of it is lost.
bool is_well_formed(const std::u16string& text) {
    return is_utf8(to_utf8_with_surrogates(text));
}

std::string texts_shown(const std::vector<std::u16string>& texts) {
    std::string shown;
    for (const std::u16string& text : texts) {
        shown += (shown.empty() ? "" : " ") + quoted(to_utf8(text));
    }
    return shown;
}

}  // namespace

std::string reg_type_name(DWORD type) {
    for (const TypeName& each : kTypes) {
        if (each.type == type) return each.name;
    }
    return std::to_string(type);
}

std::optional<DWORD> parse_reg_type(std::string_view name) {
    for (const TypeName& each : kTypes) {
        const std::string_view full = each.name;
        if (equal_ignoring_case(name, full) || equal_ignoring_case(name, full.substr(kPrefix.size()))) return each.type;
    }
    return parse_number<DWORD>(name);
}

std::string reg_bytes(std::u16string_view text) {
    std::string bytes;
    bytes.reserve(2 * text.size());
    for (const char16_t unit : text) {
        bytes += static_cast<char>(unit & 0xFF);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

std::u16string reg_units(std::string_view data) {
    std::u16string units(data.size() / 2, u'\0');
    for (std::size_t i = 0; i < units.size(); ++i) {
        units[i] = static_cast<char16_t>(static_cast<unsigned char>(data[2 * i]) |
                                         static_cast<unsigned char>(data[2 * i + 1]) << 8);
    }
    return units;
}

std::optional<std::u16string> reg_text(const RegValue& value) {
    if (value.data.size() % 2 != 0) return std::nullopt;
    std::u16string text = reg_units(value.data);
    if (text.empty() || text.find(u'\0') != text.size() - 1) return std::nullopt;
    text.pop_back();
    return text;
}

std::optional<std::vector<std::u16string>> reg_texts(const RegValue& value) {
    if (value.data.size() % 2 != 0) return std::nullopt;
    const std::u16string all = reg_units(value.data);
    std::vector<std::u16string> texts;
    for (std::size_t at = 0; at < all.size();) {
        const std::size_t end = all.find(u'\0', at);
        if (end == std::u16string::npos) return std::nullopt;
        if (end == at) {
            if (end + 1 != all.size()) return std::nullopt;
            return texts;
        }
        texts.push_back(all.substr(at, end - at));
        at = end + 1;
    }
    return std::nullopt;
}

std::string reg_data_shown(const RegValue& value) {
    if (is_text(value.type)) {
        if (const auto text = reg_text(value)) return unmistakable(to_utf8(*text));
    } else if (value.type == REG_MULTI_SZ) {
        if (const auto texts = reg_texts(value)) return texts_shown(*texts);
    } else if (const auto number = number_of(value)) {
        return std::to_string(*number);
    }
    return hex_of(value.data, " ");
}

void add_reg_value(Json& json, const RegValue& value) {
    json.set("type", reg_type_name(value.type));
    if (const auto number = number_of(value)) {
        json.set("data", *number);
        return;
    }
    if (is_text(value.type)) {
        if (const auto text = reg_text(value); text && is_well_formed(*text)) {
            json.set("data", to_utf8(*text));
            return;
        }
    }
    if (const auto texts = value.type == REG_MULTI_SZ ? reg_texts(value) : std::nullopt) {
        Json array = Json::array();
        bool exact = true;
        for (const std::u16string& text : *texts) {
            exact = exact && is_well_formed(text);
            array.add(to_utf8(text));
        }
        if (exact) {
            json.set("data", std::move(array));
            return;
        }
    }
    json.set("hex", hex_of(value.data, ""));
}

RegValue parse_reg_value(DWORD type, const std::vector<std::string>& words) {
    RegValue value{type, {}};
    if (type == REG_MULTI_SZ) {
        for (const std::string& word : words) {
            if (word.empty()) throw Failure{Exit::Usage, "REG_MULTI_SZ holds no empty text"};
            value.data += reg_bytes(unicode(word) + u'\0');
        }
        value.data += reg_bytes({u"\0", 1});
        return value;
    }
    const bool bytes = !is_text(type) && number_size(type) == 0;
    if (words.size() > 1 || (words.empty() && !bytes))
        throw Failure{Exit::Usage, reg_type_name(type) + " takes one DATA"};
    if (words.empty()) return value;
    if (bytes) {
        value.data = bytes_of_hex(words[0]);
    } else if (is_text(type)) {
        value.data = reg_bytes(unicode(words[0]) + u'\0');
    } else {
        const auto number = parse_number<ULONGLONG>(words[0]);
        if (!number || (number_size(type) == 4 && *number > 0xFFFFFFFF))
            throw Failure{Exit::Usage, "'" + words[0] + "' is not a number that " + reg_type_name(type) + " holds"};
        value.data = bytes_of_number(type, *number);
    }
    return value;
}

}  // namespace zr
