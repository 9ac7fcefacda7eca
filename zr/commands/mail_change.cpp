// zr mail move, save, mark, delete and meetings: what is done to messages.

#include <ZrUtility/Helpers/MapiUtilities.h>

#include <memory>

#include "zr/base/output.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/commands/mail_rows.h"

namespace zr {
namespace {

struct MailChangeOptions {
    std::vector<std::string> ids;
    std::string folder;
    bool read = false;
    bool unread = false;
    bool permanently = false;
    bool delete_foreign = false;
    bool json = false;
};

// Does something to each message; one that is not there is named and the others are done.
Exit for_each(const MailChangeOptions& options, MailSession& mail,
              const std::function<void(IMessage*, const EntryBytes&)>& change) {
    Exit code = Exit::Ok;
    JsonArray array;
    for (const std::string& id : options.ids) {
        bool done = true;
        try {
            EntryBytes entry;
            const ComPtr<IMessage> message = mail.message_of_id(id, entry);
            change(message.get(), entry);
        } catch (const Failure& failure) {
            if (failure.code != Exit::None) throw;
            complain(failure.text);
            code = combine(code, failure.code);
            done = false;
        }
        if (options.json) array.add({{"id", id}, {"done", done}});
    }
    if (options.json) array.finish();
    return code;
}

void move_message(MailSession& mail, IMessage* message, const EntryBytes& entry, IMAPIFolder* to) {
    ComPtr<IMAPIFolder> from;
    *from.out() = MapiUtilities::GetMsgFolder(mail.session(), message);
    if (!from) throw mail_failure(MAPI_E_NOT_FOUND, "moving a message");
    SBinary one = {size_of(entry), reinterpret_cast<BYTE*>(entry_of(entry))};
    ENTRYLIST list = {1, &one};
    const HRESULT result = from->CopyMessages(&list, nullptr, to, 0, nullptr, MESSAGE_MOVE);
    // Another program was quicker.
    check_mail(result == MAPI_W_PARTIAL_COMPLETION ? MAPI_E_NOT_FOUND : result, "moving a message");
}

Exit move(const MailChangeOptions& options) {
    MailSession mail;
    const ComPtr<IMAPIFolder> to = mail.folder_named(options.folder);
    return for_each(options, mail,
                    [&](IMessage* message, const EntryBytes& entry) { move_message(mail, message, entry, to.get()); });
}

Exit save(const MailChangeOptions& options) {
    MailSession mail;
    mail.saved_folder();
    return for_each(options, mail, [&](IMessage* message, const EntryBytes&) {
        check_mail(MapiUtilities::MoveMsgToSavedFolder(mail.session(), message), "saving a message");
    });
}

Exit mark(const MailChangeOptions& options) {
    if (options.read == options.unread) throw Failure{Exit::Usage, "mark takes --read or --unread"};
    MailSession mail;
    return for_each(options, mail, [&](IMessage* message, const EntryBytes&) {
        check_mail(message->SetReadFlag(options.unread ? CLEAR_READ_FLAG : 0), "marking a message");
    });
}

Exit erase(const MailChangeOptions& options) {
    MailSession mail;
    return for_each(options, mail, [&](IMessage* message, const EntryBytes&) {
        check_mail(options.permanently ? MapiUtilities::DeleteMessagePermanently(mail.session(), message)
                                       : MapiUtilities::DeleteMessage(mail.session(), message),
                   "deleting a message");
    });
}

Exit meetings(const MailChangeOptions& options) {
    MailSession mail;
    SenderNames names;
    JsonArray array;
    std::vector<Column> columns = mail_columns();
    columns.push_back({"CLASS"});
    Table listed(std::move(columns));
    bool any = false;
    for (const MailFolder& folder : mail.folders()) {
        const ComPtr<IMAPIFolder> opened = mail.open_folder(folder.entry);
        ComPtr<IMAPITable> table;
        check_mail(opened->GetContentsTable(0, table.out()), "reading a list");
        std::vector<MailRow> rows;
        each_mail_row(table.get(), [&](const MailRow& row) {
            if (MapiUtilities::isMeetingFormName(to_utf16(row.message_class).data())) rows.push_back(row);
            return true;
        });
        for (const MailRow& row : rows) {
            bool is_meeting = false;
            bool is_foreign = false;
            const bool deletes = options.delete_foreign;
            const ComPtr<IMessage> message = mail.message(row.entry, true);
            const HRESULT result =
                MapiUtilities::CheckMeetingMessage(mail.session(), message.get(), deletes, &is_meeting, &is_foreign);
            check_mail(result, "looking at a meeting");
            if (!is_meeting) continue;
            any = true;
            const bool deleted = deletes && is_foreign;
            if (options.json) {
                Json json = mail_json(mail, row, names);
                json.set("folder", folder.name());
                json.set("foreign", is_foreign);
                json.set("deleted", deleted);
                array.add(json);
            } else {
                std::string line = mail_line(mail, row, names);
                line.pop_back();
                listed.add(line + "\t" + printable(row.message_class) + (deleted ? "\tdeleted" : "") + "\n");
            }
        }
    }
    listed.finish();
    if (options.json) array.finish();
    return any ? Exit::Ok : Exit::None;
}

constexpr const char* kMissing = "A message that is not there (any more) is named, and the exit code is 1 then.\n";

}  // namespace

void add_mail_move(Command mail) {
    const auto options = std::make_shared<MailChangeOptions>();
    Command command = mail.add_command("move", "Move messages to another folder");
    command.add_option("ID", options->ids, "Identifiers, as zr mail list shows them").required();
    command.add_option("-t,--to", options->folder, "The folder that they go to").required();
    command.add_flag("--json", options->json, "Print JSON: what was done");
    command.footer(std::string(kMissing) +
                   "Identifiers stay the same.\n"
                   "\n"
                   "Example:\n"
                   "  zr mail move 180400000004 --to Work/Reports");
    command.runs([options] { return move(*options); });
}

void add_mail_save(Command mail) {
    const auto options = std::make_shared<MailChangeOptions>();
    Command command = mail.add_command("save", "Move messages to the folder of saved messages");
    command.add_option("ID", options->ids, "Identifiers, as zr mail list shows them").required();
    command.add_flag("--json", options->json, "Print JSON: what was done");
    command.footer(std::string(kMissing) +
                   "The first message that is saved makes the folder, Saved, which can have another name later.\n"
                   "\n"
                   "Example:\n"
                   "  zr mail save 180400000004");
    command.runs([options] { return save(*options); });
}

void add_mail_mark(Command mail) {
    const auto options = std::make_shared<MailChangeOptions>();
    Command command = mail.add_command("mark", "Mark messages as read or unread");
    command.add_option("ID", options->ids, "Identifiers, as zr mail list shows them").required();
    const Option read = command.add_flag("--read", options->read, "They were read");
    command.add_flag("--unread", options->unread, "They were not read").excludes(read);
    command.add_flag("--json", options->json, "Print JSON: what was done");
    command.footer(std::string(kMissing) +
                   "\n"
                   "Example:\n"
                   "  zr mail mark 180400000004 --read");
    command.runs([options] { return mark(*options); });
}

void add_mail_delete(Command mail) {
    const auto options = std::make_shared<MailChangeOptions>();
    Command command = mail.add_command("delete", "Move messages to Deleted Items, or delete them for good");
    command.add_option("ID", options->ids, "Identifiers, as zr mail list shows them").required();
    command.add_flag("--permanently", options->permanently, "For good");
    command.add_flag("--json", options->json, "Print JSON: what was done");
    command.footer(std::string(kMissing) +
                   "\n"
                   "Example:\n"
                   "  zr mail delete 180400000004");
    command.runs([options] { return erase(*options); });
}

void add_mail_meetings(Command mail) {
    const auto options = std::make_shared<MailChangeOptions>();
    Command command = mail.add_command("meetings", "List the messages that are about meetings");
    command.add_flag("--delete-foreign", options->delete_foreign,
                     "Delete for good those that are not of the client's own classes");
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "A message is about a meeting by its class, IPM.Schedule...; imported ones are when they have a calendar\n"
        "that requests, answers or cancels. A line is as zr mail list has it, and the class.\n"
        "The exit code is 1 when there are none.\n"
        "\n"
        "Example:\n"
        "  zr mail meetings");
    command.runs([options] { return meetings(*options); });
}

}  // namespace zr
