#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <iterator>
#include <mutex>
#include <span>

#include "at_fork.h"
#include "base/host_error.h"
#include "base/utf.h"
#include "entry.h"
#include "file_facts.h"
#include "files/host_path.h"
#include "kernel/handle_table.h"
#include "listing.h"
#include "platform/files.h"
#include "wildcard.h"

namespace zr::platform {
namespace {

void fill(const FileFacts& facts, WIN32_FIND_DATAW& data) {
    data.dwFileAttributes = facts.attributes;
    data.ftCreationTime = facts.created;
    data.ftLastAccessTime = facts.accessed;
    data.ftLastWriteTime = facts.written;
    data.nFileSizeHigh = static_cast<DWORD>(facts.size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(facts.size);
    data.dwOID = 0;
}

// How much the caller wants to know of each entry.
enum class Detail { Everything, Kind };

void fill_kind(DWORD attributes, WIN32_FIND_DATAW& data) {
    FileFacts facts;
    const bool known = attributes != INVALID_FILE_ATTRIBUTES;
    facts.attributes = !known                                  ? INVALID_FILE_ATTRIBUTES
                       : attributes & FILE_ATTRIBUTE_DIRECTORY ? FILE_ATTRIBUTE_DIRECTORY
                                                               : FILE_ATTRIBUTE_NORMAL;
    fill(facts, data);
}

// The handheld's name of a host name; its length. A host name has at most 255 bytes, so it fits.
std::size_t fill_name(const char* host, WCHAR (&name)[MAX_PATH]) {
    std::size_t length = 0;
    for (; host[length]; ++length) {
        const auto c = static_cast<unsigned char>(host[length]);
        if (c >= 0x80 || c == '\\') {
            const std::u16string whole = handheld_name(host);
            length = whole.copy(name, MAX_PATH - 1);
            break;
        }
        name[length] = c;
    }
    name[length] = 0;
    return length;
}

// A few locks for all searches, so that a fork can find all of them free.
constinit std::mutex locks[16];

class Search;
std::mutex& lock_for(const Search& search) noexcept {
    return locks[reinterpret_cast<std::uintptr_t>(&search) / 256 % std::size(locks)];
}

class Search final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::FileSearch;

    Search(std::string folder, std::u16string_view pattern, Detail detail)
        : Object(kKind), folder_(std::move(folder)), pattern_(pattern), detail_(detail) {}

    // A system error code, or 0 with the entry in `data`.
    DWORD first(WIN32_FIND_DATAW& data) {
        if (const int error = listing_.open(folder_.c_str()))
            return error == ENOENT || error == ENOTDIR ? ERROR_PATH_NOT_FOUND : error_from_errno(error);
        enterable_ = detail_ == Detail::Everything || listing_.may_enter();
        return next(data);
    }

    DWORD next(WIN32_FIND_DATAW& data) {
        const std::lock_guard lock(lock_for(*this));
        if (listing_.fd() < 0) return ERROR_NO_MORE_FILES;
        int error = 0;
        while (const RawEntry* entry = listing_.next(error)) {
            const std::size_t length = fill_name(entry->name, data.cFileName);
            if (pattern_.matches({data.cFileName, length}) && look_at(*entry, data)) return ERROR_SUCCESS;
        }
        return error ? error_from_errno(error) : ERROR_NO_MORE_FILES;
    }

private:
    ~Search() override = default;

    // False when the entry is gone. One that the host does not let us look at is shown with what the folder tells.
    bool look_at(const RawEntry& entry, WIN32_FIND_DATAW& data) {
        if (detail_ == Detail::Kind) return look_at_kind(entry, data);
        FileFacts facts;
        const int error = read_file_facts(listing_.fd(), folder_, entry.name, Wanted::Everything, facts);
        if (error == ENOENT) return false;
        if (error) facts.attributes = entry.type == DT_DIR ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
        fill(facts, data);
        return true;
    }

    // The folder itself tells what is a folder, but for links and on file systems that do not keep it there.
    bool look_at_kind(const RawEntry& entry, WIN32_FIND_DATAW& data) {
        FileFacts facts;
        facts.attributes = entry.type == DT_DIR ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
        if (!enterable_) {
            facts.attributes = INVALID_FILE_ATTRIBUTES;
        } else if (entry.type == DT_LNK || entry.type == DT_UNKNOWN) {
            const int error = read_file_facts(listing_.fd(), folder_, entry.name, Wanted::AttributesOnly, facts);
            if (error == ENOENT) return false;
            if (error) facts.attributes = INVALID_FILE_ATTRIBUTES;
        }
        fill_kind(facts.attributes, data);
        return true;
    }

    const std::string folder_;
    const Wildcard pattern_;
    const Detail detail_;
    bool enterable_ = true;
    Listing listing_;
};

// "folder\pattern" in its two parts, the separators between them in neither; without any the folder is the root.
struct SearchPath {
    std::u16string folder;
    std::u16string_view pattern;
};

SearchPath split(std::u16string_view path) {
    std::size_t cut = path.size();
    while (cut > 0 && !is_separator(path[cut - 1]))
        --cut;
    std::size_t end = cut;
    while (end > 0 && is_separator(path[end - 1]))
        --end;
    return {end == 0 ? u"\\" : std::u16string(path.substr(0, end)), path.substr(cut)};
}

// A pattern without wildcards names one file: no need to read the folder.
DWORD look_up(LPCWSTR path, WIN32_FIND_DATAW& data) {
    const HostPath host = existing_host_path(path);
    if (host.error) return host.error == ERROR_FILE_NOT_FOUND ? ERROR_NO_MORE_FILES : host.error;
    FileFacts facts;
    const int error = read_file_facts(AT_FDCWD, {}, host.path.c_str(), Wanted::Everything, facts);
    if (error) return error == ENOENT ? ERROR_NO_MORE_FILES : error_from_errno(error);
    fill(facts, data);
    fill_name(host.path.c_str() + host.path.rfind('/') + 1, data.cFileName);
    return ERROR_SUCCESS;
}

HANDLE start_search(LPCWSTR path, WIN32_FIND_DATAW* data, Detail detail) {
    const HostPath whole = spelled_host_path(path);
    if (whole.error) return fail(whole.error, INVALID_HANDLE_VALUE);
    if (!data) return fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    const SearchPath parts = split(path);
    HostPath folder = existing_host_path(parts.folder.c_str());
    if (folder.error == ERROR_FILE_NOT_FOUND) folder.error = ERROR_PATH_NOT_FOUND;
    if (folder.error) return fail(folder.error, INVALID_HANDLE_VALUE);

    const Wildcard pattern(parts.pattern);
    const bool named = pattern.is_literal();
    const auto search = Ref<Search>::adopt(new Search(std::move(folder.path), parts.pattern, detail));
    DWORD error = ERROR_NO_MORE_FILES;
    if (!named)
        error = search->first(*data);
    else if (!parts.pattern.empty() && parts.pattern != u"." && parts.pattern != u"..")
        error = look_up(path, *data);
    if (error) return fail(error, INVALID_HANDLE_VALUE);
    if (named && detail == Detail::Kind) fill_kind(data->dwFileAttributes, *data);
    const HANDLE handle = open_handle(*search);
    return handle ? handle : INVALID_HANDLE_VALUE;
}

}  // namespace

void lock_searches() noexcept {
    for (std::mutex& lock : locks) {
        lock.lock();
    }
}

void unlock_searches() noexcept {
    for (std::mutex& lock : locks) {
        lock.unlock();
    }
}

}  // namespace zr::platform

using namespace zr::platform;

HANDLE FindFirstFileW(LPCWSTR path, WIN32_FIND_DATAW* data) {
    return enter(INVALID_HANDLE_VALUE, [&] { return start_search(path, data, Detail::Everything); });
}

HANDLE FindFirstFileExW(LPCWSTR path, FINDEX_INFO_LEVELS level, LPVOID data, FINDEX_SEARCH_OPS operation, LPVOID filter,
                        DWORD) {
    return enter(INVALID_HANDLE_VALUE, [&] {
        const bool kind = level == ZrFindExInfoKind;
        const bool known = kind || level == FindExInfoStandard || level == FindExInfoBasic;
        if (!known || filter || operation < FindExSearchNameMatch || operation > FindExSearchLimitToDevices)
            return fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
        if (operation == FindExSearchLimitToDevices) return fail(ERROR_NOT_SUPPORTED, INVALID_HANDLE_VALUE);
        return start_search(path, static_cast<WIN32_FIND_DATAW*>(data), kind ? Detail::Kind : Detail::Everything);
    });
}

BOOL FindNextFileW(HANDLE handle, WIN32_FIND_DATAW* data) {
    return enter(FALSE, [&] {
        if (!data) return fail(ERROR_INVALID_PARAMETER, FALSE);
        const auto search = lookup<Search>(handle);
        if (!search) return FALSE;
        const DWORD error = search->next(*data);
        return error ? fail(error, FALSE) : TRUE;
    });
}

BOOL FindClose(HANDLE handle) {
    return close_handle(handle, ObjectKind::FileSearch) ? TRUE : FALSE;
}
