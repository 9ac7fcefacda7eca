// vCard import: what was read is stored text, and what is written is read again as it was.

#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "zr/base/text.h"
#include "zr/vcard/reader.h"
#include "zr/vcard/writer.h"

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
    std::vector<zr::Problem> problems;
    check(reader.next(again, problems) == zr::CardReader::Result::Card);
    // Blanks around a name or an address are not kept, so only the note is compared to the letter.
    check(again[zr::Field::Note] == card[zr::Field::Note]);
    check(reader.next(again, problems) == zr::CardReader::Result::End);
}

// The short way for plain lines reads what EVCard reads.
void check_both_ways(std::string_view text) {
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CardSplitter splitter(lines);
    zr::RawCard raw;
    while (splitter.next(raw)) {
        if (!raw.damage.empty()) continue;
        zr::Card card[2];
        std::vector<zr::Problem> problems[2];
        const bool read = zr::parse_card(raw, card[0], problems[0], false);
        check(zr::parse_card(raw, card[1], problems[1], true) == read && problems[0].size() == problems[1].size());
        check(!read || card[0] == card[1]);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    g_log_set_default_handler(drop, nullptr);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    check_both_ways(text);
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CardReader reader(lines);
    zr::Card card;
    std::vector<zr::Problem> problems;
    for (;;) {
        const zr::CardReader::Result result = reader.next(card, problems);
        if (result == zr::CardReader::Result::End) return 0;
        check(result == zr::CardReader::Result::Card || !problems.empty());
        if (result == zr::CardReader::Result::Card) check_card(card);
    }
}
