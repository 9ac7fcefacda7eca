#pragma once

// What a change of the registry writes.

#include <vector>

#include "changes.h"
#include "names.h"
#include "store/shared_store.h"
#include "tree.h"

namespace zr::platform::registry {

// Where a key is.
struct Place {
    KeyId id;
    std::vector<KeyId> parents;
};

// Names that are too long are found nowhere, and ERROR_INVALID_PARAMETER where one is to be made. A call that fails has
// changed nothing, unless the store has failed or memory was short. May throw std::bad_alloc.
class Transaction {
public:
    // `tree`: reads through the same connection, and is told of every change.
    explicit Transaction(StoreWriting& writing, Tree* tree = nullptr)
        : writing_(writing), connection_(writing.connection()), tree_(tree) {}
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // The key is known to be there.
    void trust(KeyId key) { trusted_ = key; }
    // ERROR_KEY_DELETED when the key is no longer there.
    DWORD check(const Place& key);
    // Goes down a path: ERROR_FILE_NOT_FOUND when a key of it is missing.
    DWORD walk(Place& key, LPCWSTR path);
    // The same, making what is missing; `created`: the last key was made now.
    DWORD make(Place& key, LPCWSTR path, std::u16string_view key_class, bool& created);
    DWORD delete_tree(const Place& key);
    DWORD set_value(const Place& key, std::u16string_view name, DWORD type, const BYTE* data, DWORD size);
    DWORD delete_value(const Place& key, std::u16string_view name);
    // ERROR_MORE_DATA, before anything is set, when a value has more than `most` bytes of data.
    DWORD copy_values(const Place& from, const Place& to, DWORD most);

    // The store has failed: what was changed is good for nothing but being rolled back.
    bool is_broken() const { return broken_; }
    // Some of the changes were taken back.
    void forget() {
        values_of_ = 0;
        found_.clear();
    }

private:
    struct Doomed {
        Place place;
        std::u16string name;
    };

    // A key on the way of the last path, by its level: neighbours in a path's tree are looked for one after the other.
    struct Found {
        KeyId parent;
        KeyId id;
        std::u16string folded;
    };

    DWORD find_child(const Place& parent, std::u16string_view name, KeyId& id);
    DWORD look_up(KeyId parent, std::u16string_view folded, KeyId& id);
    DWORD make_child(const Place& parent, std::u16string_view name, std::u16string_view key_class, KeyId& id);
    DWORD name_of(KeyId id, std::u16string& name);
    DWORD collect(std::vector<Doomed>& keys);
    DWORD delete_key(const Doomed& key);
    DWORD log(ChangeKind kind, const Place& key, std::u16string_view name);
    DWORD log_key(ChangeKind kind, const Place& key, std::u16string_view name);
    DWORD log_value(ChangeKind kind, const Place& key, std::u16string_view name);
    DWORD log_values(const Place& key);
    DWORD failed();

    StoreWriting& writing_;
    Connection& connection_;
    Tree* tree_;
    KeyId trusted_ = 0;
    KeyId values_of_ = 0;   // the last change was one of this key's values
    bool several_ = false;  // and the log says that there may be any number of them
    bool broken_ = false;
    std::vector<Found> found_;
};

}  // namespace zr::platform::registry
