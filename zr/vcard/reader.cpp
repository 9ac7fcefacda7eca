#include "zr/vcard/reader.h"

#include <algorithm>

#include "zr/base/text.h"
#include "zr/vcard/attributes.h"
#include "zr/vcard/builder.h"
#include "zr/vcard/said.h"

namespace zr {
namespace {

bool is_empty(const Card& card) {
    return card.extras.empty() &&
           std::all_of(card.text.begin(), card.text.end(), [](const std::string& value) { return value.empty(); });
}

}  // namespace

bool parse_card(const RawCard& raw, Card& card, std::vector<Problem>& problems, bool all_by_evcard) {
    card.clear();
    CardAttributes attributes;
    PropertyLines lines(raw, problems);
    PropertyLine line;
    while (lines.next(line)) {
        const std::string_view name = line.name_text();
        const Property property = property_of(name);
        if (equal_ignoring_case(name, "BEGIN") || equal_ignoring_case(name, "END")) {
            problems.push_back({line.line, upper(name) + " of something that is no card"});
        } else if (property == Property::Unknown) {
            card.extras += line.text;
            card.extras += '\n';
        } else if (property != Property::Ignored) {
            attributes.add(line);
        }
    }
    if (!attributes.split(all_by_evcard)) {
        problems.push_back({raw.number, "a card with properties that cannot be read"});
    }
    Builder builder(card);
    for (const Attribute& attribute : attributes.all()) {
        builder.add(attribute);
    }
    builder.finish();
    card.lines = lines_to_keep(builder.taken(), card);
    card.uid = kept_text(card.extras, "UID");
    if (card.uid.empty()) card.uid = made_identifier(card);
    if (!is_empty(card)) return true;
    problems.push_back({raw.number, "a card with nothing in it"});
    return false;
}

CardReader::Result CardReader::next(Card& card, std::vector<Problem>& problems) {
    problems.clear();
    if (!splitter_.next(raw_)) return Result::End;
    if (!raw_.damage.empty()) {
        problems.push_back({raw_.damage_line, raw_.damage});
        return Result::Damaged;
    }
    return parse_card(raw_, card, problems) ? Result::Card : Result::Damaged;
}

}  // namespace zr
