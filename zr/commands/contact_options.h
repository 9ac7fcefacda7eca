#pragma once

// The options that name a contact's fields, shared by add and change.

#include <map>
#include <string>
#include <vector>

#include "zr/commands/command.h"
#include "zr/vcard/card.h"

namespace zr {

class ContactOptions {
public:
    void add_to(Command command);

    // The fields given on the command line. Throws Failure (wrong usage) for text, days, addresses or numbers that are
    // none.
    Card card() const;
    std::vector<Field> fields() const;
    bool none_given() const;

private:
    std::map<Field, std::string> texts_;
    std::map<Field, Option> given_;
    std::vector<std::string> emails_;
    std::string birthday_;
    std::string anniversary_;
};

}  // namespace zr
