// Opening, making, deleting and listing keys.

#include <algorithm>

#include "kernel/thread.h"
#include "key_handle.h"
#include "platform/base.h"

namespace zr::platform::registry {
namespace {

DWORD find(HKEY key, LPCWSTR path, Ref<Node>& found) noexcept {
    return read_key(key, [&](Tree& tree, Node& from) {
        Node* node = nullptr;
        const DWORD error = tree.walk(from, path, node);
        if (error != ERROR_SUCCESS) return error;
        Batch* const batch = Batch::current();
        found = batch != nullptr ? batch->handed_out(*node) : Ref<Node>::retain(*node);
        return error;
    });
}

// A key that another program deletes as soon as it is made is made again, but not for ever.
DWORD find_or_make(HKEY key, LPCWSTR path, std::u16string_view key_class, Ref<Node>& found, bool& created) {
    constexpr int kTries = 16;
    created = false;
    DWORD error = find(key, path, found);
    for (int i = 0; i < kTries && error == ERROR_FILE_NOT_FOUND; ++i) {
        error = change_key(key, [&](Transaction& transaction, Place& place) {
            bool made = false;
            const DWORD failure = transaction.make(place, path, key_class, made);
            created = created || made;
            return failure;
        });
        if (error == ERROR_SUCCESS) error = find(key, path, found);
    }
    return error;
}

template <class Entries, class Size>
DWORD largest(const Entries& entries, Size size) {
    std::size_t most = 0;
    for (const auto& entry : entries) {
        most = std::max(most, size(*entry));
    }
    return static_cast<DWORD>(most);
}

// A class, or only its length.
DWORD give_class(std::u16string_view text, LPWSTR buffer, DWORD* chars) {
    if (buffer != nullptr) return give_text(text, buffer, chars);
    *chars = static_cast<DWORD>(text.size());
    return ERROR_SUCCESS;
}

template <class T>
void give(T* to, T value) {
    if (to != nullptr) *to = value;
}

}  // namespace

DWORD open_key(Ref<Node> node, HKEY& key) noexcept {
    const DWORD last_error = GetLastError();
    Node& kept = *node;
    HANDLE handle = open_handle_adopting(kept);
    if (handle != nullptr) static_cast<void>(node.detach());  // the handle has it
    if (root_index(reinterpret_cast<HKEY>(handle)) >= 0) {    // where handles are short they may look like a root's
        const HANDLE other = open_handle(kept);
        close_handle(handle);
        handle = other;
    }
    const DWORD error = handle == nullptr ? GetLastError() : ERROR_SUCCESS;
    if (handle != nullptr) key = reinterpret_cast<HKEY>(handle);
    if (error != ERROR_SUCCESS) SetLastError(last_error);
    return error;
}

DWORD give_text(std::u16string_view text, LPWSTR buffer, DWORD* chars) noexcept {
    const auto length = static_cast<DWORD>(text.size());
    if (*chars <= length) {
        *chars = length + 1;
        return ERROR_MORE_DATA;
    }
    std::copy(text.begin(), text.end(), buffer);
    buffer[length] = 0;
    *chars = length;
    return ERROR_SUCCESS;
}

}  // namespace zr::platform::registry

using namespace zr::platform;
using namespace zr::platform::registry;

LONG RegOpenKeyExW(HKEY key, LPCWSTR path, DWORD, REGSAM, HKEY* opened) {
    cancellation_point();
    if (opened == nullptr) return result(ERROR_INVALID_PARAMETER);
    *opened = nullptr;
    Ref<Node> node;
    const DWORD error = find(key, path, node);
    return result(error == ERROR_SUCCESS ? open_key(std::move(node), *opened) : error);
}

LONG RegCreateKeyExW(HKEY key, LPCWSTR path, DWORD reserved, LPCWSTR key_class, DWORD, REGSAM,
                     const SECURITY_ATTRIBUTES*, HKEY* opened, DWORD* disposition) {
    cancellation_point();
    const std::u16string_view name_of_class = value_name(key_class);
    if (opened == nullptr || reserved != 0 || !path_fits(path) || !fits(name_of_class))
        return result(ERROR_INVALID_PARAMETER);
    Ref<Node> node;
    bool created = false;
    DWORD error = find_or_make(key, path, name_of_class, node, created);
    if (error == ERROR_SUCCESS) error = open_key(std::move(node), *opened);
    if (error == ERROR_SUCCESS) give(disposition, created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY);
    return result(error);
}

LONG RegCloseKey(HKEY key) {
    if (root_index(key) >= 0) return result(ERROR_SUCCESS);
    const DWORD last_error = GetLastError();
    if (close_handle(reinterpret_cast<HANDLE>(key), Node::kKind)) return result(ERROR_SUCCESS);
    SetLastError(last_error);
    return result(ERROR_INVALID_HANDLE);
}

LONG RegDeleteKeyW(HKEY key, LPCWSTR path) {
    cancellation_point();
    if (path == nullptr) return result(ERROR_INVALID_PARAMETER);
    return result(change_key(key, [&](Transaction& transaction, Place& place) {
        const DWORD error = transaction.walk(place, path);
        return error == ERROR_SUCCESS ? transaction.delete_tree(place) : error;
    }));
}

// Destructors call it, in which a thread cannot be ended.
LONG RegFlushKey(HKEY key) {
    const DWORD error = read_key(key, [](Tree& tree, Node& node) { return tree.check(node); });
    if (error != ERROR_SUCCESS) return result(error);
    if (Batch* const batch = Batch::current()) {
        batch->flush_at_end();
        return result(ERROR_SUCCESS);
    }
    return result(Store::instance()->flush());
}

LONG RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, DWORD* name_chars, DWORD* reserved, LPWSTR key_class,
                   DWORD* class_chars, FILETIME* written) {
    cancellation_point();
    if (name == nullptr || name_chars == nullptr || reserved != nullptr ||
        (key_class != nullptr && class_chars == nullptr))
        return result(ERROR_INVALID_PARAMETER);
    return result(read_key(key, [&](Tree& tree, Node& node) -> DWORD {
        const std::vector<Node*>* children = nullptr;
        if (const DWORD error = tree.children(node, children); error != ERROR_SUCCESS) return error;
        if (index >= children->size()) return ERROR_NO_MORE_ITEMS;
        Node& child = *(*children)[index];
        DWORD error = give_text(child.name, name, name_chars);
        if (class_chars != nullptr) {
            std::u16string_view text;
            if (const DWORD failure = tree.class_of(child, text); failure != ERROR_SUCCESS) return failure;
            const DWORD given = give_class(text, key_class, class_chars);
            if (error == ERROR_SUCCESS) error = given;
        }
        give(written, FILETIME{0, 0});
        return error;
    }));
}

LONG RegQueryInfoKeyW(HKEY key, LPWSTR key_class, DWORD* class_chars, DWORD* reserved, DWORD* sub_keys,
                      DWORD* longest_sub_key, DWORD* longest_class, DWORD* value_count, DWORD* longest_value_name,
                      DWORD* largest_data, DWORD* security_size, FILETIME* written) {
    cancellation_point();
    if (reserved != nullptr || (key_class != nullptr && class_chars == nullptr)) return result(ERROR_INVALID_PARAMETER);
    return result(read_key(key, [&](Tree& tree, Node& node) -> DWORD {
        const std::vector<Node*>* children = nullptr;
        const std::vector<std::unique_ptr<Value>>* values = nullptr;
        std::u16string_view text;
        DWORD longest = 0;
        DWORD error = tree.children(node, children);
        if (error == ERROR_SUCCESS) error = tree.values(node, values);
        if (error == ERROR_SUCCESS && class_chars != nullptr) error = tree.class_of(node, text);
        if (error == ERROR_SUCCESS && longest_class != nullptr) error = tree.longest_class(node, longest);
        if (error != ERROR_SUCCESS) return error;
        give(sub_keys, static_cast<DWORD>(children->size()));
        give(longest_sub_key, largest(*children, [](const Node& child) { return child.name.size(); }));
        give(longest_class, longest);
        give(value_count, static_cast<DWORD>(values->size()));
        give(longest_value_name, largest(*values, [](const Value& value) { return value.name.size(); }));
        give(largest_data, largest(*values, [](const Value& value) { return value.data.size(); }));
        give(security_size, DWORD{0});
        give(written, FILETIME{0, 0});
        if (class_chars == nullptr) return ERROR_SUCCESS;
        error = give_class(text, key_class, class_chars);
        *class_chars = static_cast<DWORD>(text.size());  // without terminator, whether it fitted or not
        return error;
    }));
}
