// zr contacts remove: contacts by identifier or by address.

#include <algorithm>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/stores/contact_index.h"

namespace zr {
namespace {

struct ContactsRemoveOptions {
    std::vector<std::string> contacts;
    std::string email;
    bool all = false;
    bool json = false;
};

// The contacts with this address among their three, ignoring case as the library does.
std::vector<LONG> with_email(Store& store, const std::string& email) {
    if (!is_utf8(email)) throw Failure{Exit::Usage, "--email: not valid UTF-8"};
    std::vector<LONG> oids;
    const std::u16string wanted = to_utf16(email);
    const int count = store.count();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (!contact) continue;
        const Card card = read_contact(contact.get(), Extent::Fields);
        const auto equal = [&](Field field) {
            const std::u16string address = to_utf16(card[field]);
            return !address.empty() &&
                   StringUtilities::CompareFunction(address.c_str(), wanted.c_str(), StringUtilities::COMPARE_EXACT);
        };
        if (equal(Field::Email1) || equal(Field::Email2) || equal(Field::Email3)) oids.push_back(oid_of(contact.get()));
    }
    return oids;
}

Exit remove(const ContactsRemoveOptions& options) {
    if (options.contacts.empty() == options.email.empty()) {
        throw Failure{Exit::Usage, "remove: give identifiers or --email"};
    }
    Store store;
    Exit code = Exit::Ok;
    std::vector<LONG> oids;
    for (const std::string& wanted : options.contacts) {
        const LONG oid = find_contact(store, wanted);
        if (oid != 0) {
            oids.push_back(oid);
        } else {
            complain("no contact " + wanted);
            code = Exit::None;
        }
    }
    if (!options.email.empty()) {
        oids = with_email(store, options.email);
        if (oids.empty()) complain("no contact has the address " + options.email);
        if (oids.empty()) return Exit::None;
        if (oids.size() > 1 && !options.all) {
            complain(std::to_string(oids.size()) + " contacts have the address " + options.email +
                     "; --all removes them all");
            return Exit::Several;
        }
    }
    Json removed = Json::array();
    for (const LONG oid : oids) {
        const ComPtr<IContact> contact = store.with_oid(oid);
        if (!contact) {
            complain("no contact " + std::to_string(oid));
            code = Exit::None;
            continue;
        }
        store.remove(contact.get());
        removed.add(oid);
    }
    if (options.json) print_json_line({{"removed", removed}});
    return code;
}

}  // namespace

void add_contacts_remove(Command contacts) {
    const auto options = std::make_shared<ContactsRemoveOptions>();
    Command command = contacts.add_command("remove", "Remove contacts");
    command.add_option("OID", options->contacts, "Numbers or lasting identifiers, as list and find print them");
    command.add_option("--email", options->email, "Remove the contact with this address instead");
    command.add_flag("--all", options->all, "With --email: remove all contacts with the address");
    command.add_flag("--json", options->json, "Print the removed identifiers as JSON");
    command.footer(
        "The exit code is 1 when a contact does not exist, 3 when several have the address and nothing\n"
        "was removed.\n"
        "\n"
        "Examples:\n"
        "  zr contacts remove 12 15\n"
        "  zr contacts remove --email jo@example.com");
    command.runs([options] { return remove(*options); });
}

}  // namespace zr
