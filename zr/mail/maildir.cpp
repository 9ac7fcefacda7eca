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

// What cannot stand in a folder's name, as Dovecot's escaped lists write it: a backslash and two digits. The backslash
// itself is one of them, so that no two names become the same.
struct Escape {
    char character;
    std::string_view text;
};
constexpr Escape kEscapes[] = {{'.', "\\2e"}, {'/', "\\2f"}, {'\\', "\\5c"}, {'\0', "\\00"}};

std::string escaped(const std::string& name) {
    std::string out;
    for (const char c : name) {
        const auto* const found = std::find_if(std::begin(kEscapes), std::end(kEscapes),
                                               [c](const Escape& escape) { return escape.character == c; });
        if (found != std::end(kEscapes)) {
            out += found->text;
        } else {
            out += c;
        }
    }
    return out;
}

// A backslash in front of anything else is one that somebody wrote.
std::string unescaped(std::string_view name) {
    std::string out;
    while (!name.empty()) {
        const auto* const found = std::find_if(std::begin(kEscapes), std::end(kEscapes), [&](const Escape& escape) {
            return escape.character != '\0' && equal_ignoring_case(name.substr(0, escape.text.size()), escape.text);
        });
        out += found != std::end(kEscapes) ? found->character : name.front();
        name.remove_prefix(found != std::end(kEscapes) ? found->text.size() : 1);
    }
    return out;
}

// Names of servers are ASCII; one that is not was written by hand.
std::string decoded(const std::string& name) {
    const std::string plain = unescaped(name);
    return is_ascii(plain) ? utf8_name(converted(plain, "UTF-8", kMailboxUtf7)) : utf8_name(plain);
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

// Where the mark of the flags begins, which is a colon unless the file system has none in names; the name's end where
// there is none.
std::size_t mark_of(std::string_view name) {
    const std::size_t version = name.rfind("2,");
    if (version == std::string_view::npos || version == 0) return name.size();
    const char separator = name[version - 1];
    return separator == ':' || separator == ';' || separator == '!' ? version - 1 : name.size();
}

std::string_view letters_of(std::string_view name) {
    const std::size_t mark = mark_of(name);
    return mark < name.size() ? name.substr(mark + 3) : std::string_view();
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

std::string_view base_of_maildir_name(std::string_view name) {
    return name.substr(0, mark_of(name));
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
    for (const std::string& part : name) {
        out += "." + converted(escaped(part), kMailboxUtf7, "UTF-8");
    }
    return out;
}

}  // namespace zr
