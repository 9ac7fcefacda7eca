#include "zr/vcard/writer.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <vector>

#include "zr/base/content_line.h"
#include "zr/base/text.h"
#include "zr/vcard/header.h"

namespace zr {
namespace {

constexpr std::size_t kLineBytes = 75;

// A kept line, which is one of version 3.0, as 2.1 has it.
std::string in_version_21(std::string_view text, const CardHeader& header) {
    std::string out(text.substr(0, header.name_end));
    for (const std::string_view parameter : card_parameters(text, header)) {
        (out += ';') += equal_ignoring_case(parameter, "ENCODING=b") ? "ENCODING=BASE64" : parameter;
    }
    const bool ascii =
        std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (!ascii) out += ";CHARSET=UTF-8";
    return out += text.substr(header.value - 1);
}

class Writer {
public:
    Writer(CardVersion version, std::string& out) : version_(version), out_(out) {}

    void line(std::string_view text);
    void property(std::string_view name, std::string_view value);
    void property(std::string_view name, const std::vector<std::string_view>& values);
    void types(std::string& name, std::initializer_list<std::string_view> types) const;
    void day(std::string_view name, Day day);
    bool extras(std::string_view lines);
    CardVersion version() const { return version_; }

private:
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
    const auto is_plain = [](char c) { return c >= ' ' && c < 0x7F && c != ';' && c != '\\'; };
    const bool plain = std::all_of(values.begin(), values.end(), [&](std::string_view value) {
        return std::all_of(value.begin(), value.end(), is_plain);
    });
    if (version_ == CardVersion::V21 && !plain) return quoted_printable(name, values);
    std::string text(name);
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

bool Writer::extras(std::string_view lines) {
    bool whole = true;
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        const std::string_view text = lines.substr(0, end);
        lines.remove_prefix(std::min(end + 1, lines.size()));
        CardHeader header;
        if (!read_card_header(text, header)) {
            whole = whole && text.empty();
            continue;
        }
        if (version_ != CardVersion::V21) {
            line(text);
            continue;
        }
        line(in_version_21(text, header));
        // A 2.1 reader looks for the blank line behind base64.
        if (header.base64) out_ += "\r\n";
    }
    return whole;
}

struct TypedField {
    Field field;
    std::initializer_list<std::string_view> types;
};

void write_names(const Card& card, Writer& writer) {
    writer.property("N", {card[Field::LastName], card[Field::FirstName], card[Field::MiddleName], card[Field::Title],
                          card[Field::Suffix]});
    const std::string& file_as = card[Field::FileAs];
    const bool sorted = file_as == sorted_name(card) && !composed_name(card).empty();
    const std::string name = sorted ? composed_name(card) : display_name(card);
    // Every card has an FN; one without anything to call it by gets a blank one, which readers accept.
    if (name.empty()) {
        writer.line("FN:");
    } else {
        writer.property("FN", name);
    }
    if (sorted && file_as != name) writer.property("X-EVOLUTION-FILE-AS", file_as);
    if (!card[Field::Company].empty() || !card[Field::Department].empty()) {
        std::vector<std::string_view> units = {card[Field::Company]};
        if (!card[Field::Department].empty()) units.push_back(card[Field::Department]);
        writer.property("ORG", units);
    }
    writer.property("TITLE", card[Field::JobTitle]);
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

void write_emails(const Card& card, Writer& writer) {
    int preference = 1;
    for (const Field field : {Field::Email1, Field::Email2, Field::Email3}) {
        if (card[field].empty()) continue;
        std::string name = "EMAIL";
        if (writer.version() == CardVersion::V40) {
            name += ";PREF=" + std::to_string(preference);
        } else if (preference == 1) {
            writer.types(name, {"INTERNET", "PREF"});
        } else {
            writer.types(name, {"INTERNET"});
        }
        writer.property(name, card[field]);
        ++preference;
    }
}

void write_phones(const Card& card, Writer& writer) {
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
        std::string name = "TEL";
        writer.types(name, phone.types);
        writer.property(name, card[phone.field]);
    }
}

void write_addresses(const Card& card, Writer& writer) {
    static const TypedField addresses[] = {
        {Field::BusinessStreet, {"WORK"}}, {Field::HomeStreet, {"HOME"}}, {Field::OtherStreet, {}}};
    for (const TypedField& address : addresses) {
        const std::string* part = &card[address.field];
        if (std::all_of(part, part + 5, [](const std::string& text) { return text.empty(); })) continue;
        std::string name = "ADR";
        writer.types(name, address.types);
        writer.property(name, {"", "", part[0], part[1], part[2], part[3], part[4]});
    }
}

}  // namespace

bool write_card(const Card& card, CardVersion version, std::string& out) {
    Writer writer(version, out);
    writer.line("BEGIN:VCARD");
    writer.line(version == CardVersion::V21   ? "VERSION:2.1"
                : version == CardVersion::V30 ? "VERSION:3.0"
                                              : "VERSION:4.0");
    write_names(card, writer);
    write_emails(card, writer);
    write_phones(card, writer);
    write_addresses(card, writer);
    writer.day("BDAY", card.birthday);
    writer.day(version == CardVersion::V40 ? "ANNIVERSARY" : "X-EVOLUTION-ANNIVERSARY", card.anniversary);
    static constexpr std::pair<std::string_view, Field> others[] = {
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
        writer.property(name, card[field]);
    }
    write_categories(card, writer);
    const bool whole = writer.extras(card.extras);
    writer.line("END:VCARD");
    return whole;
}

}  // namespace zr
