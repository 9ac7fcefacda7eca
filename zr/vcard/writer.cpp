#include "zr/vcard/writer.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "zr/base/content_line.h"
#include "zr/base/text.h"
#include "zr/vcard/said.h"
#include "zr/vcard/splitter.h"
#include "zr/vcard/syntax.h"

namespace zr {
namespace {

constexpr std::size_t kLineBytes = 75;

// Which fields of a contact are written.
class Written {
public:
    void add(const TakenProperty& property) {
        for (std::size_t i = property.first; i < property.first + property.count; ++i) {
            fields_[i] = true;
        }
        birthday = birthday || property.day == &Card::birthday;
        anniversary = anniversary || property.day == &Card::anniversary;
    }
    bool has(Field field) const { return fields_[static_cast<std::size_t>(field)]; }

    bool name = false;  // the formatted one
    bool birthday = false;
    bool anniversary = false;

private:
    std::array<bool, static_cast<std::size_t>(Field::Count)> fields_ = {};
};

bool is_printable_ascii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7F; });
}

class Writer {
public:
    Writer(CardVersion version, std::string& out) : version_(version), out_(out) {}

    void line(std::string_view text);
    void property(std::string_view name, std::string_view value);
    void property(std::string_view name, const std::vector<std::string_view>& values);
    void types(std::string& name, std::initializer_list<std::string_view> types) const;
    void day(std::string_view name, Day day);
    // A line of version 3.0; false when it is no property.
    bool kept(std::string_view text);
    CardVersion version() const { return version_; }

private:
    bool agent(std::string_view text, const PropertySyntax& property);
    void quoted_printable(std::string_view name, const std::vector<std::string_view>& values);

    CardVersion version_;
    std::string& out_;
};

// One content line, folded. Version 2.1 folds nothing: its readers do not agree on where a blank belongs.
void Writer::line(std::string_view text) {
    if (version_ != CardVersion::V21) return append_folded(out_, text);
    out_ += text;
    out_ += "\r\n";
}

void Writer::property(std::string_view name, std::string_view value) {
    if (!value.empty()) property(name, std::vector<std::string_view>{value});
}

void Writer::property(std::string_view name, const std::vector<std::string_view>& values) {
    const bool plain = std::all_of(values.begin(), values.end(), [](std::string_view value) {
        return is_printable_ascii(value) && value.find_first_of(";\\") == std::string_view::npos;
    });
    if (version_ == CardVersion::V21 && !plain) return quoted_printable(name, values);
    std::string text(name);
    if (version_ == CardVersion::V21 && !is_ascii(name)) text += ";CHARSET=UTF-8";
    char mark = ':';
    for (const std::string_view value : values) {
        text += mark;
        if (version_ == CardVersion::V21) {
            text += value;
        } else {
            append_escaped_text(text, value);
        }
        mark = ';';
    }
    line(text);
}

void Writer::quoted_printable(std::string_view name, const std::vector<std::string_view>& values) {
    out_ += name;
    out_ += ";CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:";
    std::size_t column = kLineBytes;  // the value begins on a line of its own, so that the name may be of any length
    const auto put = [&](std::string_view piece) {
        if (column + piece.size() > kLineBytes - 1) {
            out_ += "=\r\n";
            column = 0;
        }
        out_ += piece;
        column += piece.size();
    };
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) put(";");
        for (const char c : values[i]) {
            const auto byte = static_cast<unsigned char>(c);
            char code[4] = {c, 0, 0, 0};
            if (byte < ' ' || byte >= 0x7F || c == '=' || c == ';' || c == '\\' || c == ' ' || c == ':') {
                std::snprintf(code, sizeof code, "=%02X", byte);
            }
            put(code);
        }
    }
    out_ += "\r\n";
}

void Writer::types(std::string& name, std::initializer_list<std::string_view> types) const {
    for (const std::string_view type : types) {
        name += version_ == CardVersion::V21 ? ";" : ";TYPE=";
        name += type;
    }
}

void Writer::day(std::string_view name, Day day) {
    if (!day) return;
    char text[32];
    std::snprintf(text, sizeof text, version_ == CardVersion::V40 ? "%04d%02d%02d" : "%04d-%02d-%02d", day.year,
                  day.month, day.day);
    property(name, text);
}

// Version 2.1 has escapes for semicolons only, and no characters outside of ASCII. A list's commas are its own there.
bool Writer::kept(std::string_view text) {
    PropertySyntax syntax;
    if (!in_version(text, version_, syntax)) return false;
    if (version_ != CardVersion::V21) {
        line(syntax.header + ":" + syntax.value);
        return true;
    }
    if (agent(text, syntax)) return true;
    const bool escapes = syntax.value.find('\\') != std::string::npos;
    const bool list = !escapes && syntax.value.find(',') != std::string::npos;
    if (escapes || (!list && !is_printable_ascii(syntax.value))) {
        const std::vector<std::string> parts = value_parts(syntax.value);
        property(syntax.header, {parts.begin(), parts.end()});
        return true;
    }
    if (!is_ascii(syntax.header + syntax.value)) syntax.header += ";CHARSET=UTF-8";
    line(syntax.header + ":" + syntax.value);
    // A reader looks for the blank line behind base64.
    if (syntax.base64) out_ += "\r\n";
    return true;
}

// The card of another person stands in version 2.1 as it is.
bool Writer::agent(std::string_view text, const PropertySyntax& property) {
    const std::string name = upper(property.header);
    if (name != "AGENT" && !name.ends_with(".AGENT")) return false;
    const std::string nested = unescaped_text(property.value);
    std::vector<std::string_view> lines;
    for (std::string_view rest = nested; !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        lines.push_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    const auto count = [&](bool (*is)(std::string_view)) { return std::count_if(lines.begin(), lines.end(), is); };
    if (lines.size() < 2 || !is_card_begin(lines.front()) || !is_card_end(lines.back()) || count(is_card_begin) != 1 ||
        count(is_card_end) != 1 || !is_ascii(text)) {
        return false;
    }
    line(property.header + ":");
    for (const std::string_view each : lines) {
        line(each);
    }
    return true;
}

struct TypedField {
    Field field;
    std::initializer_list<std::string_view> types;
};

// Every card of version 3.0 has an N, and every one but those of 2.1 an FN; readers accept a blank one.
void write_names(const Card& card, const SaidLines& said, Writer& writer, const Written& written) {
    const std::string composed = composed_name(card);
    if (!written.has(Field::LastName) && (!composed.empty() || writer.version() != CardVersion::V40)) {
        writer.property("N", {card[Field::LastName], card[Field::FirstName], card[Field::MiddleName],
                              card[Field::Title], card[Field::Suffix]});
    }
    if (written.name || (writer.version() == CardVersion::V21 && said.has_own_name())) return;
    const std::string& file_as = card[Field::FileAs];
    const bool sorted = file_as == sorted_name(card) && !composed.empty();
    const bool filed = written.has(Field::FileAs) && !composed.empty();
    const std::string name = sorted || filed ? composed : display_name(card);
    if (name.empty()) {
        writer.line("FN:");
    } else {
        writer.property("FN", name);
    }
    if (sorted && !filed && file_as != name) writer.property("X-EVOLUTION-FILE-AS", file_as);
}

void write_organization(const Card& card, Writer& writer) {
    if (card[Field::Company].empty() && card[Field::Department].empty()) return;
    std::vector<std::string_view> units = {card[Field::Company]};
    if (!card[Field::Department].empty()) units.push_back(card[Field::Department]);
    writer.property("ORG", units);
}

void write_categories(const Card& card, Writer& writer) {
    std::string text;
    for (std::string_view rest = card[Field::Categories]; !rest.empty();) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        text += text.empty() ? "CATEGORIES:" : ",";
        append_escaped_text(text, trimmed(rest.substr(0, comma)));
        rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
    if (!text.empty()) writer.line(text);
}

// Those that the card names say themselves how much they are preferred.
void write_emails(const Card& card, Writer& writer, const Written& written) {
    const bool ranked = !written.has(Field::Email1) && !written.has(Field::Email2) && !written.has(Field::Email3);
    int preference = 1;
    for (const Field field : {Field::Email1, Field::Email2, Field::Email3}) {
        if (card[field].empty() || written.has(field)) continue;
        std::string name = "EMAIL";
        if (writer.version() == CardVersion::V40) {
            if (ranked) name += ";PREF=" + std::to_string(preference);
        } else if (ranked && preference == 1) {
            writer.types(name, {"INTERNET", "PREF"});
        } else {
            writer.types(name, {"INTERNET"});
        }
        writer.property(name, card[field]);
        ++preference;
    }
}

void write_phones(const Card& card, Writer& writer, const Written& written) {
    static const TypedField phones[] = {
        {Field::BusinessPhone, {"WORK", "VOICE"}},
        {Field::Business2Phone, {"WORK", "VOICE"}},
        {Field::BusinessFax, {"WORK", "FAX"}},
        {Field::HomePhone, {"HOME", "VOICE"}},
        {Field::Home2Phone, {"HOME", "VOICE"}},
        {Field::HomeFax, {"HOME", "FAX"}},
        {Field::MobilePhone, {"CELL"}},
        {Field::CarPhone, {"CAR"}},
        {Field::Pager, {"PAGER"}},
        {Field::RadioPhone, {"X-EVOLUTION-RADIO"}},
        {Field::AssistantPhone, {"X-EVOLUTION-ASSISTANT"}},
    };
    for (const TypedField& phone : phones) {
        if (written.has(phone.field)) continue;
        std::string name = "TEL";
        writer.types(name, phone.types);
        writer.property(name, card[phone.field]);
    }
}

void write_address(const std::string& name, const std::string* part, Writer& writer) {
    if (std::all_of(part, part + 5, [](const std::string& text) { return text.empty(); })) return;
    writer.property(name, {"", "", part[0], part[1], part[2], part[3], part[4]});
}

void write_addresses(const Card& card, Writer& writer, const Written& written) {
    static const TypedField addresses[] = {
        {Field::BusinessStreet, {"WORK"}}, {Field::HomeStreet, {"HOME"}}, {Field::OtherStreet, {}}};
    for (const TypedField& address : addresses) {
        if (written.has(address.field)) continue;
        std::string name = "ADR";
        writer.types(name, address.types);
        write_address(name, &card[address.field], writer);
    }
}

// A number or address that is another one now stays of the kinds that its line said. False for other properties.
bool write_changed(const TakenProperty& said, const Card& card, Writer& writer) {
    PropertySyntax property;
    if (!in_version(said.line, writer.version(), property)) return false;
    constexpr std::string_view uri = ";VALUE=uri";
    if (const std::size_t at = upper(property.header).find(upper(uri)); at != std::string::npos) {
        property.header.erase(at, uri.size());
    }
    switch (said.property) {
        case Property::Phone:
        case Property::Email:
            writer.property(property.header, card.text[said.first]);
            return true;
        case Property::Address:
            write_address(property.header, &card.text[said.first], writer);
            return true;
        default:
            return false;
    }
}

void write_said(const Card& card, const SaidLines& said, Writer& writer, Written& written) {
    for (const TakenProperty& property : said.all()) {
        if (!property.kept.empty()) continue;
        if (said.stands(property)) {
            writer.kept(property.line);
            written.name = written.name || property.property == Property::FormattedName;
        } else if (!property.fills || !write_changed(property, card, writer)) {
            continue;
        }
        if (property.fills) written.add(property);
    }
}

void write_fields(const Card& card, Writer& writer, const Written& written) {
    if (!written.has(Field::Company)) write_organization(card, writer);
    write_emails(card, writer, written);
    write_phones(card, writer, written);
    write_addresses(card, writer, written);
    if (!written.birthday) writer.day("BDAY", card.birthday);
    if (!written.anniversary) {
        writer.day(writer.version() == CardVersion::V40 ? "ANNIVERSARY" : "X-EVOLUTION-ANNIVERSARY", card.anniversary);
    }
    static constexpr std::pair<std::string_view, Field> others[] = {
        {"TITLE", Field::JobTitle},
        {"URL", Field::WebPage},
        {"NOTE", Field::Note},
        {"X-EVOLUTION-SPOUSE", Field::Spouse},
        {"X-EVOLUTION-ASSISTANT", Field::Assistant},
        {"X-CHILDREN", Field::Children},
        {"X-OFFICE", Field::Office},
        {"X-PHONETIC-FIRST-NAME", Field::YomiFirstName},
        {"X-PHONETIC-LAST-NAME", Field::YomiLastName},
        {"X-PHONETIC-ORG", Field::YomiCompany},
    };
    for (const auto& [name, field] : others) {
        if (!written.has(field)) writer.property(name, card[field]);
    }
    if (!written.has(Field::Categories)) write_categories(card, writer);
}

// What no field holds, each as the card said it where that is known. False when a line is no property.
bool write_extras(std::string_view lines, const SaidLines& said, Writer& writer) {
    std::unordered_multimap<std::string_view, std::string_view> wholes;
    for (const TakenProperty& property : said.all()) {
        const std::string_view kept = property.kept;
        if (!kept.empty()) wholes.emplace(kept.substr(0, kept.size() - 1), property.line);
    }
    bool all = true;
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        std::string_view text = lines.substr(0, end);
        lines.remove_prefix(std::min(end + 1, lines.size()));
        if (const auto whole = wholes.find(text); whole != wholes.end()) {
            text = whole->second;
            wholes.erase(whole);
        }
        if (!writer.kept(text)) all = all && text.empty();
    }
    return all;
}

}  // namespace

bool write_card(const Card& card, CardVersion version, std::string& out) {
    Writer writer(version, out);
    const SaidLines said(card);
    Written written;
    writer.line("BEGIN:VCARD");
    writer.line(version == CardVersion::V21   ? "VERSION:2.1"
                : version == CardVersion::V30 ? "VERSION:3.0"
                                              : "VERSION:4.0");
    write_said(card, said, writer, written);
    write_names(card, said, writer, written);
    write_fields(card, writer, written);
    const bool whole = write_extras(card.extras, said, writer);
    writer.line("END:VCARD");
    return whole;
}

}  // namespace zr
