#pragma once

// What a registry value holds, and how people see and write it.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/types.h"

namespace zr {

class Json;

inline constexpr std::size_t kLargestRegData = std::size_t{16} << 20;

struct RegValue {
    DWORD type = 0;
    std::string data;  // bytes

    bool operator==(const RegValue&) const = default;
};

// "REG_SZ" and the like; a number for a type without a name.
std::string reg_type_name(DWORD type);
// A name with or without REG_, in any case, or a number, decimal or with 0x.
std::optional<DWORD> parse_reg_type(std::string_view name);

// UTF-16 text as a registry keeps it, little-endian.
std::string reg_bytes(std::u16string_view text);
std::u16string reg_units(std::string_view data);  // without half a unit at the end

// The text of data that is one text with its terminator and nothing else.
std::optional<std::u16string> reg_text(const RegValue& value);
// The texts of data that is a sequence of them, none of them empty, with a terminator behind each and behind the last.
std::optional<std::vector<std::u16string>> reg_texts(const RegValue& value);

// One line for people: text, a number, or bytes. A line break, or another control character, puts the text in quotes.
std::string reg_data_shown(const RegValue& value);
// Adds "type", and "data" where JSON can say exactly what the data is, else "hex".
void add_reg_value(Json& json, const RegValue& value);

// The value that words of a command line mean. Throws Failure (Usage).
RegValue parse_reg_value(DWORD type, const std::vector<std::string>& words);

}  // namespace zr
