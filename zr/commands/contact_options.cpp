#include "zr/commands/contact_options.h"

#include <algorithm>
#include <chrono>
#include <string_view>

#include "zr/base/failure.h"
#include "zr/base/text.h"
#include "zr/commands/calendar_day.h"

namespace zr {
namespace {

struct FieldOption {
    const char* name;
    Field field;
};

constexpr FieldOption kOptions[] = {
    {"--first", Field::FirstName},
    {"--middle", Field::MiddleName},
    {"--last", Field::LastName},
    {"--title", Field::Title},
    {"--suffix", Field::Suffix},
    {"--file-as", Field::FileAs},
    {"--company", Field::Company},
    {"--department", Field::Department},
    {"--office", Field::Office},
    {"--job-title", Field::JobTitle},
    {"--work-phone", Field::BusinessPhone},
    {"--work-phone-2", Field::Business2Phone},
    {"--work-fax", Field::BusinessFax},
    {"--home-phone", Field::HomePhone},
    {"--home-phone-2", Field::Home2Phone},
    {"--home-fax", Field::HomeFax},
    {"--mobile", Field::MobilePhone},
    {"--car-phone", Field::CarPhone},
    {"--pager", Field::Pager},
    {"--radio-phone", Field::RadioPhone},
    {"--assistant-phone", Field::AssistantPhone},
    {"--work-street", Field::BusinessStreet},
    {"--work-city", Field::BusinessCity},
    {"--work-state", Field::BusinessState},
    {"--work-postal-code", Field::BusinessPostalCode},
    {"--work-country", Field::BusinessCountry},
    {"--home-street", Field::HomeStreet},
    {"--home-city", Field::HomeCity},
    {"--home-state", Field::HomeState},
    {"--home-postal-code", Field::HomePostalCode},
    {"--home-country", Field::HomeCountry},
    {"--other-street", Field::OtherStreet},
    {"--other-city", Field::OtherCity},
    {"--other-state", Field::OtherState},
    {"--other-postal-code", Field::OtherPostalCode},
    {"--other-country", Field::OtherCountry},
    {"--web", Field::WebPage},
    {"--note", Field::Note},
    {"--categories", Field::Categories},
    {"--spouse", Field::Spouse},
    {"--children", Field::Children},
    {"--assistant", Field::Assistant},
};

Day parse_date(const std::string& option, const std::string& text) {
    const std::chrono::year_month_day date(parse_day(option, text));
    return {int(date.year()), static_cast<int>(unsigned(date.month())), static_cast<int>(unsigned(date.day()))};
}

std::string checked(const std::string& option, const std::string& value) {
    if (!is_utf8(value)) throw Failure{Exit::Usage, option + ": not valid UTF-8"};
    return value;
}

bool is_address_character(char c) {
    return static_cast<unsigned char>(c) > 0x20 && c != 0x7F &&
           std::string_view("<>()[],;:\\\"").find(c) == std::string_view::npos;
}

// One that mail can be sent to: a name and a host, without what a list or a header would put around it.
std::string checked_address(const std::string& address) {
    checked("--email", address);
    const std::size_t at = address.find('@');
    const std::string host = at == std::string::npos ? std::string() : address.substr(at + 1);
    const bool good = at != 0 && !host.empty() && host.find('@') == std::string::npos && !host.starts_with('.') &&
                      !host.ends_with('.') && host.find("..") == std::string::npos &&
                      std::all_of(address.begin(), address.end(), is_address_character);
    if (!good && !address.empty())
        throw Failure{Exit::Usage, "--email: '" + address + "' is no address such as jo@example.com"};
    return address;
}

std::string checked_number(const std::string& option, const std::string& number) {
    checked(option, number);
    const bool digits = std::any_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!number.empty() && !digits) throw Failure{Exit::Usage, option + ": '" + number + "' has no digit in it"};
    return number;
}

bool is_number(Field field) {
    return field >= Field::BusinessPhone && field <= Field::AssistantPhone;
}

}  // namespace

void ContactOptions::add_to(Command command) {
    for (const FieldOption& option : kOptions) {
        given_.emplace(option.field,
                       command.add_option(option.name, texts_[option.field], std::string(field_label(option.field))));
    }
    command.add_option("--email", emails_, "E-mail address; given several times (up to three), the preferred one first")
        .one_at_a_time();
    command.add_option("--birthday", birthday_, "A day such as 1990-01-31");
    command.add_option("--anniversary", anniversary_, "A day such as 2015-06-20");
}

Card ContactOptions::card() const {
    Card card;
    for (const FieldOption& option : kOptions) {
        const std::string& text = texts_.at(option.field);
        card[option.field] = is_number(option.field) ? checked_number(option.name, text) : checked(option.name, text);
    }
    if (emails_.size() > 3) throw Failure{Exit::Usage, "--email: a contact has three addresses at most"};
    for (std::size_t i = 0; i < emails_.size(); ++i) {
        card.text[static_cast<std::size_t>(Field::Email1) + i] = checked_address(emails_[i]);
    }
    if (!birthday_.empty()) card.birthday = parse_date("--birthday", birthday_);
    if (!anniversary_.empty()) card.anniversary = parse_date("--anniversary", anniversary_);
    return card;
}

std::vector<Field> ContactOptions::fields() const {
    std::vector<Field> fields;
    for (const auto& [field, option] : given_) {
        if (option.given()) fields.push_back(field);
    }
    // Addresses are a list: giving some replaces them all.
    if (!emails_.empty()) fields.insert(fields.end(), {Field::Email1, Field::Email2, Field::Email3});
    return fields;
}

bool ContactOptions::none_given() const {
    return fields().empty() && birthday_.empty() && anniversary_.empty();
}

}  // namespace zr
