// zr mail import: messages, mailboxes, Maildirs and folders of messages into the message store.

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/commands/import.h"
#include "zr/mail/maildir.h"
#include "zr/mail/mbox.h"
#include "zr/stores/mail_filing.h"

namespace zr {
namespace {

namespace fs = std::filesystem;

constexpr ImportWords kMessageWords = {"message", "messages", "file", "files", "not in full", true};
constexpr int kDeepestFolder = 64;

struct MailImportOptions : ImportOptions {
    std::string folder = "Inbox";
    std::string mbox;
};

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

class MailImport : public Import {
public:
    explicit MailImport(const MailImportOptions& options)
        : Import(options, kMessageWords), options_(options), filing_(session_) {}

private:
    void read_path(const std::string& path) override;
    void read(InputFile& file) override;
    long save_batch() override {
        filing_.keep();
        return filing_.newly_kept();
    }
    long stored_before_failing() override { return filing_.newly_kept(); }

    void read_descriptor(int fd, const std::string& name, const Arrival& about);
    void read_mbox(int fd, const std::string& name);
    void read_maildir(const fs::path& path);
    void read_folder(const fs::path& path, int depth);
    void read_message_file(const fs::path& path, const Arrival& about);
    void take(const Arrival& arrival, const std::string& name);
    // From here on messages go into this folder; empty: the one of the command line.
    void into(const std::vector<std::string>& path);

    const MailImportOptions& options_;
    MailSession session_;
    MailFiling filing_;
    bool shows_bytes_ = false;
};

void MailImport::into(const std::vector<std::string>& path) {
    save();
    const ComPtr<IMAPIFolder> folder = path.empty() ? session_.folder_made(options_.folder) : session_.folder_for(path);
    filing_.into(MailValues(folder.get(), {PR_ENTRYID}).bytes(PR_ENTRYID));
}

void MailImport::read_path(const std::string& path) {
    into({});
    std::error_code error;
    if (path == "-" || !fs::is_directory(path, error)) return Import::read_path(path);
    shows_bytes_ = false;
    if (is_maildir(path)) {
        read_maildir(path);
    } else {
        read_folder(path, 0);
    }
}

// What cannot be read twice is copied first.
void MailImport::read(InputFile& file) {
    shows_bytes_ = file.size() > 0;
    if (::lseek(file.descriptor(), 0, SEEK_CUR) == 0) return read_descriptor(file.descriptor(), file.name(), {});
    const std::unique_ptr<std::FILE, CloseFile> copy(std::tmpfile());
    if (!copy) throw file_failure("a temporary file", errno);
    std::vector<char> buffer(std::size_t{64} << 10);
    const ReadFunction reader = file.reader();
    for (ssize_t got = 0; (got = reader(buffer.data(), buffer.size())) != 0;) {
        if (got < 0) throw file_failure(file.name(), errno);
        const auto size = static_cast<std::size_t>(got);
        if (std::fwrite(buffer.data(), 1, size, copy.get()) != size) throw file_failure("a temporary file", errno);
    }
    if (std::fflush(copy.get()) != 0) throw file_failure("a temporary file", errno);
    read_descriptor(fileno(copy.get()), file.name(), {});
}

void MailImport::read_descriptor(int fd, const std::string& name, const Arrival& about) {
    char beginning[1024];
    const ssize_t got = read_at_descriptor(fd)(beginning, sizeof beginning, 0);
    if (got < 0) throw file_failure(name, errno);
    if (begins_mbox({beginning, static_cast<std::size_t>(got)})) return read_mbox(fd, name);
    Arrival arrival = about;
    struct stat status = {};
    if (!arrival.time && ::fstat(fd, &status) == 0) arrival.time = status.st_mtim.tv_sec;
    arrival.open = [fd] {
        return [read = read_at_descriptor(fd), at = std::uint64_t{0}](char* buffer, std::size_t size) mutable {
            const ssize_t count = read(buffer, size, at);
            if (count > 0) at += static_cast<std::uint64_t>(count);
            return count;
        };
    };
    take(arrival, name);
}

void MailImport::read_mbox(int fd, const std::string& name) {
    const ReadAtFunction read = read_at_descriptor(fd);
    MboxReader reader(read, mbox_of(options_.mbox).value_or(Mbox::Guess));
    struct stat status = {};
    const auto total = ::fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
    long number = 0;
    for (MboxMessage message; reader.next(message);) {
        Arrival arrival;
        arrival.open = [&] { return message_bytes(read, message); };
        arrival.status_in_header = true;
        arrival.separator = message.separator;
        arrival.time = status.st_mtim.tv_sec;
        take(arrival, name + ", message " + std::to_string(++number));
        if (shows_bytes_) show(name, reader.position(), total, filing_.waiting());
    }
    if (reader.error() != 0) throw file_failure(name, reader.error());
}

void MailImport::read_maildir(const fs::path& path) {
    for (const MaildirFolder& folder : maildir_folders(path)) {
        into(folder.name);
        int error = 0;
        const std::vector<MaildirFile> files = maildir_files(folder.path, error);
        if (error != 0) note_unreadable(file_failure(folder.path.string(), error));
        std::size_t done = 0;
        for (const MaildirFile& file : files) {
            Arrival about;
            about.flags = file.flags;
            about.time = file.time;
            read_message_file(file.path, about);
            show(folder.path.string(), ++done, files.size(), filing_.waiting());
        }
    }
}

// Any folder: what is in it, in the order of the names. Links are not followed.
void MailImport::read_folder(const fs::path& path, int depth) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator each(path, error), end; !error && each != end; each.increment(error)) {
        found.push_back(each->path());
    }
    if (error) return note_unreadable(file_failure(path.string(), error.value()));
    std::sort(found.begin(), found.end());
    std::size_t done = 0;
    for (const fs::path& each : found) {
        const fs::file_status status = fs::symlink_status(each, error);
        if (fs::is_directory(status)) {
            if (is_maildir(each)) {
                read_maildir(each);
                into({});
            } else if (depth < kDeepestFolder) {
                read_folder(each, depth + 1);
            }
        } else if (fs::is_regular_file(status)) {
            read_message_file(each, {});
        }
        show(path.string(), ++done, found.size(), filing_.waiting());
    }
}

void MailImport::read_message_file(const fs::path& path, const Arrival& about) {
    try {
        InputFile file(path.string());
        read_descriptor(file.descriptor(), file.name(), about);
    } catch (const Failure& failure) {
        if (failure.code != Exit::Unreadable) throw;
        note_unreadable(failure);
    }
}

void MailImport::take(const Arrival& arrival, const std::string& name) {
    try {
        switch (filing_.file(arrival)) {
            case Filed::Known:
                note_known();
                break;
            case Filed::NotAMessage:
                note_refused(name, "not a message");
                break;
            case Filed::Stored:
                break;
        }
    } catch (const Failure& failure) {
        if (failure.code == Exit::Unreadable) throw Failure{failure.code, name + ": " + failure.text};
        if (!failure.refused) throw;
        note_refused(name, failure.text);
    }
}

}  // namespace

void add_mail_import(Command mail) {
    const auto options = std::make_shared<MailImportOptions>();
    Command command = mail.add_command("import", "Put messages into the message store");
    options->add_to(command, "Messages, mailboxes (mbox), Maildirs, or folders of these (- is standard input)");
    command.add_option("-f,--folder", options->folder, "The folder that they go into, made where there is none")
        .shows_default();
    command
        .add_option("-m,--mbox", options->mbox,
                    "What mailboxes do to lines that begin with \"From \" (default: what their messages show)")
        .one_of({"mboxo", "mboxrd", "mboxcl", "mboxcl2"});
    command.footer(
        "A message is kept byte for byte, and what it says becomes its properties. One that is there already,\n"
        "by its identifier and its bytes, is passed over. A Maildir's sub-folders become folders of the store,\n"
        "its flags and those of an mbox (Status, X-Status) tell what was read.\n"
        "What is no message is named and left out; the exit code is 7 then.\n"
        "\n"
        "Examples:\n"
        "  zr mail import ~/Maildir\n"
        "  zr mail import --folder Archive old.mbox letter.eml");
    command.runs([options] {
        if (trimmed(options->folder).empty()) throw Failure{Exit::Usage, "--folder needs a name"};
        return MailImport(*options).run();
    });
}

}  // namespace zr
