#include "bus/bus_value.h"

#include <new>

namespace zr::platform {

const BusValue* BusValue::find(std::string_view key) const noexcept {
    for (const BusValue& entry : items) {
        if (type != 'a' || entry.type != 'e' || entry.items.size() != 2 || text_of(entry.items.data()) != key) continue;
        const BusValue* value = &entry.items[1];
        while (value->type == 'v' && !value->items.empty()) {
            value = value->items.data();
        }
        return value;
    }
    return nullptr;
}

BusValue bus_variant(BusValue inside) {
    BusValue variant{'v', 0, 0, {}, {}};
    variant.items.push_back(std::move(inside));
    return variant;
}

BusValue bus_entry(std::string_view key, BusValue inside) {
    BusValue entry{'e', 0, 0, {}, {}};
    entry.items.push_back(bus_text(key));
    entry.items.push_back(bus_variant(std::move(inside)));
    return entry;
}

std::string_view text_of(const BusValue* value) noexcept {
    const bool is_text = value != nullptr && (value->type == 's' || value->type == 'o' || value->type == 'g');
    return is_text ? std::string_view(value->text) : std::string_view();
}

std::int64_t integer_of(const BusValue* value) noexcept {
    return value != nullptr ? value->integer : 0;
}

const std::vector<BusValue>& items_of(const BusValue* value) noexcept {
    // Never destroyed: threads may read as long as the process lives.
    alignas(std::vector<BusValue>) static unsigned char place[sizeof(std::vector<BusValue>)];
    static const auto& none = *new (place) std::vector<BusValue>;
    return value != nullptr && value->type == 'a' ? value->items : none;
}

}  // namespace zr::platform
