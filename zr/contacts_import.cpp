// zr contacts import: vCards into the contact store, card by card, in batches that are stored whole or not at all.

#include <cerrno>
#include <cstring>
#include <memory>

#include "card_stream.h"
#include "command.h"
#include "input_file.h"
#include "output.h"
#include "progress.h"
#include "store.h"

namespace zr {
namespace {

// A batch is one transaction of the store. It is small enough that other programs do not wait for it long.
constexpr std::size_t kBatchCards = 1000;
constexpr std::size_t kBatchBytes = std::size_t{4} << 20;

struct Options {
    std::vector<std::string> files;
    bool json = false;
    bool quiet = false;
};

std::size_t bytes_of(const Card& card) {
    std::size_t bytes = card.extras.size();
    for (const std::string& value : card.text) {
        bytes += value.size();
    }
    return bytes;
}

class Import {
public:
    explicit Import(const Options& options) : options_(options), progress_(!options.quiet && !options.json) {}

    Exit run();

private:
    void read(InputFile& file);
    void note(const std::string& file, const std::vector<CardProblem>& problems, bool left_out);
    void fail(const Failure& failure);
    void take(Card& card);
    void save();
    void report();

    const Options& options_;
    Progress progress_;
    Store store_;
    std::vector<Card> batch_;
    std::size_t batch_bytes_ = 0;
    long imported_ = 0;
    long left_out_ = 0;    // cards
    long incomplete_ = 0;  // cards that came in without something
    Json problems_ = Json::array();
    Exit code_ = Exit::Ok;
};

Exit Import::run() {
    try {
        for (const std::string& path : options_.files) {
            try {
                InputFile file(path);
                read(file);
            } catch (const Failure& failure) {
                if (failure.code != Exit::Unreadable) throw;
                fail(failure);
            }
        }
        save();
    } catch (const Failure& failure) {
        // The store failed: what was saved before stays, and nothing of the batch at hand is in.
        progress_.clear();
        report();
        flush_output();
        throw Failure{failure.code,
                      failure.text + "; " + std::to_string(imported_) + " contacts are in, the rest is not"};
    }
    progress_.clear();
    report();
    if (code_ == Exit::Ok && left_out_ + incomplete_ > 0) code_ = Exit::DamagedCards;
    return code_;
}

void Import::read(InputFile& file) {
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
        progress_.show(file.name(), part.bytes_read, static_cast<std::size_t>(file.size()),
                       imported_ + static_cast<long>(batch_.size()));
    }
    if (cards.error() != 0) throw file_failure(file.name(), cards.error());
    if (!any) note(file.name(), {{1, "no card in this file"}}, true);
}

void Import::note(const std::string& file, const std::vector<CardProblem>& problems, bool left_out) {
    if (problems.empty()) return;
    bool lost = false;
    progress_.clear();
    for (const CardProblem& problem : problems) {
        lost = lost || problem.lost;
        const char* kind = !problem.lost ? "warning: " : left_out ? "card left out: " : "line left out: ";
        complain(file + ":" + std::to_string(problem.line) + ": " + kind + problem.reason);
        if (!options_.json) continue;
        problems_.push_back({{"file", file},
                             {"line", problem.line},
                             {"reason", problem.reason},
                             {"effect", !problem.lost ? "none"
                                        : left_out    ? "card left out"
                                                      : "line left out"}});
    }
    if (left_out) {
        ++left_out_;
    } else if (lost) {
        ++incomplete_;
    }
}

void Import::fail(const Failure& failure) {
    progress_.clear();
    complain(failure.text);
    code_ = combine(code_, failure.code);
}

void Import::take(Card& card) {
    batch_bytes_ += bytes_of(card);
    batch_.push_back(std::move(card));
    if (batch_.size() >= kBatchCards || batch_bytes_ >= kBatchBytes) save();
}

void Import::save() {
    if (batch_.empty()) return;
    store_.add(batch_);
    imported_ += static_cast<long>(batch_.size());
    batch_.clear();
    batch_bytes_ = 0;
}

void Import::report() {
    if (options_.json) {
        print_json_line(
            {{"imported", imported_}, {"leftOut", left_out_}, {"incomplete", incomplete_}, {"problems", problems_}});
        return;
    }
    if (options_.quiet) return;
    std::string text = "imported " + std::to_string(imported_) + (imported_ == 1 ? " contact" : " contacts");
    if (incomplete_ > 0) text += ", " + std::to_string(incomplete_) + " of them not in full";
    if (left_out_ > 0) text += "; left out " + std::to_string(left_out_) + (left_out_ == 1 ? " card" : " cards");
    print(text + "\n");
}

}  // namespace

void add_contacts_import(Command contacts) {
    const auto options = std::make_shared<Options>();
    Command command = contacts.add_command("import", "Add the cards of vCard files to the contacts");
    command.add_option("FILE", options->files, "vCard files of versions 2.1, 3.0 or 4.0; - is standard input")
        .required();
    command.add_flag("--json", options->json, "Print the result as JSON");
    command.add_flag("-q,--quiet", options->quiet, "Print nothing but what went wrong");
    command.footer(
        "A damaged card or line is named with file, line and reason on standard error, the rest is\n"
        "imported, and the exit code is 7. Every card becomes a new contact. What a contact has no\n"
        "place for is kept and exported again.\n"
        "\n"
        "Examples:\n"
        "  zr contacts import phone.vcf work.vcf\n"
        "  ssh server cat contacts.vcf | zr contacts import -");
    command.runs([options] { return Import(*options).run(); });
}

}  // namespace zr
