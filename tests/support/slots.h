#pragma once

// Calls a virtual function by its slot, as code compiled against the documented layout does. A virtual destructor
// takes two slots in a table, one after the other.

#include <cstddef>
#include <cstring>

namespace zr::test {

// The address in slot `slot` of the object's table.
inline void* slot(const void* object, std::size_t slot) {
    void** table = nullptr;
    std::memcpy(&table, object, sizeof table);
    return table[slot];
}

template <class Result, class... Arguments>
__attribute__((no_sanitize("undefined"))) Result call_slot(void* object, std::size_t index, Arguments... arguments) {
    return reinterpret_cast<Result (*)(void*, Arguments...)>(slot(object, index))(object, arguments...);
}

// The slot of a class's second destructor, the one that `delete` runs, when the first is at `first`.
constexpr std::size_t deleting(std::size_t first) {
    return first + 1;
}

}  // namespace zr::test
