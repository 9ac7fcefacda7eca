#pragma once

// Conditions on an item's fields: "[Start] >= \"2024-06-01\" AND [Start] < \"2024-07-01\" OR [Subject] = \"x\"".

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "keys.h"

namespace zr::platform::pim {

struct Condition {
    enum class Operator { Equal, NotEqual, Less, LessOrEqual, Greater, GreaterOrEqual };

    CEPROPID field = 0;
    Operator op = Operator::Equal;
    std::u16string key;
    Moment when = {};  // of a date

    bool holds(const std::u16string& value_key) const;
};

class Restriction {
public:
    // False: not conditions on fields of the folder.
    bool parse(INT folder, std::u16string_view text);
    bool empty() const { return any_of_.empty(); }
    void clear() { any_of_.clear(); }
    // What meets both.
    static Restriction both(const Restriction& a, const Restriction& b);

    std::vector<CEPROPID> fields() const;
    // `key(field)` gives the key of an item's field.
    template <class Key>
    bool holds(Key key) const {
        for (const auto& all_of : any_of_) {
            bool all = true;
            for (const Condition& condition : all_of) {
                all = all && condition.holds(key(condition.field));
            }
            if (all) return true;
        }
        return any_of_.empty();
    }

    // Whoever meets it starts, or ends, no later than `latest` and ends, or starts, no earlier than `earliest`.
    std::optional<Moment> latest() const;
    std::optional<Moment> earliest() const;

private:
    std::vector<std::vector<Condition>> any_of_;
};

}  // namespace zr::platform::pim
