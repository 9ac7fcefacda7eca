// zr mail folders, list and find: what is in the message store.

#include <memory>

#include "zr/base/output.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/commands/mail_rows.h"

namespace zr {
namespace {

struct MailListOptions {
    std::string folder = "Inbox";
    std::vector<std::string> words;
    LONG limit = 0;
    bool descending = false;
    bool unread = false;
    bool json = false;
};

Exit list_folders(bool json) {
    MailSession mail;
    JsonArray array;
    Table table({{"FOLDER", Column::Kind::Reference}, {"MESSAGES"}, {"NOT READ"}});
    for (const MailFolder& folder : mail.folders()) {
        if (json) {
            array.add({{"id", mail.id_of(folder.entry)},
                       {"name", folder.name()},
                       {"messages", folder.messages},
                       {"unread", folder.unread}});
        } else {
            table.add(printable(folder.name()) + "\t" + std::to_string(folder.messages) + "\t" +
                      std::to_string(folder.unread) + "\n");
        }
    }
    table.finish();
    if (json) array.finish();
    return Exit::Ok;
}

Exit print_rows(MailSession& mail, IMAPITable* rows, const MailListOptions& options) {
    SenderNames names;
    JsonArray array;
    LONG count = 0;
    Table table(mail_columns());
    page_output();
    each_mail_row(rows, [&](const MailRow& row) {
        ++count;
        if (options.json) {
            array.add(mail_json(mail, row, names));
        } else {
            table.add(mail_line(mail, row, names));
        }
        return options.limit == 0 || count < options.limit;
    });
    table.finish();
    if (options.json) array.finish();
    return count > 0 ? Exit::Ok : Exit::None;
}

void only_unread(IMAPITable* table) {
    SRestriction restriction = {};
    restriction.rt = RES_BITMASK;
    restriction.res.resBitMask = {BMR_EQZ, PR_MESSAGE_FLAGS, MSGFLAG_READ};
    check_mail(table->Restrict(&restriction, 0), "reading a list");
}

Exit list(const MailListOptions& options) {
    MailSession mail;
    const ComPtr<IMAPIFolder> folder = mail.folder_named(options.folder);
    ComPtr<IMAPITable> table;
    check_mail(folder->GetContentsTable(0, table.out()), "reading a list");
    if (options.unread) only_unread(table.get());
    SSortOrderSet order = {1, 0, 0, {{PR_MESSAGE_DELIVERY_TIME, TABLE_SORT_DESCEND}}};
    if (!options.descending) order.aSort[0].ulOrder = TABLE_SORT_ASCEND;
    check_mail(table->SortTable(&order, 0), "reading a list");
    return print_rows(mail, table.get(), options);
}

Exit find(const MailListOptions& options) {
    MailSession mail;
    std::string words;
    for (const std::string& word : options.words) {
        // What was one argument stands together.
        words += (words.empty() ? "" : " ") + (word.find(' ') == std::string::npos ? word : "\"" + word + "\"");
    }
    const ComPtr<IMAPITable> table = mail.find_words(words);
    if (options.unread) only_unread(table.get());
    return print_rows(mail, table.get(), options);
}

constexpr const char* kLines =
    "A line is the identifier, the date, N for a message that was not read, the sender and the subject, with\n"
    "tabs between. The sender is the contact's name where the contacts know the address.\n";

}  // namespace

void add_mail_folders(Command mail) {
    const auto json = std::make_shared<bool>(false);
    Command command = mail.add_command("folders", "List the folders");
    command.add_flag("--json", *json, "Print JSON");
    command.footer(
        "A line is the name, the number of messages and the number of those that were not read.\n"
        "\n"
        "Example:\n"
        "  zr mail folders");
    command.reads([json] { return list_folders(*json); });
}

void add_mail_list(Command mail) {
    const auto options = std::make_shared<MailListOptions>();
    Command command = mail.add_command("list", "List the messages of a folder, the oldest first");
    command.add_option("FOLDER", options->folder, "Its name, such as Inbox or Work/Reports").shows_default();
    command.add_flag("-r,--reverse", options->descending, "The newest first");
    command.add_flag("-u,--unread", options->unread, "Only what was not read");
    command.add_option("-n,--limit", options->limit, "List no more than this many").positive();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(std::string(kLines) +
                   "The exit code is 1 when there are none.\n"
                   "\n"
                   "Examples:\n"
                   "  zr mail list --reverse --limit 20\n"
                   "  zr mail list 'Sent Items' --json");
    command.reads([options] { return list(*options); });
}

void add_mail_find(Command mail) {
    const auto options = std::make_shared<MailListOptions>();
    Command command = mail.add_command("find", "Find messages by words, the newest first");
    command.add_option("WORDS", options->words, "Words that are all in it: in subject, names, addresses or text")
        .required();
    command.add_flag("-u,--unread", options->unread, "Only what was not read");
    command.add_option("-n,--limit", options->limit, "List no more than this many").positive();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        std::string(kLines) +
        "A word that ends in * is the beginning of one; an argument of several words is found as it stands.\n"
        "The exit code is 1 when nothing is found.\n"
        "\n"
        "Examples:\n"
        "  zr mail find invoice jo@example.com\n"
        "  zr mail find 'annual report' --limit 5");
    command.reads([options] { return find(*options); });
}

}  // namespace zr
