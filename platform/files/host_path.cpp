#include "files/host_path.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "base/host_error.h"
#include "base/utf.h"
#include "platform/base.h"

namespace zr::platform {
namespace {

// What stands for a backslash in a name, and what stands before the two of them where the host means themselves.
constexpr WCHAR kBackslash = 0xF05C;
constexpr WCHAR kItself = 0xF05B;
constexpr std::u16string_view kStandIns = u"\xF05B\xF05C";
constexpr std::string_view kBackslashUtf8 = "\xEF\x81\x9C";
constexpr std::string_view kItselfUtf8 = "\xEF\x81\x9B";

bool is_ascii(std::string_view text) {
    for (const char c : text)
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    return true;
}

char ascii_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// "//a/./b/" -> "/a/b"; "/" -> "".
std::string tidy_root(std::string_view text) {
    std::string root;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('/'), text.size());
        const std::string_view part = text.substr(0, end);
        if (!part.empty() && part != ".") root.append("/").append(part);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return root;
}

std::string read_root() {
    const char* set = getenv("ZR_ROOT");
    if (!set || !*set) return {};
    if (*set == '/') return tidy_root(set);
    const std::unique_ptr<char, decltype(&free)> folder(getcwd(nullptr, 0), &free);
    return tidy_root((folder ? std::string(folder.get()) : std::string()) + "/" + set);
}

// Appends "/name" for one name of a handheld path; "." and ".." are not names.
void append_name(std::string& path, std::u16string_view name) {
    path += '/';
    for (const WCHAR c : name) {
        if (c >= 0x80) {
            path.resize(path.rfind('/') + 1);
            path += host_name(name);
            return;
        }
        path += static_cast<char>(c);
    }
}

// A handheld path taken apart: each name appended to `host`, "." dropped, ".." taking one name back.
DWORD spell(LPCWSTR text, std::string& host) {
    if (!text) return ERROR_INVALID_PARAMETER;
    const std::size_t length = wcsnlen(text, MAX_PATH);
    if (length == 0) return ERROR_PATH_NOT_FOUND;
    if (length >= MAX_PATH) return ERROR_FILENAME_EXCED_RANGE;
    const std::size_t base = host_root().size();
    host.reserve(base + length + 1);
    host = host_root();
    std::u16string_view rest(text, length);
    while (!rest.empty()) {
        std::size_t end = 0;
        while (end < rest.size() && !is_separator(rest[end]))
            ++end;
        const std::u16string_view name = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (name.empty() || name == u".") continue;
        if (name != u"..")
            append_name(host, name);
        else if (host.size() > base)
            host.resize(host.rfind('/'));
    }
    return ERROR_SUCCESS;
}

bool exists(const std::string& path) {
    struct stat unused;
    return lstat(path.empty() ? "/" : path.c_str(), &unused) == 0;
}

// Only names of ASCII characters that are not letters are sure to have no other spelling.
bool has_other_case(std::string_view name) {
    for (const char c : name) {
        const char lower = ascii_lower(c);
        if (static_cast<unsigned char>(c) >= 0x80 || (lower >= 'a' && lower <= 'z')) return true;
    }
    return false;
}

// Compares names ignoring case.
class NameMatcher {
public:
    explicit NameMatcher(std::string_view wanted)
        : wanted_(wanted), wide_(handheld_name(wanted)), ascii_(is_ascii(wanted)) {}

    bool matches(std::string_view name) const {
        if (ascii_ && is_ascii(name)) {
            if (name.size() != wanted_.size()) return false;
            for (std::size_t i = 0; i < name.size(); ++i)
                if (ascii_lower(name[i]) != ascii_lower(wanted_[i])) return false;
            return true;
        }
        return _wcsicmp(handheld_name(name).c_str(), wide_.c_str()) == 0;
    }

private:
    std::string_view wanted_;
    std::u16string wide_;
    bool ascii_;
};

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

// The first name in byte order that matches ignoring case; empty when there is none. A folder that cannot be listed
// has none; for other failures `error` is set.
std::string find_ignoring_case(const std::string& folder, std::string_view wanted, DWORD& error) {
    const std::unique_ptr<DIR, CloseFolder> listing(opendir(folder.empty() ? "/" : folder.c_str()));
    if (!listing) {
        if (errno != EACCES && errno != EPERM && errno != ENOENT && errno != ENOTDIR) error = error_from_errno(errno);
        return {};
    }
    const NameMatcher matcher(wanted);
    std::string found;
    while (const dirent* entry = readdir(listing.get())) {
        const std::string_view name = entry->d_name;
        if ((found.empty() || name < found) && matcher.matches(name)) found = name;
    }
    return found;
}

enum class Last { MustExist, MayBeMissing };

bool is_forbidden_in_new(std::string_view name) {
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < 0x20) return true;
        if (std::string_view("<>:\"|?*").find(c) != std::string_view::npos) return true;
    }
    return false;
}

// What a missing last name means: a place for a new file where that is asked for.
void missing_last(HostPath& result, const std::string& folder, std::string_view name, Last last) {
    struct stat status;
    if (stat(folder.empty() ? "/" : folder.c_str(), &status) != 0) {
        result.error = errno == ENOENT || errno == ENOTDIR ? ERROR_PATH_NOT_FOUND : error_from_errno(errno);
    } else if (!S_ISDIR(status.st_mode)) {
        result.error = ERROR_PATH_NOT_FOUND;
    } else if (last == Last::MustExist) {
        result.error = ERROR_FILE_NOT_FOUND;
    } else if (is_forbidden_in_new(name)) {
        result.error = ERROR_INVALID_NAME;
    } else {
        result.path = folder + '/';
        result.path += name;
    }
}

// Name by name from the root: the exact name where there is one, else one that matches ignoring case.
void resolve(HostPath& result, Last last) {
    const std::string spelled = std::move(result.path);
    std::string found = host_root();
    std::size_t at = found.size();
    while (at < spelled.size()) {
        const std::size_t end = std::min(spelled.find('/', at + 1), spelled.size());
        const std::string_view name = std::string_view(spelled).substr(at + 1, end - at - 1);
        std::string next = found + '/';
        next += name;
        if (!exists(next)) {
            const int why = errno;
            std::string other;
            if (why == ENOENT && has_other_case(name)) other = find_ignoring_case(found, name, result.error);
            if (result.error) return;
            if (other.empty()) {
                if (why != ENOENT && why != ENOTDIR)
                    result.error = error_from_errno(why);
                else if (end < spelled.size())
                    result.error = ERROR_PATH_NOT_FOUND;
                else
                    missing_last(result, found, name, last);
                return;
            }
            next.replace(found.size() + 1, std::string::npos, other);
        }
        found = std::move(next);
        at = end;
    }
    result.path = found.empty() ? "/" : std::move(found);
    result.exists = true;
}

HostPath find(LPCWSTR path, Last last) {
    HostPath result = spelled_host_path(path);
    if (result.error) return result;
    if (exists(result.path))
        result.exists = true;
    else
        resolve(result, last);
    if (result.names_folder && result.exists && !is_folder(result.path)) result.error = ERROR_INVALID_NAME;
    return result;
}

}  // namespace

const std::string& host_root() {
    // Never destroyed: threads may ask while the process exits.
    static const std::string& root = *new std::string(read_root());
    return root;
}

std::u16string handheld_name(std::string_view host) {
    std::u16string name;
    std::size_t done = 0;
    for (std::size_t i = 0; i < host.size();) {
        const std::string_view rest = host.substr(i);
        const bool backslash = rest.starts_with('\\');
        const bool itself = rest.starts_with(kItselfUtf8);
        if (!backslash && !itself && !rest.starts_with(kBackslashUtf8)) {
            ++i;
            continue;
        }
        name += host_to_wide(host.substr(done, i - done));
        if (!backslash) name += kItself;
        name += itself ? kItself : kBackslash;
        i += backslash ? 1 : kItselfUtf8.size();
        done = i;
    }
    return done == 0 ? host_to_wide(host) : name + host_to_wide(host.substr(done));
}

std::string host_name(std::u16string_view name) {
    std::string host;
    while (true) {
        const std::size_t end = std::min(name.find_first_of(kStandIns), name.size());
        host += wide_to_host(name.substr(0, end));
        name.remove_prefix(end);
        if (name.empty()) return host;
        const bool escaped = name[0] == kItself && name.size() > 1 && kStandIns.find(name[1]) != kStandIns.npos;
        if (escaped) name.remove_prefix(1);
        if (name[0] == kItself)
            host += kItselfUtf8;
        else if (escaped)
            host += kBackslashUtf8;
        else
            host += '\\';
        name.remove_prefix(1);
    }
}

HostPath spelled_host_path(LPCWSTR path) {
    HostPath result;
    result.error = spell(path, result.path);
    result.root = result.error == 0 && result.path.size() == host_root().size();
    if (result.error == 0) result.names_folder = is_separator(std::u16string_view(path).back());
    if (result.root && result.path.empty()) result.path.assign(1, '/');
    return result;
}

bool is_folder(const std::string& host_path) {
    struct stat status;
    return stat(host_path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

HostPath existing_host_path(LPCWSTR path) {
    return find(path, Last::MustExist);
}

HostPath new_host_path(LPCWSTR path) {
    return find(path, Last::MayBeMissing);
}

bool handheld_path(std::string_view host, std::u16string& path) {
    const std::string& root = host_root();
    if (!host.starts_with('/') || !host.starts_with(root)) return false;
    host.remove_prefix(root.size());
    if (!host.empty() && host[0] != '/') return false;
    path.clear();
    while (!host.empty()) {
        const std::size_t end = std::min(host.find('/', 1), host.size());
        if (end > 1) {
            path += u'\\';
            path += handheld_name(host.substr(1, end - 1));
        }
        host.remove_prefix(end);
    }
    if (path.empty()) path.assign(1, u'\\');
    return true;
}

}  // namespace zr::platform
