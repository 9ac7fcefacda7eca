#pragma once

// The words of a card beside the fields that were read from them. A field holds a number; the card said of which kinds
// it is, how much it is preferred, and that it belongs to a group. Such lines are kept with the contact (Card::lines)
// and hold for as long as the fields say what they said when they were read.

#include <string>
#include <vector>

#include "zr/vcard/attributes.h"
#include "zr/vcard/builder.h"
#include "zr/vcard/card.h"

namespace zr {

// The lines to keep of the properties that a card was made of.
std::string lines_to_keep(const std::vector<TakenProperty>& taken, const Card& card);

class SaidLines {
public:
    // The card outlives this object.
    explicit SaidLines(const Card& card);

    const std::vector<TakenProperty>& all() const { return builder_.taken(); }
    // Whether the contact still is what this one of them said.
    bool stands(const TakenProperty& said) const;
    // Whether the contact is a card's that had no formatted name, and is filed as the store files it by itself.
    bool has_own_name() const;

private:
    bool same_fields(std::size_t first, std::size_t count) const;

    const Card& card_;
    Card read_;  // what the lines say
    CardAttributes attributes_;
    Builder builder_;
};

// The text of the first property of a name, such as "REV", in lines that are kept; empty when there is none.
std::string kept_text(std::string_view lines, std::string_view name);
// The lines in the syntax of version 3.0, in an order of their own, so that equal ones can be told.
std::vector<std::string> in_one_syntax(std::string_view lines);
// An identifier for a card without a UID, which the same card has each time.
std::string made_identifier(const Card& card);

// The lines without those of one kind of property.
std::string without_property(std::string_view lines, Property property);

}  // namespace zr
