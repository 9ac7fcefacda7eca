#pragma once

// From the lines of a card to its properties: decoded, in UTF-8, escaped as vCard 3.0 asks, each with the number of the
// line it begins on. What cannot be read is named, never dropped silently.

#include <string>
#include <string_view>
#include <vector>

#include "zr/base/problem.h"
#include "zr/vcard/header.h"
#include "zr/vcard/splitter.h"

namespace zr {

struct PropertyLine {
    std::string text;      // group.NAME;PARAMETERS:VALUE without an end of line
    std::size_t name;      // offset of NAME in text, behind the group
    std::size_t name_end;  // offset of the ; or : behind NAME
    std::size_t value;     // offset of VALUE
    long line;

    std::string_view name_text() const { return std::string_view(text).substr(name, name_end - name); }
    std::string_view value_text() const { return std::string_view(text).substr(value); }
};

// Calls `visit(PropertyLine&)` for each readable property of a whole card, in order, and adds a problem for each line
// that is not one or that had to be guessed at.
class PropertyLines {
public:
    PropertyLines(const RawCard& card, std::vector<Problem>& problems) : card_(card), problems_(problems) {}

    // The next property; false at the end of the card. The result is valid until the next call.
    bool next(PropertyLine& property);

private:
    bool take_line(CardHeader& header);
    void append_bare_base64();
    void read_agent(PropertyLine& property);
    void build(const CardHeader& header, PropertyLine& property);
    std::string to_utf8_value(std::string_view value, const std::string& charset);
    void lost(std::string reason) { problems_.push_back({line_, std::move(reason), true}); }
    void guessed(std::string reason) { problems_.push_back({line_, std::move(reason), false}); }

    const RawCard& card_;
    std::vector<Problem>& problems_;
    std::size_t at_ = 0;  // next line
    std::string text_;    // the one that is read
    long line_ = 0;       // and where it begins
};

}  // namespace zr
