// zr contacts find: every contact that has a text in it, or that matches by the rules of the library's own search.

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/phone_number.h"
#include "zr/base/table.h"
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
    bool begins = false;
    bool json = false;

    bool by_the_library() const { return exact || words || begins; }
};

constexpr std::size_t kLongestKept = 1000;  // of a line that somebody may look for; a picture is longer

const std::map<std::string, unsigned>& masks() {
    static const std::map<std::string, unsigned> all = {
        {"file-as", 1},  {"title", 2},    {"first", 4},    {"last", 16},       {"suffix", 32},      {"company", 64},
        {"email1", 128}, {"email2", 256}, {"email3", 512}, {"email", kEmails}, {"job-title", 1024},
    };
    return all;
}

// Fields that the library does not look at, by the names of --field.
const std::map<std::string, std::pair<Field, Field>>& further_fields() {
    static const std::map<std::string, std::pair<Field, Field>> all = {
        {"middle", {Field::MiddleName, Field::MiddleName}},
        {"department", {Field::Department, Field::Department}},
        {"phone", {Field::BusinessPhone, Field::AssistantPhone}},
        {"address", {Field::BusinessStreet, Field::OtherCountry}},
        {"web", {Field::WebPage, Field::WebPage}},
        {"note", {Field::Note, Field::Note}},
        {"categories", {Field::Categories, Field::Categories}},
    };
    return all;
}

// A text that is in any field, however the field is split, or in what is kept of the card.
class TextSearch {
public:
    explicit TextSearch(const ContactsFindOptions& options) : wanted_(folded(options.pattern)) {
        constexpr std::size_t kFewestDigits = 3;
        const bool number = options.pattern.find_first_not_of("0123456789+-()/. ") == std::string::npos;
        digits_ = number ? significant_digits(options.pattern) : "";
        if (digits_.size() < kFewestDigits) digits_.clear();
        everywhere_ = options.fields.empty();
        for (const std::string& name : options.fields) {
            add_fields(name);
        }
    }

    bool matches(const Card& card) const {
        for (std::size_t i = 0; i < card.text.size(); ++i) {
            const auto field = static_cast<Field>(i);
            if (!everywhere_ && !fields_.contains(field)) continue;
            if (contains_folded(card.text[i], wanted_)) return true;
            const bool number = field >= Field::BusinessPhone && field <= Field::AssistantPhone;
            if (number && has_digits(card.text[i])) return true;
        }
        return everywhere_ && (contains_folded(display_name(card), wanted_) ||
                               contains_folded(composed_name(card), wanted_) || kept_matches(card.extras));
    }

private:
    void add_fields(const std::string& name) {
        static const std::map<std::string, std::vector<Field>> known = {
            {"file-as", {Field::FileAs}},     {"title", {Field::Title}},
            {"first", {Field::FirstName}},    {"last", {Field::LastName}},
            {"suffix", {Field::Suffix}},      {"company", {Field::Company}},
            {"email1", {Field::Email1}},      {"email2", {Field::Email2}},
            {"email3", {Field::Email3}},      {"email", {Field::Email1, Field::Email2, Field::Email3}},
            {"job-title", {Field::JobTitle}},
        };
        if (const auto found = known.find(name); found != known.end()) {
            fields_.insert(found->second.begin(), found->second.end());
            return;
        }
        const auto& [first, last] = further_fields().at(name);
        for (auto field = static_cast<std::size_t>(first); field <= static_cast<std::size_t>(last); ++field) {
            fields_.insert(static_cast<Field>(field));
        }
    }

    bool kept_matches(std::string_view lines) const {
        while (!lines.empty()) {
            const std::size_t end = std::min(lines.find('\n'), lines.size());
            const std::string_view line = lines.substr(0, end);
            const std::size_t colon = line.find(':');
            if (line.size() <= kLongestKept && colon != std::string_view::npos &&
                (contains_folded(line.substr(colon + 1), wanted_) ||
                 is_number(line.substr(0, colon), line.substr(colon))))
                return true;
            lines.remove_prefix(std::min(end + 1, lines.size()));
        }
        return false;
    }

    bool is_number(std::string_view property, std::string_view value) const {
        return contains_folded(property, "tel") && has_digits(value);
    }
    // What is looked for does not begin with a zero: those in front of a number are of no account.
    bool has_digits(std::string_view number) const {
        return !digits_.empty() && significant_digits(number).find(digits_) != std::string::npos;
    }

    const std::string wanted_;
    std::string digits_;  // of a number; empty: it is none
    bool everywhere_;
    std::set<Field> fields_;
};

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

class Find {
public:
    explicit Find(const ContactsFindOptions& options) : options_(options) {
        if (!is_utf8(options.pattern)) throw Failure{Exit::Usage, "the pattern is not valid UTF-8"};
    }

    Exit run() {
        page_output();
        if (options_.by_the_library()) {
            find_by_the_library();
        } else {
            find_text();
        }
        table_.finish();
        if (options_.json) array_.finish();
        return any_ ? Exit::Ok : Exit::None;
    }

private:
    void find_by_the_library() {
        unsigned mask = options_.fields.empty() ? kEveryField : 0;
        for (const std::string& field : options_.fields) {
            const auto known = masks().find(field);
            if (known == masks().end())
                throw Failure{Exit::Usage, "--field " + field + ": not with --exact, --words or --begins"};
            mask |= known->second;
        }
        std::u16string pattern = to_utf16(options_.pattern);
        Search search;
        const int count = search.count();
        for (int i = 1; i <= count; ++i) {
            const LONG oid = search.match(i, pattern, mask, options_.exact, options_.words);
            if (oid == 0) continue;
            const ComPtr<IContact> contact = store_.with_oid(oid);
            if (contact) tell(oid, contact.get(), read_contact(contact.get(), Extent::Fields));
        }
    }

    void find_text() {
        const TextSearch search(options_);
        const int count = store_.count();
        for (int i = 1; i <= count; ++i) {
            const ComPtr<IContact> contact = store_.at(i);
            if (!contact) continue;
            Card card = read_contact(contact.get(), Extent::Whole);
            if (has_left(contact.get()) || !search.matches(card)) continue;
            card.extras.clear();
            card.lines.clear();
            tell(oid_of(contact.get()), contact.get(), std::move(card));
        }
    }

    void tell(LONG oid, IContact* contact, Card card) {
        any_ = true;
        if (card.uid.empty()) card.uid = uid_of(contact);
        if (options_.json) {
            array_.add(contact_json(oid, card));
        } else {
            table_.add(contact_line(oid, card));
        }
    }

    const ContactsFindOptions& options_;
    Store store_;
    JsonArray array_;
    Table table_{contact_columns()};
    bool any_ = false;
};

}  // namespace

void add_contacts_find(Command contacts) {
    const auto options = std::make_shared<ContactsFindOptions>();
    Command command = contacts.add_command("find", "List the contacts that match a text");
    command.add_option("PATTERN", options->pattern, "The text; letter case does not matter").required();
    std::vector<std::string> names;
    for (const auto& [name, mask] : masks()) {
        names.push_back(name);
    }
    for (const auto& [name, fields] : further_fields()) {
        names.push_back(name);
    }
    command.add_option("-f,--field", options->fields, "Search this field only; may be given several times")
        .one_of(names)
        .one_at_a_time();
    const Option exact = command.add_flag("-e,--exact", options->exact, "The whole field must equal the text");
    const Option words =
        command.add_flag("-w,--words", options->words, "Every word of the text must begin some word of some field")
            .excludes(exact);
    command.add_flag("-b,--begins", options->begins, "A field must begin with the text")
        .excludes(exact)
        .excludes(words);
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "A contact matches that has the text anywhere in a field, or in what is kept of its card; an empty\n"
        "text matches every contact. Digits find telephone numbers however they are written. --exact, --words\n"
        "and --begins go by the client's own rules, which know names, companies, job titles and e-mail\n"
        "addresses. The exit code is 1 when nothing matches.\n"
        "\n"
        "Examples:\n"
        "  zr contacts find smith\n"
        "  zr contacts find '0171 555'\n"
        "  zr contacts find --words 'jo sm'\n"
        "  zr contacts find --exact --field email jo@example.com");
    command.reads([options] { return Find(*options).run(); });
}

}  // namespace zr
