// zr contacts import: vCards into the contact store, card by card.

#include <memory>

#include "zr/commands/command.h"
#include "zr/commands/import.h"
#include "zr/stores/contacts.h"
#include "zr/vcard/stream.h"

namespace zr {
namespace {

constexpr ImportWords kContactWords = {"contact", "contacts", "card", "cards", "line left out"};

std::size_t bytes_of(const Card& card) {
    std::size_t bytes = card.extras.size();
    for (const std::string& value : card.text) {
        bytes += value.size();
    }
    return bytes;
}

class ContactsImport : public Import {
public:
    explicit ContactsImport(const ImportOptions& options) : Import(options, kContactWords) {}

private:
    void read(InputFile& file) override;
    long save_batch() override;
    void take(Card& card);

    Store store_;
    std::vector<Card> batch_;
    std::size_t batch_bytes_ = 0;
};

void ContactsImport::read(InputFile& file) {
    CardStream cards(file.descriptor());
    CardStream::Part part;
    bool any = false;
    while (cards.next(part)) {
        any = true;
        for (const CardStream::Note& found : part.notes) {
            note(file.name(), found.problems, found.left_out);
        }
        for (Card& card : part.cards) {
            take(card);
        }
        show(file, part.bytes_read, batch_.size());
    }
    if (cards.error() != 0) throw file_failure(file.name(), cards.error());
    if (!any) note(file.name(), {{1, "no card in this file"}}, true);
}

void ContactsImport::take(Card& card) {
    batch_bytes_ += bytes_of(card);
    batch_.push_back(std::move(card));
    if (batch_.size() >= kBatchItems || batch_bytes_ >= kBatchBytes) save();
}

long ContactsImport::save_batch() {
    if (batch_.empty()) return 0;
    const std::vector<Refused> refused = store_.add(batch_);
    for (const auto& [index, why] : refused) {
        note_refused(display_name(batch_[index]), why);
    }
    const long count = static_cast<long>(batch_.size() - refused.size());
    batch_.clear();
    batch_bytes_ = 0;
    return count;
}

}  // namespace

void add_contacts_import(Command contacts) {
    const auto options = std::make_shared<ImportOptions>();
    Command command = contacts.add_command("import", "Add the cards of vCard files to the contacts");
    options->add_to(command, "vCard files of versions 2.1, 3.0 or 4.0; - is standard input");
    command.footer(
        "A damaged card or line is named with file, line and reason on standard error, the rest is\n"
        "imported, and the exit code is 7. Every card becomes a new contact. What a contact has no\n"
        "place for is kept and exported again.\n"
        "\n"
        "Examples:\n"
        "  zr contacts import phone.vcf work.vcf\n"
        "  ssh server cat contacts.vcf | zr contacts import -");
    command.runs([options] { return ContactsImport(*options).run(); });
}

}  // namespace zr
