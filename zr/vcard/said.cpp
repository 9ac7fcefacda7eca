#include "zr/vcard/said.h"

#include <algorithm>
#include <utility>

#include "zr/base/content_line.h"
#include "zr/base/identity.h"
#include "zr/base/text.h"
#include "zr/vcard/header.h"
#include "zr/vcard/syntax.h"

namespace zr {
namespace {

template <class Visit>
void each_line(std::string_view lines, Visit visit) {
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        if (end > 0) visit(lines.substr(0, end));
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
}

bool is_note(const TakenProperty& property) {
    return property.count == 1 && property.first == static_cast<std::size_t>(Field::Note);
}

// A note may be long, and most are written as they were read.
bool is_plain_note(const TakenProperty& property, const Card& card) {
    constexpr std::string_view name = "NOTE:";
    if (!is_note(property) || !property.fills || !property.line.starts_with(name)) return false;
    std::string written;
    append_escaped_text(written, card[Field::Note]);
    return property.line.substr(name.size()) == written;
}

bool is_data(std::string_view line) {
    CardHeader header;
    return line.find("ENCODING=") != std::string_view::npos && read_card_header(line, header) && header.base64;
}

// A name with its parameters, each kind for itself, in an order of their own.
std::string in_order(std::string_view header) {
    std::vector<std::string> parts;
    std::string_view list;
    while (!header.empty()) {
        const std::size_t end = std::min(header.find_first_of(";,"), header.size());
        const std::string_view part = header.substr(0, end);
        const bool kinds = part.starts_with("TYPE=");
        if (kinds) list = part.substr(0, 5);
        parts.push_back(std::string(kinds ? "" : list) + std::string(part));
        if (end < header.size() && header[end] == ';') list = {};
        header.remove_prefix(std::min(end + 1, header.size()));
    }
    std::sort(parts.begin(), parts.end());
    std::string all;
    for (const std::string& part : parts) {
        (all += part) += ';';
    }
    return all;
}

}  // namespace

std::string lines_to_keep(const std::vector<TakenProperty>& taken, const Card& card) {
    const bool several_notes = std::count_if(taken.begin(), taken.end(), is_note) > 1;
    std::string lines;
    for (const TakenProperty& property : taken) {
        const bool in_extras =
            property.kept.size() == property.line.size() + 1 && property.kept.starts_with(property.line);
        if (in_extras || (!several_notes && is_plain_note(property, card))) continue;
        // A field holds text, even where its line called that data.
        const bool data = is_data(property.line);
        if (data && !property.fills) continue;
        lines += data ? without_encoding(property.line) : std::string(property.line);
        lines += '\n';
    }
    return lines;
}

SaidLines::SaidLines(const Card& card) : card_(card), builder_(read_) {
    each_line(card.lines, [&](std::string_view text) {
        CardHeader header;
        if (!read_card_header(text, header)) return;
        attributes_.add({std::string(text), header.name, header.name_end, header.value, 0});
    });
    attributes_.split();
    for (const Attribute& attribute : attributes_.all()) {
        builder_.add(attribute);
    }
    builder_.finish();
}

bool SaidLines::same_fields(std::size_t first, std::size_t count) const {
    for (std::size_t i = first; i < first + count; ++i) {
        const bool name = i == static_cast<std::size_t>(Field::FileAs);
        if (name ? filed_name(read_) != filed_name(card_) : read_.text[i] != card_.text[i]) return false;
    }
    return true;
}

bool SaidLines::stands(const TakenProperty& said) const {
    if (said.day != nullptr && read_.*said.day != card_.*said.day) return false;
    if (said.with_name && !same_fields(static_cast<std::size_t>(Field::Title), 5)) return false;
    return same_fields(said.first, said.count);
}

bool SaidLines::has_own_name() const {
    return !all().empty() && read_[Field::FileAs].empty() && same_fields(static_cast<std::size_t>(Field::FileAs), 1);
}

std::string kept_text(std::string_view lines, std::string_view name) {
    std::string found;
    bool any = false;
    each_line(lines, [&](std::string_view text) {
        CardHeader header;
        if (any || text.size() <= name.size() || !read_card_header(text, header)) return;
        any = equal_ignoring_case(text.substr(header.name, header.name_end - header.name), name);
        if (any) found = unescaped_text(text.substr(header.value));
    });
    return found;
}

std::vector<std::string> in_one_syntax(std::string_view lines) {
    std::vector<std::string> all;
    each_line(lines, [&](std::string_view text) {
        // Version 3.0 has numbers that are no addresses, version 4.0 days without marks.
        PropertySyntax property;
        if (!in_version(text, CardVersion::V30, property)) return;
        const std::string line = property.header + ":" + property.value;
        if (!in_version(line, CardVersion::V40, property)) return;
        if (property.value.find_first_not_of(';') == std::string::npos) return;
        all.push_back(in_order(upper(property.header)) + ":" + property.value);
    });
    std::sort(all.begin(), all.end());
    return all;
}

// What the contact says, and not how its card puts it, so that an export is known again.
std::string made_identifier(const Card& card) {
    std::string all = filed_name(card);
    for (std::size_t i = 1; i < card.text.size(); ++i) {
        (all += '\0') += card.text[i];
    }
    for (const Day& day : {card.birthday, card.anniversary}) {
        ((((all += '\0') += std::to_string(day.year)) += '-') += std::to_string(day.month)) += '-';
        all += std::to_string(day.day);
    }
    for (const std::string& line : in_one_syntax(card.extras)) {
        (all += '\0') += line;
    }
    return identifier_of("card-", all);
}

std::string without_property(std::string_view lines, Property property) {
    std::string others;
    each_line(lines, [&](std::string_view text) {
        CardHeader header;
        if (read_card_header(text, header) &&
            property_of(text.substr(header.name, header.name_end - header.name)) == property) {
            return;
        }
        others += text;
        others += '\n';
    });
    return others;
}

}  // namespace zr
