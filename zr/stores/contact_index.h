#pragma once

// Which contact has an identifier that stays.

#include <string>
#include <unordered_map>

#include "zr/stores/contacts.h"

namespace zr {

// The contacts as they are when it is made. Memory grows with their number.
class ContactIndex {
public:
    explicit ContactIndex(Store& store);

    // The contact's number; 0: there is none. Of several with the same identifier the first one.
    LONG find(const std::string& uid) const;
    void add(const std::string& uid, LONG oid) { oids_.emplace(uid, oid); }

private:
    std::unordered_map<std::string, LONG> oids_;
};

// The contact that a person means: by its number, or by its identifier. 0: there is none.
LONG find_contact(Store& store, const std::string& number_or_uid);

}  // namespace zr
