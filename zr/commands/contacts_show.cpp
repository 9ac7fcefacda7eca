// zr contacts show: all that is known of one contact.

#include <memory>

#include "zr/base/output.h"
#include "zr/commands/command.h"
#include "zr/commands/event_rows.h"
#include "zr/stores/contacts.h"

namespace zr {
namespace {

struct Options {
    std::vector<LONG> oids;
    bool json = false;
};

void print_contact(const Json& json, const Card& card) {
    print_row("Identifier", std::to_string(json["oid"].get<LONG>()));
    for (std::size_t i = 0; i < card.text.size(); ++i) {
        if (!card.text[i].empty()) print_row(field_label(static_cast<Field>(i)), card.text[i]);
    }
    if (json.contains("birthday")) print_row("Birthday", json["birthday"].get<std::string>());
    if (json.contains("anniversary")) print_row("Anniversary", json["anniversary"].get<std::string>());
    print_extras(card.extras);
}

Exit show(const Options& options) {
    Store store;
    Exit code = Exit::Ok;
    JsonArray array;
    bool first = true;
    for (const LONG oid : options.oids) {
        const ComPtr<IContact> contact = store.with_oid(oid);
        if (!contact) {
            complain("no contact " + std::to_string(oid));
            code = Exit::None;
            continue;
        }
        const Card card = read_contact(contact.get(), true);
        const Json json = contact_json(oid, card);
        if (options.json) {
            array.add(json);
        } else {
            if (!first) print("\n");
            print_contact(json, card);
        }
        first = false;
    }
    if (options.json) array.finish();
    return code;
}

}  // namespace

void add_contacts_show(Command contacts) {
    const auto options = std::make_shared<Options>();
    Command command = contacts.add_command("show", "Show all fields of contacts");
    command.add_option("OID", options->oids, "Identifiers, as list and find print them").required();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "The exit code is 1 when a contact does not exist.\n"
        "\n"
        "Example:\n"
        "  zr contacts show 12");
    command.runs([options] { return show(*options); });
}

}  // namespace zr
