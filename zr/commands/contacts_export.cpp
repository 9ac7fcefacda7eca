// zr contacts export: the whole contact store as vCards.

#include <memory>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/output_file.h"
#include "zr/commands/command.h"
#include "zr/stores/contacts.h"
#include "zr/stores/same_store.h"
#include "zr/vcard/writer.h"

namespace zr {
namespace {

struct ContactsExportOptions {
    std::string output;
    std::string version = "3.0";
    bool json = false;
};

Exit export_contacts(const ContactsExportOptions& options, const SameStore& same) {
    const CardVersion version = options.version == "2.1"   ? CardVersion::V21
                                : options.version == "4.0" ? CardVersion::V40
                                                           : CardVersion::V30;
    Store store;
    OutputFile file(options.output);
    JsonArray array([&](std::string_view text) { file.write(text); });
    std::string text;
    Exit code = Exit::Ok;
    const int count = store.count();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (!contact) continue;
        const Card card = read_contact(contact.get(), Extent::Whole);
        if (has_left(contact.get())) continue;
        if (options.json) {
            array.add(contact_json(oid_of(contact.get()), card));
        } else {
            text.clear();
            if (!write_card(card, version, text)) {
                complain("contact " + std::to_string(oid_of(contact.get())) +
                         " keeps lines that are no properties; they are left out");
                code = Exit::DamagedCards;
            }
            file.write(text);
        }
    }
    if (options.json) array.finish();
    same.expect();
    file.finish();
    return code;
}

}  // namespace

void add_contacts_export(Command contacts) {
    const auto options = std::make_shared<ContactsExportOptions>();
    Command command = contacts.add_command("export", "Write all contacts as vCards");
    command.add_option("-o,--output", options->output,
                       "Write to this file, whole or not at all (default: standard output)");
    command.add_option("--vcard-version,--version", options->version, "vCard version to write: 2.1, 3.0 or 4.0")
        .one_of({"2.1", "3.0", "4.0"})
        .shows_default();
    command.add_flag("--json", options->json, "Write JSON instead of vCards");
    command.footer(
        "What imported cards say that a contact has no place for is written again.\n"
        "\n"
        "Examples:\n"
        "  zr contacts export --output backup.vcf\n"
        "  zr contacts export --vcard-version 2.1 > for-the-car.vcf");
    command.reads([options] {
        const SameStore same("contacts");
        return same.during([&] { return export_contacts(*options, same); });
    });
}

}  // namespace zr
