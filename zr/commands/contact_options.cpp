#include "zr/commands/contact_options.h"

#include <chrono>

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
    {"--first", Field::FirstName},      {"--middle", Field::MiddleName},
    {"--last", Field::LastName},        {"--title", Field::Title},
    {"--suffix", Field::Suffix},        {"--file-as", Field::FileAs},
    {"--company", Field::Company},      {"--department", Field::Department},
    {"--job-title", Field::JobTitle},   {"--work-phone", Field::BusinessPhone},
    {"--home-phone", Field::HomePhone}, {"--mobile", Field::MobilePhone},
    {"--web", Field::WebPage},          {"--note", Field::Note},
};

Day parse_birthday(const std::string& text) {
    const std::chrono::year_month_day date(parse_day("--birthday", text));
    return {int(date.year()), static_cast<int>(unsigned(date.month())), static_cast<int>(unsigned(date.day()))};
}

std::string checked(const std::string& option, const std::string& value) {
    if (!is_utf8(value)) throw Failure{Exit::Usage, option + ": not valid UTF-8"};
    return value;
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
}

Card ContactOptions::card() const {
    Card card;
    for (const FieldOption& option : kOptions) {
        card[option.field] = checked(option.name, texts_.at(option.field));
    }
    if (emails_.size() > 3) throw Failure{Exit::Usage, "--email: a contact has three addresses at most"};
    for (std::size_t i = 0; i < emails_.size(); ++i) {
        card.text[static_cast<std::size_t>(Field::Email1) + i] = checked("--email", emails_[i]);
    }
    if (!birthday_.empty()) card.birthday = parse_birthday(birthday_);
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
    return fields().empty() && birthday_.empty();
}

}  // namespace zr
