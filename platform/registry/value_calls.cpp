// Reading, writing and listing values.

#include <cstring>

#include "key_handle.h"

namespace zr::platform::registry {
namespace {

DWORD give_value(const Value& value, DWORD* type, BYTE* data, DWORD* size) noexcept {
    if (type != nullptr) *type = value.type;
    if (size == nullptr) return ERROR_SUCCESS;
    const DWORD room = std::exchange(*size, static_cast<DWORD>(value.data.size()));
    if (data == nullptr) return ERROR_SUCCESS;
    if (room < value.data.size()) return ERROR_MORE_DATA;
    if (!value.data.empty()) std::memcpy(data, value.data.data(), value.data.size());
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace zr::platform::registry

using namespace zr::platform;
using namespace zr::platform::registry;

LONG RegQueryValueExW(HKEY key, LPCWSTR name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size) {
    if (reserved != nullptr || (data != nullptr && size == nullptr)) return result(ERROR_INVALID_PARAMETER);
    return result(read_key(key, [&](Tree& tree, Node& node) {
        const Value* value = nullptr;
        const DWORD error = tree.value(node, value_name(name), value);
        return error == ERROR_SUCCESS ? give_value(*value, type, data, size) : error;
    }));
}

LONG RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
    if (reserved != 0 || (data == nullptr && size != 0)) return result(ERROR_INVALID_PARAMETER);
    return result(change_key(key, [&](Transaction& transaction, Place& place) {
        const DWORD error = transaction.check(place);
        return error == ERROR_SUCCESS ? transaction.set_value(place, value_name(name), type, data, size) : error;
    }));
}

LONG RegDeleteValueW(HKEY key, LPCWSTR name) {
    return result(change_key(key, [&](Transaction& transaction, Place& place) {
        const DWORD error = transaction.check(place);
        return error == ERROR_SUCCESS ? transaction.delete_value(place, value_name(name)) : error;
    }));
}

LONG RegEnumValueW(HKEY key, DWORD index, LPWSTR name, DWORD* name_chars, DWORD* reserved, DWORD* type, BYTE* data,
                   DWORD* size) {
    if (name == nullptr || name_chars == nullptr || reserved != nullptr || (data != nullptr && size == nullptr))
        return result(ERROR_INVALID_PARAMETER);
    return result(read_key(key, [&](Tree& tree, Node& node) -> DWORD {
        const std::vector<std::unique_ptr<Value>>* values = nullptr;
        if (const DWORD error = tree.values(node, values); error != ERROR_SUCCESS) return error;
        if (index >= values->size()) return ERROR_NO_MORE_ITEMS;
        const Value& value = *(*values)[index];
        const DWORD named = give_text(value.name, name, name_chars);
        // Where the name does not fit nothing but sizes is told.
        const DWORD given = give_value(value, type, named == ERROR_SUCCESS ? data : nullptr, size);
        return named != ERROR_SUCCESS ? named : given;
    }));
}
