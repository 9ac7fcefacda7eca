// Folders and all below them, for zr watch --recursive.

#include <platform/base.h>
#include <platform/file_changes.h>

#include <cstddef>
#include <cstring>
#include <utility>

#include "zr/base/failure.h"
#include "zr/base/host_paths.h"
#include "zr/base/text.h"
#include "zr/commands/watch.h"

namespace zr {
namespace {

constexpr DWORD kWhat = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE |
                        FILE_NOTIFY_CHANGE_CEGETINFO;

bool has_extension(const std::u16string& path, const std::string& extension) {
    const std::string name = to_utf8(path.substr(path.rfind(u'\\') + 1));
    const std::size_t dot = name.rfind('.');
    return equal_ignoring_case(dot == std::string::npos ? std::string() : name.substr(dot + 1), extension);
}

// One folder with all below it.
class WatchedTree {
public:
    WatchedTree(std::string name, const FolderWatchOptions& options)
        : name_(std::move(name)),
          path_(handheld_folder(name_)),
          options_(options),
          changes_(options),
          handle_(FindFirstChangeNotificationW(path_.c_str(), TRUE, kWhat)) {
        if (handle_ == INVALID_HANDLE_VALUE)
            throw Failure{Exit::Unreadable, name_ + ": cannot be watched: " + why_not_watched(GetLastError())};
    }
    ~WatchedTree() { FindCloseChangeNotification(handle_); }
    WatchedTree(const WatchedTree&) = delete;
    WatchedTree& operator=(const WatchedTree&) = delete;

    HANDLE event() const { return handle_; }

    void report() {
        DWORD size = 0;
        while (CeGetFileNotificationInfo(handle_, 0, nullptr, 0, nullptr, &size) && size > 0) {
            std::vector<DWORD> room(size / sizeof(DWORD) + 1);
            DWORD returned = 0;
            const auto bytes = static_cast<DWORD>(room.size() * sizeof(DWORD));
            if (!CeGetFileNotificationInfo(handle_, 0, room.data(), bytes, &returned, nullptr) || returned == 0) break;
            take(reinterpret_cast<const char*>(room.data()));
        }
        last_action_ = 0;
        if (!FindNextChangeNotification(handle_))
            complain(name_ + ": is not watched any more: " + why_not_watched(GetLastError()));
    }

private:
    void take(const char* records) {
        for (;;) {
            FILE_NOTIFY_INFORMATION record;
            std::memcpy(&record, records, sizeof record);
            std::u16string name(record.FileNameLength / sizeof(WCHAR), u'\0');
            std::memcpy(name.data(), records + offsetof(FILE_NOTIFY_INFORMATION, FileName), record.FileNameLength);
            take(record.Action, path_ == u"\\" ? u"\\" + name : path_ + u"\\" + name);
            if (record.NextEntryOffset == 0) return;
            records += record.NextEntryOffset;
        }
    }

    void take(DWORD action, const std::u16string& path) {
        switch (action) {
            case FILE_ACTION_ADDED:
                tell("created", path, nullptr);
                break;
            case FILE_ACTION_REMOVED:
                tell("deleted", path, nullptr);
                break;
            case FILE_ACTION_MODIFIED:
                // Right behind the making or another change of the same file it tells nothing new.
                if (path == last_path_ && (last_action_ == FILE_ACTION_ADDED || last_action_ == FILE_ACTION_MODIFIED))
                    return;
                tell("changed", path, nullptr);
                break;
            case FILE_ACTION_RENAMED_OLD_NAME:
                old_name_ = path;
                break;
            default:
                tell("renamed", old_name_, &path);
        }
        last_action_ = action;
        last_path_ = path;
    }

    void tell(const char* change, const std::u16string& path, const std::u16string* to) const {
        const std::string* const extension = options_.extension;
        if (extension && !has_extension(path, *extension) && !(to && has_extension(*to, *extension))) return;
        changes_.tell(change, path, to);
    }

    std::string name_;
    std::u16string path_;
    const FolderWatchOptions& options_;
    FileChanges changes_;
    HANDLE handle_;
    std::u16string old_name_;
    DWORD last_action_ = 0;
    std::u16string last_path_;
};

class WatchedTrees final : public Watched {
public:
    explicit WatchedTrees(const FolderWatchOptions& options) {
        for (const std::string& each : options.folders) {
            trees_.push_back(std::make_unique<WatchedTree>(each, options));
        }
    }

    std::vector<HANDLE> events() const override {
        std::vector<HANDLE> events;
        for (const auto& each : trees_) {
            events.push_back(each->event());
        }
        return events;
    }

    void report(HANDLE event) override {
        for (const auto& each : trees_) {
            if (each->event() == event) each->report();
        }
    }

private:
    std::vector<std::unique_ptr<WatchedTree>> trees_;
};

}  // namespace

std::unique_ptr<Watched> watch_trees(const FolderWatchOptions& options) {
    return std::make_unique<WatchedTrees>(options);
}

}  // namespace zr
