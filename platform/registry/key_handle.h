#pragma once

// From a caller's handle to the key.

#include "batch.h"
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
    Node& node(Tree& tree) const { return root_ >= 0 ? tree.root(static_cast<std::size_t>(root_)) : tree.of(*pinned_); }
    // Its number may be another key's by now, in another store. Told once the store is open for a change.
    bool is_deleted() const noexcept { return root_ < 0 && pinned_->is_deleted(); }
    KeyId id() const noexcept { return root_ >= 0 ? kFirstRoot + root_ : pinned_->id; }
    Place place() const { return {id(), root_ >= 0 ? std::vector<KeyId>() : pinned_->parents}; }

private:
    int root_;
    Pinned<Node> pinned_;
};

// A new handle to the key.
DWORD open_key(Ref<Node> node, HKEY& key) noexcept;

// Calls body(transaction) in the thread's batch, or commits what it changes; all of it or, when it fails, nothing.
// `single`, `own`: see Batch::write and Store::write.
template <class Body>
DWORD write_as_one(Store& store, bool single, Body&& body, const Tree::OwnChange* own = nullptr) {
    Batch* const batch = Batch::current();
    return batch != nullptr ? batch->write(body, single) : store.write(body, own);
}

// Calls body(tree, node) with the key that a handle names.
template <class Body>
DWORD read_key(HKEY key, Body&& body) noexcept {
    const KeyArgument argument(key);
    if (!argument) return ERROR_INVALID_HANDLE;
    Store* const store = Store::instance();
    if (store == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const auto read = [&](Tree& tree) { return body(tree, argument.node(tree)); };
    Batch* const batch = Batch::current();
    return batch != nullptr ? batch->read(read) : store->read(read);
}

// Calls body(transaction, place), which changes something by one call, likewise.
template <class Body>
DWORD change_key(HKEY key, Body&& body) {
    const KeyArgument argument(key);
    if (!argument) return ERROR_INVALID_HANDLE;
    Store* const store = Store::instance();
    if (store == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    return write_as_one(*store, true, [&](Transaction& transaction) {
        if (argument.is_deleted()) return DWORD{ERROR_KEY_DELETED};
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
