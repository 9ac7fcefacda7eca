// Reading, writing and listing values.

#include <cstring>

#include "kernel/thread.h"
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

// Sets or deletes a value.
DWORD change_value(HKEY key, Tree::OwnChange change) {
    const KeyArgument argument(key);
    if (!argument) return ERROR_INVALID_HANDLE;
    Store* const store = Store::instance();
    if (store == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    change.key = argument.id();
    const auto body = [&](Transaction& transaction) {
        if (argument.is_deleted()) return DWORD{ERROR_KEY_DELETED};
        const Place place = argument.place();
        const DWORD error = transaction.check(place);
        if (error != ERROR_SUCCESS) return error;
        return change.kind == ChangeKind::ValueSet
                   ? transaction.set_value(place, change.name, change.type, change.data, change.size)
                   : transaction.delete_value(place, change.name);
    };
    return write_as_one(*store, true, body, &change);
}

}  // namespace
}  // namespace zr::platform::registry

using namespace zr::platform;
using namespace zr::platform::registry;

LONG RegQueryValueExW(HKEY key, LPCWSTR name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size) {
    cancellation_point();
    if (reserved != nullptr || (data != nullptr && size == nullptr)) return result(ERROR_INVALID_PARAMETER);
    return result(read_key(key, [&](Tree& tree, Node& node) {
        const Value* value = nullptr;
        const DWORD error = tree.value(node, name, value);
        return error == ERROR_SUCCESS ? give_value(*value, type, data, size) : error;
    }));
}

LONG RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
    cancellation_point();
    if (reserved != 0 || (data == nullptr && size != 0)) return result(ERROR_INVALID_PARAMETER);
    return result(change_value(key, {0, ChangeKind::ValueSet, value_name(name), type, data, size}));
}

LONG RegDeleteValueW(HKEY key, LPCWSTR name) {
    cancellation_point();
    return result(change_value(key, {0, ChangeKind::ValueRemoved, value_name(name), 0, nullptr, 0}));
}

LONG RegEnumValueW(HKEY key, DWORD index, LPWSTR name, DWORD* name_chars, DWORD* reserved, DWORD* type, BYTE* data,
                   DWORD* size) {
    cancellation_point();
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

LONG ZrRegistryCopyValues(HKEY from, HKEY to, DWORD most) {
    cancellation_point();
    const KeyArgument source(from);
    const KeyArgument target(to);
    if (!source || !target) return result(ERROR_INVALID_HANDLE);
    Store* const store = Store::instance();
    if (store == nullptr) return result(ERROR_NOT_ENOUGH_MEMORY);
    return result(write_as_one(*store, true, [&](Transaction& transaction) {
        if (source.is_deleted() || target.is_deleted()) return DWORD{ERROR_KEY_DELETED};
        const Place first = source.place();
        const Place second = target.place();
        DWORD error = transaction.check(first);
        if (error == ERROR_SUCCESS) error = transaction.check(second);
        return error == ERROR_SUCCESS ? transaction.copy_values(first, second, most) : error;
    }));
}
