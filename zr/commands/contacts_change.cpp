// zr contacts change: other values for some fields of one contact.

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/commands/command.h"
#include "zr/commands/contact_options.h"
#include "zr/stores/contact_index.h"

namespace zr {
namespace {

struct ContactsChangeOptions {
    std::string wanted;
    ContactOptions contact;
    bool json = false;
};

Exit change(const ContactsChangeOptions& options) {
    const Card card = options.contact.card();
    if (options.contact.none_given()) throw Failure{Exit::Usage, "change: give at least one field to change"};
    Store store;
    const LONG oid = find_contact(store, options.wanted);
    const ComPtr<IContact> contact = store.with_oid(oid);
    if (!contact) {
        complain("no contact " + options.wanted);
        return Exit::None;
    }
    store.change(contact.get(), card, options.contact.fields());
    if (!options.json) return Exit::Ok;
    const ComPtr<IContact> changed = store.with_oid(oid);
    if (changed) print_json_line(contact_json(oid, read_contact(changed.get(), Extent::Fields)));
    return Exit::Ok;
}

}  // namespace

void add_contacts_change(Command contacts) {
    const auto options = std::make_shared<ContactsChangeOptions>();
    Command command = contacts.add_command("change", "Change fields of a contact");
    command.add_option("OID", options->wanted, "Number or lasting identifier, as list and find print it").required();
    options->contact.add_to(command);
    command.add_flag("--json", options->json, "Print the contact as JSON");
    command.footer(
        "Fields that are not given stay; an empty text clears a field; --email replaces all addresses.\n"
        "The exit code is 1 when the contact does not exist.\n"
        "\n"
        "Example:\n"
        "  zr contacts change 12 --email jo@newplace.example --company ''");
    command.runs([options] { return change(*options); });
}

}  // namespace zr
