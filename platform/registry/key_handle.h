#pragma once

// From a caller's handle to the key.

#include "kernel/handle_table.h"
#include "platform/registry.h"
#include "store.h"

namespace zr::platform::registry {

// The position of a root handle among the roots; -1 for every other value.
inline int root_index(HKEY key) noexcept {
    const auto value = reinterpret_cast<LONG_PTR>(key);
    const auto first = reinterpret_cast<LONG_PTR>(HKEY_CLASSES_ROOT);
    return value >= first && value < first + kRoots ? static_cast<int>(value - first) : -1;
}

// A caller's handle, held for the length of a call.
class KeyArgument {
public:
    explicit KeyArgument(HKEY key) noexcept
        : root_(root_index(key)), pinned_(root_ >= 0 ? Pin() : Pin(reinterpret_cast<HANDLE>(key))) {}
    explicit operator bool() const noexcept { return root_ >= 0 || pinned_; }
    // The key's node. A root's number and path are those of its place.
    Node& node(Tree& tree) const noexcept { return root_ >= 0 ? tree.root(static_cast<std::size_t>(root_)) : *pinned_; }
    KeyId id() const noexcept { return root_ >= 0 ? kFirstRoot + root_ : pinned_->id; }
    Place place() const { return {id(), root_ >= 0 ? std::vector<KeyId>() : pinned_->parents}; }

private:
    int root_;
    Pinned<Node> pinned_;
};

// A new handle to the key.
DWORD open_key(Ref<Node> node, HKEY& key) noexcept;

// Calls body(tree, node) with the key that a handle names.
template <class Body>
DWORD read_key(HKEY key, Body&& body) noexcept {
    const KeyArgument argument(key);
    if (!argument) return ERROR_INVALID_HANDLE;
    Store* const store = Store::instance();
    if (store == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    return store->read([&](Tree& tree) { return body(tree, argument.node(tree)); });
}

// Calls body(transaction, place) likewise.
template <class Body>
DWORD change_key(HKEY key, Body&& body) {
    const KeyArgument argument(key);
    if (!argument) return ERROR_INVALID_HANDLE;
    Store* const store = Store::instance();
    if (store == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    return store->write([&](Transaction& transaction) {
        Place place = argument.place();
        return body(transaction, place);
    });
}

inline LONG result(DWORD error) noexcept {
    return static_cast<LONG>(error);
}

// Gives a text to a caller who stated a size with room for the terminator.
DWORD give_text(std::u16string_view text, LPWSTR buffer, DWORD* chars) noexcept;

}  // namespace zr::platform::registry
