#pragma once

// One contact of the properties that it has a place for; the others join its extras.

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "zr/vcard/attributes.h"
#include "zr/vcard/card.h"

namespace zr {

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

Property property_of(std::string_view name);

// What became of one property.
struct TakenProperty {
    std::string_view line;  // of the attributes
    Property property;
    std::size_t first = 0;  // the fields that it is about, and how many
    std::size_t count = 0;
    bool fills = false;        // it gave them what they hold; else it said nothing, or nothing new
    bool with_name = false;    // it says the same as the parts of the name
    Day Card::*day = nullptr;  // the day that it gave
    std::string kept = {};     // what joined the extras instead
};

struct RankedAttribute {
    static constexpr int kLeastPreferred = 101;

    const Attribute* attribute;
    unsigned types = 0;
    int preference = kLeastPreferred;
};

class Builder {
public:
    explicit Builder(Card& card) : card_(card) {}

    // The attributes outlive the builder.
    void add(const Attribute& attribute);
    void finish();
    // All that were added, in the card's order; numbers and addresses behind the others, the most preferred first.
    const std::vector<TakenProperty>& taken() const { return taken_; }

private:
    void add_name(const Attribute& attribute);
    void add_organization(const Attribute& attribute);
    void add_address(const Attribute& attribute);
    void add_day(const Attribute& attribute, Day Card::*day);
    void add_phone(const RankedAttribute& phone);
    void add_email(const RankedAttribute& email);
    void add_file_as();
    void add_categories(const Attribute& attribute);
    bool put(Field field, std::string value);
    bool put_first(std::initializer_list<Field> fields, const std::string& value);
    void keep(const Attribute& attribute, bool with_preference = true);
    void note(const Attribute& attribute, Property property);
    void is_about(Field first, std::size_t count, bool fills);

    Card& card_;
    std::string formatted_name_;
    std::string file_as_;
    std::size_t file_as_taken_ = 0;
    bool named_ = false;
    std::vector<RankedAttribute> emails_;
    std::vector<RankedAttribute> phones_;
    std::vector<TakenProperty> taken_;
};

}  // namespace zr
