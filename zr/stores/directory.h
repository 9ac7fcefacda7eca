#pragma once

// Whose address is it? The library's e-mail index over the contacts, kept up to date while messages are pumped.

#include <ZrUtility/ZrUtility.h>

#include <string>
#include <vector>

#include "zr/base/exit_code.h"
#include "zr/stores/contacts.h"

namespace zr {

struct Answer {
    Exit code = Exit::Ok;  // one, none or several contacts
    LONG oid = 0;          // of the one
    Card card;
};

// The library's contacts manager, with the index, for as long as the object. Every function throws Failure when the
// store fails.
class Directory {
public:
    Directory();
    ~Directory();
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    Answer answer(const std::string& address);
    // The contacts that have an address which several have. Reads all contacts.
    static std::vector<Answer> all_with(const std::string& address);

private:
    ContactsManager* manager_;
};

}  // namespace zr
