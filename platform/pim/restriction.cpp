#include "restriction.h"

#include <algorithm>

#include "date_text.h"
#include "fields.h"

namespace zr::platform::pim {
namespace {

using Operator = Condition::Operator;

constexpr std::u16string_view kBlanks = u" \t\r\n";

std::u16string_view trimmed(std::u16string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Where " WORD [" stands in a text, ignoring case; a word in a quoted value is not followed by a field.
std::size_t find_word(std::u16string_view text, std::u16string_view word) {
    const std::u16string folded = text_key(text);
    for (std::size_t at = folded.find(word); at != folded.npos; at = folded.find(word, at + 1)) {
        const std::size_t next = folded.find_first_not_of(kBlanks, at + word.size());
        const bool apart = at > 0 && kBlanks.find(folded[at - 1]) != kBlanks.npos && next > at + word.size();
        if (apart && next != folded.npos && folded[next] == u'[') return at;
    }
    return folded.npos;
}

std::optional<LONGLONG> number_in(std::u16string_view text) {
    const std::u16string folded = text_key(text);
    if (folded == u"true" || folded == u"yes") return VARIANT_TRUE;
    if (folded == u"false" || folded == u"no") return VARIANT_FALSE;
    const bool negative = folded.starts_with(u'-');
    LONGLONG number = 0;
    for (const WCHAR digit : folded.substr(negative ? 1 : 0)) {
        if (digit < u'0' || digit > u'9' || number > 0xFFFFFFFF) return std::nullopt;
        number = number * 10 + (digit - u'0');
    }
    if (folded.size() == (negative ? 1u : 0u)) return std::nullopt;
    return negative ? -number : number;
}

bool parse_value(std::u16string_view text, Condition& condition) {
    const bool quoted =
        text.size() >= 2 && text.front() == text.back() && (text.front() == u'"' || text.front() == u'\'');
    const std::u16string_view inside = quoted ? text.substr(1, text.size() - 2) : text;
    switch (type_of(condition.field)) {
        case CEVT_LPWSTR:
            condition.key = text_key(inside);
            return quoted;
        case CEVT_R8: {
            const std::optional<Moment> when = date_in(inside);
            if (!quoted || !when) return false;
            condition.when = *when;
            condition.key = date_key(*when);
            return true;
        }
        default: {
            const std::optional<LONGLONG> number = number_in(inside);
            if (number) condition.key = number_key(*number);
            return number.has_value();
        }
    }
}

bool parse_condition(INT folder, std::u16string_view text, Condition& condition) {
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
    condition.field = field_of_tag(folder, text.substr(0, tag_end + 1));
    if (condition.field == 0) return false;
    text = trimmed(text.substr(tag_end + 1));
    for (const Sign& sign : kSigns) {
        if (!text.starts_with(sign.text)) continue;
        condition.op = sign.op;
        return parse_value(trimmed(text.substr(sign.text.size())), condition);
    }
    return false;
}

// Calls `each(part)` for what stands between a word; stops when it is false.
template <class Each>
bool split(std::u16string_view text, std::u16string_view word, Each each) {
    for (std::size_t at = find_word(text, word); at != text.npos; at = find_word(text, word)) {
        if (!each(text.substr(0, at))) return false;
        text = text.substr(at + word.size());
    }
    return each(text);
}

bool is_time(const Condition& condition) {
    return condition.field == field::Start || condition.field == field::End;
}

std::optional<Moment> latest_of(const std::vector<Condition>& all_of) {
    std::optional<Moment> latest;
    for (const Condition& each : all_of) {
        const bool bounds = each.op == Operator::Equal || each.op == Operator::Less || each.op == Operator::LessOrEqual;
        if (is_time(each) && bounds && (!latest || seconds_between(*latest, each.when) < 0)) latest = each.when;
    }
    return latest;
}

std::optional<Moment> earliest_of(const std::vector<Condition>& all_of) {
    std::optional<Moment> earliest;
    for (const Condition& each : all_of) {
        const bool bounds =
            each.op == Operator::Equal || each.op == Operator::Greater || each.op == Operator::GreaterOrEqual;
        if (is_time(each) && bounds && (!earliest || seconds_between(*earliest, each.when) > 0)) earliest = each.when;
    }
    return earliest;
}

}  // namespace

bool Condition::holds(const std::u16string& value_key) const {
    if (type_of(field) == CEVT_R8 && value_key.empty()) return op == Operator::NotEqual;  // no date
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

bool Restriction::parse(INT folder, std::u16string_view text) {
    std::vector<std::vector<Condition>> any_of;
    const bool parsed = split(text, u"or", [&](std::u16string_view alternative) {
        auto& all_of = any_of.emplace_back();
        return split(alternative, u"and", [&](std::u16string_view condition) {
            return parse_condition(folder, condition, all_of.emplace_back());
        });
    });
    any_of_.clear();
    if (parsed) any_of_ = std::move(any_of);
    return parsed;
}

Restriction Restriction::both(const Restriction& a, const Restriction& b) {
    if (a.empty()) return b;
    if (b.empty()) return a;
    Restriction met;
    for (const auto& one : a.any_of_) {
        for (const auto& other : b.any_of_) {
            auto& all_of = met.any_of_.emplace_back(one);
            all_of.insert(all_of.end(), other.begin(), other.end());
        }
    }
    return met;
}

std::vector<CEPROPID> Restriction::fields() const {
    std::vector<CEPROPID> found;
    for (const auto& all_of : any_of_) {
        for (const Condition& condition : all_of) {
            if (std::find(found.begin(), found.end(), condition.field) == found.end()) found.push_back(condition.field);
        }
    }
    return found;
}

std::optional<Moment> Restriction::latest() const {
    std::optional<Moment> latest;
    for (const auto& all_of : any_of_) {
        const std::optional<Moment> bound = latest_of(all_of);
        if (!bound) return std::nullopt;
        if (!latest || seconds_between(*latest, *bound) > 0) latest = bound;
    }
    return latest;
}

std::optional<Moment> Restriction::earliest() const {
    std::optional<Moment> earliest;
    for (const auto& all_of : any_of_) {
        const std::optional<Moment> bound = earliest_of(all_of);
        if (!bound) return std::nullopt;
        if (!earliest || seconds_between(*earliest, *bound) < 0) earliest = bound;
    }
    return earliest;
}

}  // namespace zr::platform::pim
