// zr contacts show: all that is known of one contact.

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/commands/command.h"
#include "zr/commands/event_rows.h"
#include "zr/stores/contact_index.h"

namespace zr {
namespace {

struct ContactsShowOptions {
    std::vector<std::string> contacts;
    bool all = false;
    bool json = false;
};

void print_contact(LONG oid, const Card& card, bool all) {
    print_row("Identifier", std::to_string(oid));
    print_row("Lasting identifier", card.uid);
    for (std::size_t i = 0; i < card.text.size(); ++i) {
        if (!card.text[i].empty()) print_row(field_label(static_cast<Field>(i)), card.text[i]);
    }
    if (card.birthday) print_row("Birthday", day_text(card.birthday));
    if (card.anniversary) print_row("Anniversary", day_text(card.anniversary));
    if (all) print_kept("As it came", card.lines);
    print_kept("Also", card.extras);
}

Exit show(const ContactsShowOptions& options) {
    Store store;
    Exit code = Exit::Ok;
    JsonArray array;
    bool first = true;
    page_output();
    for (const std::string& wanted : options.contacts) {
        const LONG oid = find_contact(store, wanted);
        const ComPtr<IContact> contact = store.with_oid(oid);
        if (!contact) {
            complain("no contact " + wanted);
            code = Exit::None;
            continue;
        }
        Card card = read_contact(contact.get(), Extent::Whole);
        card.uid = uid_of(contact.get());
        if (options.json) {
            Json json = contact_json(oid, card);
            if (options.all) json.set("lines", card.lines);
            array.add(json);
        } else {
            if (!first) print("\n");
            print_contact(oid, card, options.all);
        }
        first = false;
    }
    if (options.json) array.finish();
    return code;
}

}  // namespace

void add_contacts_show(Command contacts) {
    const auto options = std::make_shared<ContactsShowOptions>();
    Command command = contacts.add_command("show", "Show all fields of contacts");
    command.add_option("OID", options->contacts, "Numbers or lasting identifiers, as list and find print them")
        .required();
    command.add_flag("-a,--all", options->all, "Also the lines of the card that the fields were read from");
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "The exit code is 1 when a contact does not exist.\n"
        "\n"
        "Example:\n"
        "  zr contacts show 12");
    command.reads([options] { return show(*options); });
}

}  // namespace zr
