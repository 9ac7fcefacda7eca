#pragma once

// One change of the registry, all of it or nothing.

#include <vector>

#include "bell.h"
#include "changes.h"
#include "names.h"
#include "store/sqlite.h"

namespace zr::platform::registry {

// Where a key is.
struct Place {
    KeyId id;
    std::vector<KeyId> parents;
};

// Names that are too long are found nowhere, and ERROR_INVALID_PARAMETER where one is to be made. May throw
// std::bad_alloc.
class Transaction {
public:
    Transaction(Connection& connection, const Bell& bell) : connection_(connection), bell_(bell) {}
    ~Transaction() { connection_.roll_back(); }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    DWORD begin();
    DWORD commit();

    // ERROR_KEY_DELETED when the key is no longer there.
    DWORD check(const Place& key);
    // Goes down a path: ERROR_FILE_NOT_FOUND when a key of it is missing.
    DWORD walk(Place& key, LPCWSTR path);
    // The same, making what is missing; `created`: the last key was made now.
    DWORD make(Place& key, LPCWSTR path, std::u16string_view key_class, bool& created);
    DWORD delete_tree(const Place& key);
    DWORD set_value(const Place& key, std::u16string_view name, DWORD type, const BYTE* data, DWORD size);
    DWORD delete_value(const Place& key, std::u16string_view name);

private:
    struct Doomed {
        Place place;
        std::u16string name;
    };

    DWORD find_child(const Place& parent, std::u16string_view name, KeyId& id);
    DWORD make_child(const Place& parent, std::u16string_view name, std::u16string_view key_class, KeyId& id);
    DWORD name_of(KeyId id, std::u16string& name);
    DWORD collect(std::vector<Doomed>& keys);
    DWORD delete_key(const Doomed& key);
    DWORD log(ChangeKind kind, const Place& key, std::u16string_view name);
    DWORD prune();
    DWORD failed();

    Connection& connection_;
    const Bell& bell_;
    LONGLONG first_seq_ = 0;  // of the changes that were made; 0: none was
    LONGLONG last_seq_ = 0;
};

}  // namespace zr::platform::registry
