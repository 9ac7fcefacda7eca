#pragma once

// Which contact has an identifier that stays.

#include <optional>
#include <string>
#include <unordered_map>

#include "zr/stores/contacts.h"

namespace zr {

// Looks them up in the store. Memory grows with what is added, and with the contacts that other programs made.
class ContactIndex {
public:
    explicit ContactIndex(Store& store) : store_(store) {}

    // The contact's number; 0: there is none. Of several with the same identifier the first one. A contact that has no
    // identifier is found by that of a card which says the same.
    LONG find(const std::string& uid);
    void add(const std::string& uid, LONG oid) { added_.emplace(uid, oid); }

private:
    Store& store_;
    std::unordered_map<std::string, LONG> added_;
    std::optional<std::unordered_map<std::string, LONG>> unnamed_;
};

// The contact that a person means: by its number, or by its identifier. 0: there is none.
LONG find_contact(Store& store, const std::string& number_or_uid);

}  // namespace zr
