// zr mail export: messages as files, as a mailbox, or as a Maildir.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/output_file.h"
#include "zr/base/progress.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/commands/mail_rows.h"
#include "zr/mail/file_name.h"
#include "zr/mail/maildir.h"
#include "zr/mail/mbox.h"
#include "zr/stores/mail_content.h"
#include "zr/stores/same_store.h"

namespace zr {
namespace {

namespace fs = std::filesystem;

struct MailExportOptions {
    std::string target;
    std::string format;
    std::string folder;
    bool json = false;
    bool quiet = false;
};

// Where messages go, one after the other.
class MailSink {
public:
    virtual ~MailSink() = default;
    MailSink(const MailSink&) = delete;
    MailSink& operator=(const MailSink&) = delete;

    virtual void enter(const MailFolder&, bool) {}
    virtual void write(IMessage* message, const MailRow& row, const std::string& id) = 0;
    virtual void finish() {}

protected:
    MailSink() = default;
};

void write_bytes(IMessage* message, OutputFile& file) {
    read_message_bytes(message, [&](std::string_view bytes) { file.write(bytes); });
}

void make_folder(const fs::path& path) {
    std::error_code error;
    fs::create_directories(path, error);
    if (error) throw file_failure(path.string(), error.value());
}

// A file for each message, in folders like the store's.
class FileSink final : public MailSink {
public:
    explicit FileSink(const std::string& target) : target_(target) {}

    void enter(const MailFolder& folder, bool alone) override {
        folder_ = target_;
        for (const std::string& name : folder.path) {
            if (!alone) folder_ /= safe_file_name(name, "_");
        }
        make_folder(folder_);
    }
    void write(IMessage* message, const MailRow&, const std::string& id) override {
        OutputFile file((folder_ / (id + ".eml")).string());
        write_bytes(message, file);
        file.finish();
    }

private:
    fs::path target_;
    fs::path folder_;
};

MailFlags flags_of(IMessage* message, const MailRow& row) {
    const MailValues values(message, {kMailFlagStatus, kMailLastVerb, PR_MSG_STATUS});
    MailFlags flags;
    flags.read = row.is_read();
    flags.draft = (static_cast<ULONG>(row.flags) & MSGFLAG_UNSENT) != 0;
    flags.flagged = values.number(kMailFlagStatus) == 2;
    const auto status = static_cast<ULONG>(values.number(PR_MSG_STATUS));
    flags.replied = values.number(kMailLastVerb) == 102 || (status & kMailRepliedMark) != 0;
    flags.forwarded = values.number(kMailLastVerb) == 104;
    flags.deleted = (status & kMailDeletedMark) != 0;
    return flags;
}

// The Inbox is the Maildir itself, the others its sub-folders. Messages appear whole. One that an earlier export wrote
// keeps its name and gets its present flags.
class MaildirSink final : public MailSink {
public:
    explicit MaildirSink(const std::string& target) : target_(target) {}

    void enter(const MailFolder& folder, bool alone) override {
        folder_ = target_;
        if (!alone && folder.name() != "Inbox") folder_ /= maildir_folder_name(folder.path);
        for (const char* part : {"cur", "new", "tmp"}) {
            make_folder(folder_ / part);
        }
        int error = 0;
        present_.clear();
        for (const MaildirFile& file : maildir_files(folder_, error)) {
            present_.emplace(base_of_maildir_name(file.path.filename().string()), file.path);
        }
        if (error != 0) throw file_failure(folder_.string(), error);
    }
    void write(IMessage* message, const MailRow& row, const std::string& id) override {
        const std::string letters = maildir_letters(flags_of(message, row));
        const std::string name = std::to_string(row.time.value_or(0)) + "." + id + ".zr";
        const fs::path temporary = folder_ / "tmp" / name;
        OutputFile file(temporary.string());
        write_bytes(message, file);
        file.finish();
        const auto [first, last] = present_.equal_range(name);
        const bool seen = std::any_of(first, last, [](const auto& each) { return is_in_cur(each.second); });
        const fs::path place =
            letters.empty() && !seen ? folder_ / "new" / name : folder_ / "cur" / (name + ":2," + letters);
        // First of all it is where it belongs: whoever ends this process leaves one message, and not two.
        for (auto each = first; each != last; ++each) {
            const bool moved = each->second == place || ::rename(each->second.c_str(), place.c_str()) == 0;
            // A mail program may have given it another name just now.
            if (!moved && errno != ENOENT) throw file_failure(place.string(), errno);
        }
        if (::rename(temporary.c_str(), place.c_str()) != 0) throw file_failure(place.string(), errno);
    }

private:
    static bool is_in_cur(const fs::path& path) { return path.parent_path().filename() == "cur"; }

    fs::path target_;
    fs::path folder_;
    std::multimap<std::string, fs::path> present_;  // by their names without flags
};

// All in one file, one folder's messages behind the other's.
class MboxSink final : public MailSink {
public:
    MboxSink(const std::string& target, Mbox dialect)
        : file_(target), writer_([this](std::string_view bytes) { file_.write(bytes); }, dialect) {}

    void write(IMessage* message, const MailRow& row, const std::string& id) override {
        const std::string separator = separator_of(message, row);
        try {
            writer_.add(separator, [&](const MboxWriter::Write& take) { read_message_bytes(message, take); });
        } catch (const Failure& failure) {
            if (failure.code != Exit::None) throw;
            // A part of it may be in the file.
            throw Failure{Exit::StoreFailed, id + ": another program deleted it while it was written"};
        }
    }
    void finish() override { file_.finish(); }

private:
    static std::string separator_of(IMessage* message, const MailRow& row) {
        std::string kept = MailValues(message, {kMailSeparator}).text(kMailSeparator);
        if (kept.starts_with("From ") && kept.find_first_of("\r\n") == std::string::npos) return kept;
        const std::time_t time = row.time.value_or(0);
        std::tm parts = {};
        char date[64] = "Thu Jan  1 00:00:00 1970";
        if (::gmtime_r(&time, &parts) != nullptr) std::strftime(date, sizeof date, "%a %b %e %H:%M:%S %Y", &parts);
        const bool usable = !row.address.empty() && row.address.find_first_of(" \r\n\t") == std::string::npos;
        return "From " + (usable ? row.address : "MAILER-DAEMON") + " " + date;
    }

    OutputFile file_;
    MboxWriter writer_;
};

std::unique_ptr<MailSink> sink_for(const MailExportOptions& options) {
    struct stat status = {};
    std::string format = options.format;
    if (format.empty()) {
        const bool is_folder = ::stat(options.target.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
        const bool is_file =
            options.target == "-" || options.target.ends_with(".mbox") || options.target.ends_with(".mbx");
        format = is_file && !is_folder ? "mbox" : is_maildir(options.target) ? "maildir" : "eml";
    }
    if (format.starts_with("mbox")) return std::make_unique<MboxSink>(options.target, *mbox_of(format));
    if (format == "maildir") return std::make_unique<MaildirSink>(options.target);
    return std::make_unique<FileSink>(options.target);
}

Exit export_mail(const MailExportOptions& options, const SameStore& same) {
    MailSession mail;
    std::vector<MailFolder> folders = mail.folders();
    if (!options.folder.empty()) {
        const EntryBytes wanted = MailValues(mail.folder_named(options.folder).get(), {PR_ENTRYID}).bytes(PR_ENTRYID);
        std::erase_if(folders, [&](const MailFolder& folder) { return folder.entry != wanted; });
    }
    const std::unique_ptr<MailSink> sink = sink_for(options);
    Progress progress(!options.quiet && !options.json && options.target != "-", "messages");
    long count = 0;
    for (const MailFolder& folder : folders) {
        sink->enter(folder, !options.folder.empty());
        const ComPtr<IMAPIFolder> opened = mail.open_folder(folder.entry);
        ComPtr<IMAPITable> table;
        check_mail(opened->GetContentsTable(0, table.out()), "reading a list");
        std::size_t done = 0;
        each_mail_row(table.get(), [&](const MailRow& row) {
            const std::string id = mail.id_of(row.entry);
            try {
                const ComPtr<IMessage> message = mail.message(row.entry);
                sink->write(message.get(), row, id);
                ++count;
            } catch (const Failure& failure) {
                if (failure.code != Exit::None) throw;  // deleted meanwhile
            }
            progress.show(folder.name(), ++done, static_cast<std::size_t>(std::max<LONG>(0, folder.messages)), count);
            return true;
        });
    }
    progress.clear();
    same.expect();
    sink->finish();
    if (options.json && options.target != "-") {
        print_json_line({{"exported", count}});
    } else if (!options.quiet && options.target != "-") {
        print("exported " + std::to_string(count) + (count == 1 ? " message\n" : " messages\n"));
    }
    return Exit::Ok;
}

}  // namespace

void add_mail_export(Command mail) {
    const auto options = std::make_shared<MailExportOptions>();
    Command command = mail.add_command("export", "Write messages to files, as they came");
    command.add_option("DIR|FILE", options->target, "Where they go (- is standard output, as a mailbox)").required();
    command
        .add_option("-F,--format", options->format,
                    "eml: a file for each; mbox, mboxo, mboxcl, mboxcl2: one file; maildir (default: mbox for names in "
                    ".mbox, maildir where there is one, else eml)")
        .one_of({"eml", "mbox", "mboxo", "mboxrd", "mboxcl", "mboxcl2", "maildir"});
    command.add_option("-f,--folder", options->folder, "Only this folder (default: all)");
    command.add_flag("--json", options->json, "Print the result as JSON, unless messages go to standard output");
    command.add_flag("-q,--quiet", options->quiet, "Print nothing but what went wrong");
    command.footer(
        "Messages are written byte for byte as they were imported; one that a program made in the store is written\n"
        "from what it says. A file of a name that is there is replaced; in a Maildir a message that an earlier export\n"
        "wrote keeps its name and gets its present flags.\n"
        "\n"
        "Examples:\n"
        "  zr mail export ~/mail-backup --format maildir\n"
        "  zr mail export inbox.mbox --folder Inbox");
    command.reads([options] {
        const SameStore same("mail");
        return same.during([&] { return export_mail(*options, same); });
    });
}

}  // namespace zr
