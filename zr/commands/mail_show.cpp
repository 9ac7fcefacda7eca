// zr mail show and attachments: what is in a message.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "zr/base/output.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/commands/html_view.h"
#include "zr/commands/mail_rows.h"
#include "zr/commands/printed_text.h"
#include "zr/mail/file_name.h"
#include "zr/stores/mail_content.h"

namespace zr {
namespace {

struct MailShowOptions {
    std::vector<std::string> ids;
    std::string save;
    bool headers = false;
    bool html = false;
    HtmlOptions page;
    bool json = false;
};

Json attachment_json(const MailAttachment& attachment) {
    return {
        {"number", attachment.number}, {"name", attachment.name}, {"type", attachment.type}, {"size", attachment.size}};
}

std::string mailbox_of(const std::string& name, const std::string& address) {
    if (name.empty() || name == address) return printable(address);
    return printable(name) + " <" + printable(address) + ">";
}

constexpr std::pair<LONG, const char*> kKinds[] = {{MAPI_TO, "To"}, {MAPI_CC, "Cc"}, {MAPI_BCC, "Bcc"}};

std::string list_of(const std::vector<MailRecipient>& people, LONG type) {
    std::string list;
    for (const MailRecipient& person : people) {
        if (person.type == type) list += (list.empty() ? "" : ", ") + mailbox_of(person.name, person.address);
    }
    return list;
}

// The text of a message to `take`; of one that has no text, but HTML, that.
void read_text(IMessage* message, const std::function<void(std::string_view)>& take) {
    read_mail_text(message, PR_BODY_W, take);
}

void show_header(const MailSession& mail, IMessage* message, const MailRow& row, SenderNames& names, bool headers) {
    const std::vector<MailRecipient> people = recipients_of(message);
    if (headers) {
        PrintedText text;
        read_mail_text(message, PR_TRANSPORT_MESSAGE_HEADERS_W, [&](std::string_view piece) { text.write(piece); });
        text.finish();
    } else {
        print("ID:      " + mail.id_of(row.entry) + "\n");
        print("From:    " + mailbox_of(names.name_of(row), row.address) + "\n");
        for (const auto& [type, name] : kKinds) {
            const std::string list = list_of(people, type);
            if (!list.empty())
                print(std::string(name) + ":" + std::string(8 - std::string(name).size(), ' ') + list + "\n");
        }
        print("Date:    " + local_time(row.time) + "\n");
        print("Subject: " + printable(row.subject) + "\n");
        if (!row.message_class.starts_with("IPM.Note")) print("Class:   " + printable(row.message_class) + "\n");
        for (const MailAttachment& attachment : attachments_of(message)) {
            print("File:    " + std::to_string(attachment.number) + " " + printable(attachment.name) + " (" +
                  printable(attachment.type) + ", " + std::to_string(attachment.size) + " bytes)\n");
        }
    }
    print("\n");
}

void show_text(IMessage* message) {
    PrintedText text;
    read_text(message, [&](std::string_view piece) { text.write(piece); });
    text.finish();
}

Json show_json(const MailSession& mail, IMessage* message, const MailRow& row, SenderNames& names, Exit& code,
               const MailShowOptions& options) {
    Json json = mail_json(mail, row, names);
    const std::vector<MailRecipient> people = recipients_of(message);
    for (const auto& [type, name] :
         std::initializer_list<std::pair<LONG, const char*>>{{MAPI_TO, "to"}, {MAPI_CC, "cc"}, {MAPI_BCC, "bcc"}}) {
        Json list = Json::array();
        for (const MailRecipient& person : people) {
            if (person.type == type) list.add({{"name", person.name}, {"address", person.address}});
        }
        json.set(name, std::move(list));
    }
    const MailValues values(message, {PR_INTERNET_MESSAGE_ID_W, PR_IN_REPLY_TO_ID_W});
    json.set("messageId", values.text(PR_INTERNET_MESSAGE_ID_W));
    Json files = Json::array();
    for (const MailAttachment& attachment : attachments_of(message)) {
        files.add(attachment_json(attachment));
    }
    json.set("files", std::move(files));
    if (options.html) {
        code = show_html(mail_page(message), options.page, &json);
        return json;
    }
    std::string text;
    read_text(message, [&](std::string_view piece) { text += piece; });
    json.set("text", text);
    return json;
}

// What is wrong with the options of the page.
void check_page_options(const MailShowOptions& options) {
    if (!options.html && options.page.any_given())
        throw Failure{Exit::Usage, "--text, --links, --script, --png, --width, --height and --remote want --html"};
    if (options.page.png_option.given() && options.ids.size() > 1)
        throw Failure{Exit::Usage, "--png: one message at a time"};
    check_html_options(options.page);
}

Exit show(const MailShowOptions& options) {
    check_page_options(options);
    MailSession mail;
    SenderNames names;
    JsonArray array;
    Exit code = Exit::Ok;
    bool first = true;
    page_output();
    for (const std::string& id : options.ids) {
        try {
            EntryBytes entry;
            const ComPtr<IMessage> message = mail.message_of_id(id, entry);
            const MailRow row = mail_row_of(message.get());
            if (options.json) {
                Exit shown = Exit::Ok;
                array.add(show_json(mail, message.get(), row, names, shown, options));
                code = combine(code, shown);
                continue;
            }
            const bool whole = !options.html || options.page.wants_text();
            if (!first && whole) print("\n");
            first = false;
            if (whole) show_header(mail, message.get(), row, names, options.headers);
            if (options.html) {
                code = combine(code, show_html(mail_page(message.get()), options.page));
            } else {
                show_text(message.get());
            }
        } catch (const Failure& failure) {
            if (failure.code != Exit::None) throw;
            complain(failure.text);
            code = combine(code, failure.code);
        }
    }
    if (options.json) array.finish();
    return code;
}

// A new file in a folder, under a name that nothing else has.
class SavedFile {
public:
    SavedFile(const std::string& folder, const std::string& name) {
        const std::size_t dot = name.rfind('.');
        const std::string stem = name.substr(0, dot == 0 ? std::string::npos : dot);
        const std::string extension = dot == 0 || dot == std::string::npos ? "" : name.substr(dot);
        for (int number = 1; fd_ < 0; ++number) {
            path_ = folder;
            path_.append("/").append(stem);
            if (number > 1) path_.append(" (").append(std::to_string(number)).append(")");
            path_ += extension;
            fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
            if (fd_ < 0 && (errno != EEXIST || number >= 10000)) throw file_failure(path_, errno);
        }
    }
    ~SavedFile() {
        if (fd_ < 0) return;
        ::close(fd_);
        ::unlink(path_.c_str());  // it is not whole
    }
    SavedFile(const SavedFile&) = delete;
    SavedFile& operator=(const SavedFile&) = delete;

    const std::string& path() const { return path_; }
    void write(const char* bytes, std::size_t size) {
        while (size > 0) {
            const ssize_t written = ::write(fd_, bytes, size);
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) throw file_failure(path_, errno);
            bytes += written;
            size -= static_cast<std::size_t>(written);
        }
    }
    void finish() {
        if (::close(std::exchange(fd_, -1)) != 0) throw file_failure(path_, errno);
    }

private:
    std::string path_;
    int fd_ = -1;
};

std::string save_attachment(IMessage* message, const MailAttachment& attachment, const std::string& folder) {
    constexpr const char* reading = "reading an attachment";
    ComPtr<IAttach> opened;
    check_mail(message->OpenAttach(static_cast<ULONG>(attachment.number), nullptr, 0, opened.out()), reading);
    SavedFile file(folder, safe_file_name(attachment.name, "attachment-" + std::to_string(attachment.number)));
    read_mail_stream(opened.get(), PR_ATTACH_DATA_BIN,
                     [&](const char* bytes, std::size_t size) { file.write(bytes, size); });
    file.finish();
    return file.path();
}

Exit attachments(const MailShowOptions& options) {
    struct stat status = {};
    if (!options.save.empty() && ::stat(options.save.c_str(), &status) != 0) throw file_failure(options.save, errno);
    MailSession mail;
    JsonArray array;
    Table table({{"NUMBER", Column::Kind::Reference}, {"BYTES"}, {"TYPE"}, {"NAME"}});
    bool any = false;
    EntryBytes entry;
    const ComPtr<IMessage> message = mail.message_of_id(options.ids.front(), entry);
    for (const MailAttachment& attachment : attachments_of(message.get())) {
        any = true;
        const std::string path = options.save.empty() ? "" : save_attachment(message.get(), attachment, options.save);
        if (options.json) {
            Json json = attachment_json(attachment);
            if (!path.empty()) json.set("saved", path);
            array.add(json);
        } else {
            table.add(std::to_string(attachment.number) + "\t" + std::to_string(attachment.size) + "\t" +
                      printable(attachment.type) + "\t" + printable(path.empty() ? attachment.name : path) + "\n");
        }
    }
    table.finish();
    if (options.json) array.finish();
    return any ? Exit::Ok : Exit::None;
}

}  // namespace

void add_mail_show(Command mail) {
    const auto options = std::make_shared<MailShowOptions>();
    Command command = mail.add_command("show", "Show messages");
    command.add_option("ID", options->ids, "Identifiers, as zr mail list shows them").required();
    command.add_flag("-H,--headers", options->headers, "Show the whole header instead of the usual lines");
    command.add_flag("--html", options->html, "Show the message's HTML as the client does");
    add_html_options(command, options->page);
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "Of a message that is HTML only its text is shown. Control characters are shown as escapes. With\n"
        "--html and one of --links, --script and --png no header is printed; nothing is fetched from\n"
        "elsewhere without --remote. The exit code is 1 when there is no such message or no link, and 16\n"
        "when the HTML cannot be shown or the script fails.\n"
        "\n"
        "Examples:\n"
        "  zr mail show 180400000004\n"
        "  zr mail show 180400000004 --html --png mail.png");
    command.reads([options] { return show(*options); });
}

void add_mail_attachments(Command mail) {
    const auto options = std::make_shared<MailShowOptions>();
    options->ids.resize(1);
    Command command = mail.add_command("attachments", "List or save the attachments of a message");
    command.add_option("ID", options->ids.front(), "Identifier, as zr mail list shows it").required();
    command.add_option("-s,--save", options->save, "Save them into this folder");
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "A line is the number, the size, the type and the name, or the file that it was saved as, with tabs\n"
        "between. No file is overwritten, and a name is never a path. The exit code is 1 when there are none.\n"
        "\n"
        "Example:\n"
        "  zr mail attachments 180400000004 --save ~/Downloads");
    command.reads([options] { return attachments(*options); });
}

}  // namespace zr
