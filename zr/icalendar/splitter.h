#pragma once

// Cuts a stream of lines into the components of calendars without understanding what is in them.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "zr/base/line_reader.h"
#include "zr/base/problem.h"
#include "zr/base/unfolded_lines.h"

namespace zr {

// The lines of one component of a calendar between its BEGIN and its END, both left out. Components inside of it keep
// theirs.
struct RawComponent {
    struct Line {
        std::string text;  // unfolded, UTF-8
        long number;       // where it begins
    };

    std::string name;  // in capitals, such as "VEVENT"
    long number = 0;   // the line of its BEGIN
    std::vector<Line> lines;
    std::string damage;  // why this is no whole component; empty for a whole one
    long damage_line = 0;
};

class CalendarSplitter {
public:
    static constexpr std::size_t kLargestComponent = std::size_t{64} << 20;
    enum class Part {
        End,        // of the text
        Component,  // whole or damaged
        Calendar,   // a calendar is over: nothing of what follows belongs to it
        Stray,      // text that belongs to no calendar, or a calendar without its end: see the problems
    };

    explicit CalendarSplitter(LineReader& reader) : lines_(reader) {}

    // The next part. Appends what was found wrong to `problems`.
    Part next(RawComponent& component, std::vector<Problem>& problems);

private:
    bool read_line(std::vector<Problem>& problems);
    Part end_calendar();
    Part lose_calendar(std::vector<Problem>& problems);
    void read_body(RawComponent& component, std::vector<Problem>& problems);
    void damage(RawComponent& component, std::string why, long line);
    void make_text(std::vector<Problem>& problems);

    bool failed() const { return lines_.reader().error() != 0; }

    UnfoldedLines lines_;
    bool again_ = false;  // the line at hand is yet to be handled
    bool in_calendar_ = false;
    bool old_version_ = false;
    long calendar_number_ = 0;
    bool stray_ = false;  // in a run of text that belongs to no calendar
};

}  // namespace zr
