// vCard import: what was read is stored text, and what is written is read again as it was.

#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "zr/card_reader.h"
#include "zr/card_writer.h"
#include "zr/text.h"

namespace {

void drop(const gchar*, GLogLevelFlags, const gchar*, gpointer) {}

void check(bool holds) {
    if (!holds) std::abort();
}

void check_card(const zr::Card& card) {
    for (const std::string& value : card.text) {
        check(zr::is_utf8(value) && value.find('\0') == std::string::npos);
    }
    check(zr::is_utf8(card.extras) && card.extras.find('\0') == std::string::npos);
    std::string text;
    zr::write_card(card, zr::CardVersion::V30, text);
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CardReader reader(lines);
    zr::Card again;
    std::vector<zr::CardProblem> problems;
    check(reader.next(again, problems) == zr::CardReader::Result::Card);
    // Blanks around a name or an address are not kept, so only the note is compared to the letter.
    check(again[zr::Field::Note] == card[zr::Field::Note]);
    check(reader.next(again, problems) == zr::CardReader::Result::End);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    g_log_set_default_handler(drop, nullptr);
    zr::LineReader lines(zr::read_from_memory({reinterpret_cast<const char*>(data), size}));
    zr::CardReader reader(lines);
    zr::Card card;
    std::vector<zr::CardProblem> problems;
    for (;;) {
        const zr::CardReader::Result result = reader.next(card, problems);
        if (result == zr::CardReader::Result::End) return 0;
        check(result == zr::CardReader::Result::Card || !problems.empty());
        if (result == zr::CardReader::Result::Card) check_card(card);
    }
}
