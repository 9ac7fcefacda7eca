#include "zr/vcard/reader.h"

#include <glib.h>

#include <algorithm>
#include <cstdlib>

#include "zr/base/content_line.h"
#include "zr/base/text.h"
#include "zr/vcard/attributes.h"

namespace zr {
namespace {

enum class Property {
    Name,
    FormattedName,
    FileAs,
    Organization,
    Phone,
    Address,
    Email,
    Birthday,
    Anniversary,
    Categories,
    Text,     // one value for one field of the contact
    Ignored,  // belongs to the file, not to the person
    Unknown,
};

struct Known {
    std::string_view name;
    Property property;
    Field field = Field::Count;
};

Known lookup(std::string_view name) {
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

constexpr int kLeastPreferred = 101;

// A property with what its parameters say about its kind and preference.
struct Ranked {
    const Attribute* attribute;
    unsigned types = 0;
    int preference = kLeastPreferred;
};

void add_types(Ranked& ranked, std::string_view names) {
    while (!names.empty()) {
        const std::size_t comma = std::min(names.find(','), names.size());
        ranked.types |= type_bit(trimmed(names.substr(0, comma)));
        names.remove_prefix(std::min(comma + 1, names.size()));
    }
}

Ranked rank(const Attribute& attribute) {
    Ranked ranked{&attribute};
    for (const Attribute::Parameter& parameter : attribute.parameters) {
        if (equal_ignoring_case(parameter.name, "TYPE")) {
            add_types(ranked, parameter.value);
        } else if (equal_ignoring_case(parameter.name, "PREF") && ranked.preference == kLeastPreferred) {
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

// Builds one contact from the properties that it has a place for; the others join its extras.
class Builder {
public:
    explicit Builder(Card& card) : card_(card) {}

    void add(const Attribute& attribute);
    void finish();

private:
    void add_name(const Attribute& attribute);
    void add_organization(const Attribute& attribute);
    void add_address(const Attribute& attribute);
    void add_phone(const Ranked& phone);
    void add_email(const Ranked& email);
    void add_file_as();
    void add_categories(const Attribute& attribute);
    bool put(Field field, std::string value);
    bool put_first(std::initializer_list<Field> fields, const std::string& value);
    void keep(const Attribute& attribute, bool with_preference = true);

    Card& card_;
    std::string formatted_name_;
    std::string file_as_;
    bool named_ = false;
    std::vector<Ranked> emails_;
    std::vector<Ranked> phones_;
};

void Builder::add(const Attribute& attribute) {
    const Known known = lookup(attribute.name);
    switch (known.property) {
        case Property::Name:
            return add_name(attribute);
        case Property::FormattedName:
            if (!formatted_name_.empty()) return keep(attribute);
            formatted_name_ = joined_values(attribute, 0, ";");
            return;
        case Property::FileAs:
            file_as_ = joined_values(attribute, 0, ";");
            return;
        case Property::Organization:
            return add_organization(attribute);
        case Property::Phone:
            phones_.push_back(rank(attribute));
            return;
        case Property::Email:
            emails_.push_back(rank(attribute));
            return;
        case Property::Address:
            return add_address(attribute);
        case Property::Birthday:
            if (card_.birthday || !parse_day(value_at(attribute, 0), card_.birthday)) keep(attribute);
            return;
        case Property::Anniversary:
            if (card_.anniversary || !parse_day(value_at(attribute, 0), card_.anniversary)) keep(attribute);
            return;
        case Property::Categories:
            return add_categories(attribute);
        case Property::Text:
            if (!put(known.field, joined_values(attribute, 0, ";"))) keep(attribute);
            return;
        case Property::Ignored:
            return;
        case Property::Unknown:
            return keep(attribute);
    }
}

void Builder::finish() {
    const auto preferred = [](const Ranked& a, const Ranked& b) { return a.preference < b.preference; };
    std::stable_sort(phones_.begin(), phones_.end(), preferred);
    std::stable_sort(emails_.begin(), emails_.end(), preferred);
    for (const Ranked& phone : phones_) {
        add_phone(phone);
    }
    for (const Ranked& email : emails_) {
        add_email(email);
    }
    add_file_as();
}

// True when `value` needs no other place: it is empty, or it went into the empty field, or it stands there already.
bool Builder::put(Field field, std::string value) {
    if (value.empty() || card_[field] == value) return true;
    if (!card_[field].empty()) return false;
    card_[field] = std::move(value);
    return true;
}

bool Builder::put_first(std::initializer_list<Field> fields, const std::string& value) {
    return std::any_of(fields.begin(), fields.end(), [&](Field field) { return put(field, value); });
}

void Builder::add_name(const Attribute& attribute) {
    if (named_) return keep(attribute);
    named_ = true;
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
}

void Builder::add_phone(const Ranked& phone) {
    std::string number = joined_values(*phone.attribute, 0, ";");
    if (number.starts_with("tel:")) number.erase(0, 4);
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

void Builder::add_email(const Ranked& email) {
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
    if (file_as_.empty() || card_[Field::FileAs] == file_as_) return;
    card_.extras += "X-EVOLUTION-FILE-AS:";
    append_escaped_text(card_.extras, file_as_);
    card_.extras += '\n';
}

void Builder::add_categories(const Attribute& attribute) {
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
    card_.extras += with_preference ? std::string(attribute.line) : without_preference(attribute.line);
    card_.extras += '\n';
}

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
        const Property property = lookup(name).property;
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
