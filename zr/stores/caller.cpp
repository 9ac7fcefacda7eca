#include "zr/stores/caller.h"

#include "zr/base/phone_number.h"
#include "zr/base/text.h"
#include "zr/stores/contacts.h"

namespace zr {
namespace {

// Of a line such as item1.TEL;TYPE=CELL:+49 171 1; empty for other properties.
std::string number_in(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return {};
    std::string_view name = line.substr(0, std::min(line.find(';'), colon));
    name.remove_prefix(name.find('.') == std::string_view::npos ? 0 : name.find('.') + 1);
    if (!equal_ignoring_case(name, "TEL")) return {};
    return std::string(without_scheme(line.substr(colon + 1)));
}

}  // namespace

bool has_number(const Card& card, const std::string& number) {
    for (auto i = static_cast<std::size_t>(Field::BusinessPhone); i <= static_cast<std::size_t>(Field::AssistantPhone);
         ++i) {
        if (!card.text[i].empty() && same_number(card.text[i], number)) return true;
    }
    std::string_view lines = card.extras;
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        const std::string kept = number_in(lines.substr(0, end));
        if (!kept.empty() && same_number(kept, number)) return true;
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
    return false;
}

std::string name_of_caller(const std::string& number) {
    if (significant_digits(number).empty()) return {};
    Store store;
    const int count = store.count();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (contact.get() == nullptr) continue;
        const Card card = read_contact(contact.get(), Extent::Whole);
        if (has_number(card, number)) return display_name(card);
    }
    return {};
}

}  // namespace zr
