#pragma once

// Messages as lists show them.

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "zr/base/json.h"
#include "zr/base/table.h"
#include "zr/stores/contacts.h"
#include "zr/stores/mail.h"

namespace zr {

// The names of senders: the contact's where one has the address, else what the message says; also where the contacts
// cannot be read, which is told once.
class SenderNames {
public:
    std::string name_of(const MailRow& row);
    // Contacts may have changed since names were asked for.
    void look_again() { known_.clear(); }

private:
    static constexpr std::size_t kMostKept = 10000;

    std::string contact_name(const std::string& address);

    std::optional<Store> contacts_;
    bool failed_ = false;
    std::map<std::string, std::string> known_;  // by address; empty: no contact's
};

// "2024-01-31 10:00" in the device's zone; "2024-01-31T09:00:00Z". Empty for no time.
std::string local_time(const std::optional<std::int64_t>& seconds);
std::string utc_time(const std::optional<std::int64_t>& seconds);

// Identifier, date, N when it is not read, sender and subject with tabs between.
std::string mail_line(const MailSession& mail, const MailRow& row, SenderNames& names);
std::vector<Column> mail_columns();
Json mail_json(const MailSession& mail, const MailRow& row, SenderNames& names);

}  // namespace zr
