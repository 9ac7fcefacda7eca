// vCard import: what was read is stored text, and what is written is read again as it was.

#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>
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

// As the contact store keeps it, which files under something who was given no name to file by.
zr::Card stored(zr::Card card) {
    card[zr::Field::FileAs] = zr::filed_name(card);
    return card;
}

// Kept properties aside.
zr::Card fields(zr::Card card) {
    card.extras.clear();
    return card;
}

std::vector<std::string> sorted_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

void check_card(const zr::Card& card) {
    for (const std::string& value : card.text) {
        check(zr::is_utf8(value) && value.find('\0') == std::string::npos);
    }
    check(zr::is_utf8(card.extras) && card.extras.find('\0') == std::string::npos);
    for (const zr::CardVersion version : {zr::CardVersion::V21, zr::CardVersion::V30, zr::CardVersion::V40}) {
        std::string text;
        check(zr::write_card(card, version, text));
        zr::LineReader lines(zr::read_from_memory(text));
        zr::CardReader reader(lines);
        zr::Card again;
        std::vector<zr::Problem> problems;
        check(reader.next(again, problems) == zr::CardReader::Result::Card && problems.empty());
        check(fields(stored(again)) == fields(card));
        // Each version has words of its own for some of what is kept: those stay as they are, in whatever order.
        std::string twice;
        check(zr::write_card(again, version, twice) && sorted_lines(twice) == sorted_lines(text));
        check(reader.next(again, problems) == zr::CardReader::Result::End);
    }
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
        if (result == zr::CardReader::Result::Card) check_card(stored(card));
    }
}
