#pragma once

// What stands before the value of a card's property: its group, its name and its parameters.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

struct CardHeader {
    std::size_t name = 0;           // where the name begins, behind the group
    std::size_t name_end = 0;       // and the semicolon or colon behind it
    std::size_t value = 0;          // where the value begins
    bool quoted_printable = false;  // of several encodings the first counts
    bool base64 = false;
    std::string charset;
    std::string parameters;  // the others, each with its leading semicolon
    const char* trouble = "";
};

// Reads the header of a line. False when this is no property; header.trouble then says why.
bool read_card_header(std::string_view line, CardHeader& header);

// Where the first `mark` stands that no double quotes enclose, or npos.
std::size_t find_unquoted(std::string_view text, char mark, std::size_t from = 0);

// Whether a kind, or a preference, is one that readers take.
bool is_plain_kind(std::string_view word);

// The parameters of a line that has this header.
std::vector<std::string_view> card_parameters(std::string_view line, const CardHeader& header);
// The line of a property with those of its parameters only that say of which kind it is and how much it is preferred,
// as plain words.
std::string with_kinds_only(std::string_view line);
// The line of a property without what says that it is preferred to others of its name.
std::string without_preference(std::string_view line);
// The line of a property whose value is not in base64, although it says so.
std::string without_encoding(std::string_view line);

// Looks for the lines that go on in the next one behind a = at their end, as those in quoted-printable do.
class SoftBreaks {
public:
    // See UnfoldedLines. Each character of a header is looked at once.
    bool operator()(std::string_view line, long number);

private:
    enum class Kind { Unknown, Soft, Hard };

    long line_ = -1;  // the line that the rest is about
    std::size_t searched_ = 0;
    bool quoted_ = false;
    Kind kind_ = Kind::Unknown;
};

}  // namespace zr
