#pragma once

// The lines of a card or a calendar as they were before a program folded them. Nothing may be recognised in a file
// before that: what a folded line goes on with reads like a line of its own.

#include <cstddef>
#include <functional>
#include <string>

#include "zr/base/line_reader.h"

namespace zr {

class UnfoldedLines {
public:
    static constexpr std::size_t kLongestLine = std::size_t{64} << 20;
    // Whether a line that ends in = goes on in the next one, in the place of its =. Asked with the line as it stands by
    // now and the number of its beginning.
    using SoftBreak = std::function<bool(std::string_view line, long number)>;

    explicit UnfoldedLines(LineReader& reader, SoftBreak soft_break = nullptr);

    // The next line: a line of the file and those that follow it and begin with a blank, which is left out. Valid until
    // the next call; false at the end. Longer ones than kLongestLine are cut.
    bool next();
    std::string& line() { return line_; }
    long number() const { return number_; }    // where it begins
    bool was_cut() const { return was_cut_; }  // whether it was too long

    const LineReader& reader() const { return reader_; }

private:
    void read_ahead();
    bool goes_on();

    LineReader& reader_;
    SoftBreak soft_break_;
    std::string line_;
    long number_ = 0;
    bool was_cut_ = false;
    std::string ahead_;  // the line of the file that is read ahead
    long ahead_number_ = 0;
    bool ahead_was_cut_ = false;
    bool has_ahead_ = false;
};

}  // namespace zr
