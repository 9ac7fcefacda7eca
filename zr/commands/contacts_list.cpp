// zr contacts list: the contacts in an order.

#include <algorithm>
#include <map>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/table.h"
#include "zr/commands/command.h"
#include "zr/stores/contacts.h"

namespace zr {
namespace {

struct ContactsListOptions {
    std::string sort = "file-as";
    bool descending = false;
    int limit = 0;
    bool json = false;
};

const std::map<std::string, std::u16string>& tags() {
    static const std::map<std::string, std::u16string> all = {
        {"file-as", u"[FileAs]"},       {"first", u"[FirstName]"},      {"last", u"[LastName]"},
        {"middle", u"[MiddleName]"},    {"title", u"[Title]"},          {"suffix", u"[Suffix]"},
        {"company", u"[CompanyName]"},  {"email1", u"[Email1Address]"}, {"email2", u"[Email2Address]"},
        {"email3", u"[Email3Address]"},
    };
    return all;
}

Exit list(const ContactsListOptions& options) {
    Store store;
    store.sort(tags().at(options.sort), options.descending);
    const int count = store.count();
    const int limit = options.limit > 0 ? std::min(options.limit, count) : count;
    JsonArray array;
    Table table(contact_columns());
    page_output();
    for (int i = 1; i <= limit; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (!contact) continue;
        Card card = read_contact(contact.get(), options.json ? Extent::Fields : Extent::Line);
        if (card.uid.empty()) card.uid = uid_of(contact.get());
        if (has_left(contact.get())) continue;
        if (options.json) {
            array.add(contact_json(oid_of(contact.get()), card));
        } else {
            table.add(contact_line(oid_of(contact.get()), card));
        }
    }
    table.finish();
    if (options.json) array.finish();
    return count > 0 ? Exit::Ok : Exit::None;
}

}  // namespace

void add_contacts_list(Command contacts) {
    const auto options = std::make_shared<ContactsListOptions>();
    Command command = contacts.add_command("list", "List the contacts");
    std::vector<std::string> names;
    for (const auto& [name, tag] : tags()) {
        names.push_back(name);
    }
    command.add_option("-s,--sort", options->sort, "Order by this field").one_of(names).shows_default();
    command.add_flag("-r,--reverse", options->descending, "Last ones first");
    command.add_option("-n,--limit", options->limit, "List no more than this many").positive();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "A line is the number, the name, the addresses, the company and the identifier that lasts, with\n"
        "tabs between. Numbers are handed out again when contacts are removed; identifiers are not.\n"
        "The exit code is 1 when there are no contacts.\n"
        "\n"
        "Examples:\n"
        "  zr contacts list --sort last --limit 20\n"
        "  zr contacts list --json | jq -r '.[].emails[]'");
    command.reads([options] { return list(*options); });
}

}  // namespace zr
