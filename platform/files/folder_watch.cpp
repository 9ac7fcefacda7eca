#include "folder_watch.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "base/host_error.h"
#include "change_source.h"
#include "listing.h"

namespace zr::platform {
namespace {

constexpr DWORD kWritten = FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE;
constexpr DWORD kTimes = FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_LAST_ACCESS;
constexpr DWORD kAttributes = FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SECURITY;

KnownEntry known(const struct stat& status) {
    KnownEntry entry;
    entry.inode = status.st_ino;
    entry.written = std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
    entry.size = status.st_size;
    entry.folder = S_ISDIR(status.st_mode);
    entry.exact = true;
    return entry;
}

bool same_content(const KnownEntry& a, const KnownEntry& b) {
    return a.exact && b.exact && a.written == b.written && a.size == b.size;
}

bool for_later(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

}  // namespace

FolderWatch::FolderWatch(ChangeSource& source, std::string path, bool subtree, DWORD filter)
    : Event(true, false, kKind), source_(source), path_(std::move(path)), subtree_(subtree), filter_(filter) {}

DWORD FolderWatch::begin() {
    const char* path = path_.empty() ? "/" : path_.c_str();
    struct stat status;
    if (stat(path, &status) != 0) return error_from_errno(errno);
    if (!S_ISDIR(status.st_mode)) return ERROR_DIRECTORY;
    inode_ = status.st_ino;
    device_ = status.st_dev;
    source_.add(*this);
    return enter(root_, false);
}

void FolderWatch::stop() {
    leave(root_);
}

void FolderWatch::last_handle_closed() noexcept {
    source_.remove(*this);
}

// --- What the host reports

void FolderWatch::created(FolderNode& folder, std::string_view name, bool is_folder) {
    const auto at = folder.entries.find(std::string(name));
    if (at != folder.entries.end()) {
        if (at->second.folder == is_folder) return;  // a listing was faster
        removed(folder, name);
    }
    add(folder, name, look_at(folder, name, is_folder));
}

void FolderWatch::removed(FolderNode& folder, std::string_view name) {
    const auto at = folder.entries.find(std::string(name));
    if (at == folder.entries.end()) return;
    if (wants_names(at->second.folder)) record(FILE_ACTION_REMOVED, folder, name);
    leave_below(folder, name);
    folder.entries.erase(at);
}

void FolderWatch::renamed(FolderNode& from, std::string_view old_name, FolderNode& to, std::string_view new_name,
                          bool is_folder) {
    const auto at = from.entries.find(std::string(old_name));
    if (at == from.entries.end()) return created(to, new_name, is_folder);
    if (wants_names(is_folder)) {
        const std::string old_path = relative(from, old_name);
        const std::string new_path = relative(to, new_name);
        const std::lock_guard guard(mutex_);
        if (keeps_records()) records_.add_rename(old_path, new_path);
        tell();
    }
    const KnownEntry entry = at->second;
    from.entries.erase(at);
    leave_below(to, new_name);  // an empty folder that was replaced
    to.entries[std::string(new_name)] = entry;
    if (!entry.folder || !subtree_) return;
    auto below = from.below.extract(std::string(old_name));
    if (below.empty()) return enter_below(to, new_name, false);
    below.mapped()->parent = &to;
    below.mapped()->name = new_name;
    below.key() = new_name;
    to.below.insert(std::move(below));
}

void FolderWatch::written(FolderNode& folder, std::string_view name) {
    const auto at = folder.entries.find(std::string(name));
    if (at == folder.entries.end()) return;
    at->second.exact = false;
    if (filter_ & kWritten) record(FILE_ACTION_MODIFIED, folder, name);
}

void FolderWatch::attributes_changed(FolderNode& folder, std::string_view name) {
    const auto at = folder.entries.find(std::string(name));
    if (at == folder.entries.end()) return;
    const bool wanted = (filter_ & kAttributes) != 0;
    if (!wanted && (at->second.folder || !(filter_ & kTimes))) return;
    const KnownEntry now = look_at(folder, name, at->second.folder);
    const bool other_time = !same_content(now, at->second);
    if (now.exact && now.inode == at->second.inode) at->second = now;
    if (wanted || other_time || (filter_ & FILE_NOTIFY_CHANGE_LAST_ACCESS)) record(FILE_ACTION_MODIFIED, folder, name);
}

void FolderWatch::lost(FolderNode& folder) {
    if (&folder == &root_) return end(ERROR_PATH_NOT_FOUND);
    leave_below(*folder.parent, std::string(folder.name));  // what holds it tells of its removal
}

void FolderWatch::unmounted(FolderNode& folder) {
    if (&folder == &root_) return end(ERROR_PATH_NOT_FOUND);
    FolderNode& holder = *folder.parent;
    const std::string name = folder.name;
    removed(holder, name);
    const KnownEntry now = look_at(holder, name, true);
    if (now.exact) add(holder, name, now);
}

void FolderWatch::may_be_unreadable(FolderNode& folder) {
    if (&folder != &root_) return;
    Listing listing;
    if (listing.open(path_of(root_).c_str()) == EACCES) end(ERROR_ACCESS_DENIED);
}

// --- Coming and going of folders

std::string FolderWatch::path_of(const FolderNode& folder) const {
    if (!folder.parent) return path_.empty() ? "/" : path_;
    return path_of(*folder.parent, folder.name);
}

std::string FolderWatch::path_of(const FolderNode& folder, std::string_view name) const {
    std::string path = folder.parent ? path_of(folder) : path_;
    path += '/';
    path += name;
    return path;
}

std::string FolderWatch::relative(const FolderNode& folder, std::string_view name) const {
    return path_of(folder, name).substr(path_.size() + 1);
}

bool FolderWatch::wants_names(bool is_folder) const {
    return (filter_ & (is_folder ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME)) != 0;
}

KnownEntry FolderWatch::look_at(const FolderNode& folder, std::string_view name, bool is_folder) const {
    struct stat status;
    if (lstat(path_of(folder, name).c_str(), &status) == 0 && S_ISDIR(status.st_mode) == is_folder)
        return known(status);
    KnownEntry gone;  // already: what took it away is still to be reported
    gone.folder = is_folder;
    return gone;
}

// Makes the host report on a folder, then takes what is in it as known.
DWORD FolderWatch::enter(FolderNode& folder, bool report) {
    if (const DWORD error = source_.report(path_of(folder), *this, folder)) return error;
    std::vector<Found> found;
    if (const int error = list(folder, found)) return error_from_errno(error);
    for (const Found& each : found) {
        if (report && wants_names(each.entry.folder)) record(FILE_ACTION_ADDED, folder, each.name);
        folder.entries.emplace(each.name, each.entry);
    }
    if (!subtree_) return ERROR_SUCCESS;
    for (const Found& each : found) {
        if (each.entry.folder) enter_below(folder, each.name, report);
    }
    return end_;
}

void FolderWatch::begin_again(DWORD error) noexcept {
    if (end_) return;
    try {
        if (error == ERROR_SUCCESS) return report_again(root_);
    } catch (const std::bad_alloc&) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    end(error);
}

// What is gone meanwhile the scan that follows will show.
void FolderWatch::report_again(FolderNode& folder) {
    folder.watch = -1;
    const DWORD error = source_.report(path_of(folder), *this, folder);
    if (error == ERROR_NO_SYSTEM_RESOURCES || error == ERROR_TOO_MANY_OPEN_FILES) end(error);
    for (const auto& [name, below] : folder.below) {
        if (!end_) report_again(*below);
    }
}

// A folder below that cannot be read or is gone again is left alone; where the host has no room to watch it, the
// promise that nothing is lost can no longer be kept.
void FolderWatch::enter_below(FolderNode& folder, std::string_view name, bool report) {
    auto node = std::make_unique<FolderNode>();
    node->parent = &folder;
    node->name = name;
    FolderNode& below = *(folder.below[node->name] = std::move(node));
    const DWORD error = enter(below, report);
    if (error == ERROR_SUCCESS) return;
    if (error == ERROR_NO_SYSTEM_RESOURCES || error == ERROR_TOO_MANY_OPEN_FILES) return end(error);
    leave_below(folder, name);
}

void FolderWatch::leave(FolderNode& folder) {
    for (auto& [name, below] : folder.below) {
        leave(*below);
    }
    source_.stop_reporting(*this, folder);
}

void FolderWatch::leave_below(FolderNode& folder, std::string_view name) {
    const auto at = folder.below.find(std::string(name));
    if (at == folder.below.end()) return;
    leave(*at->second);
    folder.below.erase(at);
}

void FolderWatch::add(FolderNode& folder, std::string_view name, const KnownEntry& entry) {
    if (wants_names(entry.folder)) record(FILE_ACTION_ADDED, folder, name);
    folder.entries.emplace(name, entry);
    if (entry.folder && subtree_) enter_below(folder, name, true);
}

void FolderWatch::end(DWORD error) {
    const std::lock_guard guard(mutex_);
    if (end_) return;
    end_ = error;
    tell();
}

// --- Reading again

bool FolderWatch::scan() {
    if (end_) return true;
    struct stat status;
    if (stat(path_of(root_).c_str(), &status) != 0) {
        if (for_later(errno)) return false;
        end(errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND);
        return true;
    }
    if (status.st_ino != inode_ || status.st_dev != device_) {
        end(ERROR_PATH_NOT_FOUND);
        return true;
    }
    return scan(root_);
}

bool FolderWatch::scan(FolderNode& folder) {
    std::vector<Found> found;
    if (const int error = list(folder, found)) {
        if (for_later(error)) return false;
        if (&folder == &root_) end(error == EACCES ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND);
        return true;
    }
    std::vector<std::string> old_below;
    for (const auto& [name, below] : folder.below) {
        old_below.push_back(name);
    }
    compare(folder, found);
    bool done = true;
    for (const std::string& name : old_below) {
        const auto at = folder.below.find(name);
        if (at != folder.below.end() && !scan(*at->second)) done = false;
    }
    return done;
}

int FolderWatch::list(const FolderNode& folder, std::vector<Found>& found) const {
    Listing listing;
    if (const int error = listing.open(path_of(folder).c_str())) return error;
    int error = 0;
    while (const RawEntry* raw = listing.next(error)) {
        KnownEntry entry;
        struct stat status;
        if (fstatat(listing.fd(), raw->name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
            entry = known(status);
        } else if (errno == ENOENT) {
            continue;
        } else {
            entry.inode = raw->inode;
            entry.folder = raw->type == DT_DIR;
        }
        found.push_back({raw->name, entry});
    }
    return error;
}

// What is gone first, then what has only another name, then what is new or changed: so no record meets a name in a
// state that an earlier one did not leave it in.
void FolderWatch::compare(FolderNode& folder, std::vector<Found>& found) {
    std::unordered_map<std::uint64_t, const Found*> arrived;
    std::unordered_map<std::string_view, const Found*> present;
    for (const Found& each : found) {
        present.emplace(each.name, &each);
        if (!folder.entries.contains(each.name)) arrived.emplace(each.entry.inode, &each);
    }
    std::vector<std::string> gone;
    for (const auto& [name, entry] : folder.entries) {
        if (!present.contains(name)) gone.push_back(name);
    }
    std::vector<std::pair<std::string, std::string>> moved;
    for (const std::string& name : gone) {
        const KnownEntry& old = folder.entries.at(name);
        const auto to = arrived.find(old.inode);
        const bool same = old.exact && to != arrived.end() && to->second->entry.folder == old.folder;
        if (same) {
            moved.emplace_back(name, to->second->name);
            arrived.erase(to);
        } else {
            removed(folder, name);
        }
    }
    for (const auto& [from, to] : moved) {
        renamed(folder, from, folder, to, folder.entries.at(from).folder);
    }
    for (const Found& each : found) {
        compare_entry(folder, each);
    }
}

void FolderWatch::compare_entry(FolderNode& folder, const Found& now) {
    const auto at = folder.entries.find(now.name);
    if (at == folder.entries.end()) return add(folder, now.name, now.entry);
    const KnownEntry old = at->second;
    const bool other_folder = now.entry.folder && old.inode != now.entry.inode;
    if (old.folder != now.entry.folder || other_folder) {
        removed(folder, now.name);
        return add(folder, now.name, now.entry);
    }
    if (now.entry.folder) {
        at->second = now.entry;
    } else if (old.inode != now.entry.inode || !same_content(old, now.entry)) {
        if (filter_ & kWritten) record(FILE_ACTION_MODIFIED, folder, now.name);
        at->second = now.entry;
    }
}

// --- Records and the event

void FolderWatch::record(DWORD action, const FolderNode& folder, std::string_view name) {
    if (!folder.parent) {
        const std::lock_guard guard(mutex_);
        if (keeps_records()) records_.add(action, name);
        tell();
        return;
    }
    const std::string path = relative(folder, name);
    const std::lock_guard guard(mutex_);
    if (keeps_records()) records_.add(action, path);
    tell();
}

// With the records' lock held.
void FolderWatch::tell() {
    if (armed_)
        set();
    else
        missed_ = true;
    armed_ = false;
    if (caller_) call_host_source(*caller_, Deadline::at_once());
}

DWORD FolderWatch::next() {
    const std::lock_guard guard(mutex_);
    const bool more = keeps_records() ? !records_.empty() : std::exchange(missed_, false);
    missed_ = false;
    if (more) {
        set();
        return ERROR_SUCCESS;
    }
    reset();
    armed_ = true;
    return end_;
}

std::size_t FolderWatch::take(std::span<std::byte> out, std::size_t& left) {
    const std::lock_guard guard(mutex_);
    const std::size_t taken = records_.take(out);
    left = records_.size();
    return taken;
}

}  // namespace zr::platform
