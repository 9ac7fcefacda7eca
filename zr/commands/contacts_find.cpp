// zr contacts find: every contact that matches, by the rules of the library's own search.

#include <map>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/stores/contacts.h"

namespace zr {
namespace {

constexpr unsigned kEveryField = 0xFFFFFFFF;
constexpr unsigned kEmails = 128 | 256 | 512;

struct ContactsFindOptions {
    std::string pattern;
    std::vector<std::string> fields;
    bool exact = false;
    bool words = false;
    bool json = false;
};

const std::map<std::string, unsigned>& masks() {
    static const std::map<std::string, unsigned> all = {
        {"file-as", 1},  {"title", 2},    {"first", 4},    {"last", 16},       {"suffix", 32},      {"company", 64},
        {"email1", 128}, {"email2", 256}, {"email3", 512}, {"email", kEmails}, {"job-title", 1024},
    };
    return all;
}

// The manager for as long as the search lasts.
class Search {
public:
    Search() {
        const LONG result = manager_.Initialize();
        if (FAILED(result)) throw store_failure(result, "opening the contact store");
    }
    ~Search() { manager_.Uninitialize(0); }
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    int count() {
        int count = 0;
        const LONG result = manager_.GetContactsCount(count);
        if (FAILED(result)) throw store_failure(result, "counting the contacts");
        return count;
    }

    // The identifier of the contact at `index` if it matches, else 0.
    LONG match(int index, std::u16string& pattern, unsigned mask, bool exact, bool words) {
        Contact* contact = nullptr;
        if (FAILED(manager_.GetContact(index, contact)) || !contact) return 0;  // gone meanwhile
        LONG oid = 0;
        if (contact->IsComparable(pattern.data(), mask, exact, words)) contact->get_Oid(oid);
        manager_.ReleaseContact(contact);
        return oid;
    }

private:
    ContactsManager manager_;
};

Exit find(const ContactsFindOptions& options) {
    unsigned mask = options.fields.empty() ? kEveryField : 0;
    for (const std::string& field : options.fields) {
        mask |= masks().at(field);
    }
    if (!is_utf8(options.pattern)) throw Failure{Exit::Usage, "the pattern is not valid UTF-8"};
    std::u16string pattern = to_utf16(options.pattern);
    Search search;
    Store store;
    JsonArray array;
    bool any = false;
    const int count = search.count();
    for (int i = 1; i <= count; ++i) {
        const LONG oid = search.match(i, pattern, mask, options.exact, options.words);
        if (oid == 0) continue;
        const ComPtr<IContact> contact = store.with_oid(oid);
        if (!contact) continue;
        any = true;
        Card card = read_contact(contact.get(), false);
        if (card.uid.empty()) card.uid = uid_of(contact.get());
        if (options.json) {
            array.add(contact_json(oid, card));
        } else {
            print(contact_line(oid, card));
        }
    }
    if (options.json) array.finish();
    return any ? Exit::Ok : Exit::None;
}

}  // namespace

void add_contacts_find(Command contacts) {
    const auto options = std::make_shared<ContactsFindOptions>();
    Command command = contacts.add_command("find", "List the contacts that match a text");
    command.add_option("PATTERN", options->pattern, "The text; letter case does not matter").required();
    std::vector<std::string> names;
    for (const auto& [name, mask] : masks()) {
        names.push_back(name);
    }
    command.add_option("-f,--field", options->fields, "Search this field only; may be given several times")
        .one_of(names)
        .one_at_a_time();
    const Option exact = command.add_flag("-e,--exact", options->exact, "The whole field must equal the text");
    command.add_flag("-w,--words", options->words, "Every word of the text must begin some word of some field")
        .excludes(exact);
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "Without --exact or --words a field matches that begins with the text. An empty text matches\n"
        "every contact. The exit code is 1 when nothing matches.\n"
        "\n"
        "Examples:\n"
        "  zr contacts find smi\n"
        "  zr contacts find --words 'jo sm'\n"
        "  zr contacts find --exact --field email jo@example.com");
    command.runs([options] { return find(*options); });
}

}  // namespace zr
