#pragma once

// vCards of versions 2.1, 3.0 and 4.0, as real programs write them, to contacts.
//
//   LineReader lines(read_from_descriptor(fd));
//   CardReader reader(lines);
//   Card card;
//   std::vector<Problem> problems;
//   while (reader.next(card, problems)) { ... }
//
// One card is in memory at a time. Not for more than one thread at a time.

#include <vector>

#include "zr/base/line_reader.h"
#include "zr/vcard/card.h"
#include "zr/vcard/lines.h"
#include "zr/vcard/splitter.h"

namespace zr {

// Makes `card` from a whole raw card. What could not be read is added to `problems`. False when nothing of it can be
// imported (a problem says why); `card` is then undefined. `all_by_evcard` as in CardAttributes::split.
bool parse_card(const RawCard& raw, Card& card, std::vector<Problem>& problems, bool all_by_evcard = false);

class CardReader {
public:
    enum class Result { End, Card, Damaged };

    explicit CardReader(LineReader& lines) : splitter_(lines) {}

    // The next card. Replaces `problems` by what was found in this one: Damaged has at least one and no card, Card may
    // have some and is to be imported all the same.
    Result next(Card& card, std::vector<Problem>& problems);

private:
    CardSplitter splitter_;
    RawCard raw_;
};

}  // namespace zr
