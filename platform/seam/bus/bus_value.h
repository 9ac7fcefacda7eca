#pragma once

// Values as D-Bus carries them: what calls are given, what answers and signals hold.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/export.h"

namespace zr::platform {

struct BusValue {
    // D-Bus's letter for the type: y b n q i u x t are in `integer` (t with the same bits), d is in `real`, s o g are
    // in `text`; v has the one value inside it as its item, a its elements, r (a structure) its members, e (an entry of
    // a dictionary, which is an a of them) its key and its value. 0: nothing.
    char type = '\0';
    std::int64_t integer = 0;
    double real = 0;
    std::string text;  // of an a: the signature of its elements
    std::vector<BusValue> items;

    // The value of that key in a dictionary, out of its variant; NULL when this is none, or has no such key.
    ZRPLATFORM_API const BusValue* find(std::string_view key) const noexcept;
};

// For calls. They may throw std::bad_alloc.
inline BusValue bus_text(std::string_view text, char type = 's') {
    return {type, 0, 0, std::string(text), {}};
}
inline BusValue bus_integer(std::int64_t value, char type) {
    return {type, value, 0, {}, {}};
}
inline BusValue bus_array(std::string_view elements, std::vector<BusValue> items) {
    return {'a', 0, 0, std::string(elements), std::move(items)};
}
ZRPLATFORM_API BusValue bus_variant(BusValue inside);
ZRPLATFORM_API BusValue bus_entry(std::string_view key, BusValue inside);  // of an a{sv}

// For answers: what a value is, or what is here named for one of another type, and for NULL.
ZRPLATFORM_API std::string_view text_of(const BusValue* value) noexcept;               // s, o and g; ""
ZRPLATFORM_API std::int64_t integer_of(const BusValue* value) noexcept;                // 0
ZRPLATFORM_API const std::vector<BusValue>& items_of(const BusValue* value) noexcept;  // of an a; none

}  // namespace zr::platform
