#include "zr/mail/maildir.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <system_error>

#include "zr/base/text.h"

namespace zr {
namespace {

namespace fs = std::filesystem;

constexpr int kDeepestFolder = 32;
constexpr const char* kMailboxUtf7 = "UTF-7-IMAP";

struct FreeText {
    void operator()(gchar* text) const { g_free(text); }
};

// Text that cannot be converted stays as it is.
std::string converted(const std::string& text, const char* to, const char* from) {
    gsize size = 0;
    const std::unique_ptr<gchar, FreeText> out(
        g_convert(text.data(), static_cast<gssize>(text.size()), to, from, nullptr, &size, nullptr));
    return out ? std::string(out.get(), size) : text;
}

std::string utf8_name(const std::string& name) {
    return is_utf8(name) ? name : to_utf8(to_utf16(name));
}

// Names of servers are ASCII; one that is not was written by hand.
std::string decoded(const std::string& name) {
    return is_ascii(name) ? utf8_name(converted(name, "UTF-8", kMailboxUtf7)) : utf8_name(name);
}

std::vector<std::string> split(const std::string& name) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at <= name.size();) {
        const std::size_t end = std::min(name.find('.', at), name.size());
        if (end > at) parts.push_back(decoded(name.substr(at, end - at)));
        at = end + 1;
    }
    return parts;
}

bool is_folder(const fs::path& path) {
    std::error_code error;
    return fs::is_directory(fs::symlink_status(path, error));
}

std::vector<fs::path> folders_in(const fs::path& path) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator each(path, error), end; !error && each != end; each.increment(error)) {
        if (is_folder(each->path())) found.push_back(each->path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

void add_folders(const fs::path& path, const std::vector<std::string>& name, int depth,
                 std::vector<MaildirFolder>& folders) {
    if (depth > kDeepestFolder) return;
    for (const fs::path& below : folders_in(path)) {
        const std::string own = below.filename().string();
        if (own == "cur" || own == "new" || own == "tmp") continue;
        std::vector<std::string> full = name;
        if (own.starts_with('.')) {
            if (!is_maildir(below)) continue;
            const std::vector<std::string> parts = split(own);
            if (parts.empty()) continue;
            full.insert(full.end(), parts.begin(), parts.end());
        } else {
            full.push_back(decoded(own));
        }
        if (is_maildir(below)) folders.push_back({below, full});
        add_folders(below, full, depth + 1, folders);
    }
}

// Behind the mark, which is a colon unless the file system has none in names.
std::string_view letters_of(std::string_view name) {
    const std::size_t mark = name.rfind("2,");
    if (mark == std::string_view::npos || mark == 0) return {};
    const char separator = name[mark - 1];
    return separator == ':' || separator == ';' || separator == '!' ? name.substr(mark + 2) : std::string_view();
}

}  // namespace

MailFlags flags_of_maildir_name(std::string_view name) {
    const std::string_view letters = letters_of(name);
    const auto has = [&](char letter) { return letters.find(letter) != std::string_view::npos; };
    return {has('S'), has('F'), has('R'), has('P'), has('D'), has('T')};
}

MailFlags flags_of_status(std::string_view letters) {
    const auto has = [&](char letter) { return letters.find(letter) != std::string_view::npos; };
    return {has('R'), has('F'), has('A'), false, has('T'), has('D')};
}

std::string maildir_letters(const MailFlags& flags) {
    std::string letters;  // in the order of the alphabet
    if (flags.draft) letters += 'D';
    if (flags.flagged) letters += 'F';
    if (flags.forwarded) letters += 'P';
    if (flags.replied) letters += 'R';
    if (flags.read) letters += 'S';
    if (flags.deleted) letters += 'T';
    return letters;
}

std::optional<std::int64_t> time_of_maildir_name(std::string_view name) {
    std::int64_t seconds = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), seconds);
    // What has fewer digits is no time of a message, but a number.
    if (error != std::errc() || end - name.data() < 9 || seconds < 0 || seconds > 253402300799) return std::nullopt;
    return seconds;
}

bool is_maildir(const fs::path& path) {
    return is_folder(path / "cur") && is_folder(path / "new");
}

std::vector<MaildirFolder> maildir_folders(const fs::path& path) {
    std::vector<MaildirFolder> folders = {{path, {}}};
    add_folders(path, {}, 1, folders);
    return folders;
}

std::vector<MaildirFile> maildir_files(const fs::path& folder, int& error) {
    std::vector<MaildirFile> files;
    for (const char* part : {"cur", "new"}) {
        std::error_code failed;
        for (fs::directory_iterator each(folder / part, failed), end; !failed && each != end; each.increment(failed)) {
            const std::string name = each->path().filename().string();
            if (name.starts_with('.') || each->is_directory(failed)) continue;
            files.push_back({each->path(), flags_of_maildir_name(name), time_of_maildir_name(name)});
        }
        if (failed) error = failed.value();
    }
    std::sort(files.begin(), files.end(),
              [](const MaildirFile& a, const MaildirFile& b) { return a.path.filename() < b.path.filename(); });
    return files;
}

std::string maildir_folder_name(const std::vector<std::string>& name) {
    std::string out;
    for (std::string part : name) {
        std::replace_if(
            part.begin(), part.end(), [](char c) { return c == '.' || c == '/' || c == '\0'; }, '_');
        out += "." + converted(part, kMailboxUtf7, "UTF-8");
    }
    return out;
}

}  // namespace zr
