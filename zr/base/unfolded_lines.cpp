#include "zr/base/unfolded_lines.h"

#include <utility>

namespace zr {

UnfoldedLines::UnfoldedLines(LineReader& reader, SoftBreak soft_break)
    : reader_(reader), soft_break_(std::move(soft_break)) {}

void UnfoldedLines::read_ahead() {
    std::string_view line;
    has_ahead_ = reader_.next(line);
    if (!has_ahead_) return;
    ahead_ = line;
    ahead_number_ = reader_.number();
    ahead_was_cut_ = reader_.was_cut();
}

bool UnfoldedLines::next() {
    if (!has_ahead_) read_ahead();
    if (!has_ahead_) return false;
    line_.swap(ahead_);
    number_ = ahead_number_;
    was_cut_ = ahead_was_cut_;
    for (read_ahead(); has_ahead_ && goes_on(); read_ahead()) {
        if (line_.size() + ahead_.size() > kLongestLine) was_cut_ = true;
        if (!was_cut_) line_ += ahead_;
    }
    return true;
}

// Whether the line that is read ahead belongs to the one at hand; what only joins the two is taken off them then.
bool UnfoldedLines::goes_on() {
    if (soft_break_ && line_.ends_with('=') && soft_break_(line_, number_)) {
        line_.pop_back();
        return true;
    }
    if (!ahead_.starts_with(' ') && !ahead_.starts_with('\t')) return false;
    ahead_.erase(0, 1);
    return true;
}

}  // namespace zr
