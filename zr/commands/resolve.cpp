// zr resolve: the contact behind the sender of a message.

#include <sys/stat.h>

#include <functional>
#include <memory>
#include <optional>

#include "zr/base/event_loop.h"
#include "zr/base/input_file.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/base/writable_copy.h"
#include "zr/commands/command.h"
#include "zr/mail/recipients.h"
#include "zr/stores/contacts.h"
#include "zr/stores/directory.h"
#include "zr/stores/mail.h"

namespace zr {
namespace {

struct ResolveOptions {
    std::vector<std::string> inputs;
    bool addresses = false;
    bool messages = false;
    bool watch = false;
    bool json = false;
};

// One address to look up and where it is from.
struct Query {
    std::string message;  // the file; empty for an address from the command line
    std::string subject;
    Sender sender;
    std::string shown;  // the answer that was last printed
};

bool is_message_argument(const ResolveOptions& options, const std::string& input) {
    if (options.addresses || options.messages) return options.messages;
    struct stat status;
    return input == "-" || ::stat(input.c_str(), &status) == 0 || input.find('@') == std::string::npos;
}

void add_message(const std::string& path, std::vector<Query>& queries) {
    InputFile file(path);
    const Message message = read_message(file.reader());
    switch (message.status) {
        case MessageStatus::Unreadable:
            throw file_failure(file.name(), message.error);
        case MessageStatus::NotAMessage:
            throw Failure{Exit::NotAMessage, file.name() + ": not a message"};
        case MessageStatus::NoSender:
            throw Failure{Exit::NoSender, file.name() + ": no usable From"};
        case MessageStatus::Ok:
            break;
    }
    for (const Sender& sender : message.senders) {
        queries.push_back({file.name(), message.subject, sender, {}});
    }
}

// Whether an argument that is no file names a message of the store; then it is one of the queries.
bool add_stored_message(const std::string& id, std::vector<Query>& queries) {
    struct stat status;
    if (id == "-" || ::stat(id.c_str(), &status) == 0) return false;
    // Nothing is opened, and no store made, for what cannot be an identifier.
    if (id.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
    MailSession mail;
    EntryBytes entry;
    const ComPtr<IMessage> message = mail.message_of_id(id, entry);
    const MailRow row = mail_row_of(message.get());
    if (row.address.empty()) throw Failure{Exit::NoSender, id + ": no usable From"};
    queries.push_back({id, row.subject, {row.sender == row.address ? "" : row.sender, row.address}, {}});
    return true;
}

void add_addresses(const std::string& text, std::vector<Query>& queries) {
    const std::vector<Sender> senders = is_utf8(text) ? split_recipients(text) : std::vector<Sender>();
    if (senders.empty()) throw Failure{Exit::NoSender, text + ": no usable address"};
    for (const Sender& sender : senders) {
        queries.push_back({"", "", sender, {}});
    }
}

using Owners = std::vector<Owner>;
using FindOwners = std::function<Owners(const std::string& address)>;

const char* word_of(const Owners& owners) {
    return owners.empty() ? "none" : owners.size() == 1 ? "one" : "several";
}

Exit code_of(const Owners& owners) {
    return owners.empty() ? Exit::None : owners.size() == 1 ? Exit::Ok : Exit::Several;
}

std::string answer_line(const Query& query, const Owners& owners) {
    std::string line;
    if (!query.message.empty()) line = printable(query.message) + ": ";
    line += printable(query.sender.address) + ": " + word_of(owners);
    for (const Owner& owner : owners) {
        line += (&owner == owners.data() ? ": " : ", ") + printable(display_name(owner.card));
        const std::string& company = owner.card[Field::Company];
        if (owners.size() == 1 && !company.empty()) line += ", " + printable(company);
        line += " (contact " + std::to_string(owner.oid) + ")";
    }
    return line + "\n";
}

Json answer_object(const Query& query, const Owners& owners) {
    Json json;
    if (!query.message.empty()) {
        json.set("message", query.message);
        json.set("subject", query.subject);
    }
    json.set("sender", {{"name", query.sender.name}, {"address", query.sender.address}});
    json.set("answer", word_of(owners));
    if (owners.size() == 1) json.set("contact", contact_json(owners[0].oid, owners[0].card));
    if (owners.size() > 1) {
        Json contacts = Json::array();
        for (const Owner& owner : owners) {
            contacts.add(contact_json(owner.oid, owner.card));
        }
        json.set("contacts", std::move(contacts));
    }
    return json;
}

// Prints the answers that are not what was printed before.
Exit print_answers(const FindOwners& find, std::vector<Query>& queries, bool json) {
    Exit code = Exit::Ok;
    for (Query& query : queries) {
        const Owners owners = find(query.sender.address);
        code = combine(code, code_of(owners));
        std::string text = json ? json_text(answer_object(query, owners)) + "\n" : answer_line(query, owners);
        if (text == query.shown) continue;
        print(text);
        query.shown = std::move(text);
    }
    flush_output();
    return code;
}

void collect_queries(const ResolveOptions& options, std::vector<Query>& queries, Exit& code) {
    for (const std::string& input : options.inputs) {
        try {
            if (is_message_argument(options, input)) {
                if (!add_stored_message(input, queries)) add_message(input, queries);
            } else {
                add_addresses(input, queries);
            }
        } catch (const Failure& failure) {
            complain(failure.text);
            code = combine(code, failure.code);
        }
    }
}

Exit resolve(const ResolveOptions& options) {
    Exit code = Exit::Ok;
    std::vector<Query> queries;
    collect_queries(options, queries, code);
    if (queries.empty()) return code;
    if (!options.watch) {
        Store store;
        const FindOwners find = [&store](const std::string& address) { return owners_of(store, address); };
        return combine(code, print_answers(find, queries, options.json));
    }
    EventLoop loop;
    Directory directory;
    const FindOwners find = [&directory](const std::string& address) { return directory.owners_of(address); };
    do {
        print_answers(find, queries, options.json);
    } while (loop.wait({}));
    return code;
}

}  // namespace

void add_resolve(Command zr) {
    const auto options = std::make_shared<ResolveOptions>();
    Command command = zr.add_command("resolve", "Tell which contact sent a message or has an address");
    command
        .add_option("MESSAGE|ADDRESS", options->inputs,
                    "Message files (- is standard input), identifiers of stored messages, or addresses such as 'Jo Doe "
                    "<jo@example.com>; al@example.com'")
        .required();
    const Option messages = command.add_flag("-m,--messages", options->messages, "Every argument is a message file");
    command.add_flag("-a,--addresses", options->addresses, "Every argument is an address").excludes(messages);
    command.add_flag("-w,--watch", options->watch,
                     "Stay, and print an answer anew whenever it changes, until interrupted");
    command.add_flag("--json", options->json, "Print one JSON object per answer and line");
    command.footer(
        "An answer is none, one with the contact, or several. The exit code is 0 when each address is\n"
        "one contact's, 1 when some is nobody's, 3 when some is several contacts', and 4, 5 or 6 when a\n"
        "message has no usable From, is no message, or cannot be read.\n"
        "An argument is an address when it holds an @ and no such file exists, and an identifier when it is\n"
        "hexadecimal and no such file exists.\n"
        "\n"
        "Examples:\n"
        "  zr resolve ~/Maildir/new/*\n"
        "  zr resolve jo@example.com\n"
        "  zr resolve --watch --json message.eml");
    command.runs([options] {
        std::optional<WritableCopy> copy;
        if (!options->watch) copy.emplace();
        return resolve(*options);
    });
}

}  // namespace zr
