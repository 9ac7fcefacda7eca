#pragma once

// Property values and sets of them that wait to be saved.

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/pim.h"

namespace zr::platform::pim {

// Nothing (the property is to be removed, or is not there), an integer (also booleans and file times), a number, text,
// bytes.
using Value = std::variant<std::monostate, LONGLONG, double, std::u16string, std::vector<BYTE>>;

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
