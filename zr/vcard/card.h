#pragma once

// One contact as zr carries it between a vCard, the contact store and the terminal. All text is UTF-8.

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

enum class CardVersion { V21, V30, V40 };

enum class Field : std::size_t {
    FileAs,
    Title,
    FirstName,
    MiddleName,
    LastName,
    Suffix,
    Company,
    Department,
    JobTitle,
    Office,
    Email1,
    Email2,
    Email3,
    BusinessPhone,
    Business2Phone,
    BusinessFax,
    HomePhone,
    Home2Phone,
    HomeFax,
    MobilePhone,
    CarPhone,
    Pager,
    RadioPhone,
    AssistantPhone,
    BusinessStreet,
    BusinessCity,
    BusinessState,
    BusinessPostalCode,
    BusinessCountry,
    HomeStreet,
    HomeCity,
    HomeState,
    HomePostalCode,
    HomeCountry,
    OtherStreet,
    OtherCity,
    OtherState,
    OtherPostalCode,
    OtherCountry,
    WebPage,
    Note,
    Categories,
    Spouse,
    Children,
    Assistant,
    YomiFirstName,
    YomiLastName,
    YomiCompany,
    Count
};

// A calendar day; year 0 means that there is none.
struct Day {
    int year = 0;
    int month = 0;
    int day = 0;
    explicit operator bool() const { return year != 0; }
    bool operator==(const Day&) const = default;
};

struct Card {
    std::array<std::string, static_cast<std::size_t>(Field::Count)> text;
    Day birthday;
    Day anniversary;
    // Properties of the card that a contact has no place for, as unfolded vCard 3.0 lines each ended by LF, in the
    // card's order. An export writes them back as they are.
    std::string extras;
    // The properties that the fields were read from, as such lines, where a field does not tell all that its line says:
    // kinds, preferences, parts that fields join. See vcard/said.h.
    std::string lines;
    // What tells the contact from all others for good: its UID, or what stands for it. Empty: nothing yet.
    std::string uid;

    std::string& operator[](Field field) { return text[static_cast<std::size_t>(field)]; }
    const std::string& operator[](Field field) const { return text[static_cast<std::size_t>(field)]; }
    // Whether both are the same contact, however their cards put it.
    bool operator==(const Card& other) const {
        return text == other.text && birthday == other.birthday && anniversary == other.anniversary &&
               extras == other.extras;
    }

    void clear() {
        for (std::string& value : text) {
            value.clear();
        }
        birthday = anniversary = {};
        extras.clear();
        lines.clear();
        uid.clear();
    }
};

// The name people read: the file-as name, else the parts of the name, else company, else first address.
std::string display_name(const Card& card);
// Title, first, middle and last name and suffix with single spaces, without the empty ones.
std::string composed_name(const Card& card);

// "Last, First Middle", which the contact store files a person as who was given no other name to file by.
std::string sorted_name(const Card& card);

// The name that the contact store files a card by, which finds one where the card gives none.
std::string filed_name(const Card& card);

// The name of a field in JSON output, such as "firstName".
std::string_view field_key(Field field);
// The name of a field for people, such as "First name".
std::string_view field_label(Field field);

}  // namespace zr
