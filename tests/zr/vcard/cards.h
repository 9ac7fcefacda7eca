#pragma once

// Reading cards from text, for tests.

#include <string>
#include <string_view>
#include <vector>

#include "zr/vcard/reader.h"

namespace zr::test {

struct ReadCards {
    std::vector<Card> cards;
    std::vector<Problem> problems;  // of all cards, in order
    int damaged = 0;
};

inline ReadCards read_cards(std::string_view text) {
    ReadCards result;
    LineReader lines(read_from_memory(text));
    CardReader reader(lines);
    Card card;
    std::vector<Problem> problems;
    for (;;) {
        const CardReader::Result found = reader.next(card, problems);
        if (found == CardReader::Result::End) return result;
        result.problems.insert(result.problems.end(), problems.begin(), problems.end());
        if (found == CardReader::Result::Card) result.cards.push_back(card);
        if (found == CardReader::Result::Damaged) ++result.damaged;
    }
}

// The only card of a text that has no problem.
inline Card read_card(std::string_view text) {
    ReadCards result = read_cards(text);
    if (result.cards.size() != 1 || !result.problems.empty()) {
        throw std::runtime_error(std::to_string(result.cards.size()) + " cards, " +
                                 std::to_string(result.problems.size()) + " problems" +
                                 (result.problems.empty() ? "" : ", first: " + result.problems[0].reason));
    }
    return result.cards[0];
}

inline std::string card_text(std::string_view body, std::string_view version = "3.0") {
    return "BEGIN:VCARD\r\nVERSION:" + std::string(version) + "\r\n" + std::string(body) + "END:VCARD\r\n";
}

}  // namespace zr::test
