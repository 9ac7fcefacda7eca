#include "zr/vcard/splitter.h"

#include <utility>

#include "zr/base/text.h"

namespace zr {
namespace {

// A card inside another one stands behind an AGENT property without a value.
bool opens_agent(std::string_view line) {
    line = trimmed(line);
    return line.size() >= 6 && line.back() == ':' && equal_ignoring_case(line.substr(0, 5), "AGENT");
}

std::string_view without_mark(std::string_view line) {
    // Files that were joined carry the byte-order marks of their parts.
    if (line.starts_with("\xEF\xBB\xBF")) line.remove_prefix(3);
    return line;
}

}  // namespace

bool is_card_begin(std::string_view line) {
    return line.size() >= 11 && equal_ignoring_case(trimmed(without_mark(line)), "BEGIN:VCARD");
}

bool is_card_end(std::string_view line) {
    return line.size() >= 9 && equal_ignoring_case(trimmed(line), "END:VCARD");
}

bool CardSplitter::next(RawCard& card) {
    card.text.clear();
    card.lines.clear();
    card.damage.clear();
    card.damage_line = 0;
    if (!next_begin(card)) return !card.damage.empty();
    read_body(card);
    return true;
}

// Moves to the next BEGIN:VCARD. False at the end of the text, or with a damage for text outside of any card.
bool CardSplitter::next_begin(RawCard& card) {
    while (!begin_seen_ && lines_.next()) {
        const std::string_view line = lines_.line();
        if (is_card_begin(line)) {
            begin_seen_ = true;
            begin_line_ = lines_.number();
        } else if (card.damage.empty() && !trimmed(without_mark(line)).empty()) {
            card.damage = "text outside of BEGIN:VCARD and END:VCARD";
            card.damage_line = card.number = lines_.number();
        }
    }
    card.utf16 = lines_.reader().is_utf16();
    if (!begin_seen_ || !card.damage.empty()) return false;
    begin_seen_ = false;
    card.number = begin_line_;
    return true;
}

void CardSplitter::read_body(RawCard& card) {
    int depth = 1;
    while (lines_.next()) {
        const std::string_view line = lines_.line();
        const bool begin = is_card_begin(line);
        if (begin && !(card.lines.empty() ? false : opens_agent(card.line(card.lines.size() - 1)))) {
            card.damage = "no END:VCARD before the next card begins";
            card.damage_line = card.number;
            begin_seen_ = true;
            begin_line_ = lines_.number();
            return;
        }
        if (begin) ++depth;
        if (is_card_end(line) && --depth == 0) return;
        add_line(card, line);
    }
    if (card.damage.empty()) {
        card.damage =
            lines_.reader().error() != 0 ? "the file could not be read further" : "the file ends inside this card";
        card.damage_line = card.number;
    }
}

void CardSplitter::add_line(RawCard& card, std::string_view line) {
    const bool too_large = lines_.was_cut() || card.text.size() + line.size() > kLargestCard;
    if (too_large && card.damage.empty()) {
        card.damage = "larger than 64 MiB";
        card.damage_line = lines_.number();
    }
    if (!card.damage.empty()) {
        // Nothing of it will be used, so that memory stays bounded; only the last line is kept, to see an AGENT.
        card.text.clear();
        card.lines.clear();
        line = line.substr(0, 256);
    }
    card.lines.push_back({card.text.size(), line.size(), lines_.number()});
    card.text += line;
}

}  // namespace zr
