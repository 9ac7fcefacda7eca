// zr resolve: the contact behind the sender of a message, found through the library's e-mail index.

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>
#include <sys/stat.h>

#include <memory>

#include "zr/base/event_loop.h"
#include "zr/base/input_file.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/mail/recipients.h"
#include "zr/stores/contacts.h"

namespace zr {
namespace {

constexpr int kEmailFields =
    Contact::CONTACT_FIELD_EMAIL1 | Contact::CONTACT_FIELD_EMAIL2 | Contact::CONTACT_FIELD_EMAIL3;

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

struct Answer {
    Exit code = Exit::Ok;  // one, none or several contacts
    LONG oid = 0;          // of the one
    Card card;
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

void add_addresses(const std::string& text, std::vector<Query>& queries) {
    const std::vector<Sender> senders = is_utf8(text) ? split_recipients(text) : std::vector<Sender>();
    if (senders.empty()) throw Failure{Exit::NoSender, text + ": no usable address"};
    for (const Sender& sender : senders) {
        queries.push_back({"", "", sender, {}});
    }
}

// The library's contacts manager, with the index, for as long as the object.
class Directory {
public:
    Directory() : manager_(OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_EMAIL)) {
        const LONG result = manager_->Initialize();
        if (FAILED(result)) throw store_failure(result, "opening the contact store");
    }
    ~Directory() {
        manager_->Uninitialize(0);
        OutlookManager::ReleaseContactsManagerInstance(manager_);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    Answer answer(const std::string& address) {
        std::u16string pattern = to_utf16(address);
        Contact* contact = nullptr;
        switch (manager_->FindContact(pattern.data(), kEmailFields, 1, 0, 0, contact)) {
            case ContactsManager::CM_NONE:
                return {Exit::None, {}, {}};
            case ContactsManager::CM_SEVERAL:
                return {Exit::Several, {}, {}};
            case ContactsManager::CM_ONE: {
                Answer answer = describe(*contact);
                manager_->ReleaseContact(contact);
                return answer;
            }
            default:
                throw Failure{Exit::StoreFailed, address + ": the search failed"};
        }
    }

private:
    static std::string text(Contact& contact, LONG (Contact::*get)(WCHAR*&)) {
        WCHAR* value = nullptr;
        return SUCCEEDED((contact.*get)(value)) && value ? to_utf8(value) : std::string();
    }

    static Answer describe(Contact& contact) {
        Answer answer;
        contact.get_Oid(answer.oid);
        Card& card = answer.card;
        card[Field::FileAs] = text(contact, &Contact::get_FileAs);
        card[Field::Title] = text(contact, &Contact::get_Title);
        card[Field::FirstName] = text(contact, &Contact::get_FirstName);
        card[Field::MiddleName] = text(contact, &Contact::get_MiddleName);
        card[Field::LastName] = text(contact, &Contact::get_LastName);
        card[Field::Suffix] = text(contact, &Contact::get_Suffix);
        card[Field::Company] = text(contact, &Contact::get_CompanyName);
        card[Field::JobTitle] = text(contact, &Contact::get_JobTitle);
        card[Field::Email1] = text(contact, &Contact::get_Email1Address);
        card[Field::Email2] = text(contact, &Contact::get_Email2Address);
        card[Field::Email3] = text(contact, &Contact::get_Email3Address);
        return answer;
    }

    ContactsManager* manager_;
};

const char* word_of(const Answer& answer) {
    return answer.code == Exit::Ok ? "one" : answer.code == Exit::None ? "none" : "several";
}

std::string answer_line(const Query& query, const Answer& answer) {
    std::string line;
    if (!query.message.empty()) line = printable(query.message) + ": ";
    line += printable(query.sender.address) + ": " + word_of(answer);
    if (answer.code == Exit::Ok) {
        line += ": " + printable(display_name(answer.card));
        const std::string& company = answer.card[Field::Company];
        if (!company.empty()) line += ", " + printable(company);
        line += " (contact " + std::to_string(answer.oid) + ")";
    }
    return line + "\n";
}

Json answer_object(const Query& query, const Answer& answer) {
    Json json;
    if (!query.message.empty()) {
        json.set("message", query.message);
        json.set("subject", query.subject);
    }
    json.set("sender", {{"name", query.sender.name}, {"address", query.sender.address}});
    json.set("answer", word_of(answer));
    if (answer.code == Exit::Ok) json.set("contact", contact_json(answer.oid, answer.card));
    return json;
}

// Prints the answers that are not what was printed before.
Exit print_answers(Directory& directory, std::vector<Query>& queries, bool json) {
    Exit code = Exit::Ok;
    for (Query& query : queries) {
        const Answer answer = directory.answer(query.sender.address);
        code = combine(code, answer.code);
        std::string text = json ? json_text(answer_object(query, answer)) + "\n" : answer_line(query, answer);
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
                add_message(input, queries);
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
        Directory directory;
        return combine(code, print_answers(directory, queries, options.json));
    }
    EventLoop loop;
    Directory directory;
    do {
        print_answers(directory, queries, options.json);
    } while (loop.wait({}));
    return code;
}

}  // namespace

void add_resolve(Command zr) {
    const auto options = std::make_shared<ResolveOptions>();
    Command command = zr.add_command("resolve", "Tell which contact sent a message or has an address");
    command
        .add_option(
            "MESSAGE|ADDRESS", options->inputs,
            "Message files (- is standard input), or addresses such as 'Jo Doe <jo@example.com>; al@example.com'")
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
        "An argument is an address when it holds an @ and no such file exists.\n"
        "\n"
        "Examples:\n"
        "  zr resolve ~/Maildir/new/*\n"
        "  zr resolve jo@example.com\n"
        "  zr resolve --watch --json message.eml");
    command.runs([options] { return resolve(*options); });
}

}  // namespace zr
