#pragma once

// Cuts a stream of lines into vCards without understanding what is in them.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "zr/base/unfolded_lines.h"
#include "zr/vcard/header.h"

namespace zr {

// The lines of one card between BEGIN:VCARD and END:VCARD, both left out. They are unfolded.
struct RawCard {
    struct Line {
        std::size_t offset;
        std::size_t length;
        long number;  // where it begins
    };

    std::string text;
    std::vector<Line> lines;
    long number = 0;     // the line of BEGIN:VCARD
    std::string damage;  // why this is no whole card; empty for a whole one
    long damage_line = 0;
    bool utf16 = false;

    std::string_view line(std::size_t i) const {
        return std::string_view(text).substr(lines[i].offset, lines[i].length);
    }
};

class CardSplitter {
public:
    static constexpr std::size_t kLargestCard = std::size_t{64} << 20;

    explicit CardSplitter(LineReader& reader) : lines_(reader, SoftBreaks()) {}

    // The next card, whole or damaged, or a run of text that belongs to no card (as a damaged one).
    // False at the end of the text. `card` is reused to save allocations.
    bool next(RawCard& card);

private:
    bool next_begin(RawCard& card);
    void read_body(RawCard& card);
    void add_line(RawCard& card, std::string_view line);

    UnfoldedLines lines_;
    bool begin_seen_ = false;  // the last line read was the BEGIN of a card not yet returned
    long begin_line_ = 0;
};

// Whether a line is BEGIN:VCARD or END:VCARD, ignoring case and surrounding blanks.
bool is_card_begin(std::string_view line);
bool is_card_end(std::string_view line);

}  // namespace zr
