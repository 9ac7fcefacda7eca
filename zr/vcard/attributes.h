#pragma once

// The properties of one card, split into group, name, parameters and values.
//
// EVCard knows the grammar: quotes, encodings, lists, parameters without a name, escapes of every program. Most lines
// of most cards have nothing of that but a \n or a \, here and there, and splitting them at their marks takes a
// fraction of the time; these do not go through EVCard. Both ways give the same for such a line.

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zr/vcard/lines.h"

namespace zr {

// Views into the CardAttributes that it came from.
struct Attribute {
    struct Parameter {
        std::string_view name;
        std::string_view value;
    };

    std::string_view line;                  // all of it, as it was added
    std::string_view group;                 // empty when there is none
    std::string_view name;                  // as written
    std::span<const Parameter> parameters;  // one for each value, those of one name together
    std::span<const std::string_view> values;
};

class CardAttributes {
public:
    CardAttributes() = default;
    ~CardAttributes();
    CardAttributes(const CardAttributes&) = delete;
    CardAttributes& operator=(const CardAttributes&) = delete;

    // The next property of the card, as PropertyLines gives it.
    void add(const PropertyLine& line);
    // Splits what was added, once, in its order. False when a property could not be read; the others are there. A
    // property that EVCard does not take is read alone, so that it takes no other one along.
    // With `all_by_evcard` no line takes the short way.
    bool split(bool all_by_evcard = false);
    const std::vector<Attribute>& all() const { return attributes_; }

private:
    struct Line {
        std::size_t whole;  // where the line begins as it was added; what is split may be a shorter one
        std::size_t whole_end;
        std::size_t begin;
        std::size_t name;
        std::size_t name_end;
        std::size_t value;
        std::size_t end;
        bool plain;
    };
    struct Extent {
        std::size_t parameters;
        std::size_t values;
    };

    void add_split(const PropertyLine& line, std::size_t whole, std::size_t whole_end, bool plain);
    std::string_view whole_of(const Line& line) const;
    std::string_view text_of(const Line& line) const;
    void* parse(const std::string& lines);
    std::vector<void*> parse_all(bool all);
    void split_plain(const Line& line);
    void split_values(const Line& line);
    void take_parsed(const Line& line, void* attribute);
    void add_parameter(std::string_view name, std::string_view value);
    void point();

    std::string text_;
    std::vector<Line> lines_;
    std::string unescaped_;     // values of plain lines
    std::vector<void*> cards_;  // the EVCards that own the text of what they split
    std::vector<Attribute> attributes_;
    std::vector<Extent> extents_;  // where the parameters and values of each attribute begin
    std::vector<Attribute::Parameter> parameters_;
    std::vector<std::string_view> values_;
};

}  // namespace zr
