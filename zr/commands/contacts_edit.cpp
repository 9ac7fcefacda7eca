// zr contacts edit: a contact as a vCard in the user's editor.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/program.h"
#include "zr/commands/command.h"
#include "zr/stores/contact_index.h"
#include "zr/vcard/reader.h"
#include "zr/vcard/said.h"
#include "zr/vcard/writer.h"

namespace zr {
namespace {

namespace fs = std::filesystem;

struct ContactsEditOptions {
    std::string wanted;
    bool json = false;
};

// A file of the user's alone, in a folder of the user's alone, where editors may put their own beside it.
class EditedFile {
public:
    EditedFile() {
        std::string folder = (fs::temp_directory_path() / "zr-edit-XXXXXX").string();
        if (::mkdtemp(folder.data()) == nullptr) throw file_failure(folder, errno);
        folder_ = folder;
    }
    ~EditedFile() {
        std::error_code none;
        if (!kept_) fs::remove_all(folder_, none);
    }
    EditedFile(const EditedFile&) = delete;
    EditedFile& operator=(const EditedFile&) = delete;

    std::string path() const { return folder_ / "contact.vcf"; }
    // It stays when the program ends.
    void keep() { kept_ = true; }

    void write(const std::string& text) const {
        std::ofstream file(path(), std::ios::binary);
        file << text;
        if (!file.flush()) throw file_failure(path(), errno);
    }
    std::string read() const {
        std::ifstream file(path(), std::ios::binary);
        if (!file) throw file_failure(path(), errno);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

private:
    fs::path folder_;
    bool kept_ = false;
};

std::string editor() {
    for (const char* const name : {"VISUAL", "EDITOR"}) {
        const char* const value = std::getenv(name);
        if (value != nullptr && *value != '\0') return value;
    }
    return "vi";
}

// The variable may hold arguments, so that a shell reads it, as everywhere; the path is no part of what it reads.
void run_editor(const std::string& path) {
    const std::string command = editor();
    const std::string fault = program_fault(run_program({"sh", "-c", command + " \"$1\"", "sh", path}));
    if (!fault.empty()) throw Failure{Exit::Unreadable, command + " " + fault + "; nothing was changed"};
}

// Lines end as the editor's user expects.
std::string for_the_editor(const Card& card) {
    std::string text;
    write_card(card, CardVersion::V30, text);
    std::string lines;
    for (const char c : text) {
        if (c != '\r') lines += c;
    }
    return lines;
}

constexpr char kReason = '#';

std::string without_reasons(const std::string& text) {
    std::size_t at = 0;
    while (at < text.size() && text[at] == kReason) {
        at = std::min(text.find('\n', at), text.size() - 1) + 1;
    }
    return text.substr(at);
}

// Why the text is not one whole card, in lines for its top; nothing when it is one.
std::string faults_of(const std::string& text, Card& card) {
    LineReader lines(read_from_memory(text));
    CardReader reader(lines);
    Card read;
    std::vector<Problem> problems;
    std::string faults;
    int cards = 0;
    const auto add = [&](const std::string& fault) { faults += std::string(1, kReason) + " " + fault + "\n"; };
    for (;;) {
        const CardReader::Result result = reader.next(read, problems);
        if (result == CardReader::Result::End) break;
        for (const Problem& problem : problems) {
            if (problem.lost) add("line " + std::to_string(problem.line) + ": " + problem.reason);
        }
        if (result != CardReader::Result::Card) continue;
        ++cards;
        card = read;
    }
    if (cards != 1 && faults.empty()) add(cards == 0 ? "there is no card here" : "there is more than one card here");
    return faults;
}

class Edit {
public:
    Edit(const ContactsEditOptions& options, Store& store, LONG oid)
        : options_(options), store_(store), oid_(oid), before_(read()) {}

    Exit run() {
        const std::string original = for_the_editor(before_);
        std::string given = original;
        for (std::string faults;;) {
            file_.write(faults + given);
            run_editor(file_.path());
            std::string text = without_reasons(file_.read());
            if (text == original) return tell("nothing was changed");
            if (text == given) return give_up(faults);
            Card card;
            faults = faults_of(text, card);
            if (faults.empty()) return save(card);
            complain(faults.substr(2, faults.find('\n') - 2));
            given = std::move(text);
        }
    }

private:
    Card read() const {
        const ComPtr<IContact> contact = store_.with_oid(oid_);
        if (!contact) throw Failure{Exit::None, "no contact " + options_.wanted};
        Card card = read_contact(contact.get(), Extent::Whole);
        card.uid = uid_of(contact.get());
        return card;
    }

    Exit tell(const char* what) const {
        complain(what);
        return Exit::Ok;
    }

    // It came back as it was given back.
    Exit give_up(const std::string& faults) {
        file_.keep();
        throw Failure{Exit::DamagedCards,
                      "not saved: " + faults.substr(2, faults.find('\n') - 2) + "; the card is in " + file_.path()};
    }

    Exit save(Card& card) {
        const Card now = read();
        if (!(now == before_) || now.lines != before_.lines) {
            file_.keep();
            throw Failure{Exit::StoreFailed,
                          "not saved: the contact was changed meanwhile; the card is in " + file_.path()};
        }
        if (kept_text(card.extras, "UID").empty()) card.uid = before_.uid;
        std::vector<CardToSave> cards;
        cards.push_back({std::move(card), oid_});
        const std::vector<Refused> refused = store_.save(cards);
        if (!refused.empty()) {
            file_.keep();
            throw Failure{Exit::StoreFailed, "not saved: " + refused.front().why + "; the card is in " + file_.path()};
        }
        if (options_.json) print_json_line(contact_json(oid_, read()));
        return Exit::Ok;
    }

    const ContactsEditOptions& options_;
    Store& store_;
    const LONG oid_;
    const Card before_;
    EditedFile file_;
};

Exit edit(const ContactsEditOptions& options) {
    Store store;
    return Edit(options, store, find_contact(store, options.wanted)).run();
}

}  // namespace

void add_contacts_edit(Command contacts) {
    const auto options = std::make_shared<ContactsEditOptions>();
    Command command = contacts.add_command("edit", "Change a contact as a vCard in your editor");
    command.add_option("OID", options->wanted, "Number or lasting identifier, as list and find print it").required();
    command.add_flag("--json", options->json, "Print the contact as JSON");
    command.footer(
        "The editor is what VISUAL or EDITOR names, else vi. A card that is damaged is given back with the\n"
        "reason in its first lines; leave it as it is, and nothing is saved, the exit code is 7, and the file\n"
        "stays. A contact that others change meanwhile is not overwritten.\n"
        "\n"
        "Example:\n"
        "  zr contacts edit 12");
    command.runs([options] { return edit(*options); });
}

}  // namespace zr
