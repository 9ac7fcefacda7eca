// zr contacts export: the whole contact store as vCards.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "card_writer.h"
#include "command.h"
#include "output.h"
#include "store.h"

namespace zr {
namespace {

struct Options {
    std::string output;
    std::string version = "3.0";
    bool json = false;
};

// A file that appears under its name only when it is complete. Devices and pipes are written to directly.
class OutputFile {
public:
    explicit OutputFile(const std::string& path) : path_(path) {
        struct stat status;
        direct_ = ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
        if (direct_) {
            fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        } else {
            temporary_ = path + ".XXXXXX";
            fd_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
            if (fd_ < 0) temporary_.clear();
        }
        if (fd_ < 0) throw file_failure(path_, errno);
    }
    ~OutputFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!temporary_.empty()) ::unlink(temporary_.c_str());
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t n = ::write(fd_, text.data(), text.size());
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw file_failure(path_, errno);
            text.remove_prefix(static_cast<std::size_t>(n));
        }
    }

    void finish() {
        if (direct_) return;
        if (::fsync(fd_) != 0 || ::rename(temporary_.c_str(), path_.c_str()) != 0) throw file_failure(path_, errno);
        temporary_.clear();
    }

private:
    std::string path_;
    std::string temporary_;
    bool direct_ = false;
    int fd_ = -1;
};

Exit export_contacts(const Options& options) {
    const CardVersion version = options.version == "2.1"   ? CardVersion::V21
                                : options.version == "4.0" ? CardVersion::V40
                                                           : CardVersion::V30;
    Store store;
    std::unique_ptr<OutputFile> file;
    if (!options.output.empty() && options.output != "-") file = std::make_unique<OutputFile>(options.output);
    JsonArray array;
    std::string text;
    bool first = true;
    const int count = store.count();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (!contact) continue;
        const Card card = read_contact(contact.get(), true);
        text.clear();
        if (!options.json) {
            write_card(card, version, text);
        } else if (file) {
            text = (first ? "[\n" : ",\n") + json_text(contact_json(oid_of(contact.get()), card));
        } else {
            array.add(contact_json(oid_of(contact.get()), card));
        }
        first = false;
        if (file) {
            file->write(text);
        } else {
            print(text);
        }
    }
    if (options.json && !file) array.finish();
    if (options.json && file) file->write(!first ? "\n]\n" : "[]\n");
    if (file) file->finish();
    return Exit::Ok;
}

}  // namespace

void add_contacts_export(Command contacts) {
    const auto options = std::make_shared<Options>();
    Command command = contacts.add_command("export", "Write all contacts as vCards");
    command.add_option("-o,--output", options->output,
                       "Write to this file, whole or not at all (default: standard output)");
    command.add_option("--vcard-version,--version", options->version, "vCard version to write: 2.1, 3.0 or 4.0")
        .one_of({"2.1", "3.0", "4.0"})
        .shows_default();
    command.add_flag("--json", options->json, "Write JSON instead of vCards");
    command.footer(
        "Properties of imported cards that a contact has no place for are written again.\n"
        "\n"
        "Examples:\n"
        "  zr contacts export --output backup.vcf\n"
        "  zr contacts export --vcard-version 2.1 > for-the-car.vcf");
    command.runs([options] { return export_contacts(*options); });
}

}  // namespace zr
