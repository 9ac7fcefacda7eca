#pragma once

// Maildirs: a folder with the folders cur, new and tmp, a message in each file, its flags in the file's name.
// Sub-folders stand beside those three, named ".Work.Reports" (as IMAP servers write it, in their UTF-7) or simply
// "Work", with folders of their own in them. In such names a dot, a slash and a backslash that do not separate are
// "\2e", "\2f" and "\5c", as Dovecot's escaped lists have them; a dot is read in UTF-7 as well ("&AC4-", Courier's).

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

// What a file's name, or an mbox header, tells of a message besides itself.
struct MailFlags {
    bool read = false;
    bool flagged = false;
    bool replied = false;
    bool forwarded = false;
    bool draft = false;
    bool deleted = false;

    friend bool operator==(const MailFlags&, const MailFlags&) = default;
};

// "RS" of a name such as "1700000000.M1P2.host:2,RS"; the letters of Status and X-Status.
MailFlags flags_of_maildir_name(std::string_view name);
MailFlags flags_of_status(std::string_view letters);
std::string maildir_letters(const MailFlags& flags);
// The name without its flags, which a message keeps for as long as it is in the Maildir.
std::string_view base_of_maildir_name(std::string_view name);
// The seconds since 1970 that such a name begins with.
std::optional<std::int64_t> time_of_maildir_name(std::string_view name);

struct MaildirFolder {
    std::filesystem::path path;
    std::vector<std::string> name;  // its place below the Maildir; empty for itself
};

bool is_maildir(const std::filesystem::path& path);
// The Maildir and its sub-folders, each behind the one that it is in. What cannot be looked at is left out, links to
// folders are not followed.
std::vector<MaildirFolder> maildir_folders(const std::filesystem::path& path);

struct MaildirFile {
    std::filesystem::path path;
    MailFlags flags;
    std::optional<std::int64_t> time;
};

// The messages of one folder of a Maildir, in the order of their names. errno in `error` when one of the folders cannot
// be read.
std::vector<MaildirFile> maildir_files(const std::filesystem::path& folder, int& error);

// The name below a Maildir of a folder: ".Work.Reports". No two folders have the same.
std::string maildir_folder_name(const std::vector<std::string>& name);

}  // namespace zr
