#include "zr/vcard/card.h"

namespace zr {
namespace {

struct FieldName {
    std::string_view key;
    std::string_view label;
};

constexpr std::array<FieldName, static_cast<std::size_t>(Field::Count)> kNames = {{
    {"fileAs", "File as"},
    {"title", "Title"},
    {"firstName", "First name"},
    {"middleName", "Middle name"},
    {"lastName", "Last name"},
    {"suffix", "Suffix"},
    {"company", "Company"},
    {"department", "Department"},
    {"jobTitle", "Job title"},
    {"office", "Office"},
    {"email1", "E-mail"},
    {"email2", "E-mail 2"},
    {"email3", "E-mail 3"},
    {"businessPhone", "Business phone"},
    {"business2Phone", "Business phone 2"},
    {"businessFax", "Business fax"},
    {"homePhone", "Home phone"},
    {"home2Phone", "Home phone 2"},
    {"homeFax", "Home fax"},
    {"mobilePhone", "Mobile phone"},
    {"carPhone", "Car phone"},
    {"pager", "Pager"},
    {"radioPhone", "Radio phone"},
    {"assistantPhone", "Assistant's phone"},
    {"businessStreet", "Business street"},
    {"businessCity", "Business city"},
    {"businessState", "Business state"},
    {"businessPostalCode", "Business postal code"},
    {"businessCountry", "Business country"},
    {"homeStreet", "Home street"},
    {"homeCity", "Home city"},
    {"homeState", "Home state"},
    {"homePostalCode", "Home postal code"},
    {"homeCountry", "Home country"},
    {"otherStreet", "Other street"},
    {"otherCity", "Other city"},
    {"otherState", "Other state"},
    {"otherPostalCode", "Other postal code"},
    {"otherCountry", "Other country"},
    {"webPage", "Web page"},
    {"note", "Note"},
    {"categories", "Categories"},
    {"spouse", "Spouse"},
    {"children", "Children"},
    {"assistant", "Assistant"},
    {"yomiFirstName", "First name, spoken"},
    {"yomiLastName", "Last name, spoken"},
    {"yomiCompany", "Company, spoken"},
}};

}  // namespace

std::string composed_name(const Card& card) {
    std::string name;
    for (const Field part : {Field::Title, Field::FirstName, Field::MiddleName, Field::LastName, Field::Suffix}) {
        if (card[part].empty()) continue;
        if (!name.empty()) name += ' ';
        name += card[part];
    }
    return name;
}

std::string sorted_name(const Card& card) {
    std::string given = card[Field::FirstName];
    if (!given.empty() && !card[Field::MiddleName].empty()) given += ' ';
    given += card[Field::MiddleName];
    if (card[Field::LastName].empty() || given.empty()) return card[Field::LastName] + given;
    return card[Field::LastName] + ", " + given;
}

std::string display_name(const Card& card) {
    if (!card[Field::FileAs].empty()) return card[Field::FileAs];
    if (std::string name = composed_name(card); !name.empty()) return name;
    return card[Field::Company].empty() ? card[Field::Email1] : card[Field::Company];
}

std::string filed_name(const Card& card) {
    if (!card[Field::FileAs].empty()) return card[Field::FileAs];
    if (std::string name = sorted_name(card); !name.empty()) return name;
    for (const Field other : {Field::Company, Field::Email1}) {
        if (!card[other].empty()) return card[other];
    }
    return composed_name(card);
}

std::string_view field_key(Field field) {
    return kNames[static_cast<std::size_t>(field)].key;
}

std::string_view field_label(Field field) {
    return kNames[static_cast<std::size_t>(field)].label;
}

}  // namespace zr
