#include "zr/vcard/builder.h"

#include <glib.h>

#include <algorithm>
#include <cstdlib>

#include "zr/base/content_line.h"
#include "zr/base/phone_number.h"
#include "zr/base/text.h"
#include "zr/vcard/header.h"

namespace zr {
namespace {

constexpr std::size_t kPhoneFields =
    static_cast<std::size_t>(Field::AssistantPhone) - static_cast<std::size_t>(Field::BusinessPhone) + 1;

struct Known {
    std::string_view name;
    Property property;
    Field field = Field::Count;
};

Known known_property(std::string_view name) {
    static constexpr Known names[] = {
        {"N", Property::Name},
        {"FN", Property::FormattedName},
        {"ORG", Property::Organization},
        {"TITLE", Property::Text, Field::JobTitle},
        {"NOTE", Property::Text, Field::Note},
        {"TEL", Property::Phone},
        {"ADR", Property::Address},
        {"EMAIL", Property::Email},
        {"BDAY", Property::Birthday},
        {"ANNIVERSARY", Property::Anniversary},
        {"X-ANNIVERSARY", Property::Anniversary},
        {"X-EVOLUTION-ANNIVERSARY", Property::Anniversary},
        {"URL", Property::Text, Field::WebPage},
        {"CATEGORIES", Property::Categories},
        {"X-EVOLUTION-FILE-AS", Property::FileAs},
        {"X-EVOLUTION-SPOUSE", Property::Text, Field::Spouse},
        {"X-SPOUSE", Property::Text, Field::Spouse},
        {"X-EVOLUTION-ASSISTANT", Property::Text, Field::Assistant},
        {"X-ASSISTANT", Property::Text, Field::Assistant},
        {"X-CHILDREN", Property::Text, Field::Children},
        {"X-OFFICE", Property::Text, Field::Office},
        {"X-PHONETIC-FIRST-NAME", Property::Text, Field::YomiFirstName},
        {"X-PHONETIC-LAST-NAME", Property::Text, Field::YomiLastName},
        {"X-PHONETIC-ORG", Property::Text, Field::YomiCompany},
        {"VERSION", Property::Ignored},
        {"PRODID", Property::Ignored},
    };
    for (const Known& known : names) {
        if (equal_ignoring_case(known.name, name)) return known;
    }
    return {name, Property::Unknown};
}

enum Type : unsigned {
    kHome = 1,
    kWork = 2,
    kCell = 4,
    kFax = 8,
    kPager = 16,
    kCar = 32,
    kRadio = 64,
    kAssistant = 128,
    kPref = 256,
};

unsigned type_bit(std::string_view name) {
    struct Named {
        std::string_view name;
        unsigned bit;
    };
    static constexpr Named bits[] = {
        {"HOME", kHome},
        {"WORK", kWork},
        {"CELL", kCell},
        {"MOBILE", kCell},
        {"IPHONE", kCell},
        {"FAX", kFax},
        {"PAGER", kPager},
        {"CAR", kCar},
        {"X-EVOLUTION-RADIO", kRadio},
        {"X-EVOLUTION-ASSISTANT", kAssistant},
        {"PREF", kPref},
    };
    for (const Named& known : bits) {
        if (equal_ignoring_case(known.name, name)) return known.bit;
    }
    return 0;
}

void add_types(RankedAttribute& ranked, std::string_view names) {
    while (!names.empty()) {
        const std::size_t comma = std::min(names.find(','), names.size());
        ranked.types |= type_bit(trimmed(names.substr(0, comma)));
        names.remove_prefix(std::min(comma + 1, names.size()));
    }
}

RankedAttribute rank(const Attribute& attribute) {
    RankedAttribute ranked{&attribute};
    for (const Attribute::Parameter& parameter : attribute.parameters) {
        if (equal_ignoring_case(parameter.name, "TYPE")) {
            add_types(ranked, parameter.value);
        } else if (equal_ignoring_case(parameter.name, "PREF") &&
                   ranked.preference == RankedAttribute::kLeastPreferred) {
            const int given = std::atoi(std::string(parameter.value).c_str());
            ranked.preference = given >= 1 && given <= 100 ? given : 1;
        }
    }
    if (ranked.types & kPref) ranked.preference = 1;
    return ranked;
}

std::string value_at(const Attribute& attribute, std::size_t index) {
    return index < attribute.values.size() ? std::string(trimmed(attribute.values[index])) : std::string();
}

// The values from `first` on, joined by `separator`.
std::string joined_values(const Attribute& attribute, std::size_t first, std::string_view separator) {
    std::string out;
    for (std::size_t i = first; i < attribute.values.size(); ++i) {
        if (i > first) out += separator;
        out += attribute.values[i];
    }
    return out;
}

bool parse_day(std::string_view text, Day& day) {
    std::string digits;
    for (const char c : text) {
        if (c == 'T' || c == 't' || c == ' ') break;
        if (g_ascii_isdigit(c))
            digits += c;
        else if (c != '-' || digits.empty())
            return false;
    }
    if (digits.size() != 8) return false;
    const int number = std::atoi(digits.c_str());
    const Day read{number / 10000, number / 100 % 100, number % 100};
    if (read.year < 1601 || read.year > 4500 ||
        !g_date_valid_dmy(static_cast<GDateDay>(read.day), static_cast<GDateMonth>(read.month),
                          static_cast<GDateYear>(read.year))) {
        return false;
    }
    day = read;
    return true;
}

}  // namespace

Property property_of(std::string_view name) {
    return known_property(name).property;
}

void Builder::add(const Attribute& attribute) {
    const Known known = known_property(attribute.name);
    note(attribute, known.property);
    switch (known.property) {
        case Property::Name:
            return add_name(attribute);
        case Property::FormattedName:
            if (!formatted_name_.empty()) return keep(attribute);
            is_about(Field::FileAs, 1, true);
            formatted_name_ = joined_values(attribute, 0, ";");
            return;
        case Property::FileAs:
            if (!file_as_.empty()) return keep(attribute);
            file_as_ = joined_values(attribute, 0, ";");
            if (file_as_.empty()) return keep(attribute);
            is_about(Field::FileAs, 1, true);
            file_as_taken_ = taken_.size() - 1;
            return;
        case Property::Organization:
            return add_organization(attribute);
        case Property::Phone:
            taken_.pop_back();  // their order is not known yet
            phones_.push_back(rank(attribute));
            return;
        case Property::Email:
            taken_.pop_back();
            emails_.push_back(rank(attribute));
            return;
        case Property::Address:
            return add_address(attribute);
        case Property::Birthday:
            return add_day(attribute, &Card::birthday);
        case Property::Anniversary:
            return add_day(attribute, &Card::anniversary);
        case Property::Categories:
            return add_categories(attribute);
        case Property::Text:
            if (!put(known.field, joined_values(attribute, 0, ";"))) return keep(attribute);
            if (!taken_.back().fills) is_about(known.field, 1, false);
            return;
        case Property::Ignored:
            return;
        case Property::Unknown:
            return keep(attribute);
    }
}

void Builder::finish() {
    const auto preferred = [](const auto& a, const auto& b) { return a.preference < b.preference; };
    std::stable_sort(phones_.begin(), phones_.end(), preferred);
    std::stable_sort(emails_.begin(), emails_.end(), preferred);
    for (const RankedAttribute& phone : phones_) {
        note(*phone.attribute, Property::Phone);
        add_phone(phone);
    }
    for (const RankedAttribute& email : emails_) {
        note(*email.attribute, Property::Email);
        add_email(email);
    }
    add_file_as();
}

// True when `value` needs no other place: it is empty, or it went into the empty field, or it stands there already.
bool Builder::put(Field field, std::string value) {
    if (value.empty() || card_[field] == value) return true;
    if (!card_[field].empty()) return false;
    card_[field] = std::move(value);
    is_about(field, 1, true);
    return true;
}

bool Builder::put_first(std::initializer_list<Field> fields, const std::string& value) {
    return std::any_of(fields.begin(), fields.end(), [&](Field field) { return put(field, value); });
}

void Builder::add_name(const Attribute& attribute) {
    if (named_) return keep(attribute);
    named_ = true;
    is_about(Field::Title, 5, true);
    unsigned index = 0;
    for (const Field field : {Field::LastName, Field::FirstName, Field::MiddleName, Field::Title, Field::Suffix}) {
        card_[field] = value_at(attribute, index++);
    }
}

void Builder::add_organization(const Attribute& attribute) {
    if (!card_[Field::Company].empty() || !card_[Field::Department].empty()) return keep(attribute);
    card_[Field::Company] = value_at(attribute, 0);
    std::string units = joined_values(attribute, 1, ";");
    while (!units.empty() && units.back() == ';') {
        units.pop_back();
    }
    card_[Field::Department] = std::move(units);
    is_about(Field::Company, 2, true);
}

void Builder::add_address(const Attribute& attribute) {
    static constexpr std::array<Field, 3> streets = {Field::BusinessStreet, Field::HomeStreet, Field::OtherStreet};
    const unsigned types = rank(attribute).types;
    const auto is_free = [&](Field street) {
        for (std::size_t i = 0; i < 5; ++i) {
            if (!card_.text[static_cast<std::size_t>(street) + i].empty()) return false;
        }
        return true;
    };
    Field street = types & kWork ? streets[0] : types & kHome ? streets[1] : streets[2];
    if (!is_free(street)) street = streets[2];
    if (!is_free(street)) return keep(attribute);
    std::string lines;
    for (unsigned i = 0; i < 3; ++i) {
        const std::string line = value_at(attribute, i);
        if (!lines.empty() && !line.empty()) lines += '\n';
        lines += line;
    }
    const std::size_t first = static_cast<std::size_t>(street);
    card_.text[first] = std::move(lines);
    for (unsigned i = 1; i < 5; ++i) {
        card_.text[first + i] = value_at(attribute, i + 2);
    }
    is_about(street, 5, true);
}

void Builder::add_day(const Attribute& attribute, Day Card::*day) {
    if (card_.*day || !parse_day(value_at(attribute, 0), card_.*day)) return keep(attribute);
    taken_.back().day = day;
    taken_.back().fills = true;
}

void Builder::add_phone(const RankedAttribute& phone) {
    is_about(Field::BusinessPhone, kPhoneFields, false);
    const std::string number(without_scheme(joined_values(*phone.attribute, 0, ";")));
    const unsigned types = phone.types;
    bool placed = false;
    if (types & kFax) {
        placed = types & kHome ? put(Field::HomeFax, number) : put(Field::BusinessFax, number);
    } else if (types & kPager) {
        placed = put(Field::Pager, number);
    } else if (types & kCell) {
        placed = put(Field::MobilePhone, number);
    } else if (types & kCar) {
        placed = put(Field::CarPhone, number);
    } else if (types & kRadio) {
        placed = put(Field::RadioPhone, number);
    } else if (types & kAssistant) {
        placed = put(Field::AssistantPhone, number);
    } else if (types & kWork) {
        placed = put_first({Field::BusinessPhone, Field::Business2Phone}, number);
    } else if (types & kHome) {
        placed = put_first({Field::HomePhone, Field::Home2Phone}, number);
    } else {
        placed = number.empty();  // of no kind that a contact knows; kept as it stands
    }
    if (!placed) keep(*phone.attribute, (types & ~kPref) == 0);
}

void Builder::add_email(const RankedAttribute& email) {
    is_about(Field::Email1, 3, false);
    std::string address(trimmed(joined_values(*email.attribute, 0, ";")));
    if (equal_ignoring_case(address.substr(0, 7), "mailto:")) address.erase(0, 7);
    // The same address again would only take a place from another one.
    for (const Field field : {Field::Email1, Field::Email2, Field::Email3}) {
        if (equal_ignoring_case(card_[field], address)) return;
    }
    if (!put_first({Field::Email1, Field::Email2, Field::Email3}, address)) keep(*email.attribute, false);
}

// A contact has one name beside the parts of it. The formatted name is that one when the parts do not tell it.
void Builder::add_file_as() {
    const bool told = formatted_name_.empty() || formatted_name_ == composed_name(card_);
    card_[Field::FileAs] = told && !file_as_.empty() ? file_as_ : formatted_name_;
    for (TakenProperty& property : taken_) {
        if (property.property == Property::FormattedName) property.with_name = told;
    }
    if (file_as_.empty() || card_[Field::FileAs] == file_as_) return;
    TakenProperty& property = taken_[file_as_taken_];
    property.kept = std::string(property.line) + '\n';
    card_.extras += property.kept;
}

void Builder::add_categories(const Attribute& attribute) {
    is_about(Field::Categories, 1, true);
    std::string& all = card_[Field::Categories];
    const std::string more = joined_values(attribute, 0, ",");
    for (std::string_view rest = more; !rest.empty();) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        const std::string_view category = trimmed(rest.substr(0, comma));
        rest.remove_prefix(std::min(comma + 1, rest.size()));
        if (category.empty()) continue;
        if (!all.empty()) all += ", ";
        all += category;
    }
}

// Keeps the property as it was. One that comes behind the fields of its kind does so by its place, and would overtake
// them if it kept its preference.
void Builder::keep(const Attribute& attribute, bool with_preference) {
    std::string& kept = taken_.back().kept;
    kept = with_preference ? std::string(attribute.line) : without_preference(attribute.line);
    kept += '\n';
    card_.extras += kept;
}

void Builder::note(const Attribute& attribute, Property property) {
    taken_.push_back({attribute.line, property});
}

void Builder::is_about(Field first, std::size_t count, bool fills) {
    TakenProperty& property = taken_.back();
    property.first = static_cast<std::size_t>(first);
    property.count = count;
    property.fills = fills;
}

}  // namespace zr
