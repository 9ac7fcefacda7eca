// zr contacts add: one new contact.

#include <memory>

#include "zr/base/identity.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/commands/command.h"
#include "zr/commands/contact_options.h"
#include "zr/stores/contacts.h"

namespace zr {
namespace {

struct ContactsAddOptions {
    ContactOptions contact;
    bool json = false;
};

Exit add(const ContactsAddOptions& options) {
    Card card = options.contact.card();
    if (card == Card{}) throw Failure{Exit::Usage, "add: give at least one field of the contact"};
    card.uid = new_identifier();
    card.extras = "UID:" + card.uid + "\n";
    Store store;
    const LONG oid = store.add(card);
    if (options.json) {
        const ComPtr<IContact> contact = store.with_oid(oid);
        print_json_line(contact_json(oid, contact ? read_contact(contact.get(), Extent::Fields) : card));
    } else {
        print(std::to_string(oid) + "\n");
    }
    return Exit::Ok;
}

}  // namespace

void add_contacts_add(Command contacts) {
    const auto options = std::make_shared<ContactsAddOptions>();
    Command command = contacts.add_command("add", "Add one contact and print its identifier");
    options->contact.add_to(command);
    command.add_flag("--json", options->json, "Print the contact as JSON");
    command.footer(
        "Example:\n"
        "  zr contacts add --first Jo --last Doe --email jo@example.com --email jo@home.example");
    command.runs([options] { return add(*options); });
}

}  // namespace zr
