#pragma once

// Whose address is it? Every function throws Failure when the store fails.

#include <ZrUtility/ZrUtility.h>

#include <string>
#include <vector>

#include "zr/stores/contacts.h"

namespace zr {

// A contact that has an address.
struct Owner {
    LONG oid;
    Card card;  // its fields
};

// In the order of their numbers, from the store's index of addresses.
std::vector<Owner> owners_of(Store& store, const std::string& address);

// For a program that stays and asks again: the library's e-mail index, kept up to date while messages are pumped. It
// knows without the store that an address is nobody's.
class Directory {
public:
    Directory();
    ~Directory();
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    std::vector<Owner> owners_of(const std::string& address);

private:
    ContactsManager* manager_;
    Store store_;
};

}  // namespace zr
