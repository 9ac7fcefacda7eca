#pragma once

// What has changed in the registry, for those who report it.
//
// Every commit, of whichever process, appends to the change log one entry for each change that it made, with ascending
// numbers. Who has fallen behind what the log keeps (store/shared_store.h) learns that, and has to assume that anything
// may have changed. So: take a position, arm; and after each ring of the store's bell read the changes behind the
// position. A ring may come without a change.
//
// All functions may be called from any thread, and none while a lock is held that a platform call takes.

#include <string>
#include <vector>

#include "platform/errors.h"
#include "platform/types.h"

namespace zr::platform::registry {

// Keys have numbers that are never used again, and never move to another parent.
using KeyId = LONGLONG;

// A key is made after the one above it. So who goes down, by numbers that grow, comes to an end, also where the store
// is damaged.
inline bool can_be_below(KeyId key, KeyId parent) {
    return key > parent;
}

enum class ChangeKind : int {
    KeyAdded = 1,
    KeyRemoved = 2,  // with a tree there is one entry for each of its keys, lower ones first; none for their values
    ValueSet = 3,
    ValueRemoved = 4,
    ValuesChanged = 5,  // several of a key's values at once, which are not named
};

struct Change {
    LONGLONG seq;
    ChangeKind kind;
    KeyId key;                   // which came or went, or whose value did
    std::vector<KeyId> parents;  // the keys above it, from the root down; empty for a root
    std::u16string name;         // of the key or the value
};

// The number of a key: ERROR_INVALID_HANDLE, ERROR_KEY_DELETED, or why the store cannot be read.
DWORD key_id(HKEY key, KeyId& id) noexcept;

// The number of the last change up to now.
DWORD change_position(LONGLONG& seq) noexcept;

// Appends the changes behind `seq`, in order. `complete` is false when the log does not reach back so far: then nothing
// is appended and the caller goes on from change_position.
DWORD changes_since(LONGLONG seq, std::vector<Change>& changes, bool& complete) noexcept;

}  // namespace zr::platform::registry
