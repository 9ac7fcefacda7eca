#include "collection.h"

namespace zr::platform::pim {
namespace {

std::u16string_view trimmed(std::u16string_view text) {
    const std::size_t first = text.find_first_not_of(u' ');
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(u' ') - first + 1);
}

}  // namespace

bool Restriction::parse(INT folder, std::u16string_view text) {
    struct Sign {
        std::u16string_view text;
        Operator op;
    };
    constexpr Sign kSigns[] = {
        {u"<>", Operator::NotEqual}, {u"<=", Operator::LessOrEqual}, {u">=", Operator::GreaterOrEqual},
        {u"=", Operator::Equal},     {u"<", Operator::Less},         {u">", Operator::Greater}};
    text = trimmed(text);
    const std::size_t tag_end = text.find(u']');
    if (tag_end == text.npos) return false;
    field = text_field_of_tag(folder, text.substr(0, tag_end + 1));
    if (field == 0) return false;
    text = trimmed(text.substr(tag_end + 1));
    for (const Sign& sign : kSigns) {
        if (!text.starts_with(sign.text)) continue;
        op = sign.op;
        text = trimmed(text.substr(sign.text.size()));
        if (text.size() < 2 || text.front() != text.back() || (text.front() != u'"' && text.front() != u'\''))
            return false;
        key = Order::fold(text.substr(1, text.size() - 2));
        return true;
    }
    return false;
}

bool Restriction::holds(const std::u16string& value_key) const {
    const int order = value_key.compare(key);
    switch (op) {
        case Operator::Equal:
            return order == 0;
        case Operator::NotEqual:
            return order != 0;
        case Operator::Less:
            return order < 0;
        case Operator::LessOrEqual:
            return order <= 0;
        case Operator::Greater:
            return order > 0;
        default:
            return order >= 0;
    }
}

}  // namespace zr::platform::pim
