#include "changes.h"

#include "key_handle.h"

namespace zr::platform::registry {
namespace {

template <class Body>
DWORD read(Body&& body) noexcept {
    Store* const store = Store::instance();
    return store == nullptr ? ERROR_NOT_ENOUGH_MEMORY : store->read(std::forward<Body>(body));
}

}  // namespace

DWORD key_id(HKEY key, KeyId& id) noexcept {
    return read_key(key, [&](Tree& tree, Node& node) {
        id = node.id;
        return tree.check(node);
    });
}

DWORD change_position(LONGLONG& seq) noexcept {
    return read([&](Tree&) -> DWORD {
        seq = Store::instance()->shared().position();
        return ERROR_SUCCESS;
    });
}

DWORD changes_since(LONGLONG seq, std::vector<Change>& changes, bool& complete) noexcept {
    return read([&](Tree& tree) -> DWORD {
        const std::size_t before = changes.size();
        const DWORD error = tree.changes(seq, -1, changes);
        const LONGLONG last = Store::instance()->shared().position();
        const bool gap = changes.size() > before ? changes[before].seq != seq + 1 : seq != last;
        complete = error == ERROR_SUCCESS && !gap;
        if (!complete) changes.resize(before);
        return error;
    });
}

}  // namespace zr::platform::registry
