#pragma once

// Content lines of cards and calendars: NAME;PARAMETER=VALUE:VALUE, unfolded.

#include <optional>
#include <string>
#include <string_view>

namespace zr {

// Views into the line that it was split from.
struct ContentLine {
    std::string_view name;
    std::string_view parameters;  // with the semicolon before each; empty when there are none
    std::string_view value;

    bool is(std::string_view wanted) const;  // whether the name is this one, ignoring case
    // The value of a parameter without its quotes; none when the line has no such parameter.
    std::optional<std::string> parameter(std::string_view wanted) const;
};

// False when the line is none; `why` then says what is wrong with it.
bool split_content_line(std::string_view text, ContentLine& line, std::string& why);

// What a BEGIN or END line (`mark` says which) names, in capitals; empty for any other line.
std::string component_named(std::string_view mark, std::string_view line);

// The text that a value of the type TEXT stands for.
std::string unescaped_text(std::string_view value);
// The other way round: appends text as such a value.
void append_escaped_text(std::string& out, std::string_view text);

// Appends one line with CR LF, folded at 75 bytes between characters.
void append_folded(std::string& out, std::string_view line);

}  // namespace zr
