// zr contacts import: vCards into the contact store, card by card.

#include <memory>
#include <optional>
#include <unordered_set>

#include "zr/base/interruption.h"
#include "zr/commands/command.h"
#include "zr/commands/import.h"
#include "zr/stores/contact_index.h"
#include "zr/vcard/said.h"
#include "zr/vcard/stream.h"

namespace zr {
namespace {

constexpr ImportWords kContactWords = {"contact", "contacts", "card", "cards", "line left out", true, true};

std::size_t bytes_of(const Card& card) {
    std::size_t bytes = card.extras.size() + card.lines.size();
    for (const std::string& value : card.text) {
        bytes += value.size();
    }
    return bytes;
}

// When a card was last revised, in digits that order by time; empty when it does not say.
std::string revision(const Card& card) {
    std::string digits;
    for (const char c : kept_text(card.extras, "REV")) {
        if (c >= '0' && c <= '9') digits += c;
    }
    return digits;
}

// Whether a contact says what the card does already.
bool is_as(Card contact, Card card) {
    if (in_one_syntax(contact.extras) != in_one_syntax(card.extras)) return false;
    if (in_one_syntax(contact.lines) != in_one_syntax(card.lines)) return false;
    card[Field::FileAs] = filed_name(card);
    card.extras.clear();
    contact.extras.clear();
    return contact == card;
}

class ContactsImport : public Import {
public:
    explicit ContactsImport(const DuplicateOptions& options) : Import(options, kContactWords), options_(options) {}

private:
    void read(InputFile& file) override;
    long save_batch() override;
    bool interrupted() const override { return interruption_.asked(); }
    void end_interrupted() override { interruption_.end(); }
    std::vector<std::string> endings() const override { return {".vcf", ".vcard"}; }
    void take(Card& card);
    bool is_known(const Card& card, LONG oid);
    void put_into_batch(Card& card, LONG oid);

    const DuplicateOptions& options_;
    Interruption interruption_;
    Store store_;
    std::optional<ContactIndex> index_;
    std::vector<CardToSave> batch_;
    std::unordered_set<std::string> batch_uids_;
    std::size_t batch_bytes_ = 0;
};

void ContactsImport::read(InputFile& file) {
    CardStream cards(file.descriptor(), interruption_.descriptor());
    CardStream::Part part;
    while (cards.next(part)) {
        for (const CardStream::Note& found : part.notes) {
            // What is cut off by the interruption is not in yet.
            if (!found.left_out || !interrupted()) note(file.name(), found.problems, found.left_out);
        }
        for (Card& card : part.cards) {
            take(card);
        }
        show(file, part.bytes_read, batch_.size());
    }
    if (cards.error() != 0) throw file_failure(file.name(), cards.error());
}

void ContactsImport::take(Card& card) {
    if (options_.on_duplicate == "add") return put_into_batch(card, 0);
    if (batch_uids_.contains(card.uid)) save();  // so that the index knows the one before
    if (!index_) index_.emplace(store_);
    const LONG oid = index_->find(card.uid);
    if (oid != 0 && is_known(card, oid)) return note_known();
    put_into_batch(card, oid);
}

// Whether a card that is there needs nothing to be done. One that has no identifier but what it says was imported
// before, and may have been changed since.
bool ContactsImport::is_known(const Card& card, LONG oid) {
    if (options_.on_duplicate == "skip" || kept_text(card.extras, "UID").empty()) return true;
    const ComPtr<IContact> contact = store_.with_oid(oid);
    if (!contact) return false;
    Card there = read_contact(contact.get(), Extent::Whole);
    there.uid = uid_of(contact.get());
    const std::string before = revision(there);
    const std::string now = revision(card);
    return is_as(there, card) || (!before.empty() && !now.empty() && now < before);
}

void ContactsImport::put_into_batch(Card& card, LONG oid) {
    batch_bytes_ += bytes_of(card);
    batch_uids_.insert(card.uid);
    batch_.push_back({std::move(card), oid});
    if (batch_.size() >= kBatchItems || batch_bytes_ >= kBatchBytes) save();
}

long ContactsImport::save_batch() {
    if (batch_.empty()) return 0;
    std::vector<bool> updates;
    for (const CardToSave& card : batch_) {
        updates.push_back(card.oid != 0);
    }
    const std::vector<Refused> refused = options_.dry_run ? std::vector<Refused>() : store_.save(batch_);
    std::vector<bool> left_out(batch_.size());
    for (const auto& [index, why] : refused) {
        note_refused(display_name(batch_[index].card), why);
        left_out[index] = true;
    }
    long count = 0;
    for (std::size_t i = 0; i < batch_.size(); ++i) {
        if (left_out[i]) continue;
        if (updates[i]) {
            note_updated();
        } else {
            ++count;
        }
        // What is only looked at has no number, and is known all the same.
        if (index_) index_->add(batch_[i].card.uid, options_.dry_run ? -1 : batch_[i].oid);
    }
    batch_.clear();
    batch_uids_.clear();
    batch_bytes_ = 0;
    return count;
}

}  // namespace

void add_contacts_import(Command contacts) {
    const auto options = std::make_shared<DuplicateOptions>();
    Command command = contacts.add_command("import", "Add the cards of vCard files to the contacts");
    options->add_to(command, "vCard files of versions 2.1, 3.0 or 4.0, or folders of .vcf files; - is standard input");
    command.footer(
        "A damaged card or line is named with file, line and reason on standard error, the rest is\n"
        "imported, and the exit code is 7. A card whose UID a contact has updates that contact, unless\n"
        "its REV is older; one without a UID that was imported before is there already. What a contact\n"
        "has no place for is kept and exported again. Ctrl-C stores what was read and ends; the same\n"
        "command goes on from there.\n"
        "\n"
        "Examples:\n"
        "  zr contacts import phone.vcf work.vcf\n"
        "  zr contacts import --dry-run ~/contacts\n"
        "  ssh server cat contacts.vcf | zr contacts import -");
    command.runs([options] { return ContactsImport(*options).run(); });
}

}  // namespace zr
