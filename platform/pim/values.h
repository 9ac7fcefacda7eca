#pragma once

// Property values and sets of them that wait to be saved.

#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "platform/pim.h"

namespace zr::platform::pim {

// Nothing (the property is to be removed, or is not there), an integer (also booleans and file times), a number, text,
// bytes.
using AnyValue = std::variant<std::monostate, LONGLONG, double, std::u16string, std::vector<BYTE>>;

// Copies the alternative by itself and moves it in: when memory runs out inside the variant's own copy constructor,
// libstdc++ goes on to destroy an alternative that is not there.
class Value : public AnyValue {
public:
    Value() = default;
    using AnyValue::AnyValue;
    Value(Value&&) noexcept = default;
    Value& operator=(Value&&) noexcept = default;
    Value(const Value& other) : AnyValue() {  // NOLINT(bugprone-copy-constructor-init): see above
        std::visit(
            [this](const auto& held) {
                auto copy = held;
                this->template emplace<std::decay_t<decltype(copy)>>(std::move(copy));
            },
            static_cast<const AnyValue&>(other));
    }
    Value& operator=(const Value& other) { return *this = Value(other); }
    ~Value() = default;
};

class Values {
public:
    using Entry = std::pair<CEPROPID, Value>;

    bool empty() const { return entries_.empty(); }
    const Value* find(CEPROPID id) const {
        for (const Entry& entry : entries_) {
            if (entry.first == id) return &entry.second;
        }
        return nullptr;
    }
    void set(CEPROPID id, Value value) {
        for (Entry& entry : entries_) {
            if (entry.first != id) continue;
            entry.second = std::move(value);
            return;
        }
        entries_.emplace_back(id, std::move(value));
    }
    const std::vector<Entry>& entries() const { return entries_; }

private:
    std::vector<Entry> entries_;
};

}  // namespace zr::platform::pim
