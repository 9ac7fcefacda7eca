// Files and folders, for zr watch.

#include <ZrUtility/Helpers/FileSystemMonitor.h>
#include <platform/base.h>
#include <platform/file_changes.h>
#include <platform/shell.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zr/base/failure.h"
#include "zr/base/host_paths.h"
#include "zr/base/text.h"
#include "zr/commands/watch.h"

namespace zr {
namespace {

constexpr std::size_t kLongestExtension = 3;

bool is_extension(const std::string& text) {
    return is_utf8(text) && to_utf16(text).size() <= kLongestExtension && text.find_first_of("./\\") == text.npos;
}

// Tells of the end of a folder, of which the monitor says nothing: a watch for what never changes is set only then. It
// also keeps the host's room for the monitor's own watch of the folder.
class FolderEnd {
public:
    FolderEnd(const std::string& name, const std::u16string& path)
        : name_(name), handle_(FindFirstChangeNotificationW(path.c_str(), FALSE, FILE_NOTIFY_CHANGE_CREATION)) {
        if (handle_ == INVALID_HANDLE_VALUE)
            throw Failure{Exit::Unreadable, name + ": cannot be watched: " + why_not_watched(GetLastError())};
    }
    ~FolderEnd() {
        if (handle_ != INVALID_HANDLE_VALUE) FindCloseChangeNotification(handle_);
    }
    FolderEnd(FolderEnd&& other) noexcept
        : name_(std::move(other.name_)), handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
    FolderEnd& operator=(FolderEnd&&) = delete;

    HANDLE event() const { return handle_; }
    void report() const {
        if (!FindNextChangeNotification(handle_))
            complain(name_ + ": is not watched any more: " + why_not_watched(GetLastError()));
    }

private:
    std::string name_;
    HANDLE handle_;
};

// Not made to be deleted through a base.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// Somebody who looks on wants to see how a folder ends up: the library's rules drop what follows the making of a file,
// be it its deletion or its new name. Here only a change right behind the making or a change of the same file is told
// with that.
class EveryChange final : public FileSystemMonitor {
private:
    void OptimizeFileEvents() override {
        if (m_pEvents == nullptr) return;
        unsigned int code = 0;
        std::u16string path;
        for (int left = m_pEvents->getNumberOfElement(); left > 0; --left) {
            std::unique_ptr<FileEvent> event(m_pEvents->removeElement(0));
            const std::u16string_view name = event->firstPath ? event->firstPath : std::u16string_view();
            const bool told =
                event->code == SHCNE_UPDATEITEM && name == path && (code == SHCNE_CREATE || code == SHCNE_UPDATEITEM);
            if (told) continue;
            code = event->code;
            path = name;
            const int before = m_pEvents->getNumberOfElement();
            m_pEvents->appendElement(event.get());
            if (m_pEvents->getNumberOfElement() > before) static_cast<void>(event.release());
        }
    }
};

#pragma GCC diagnostic pop

class WatchedFolders final : public Watched, public FileSystemListener {
public:
    explicit WatchedFolders(const FolderWatchOptions& options) : changes_(options) {
        std::vector<std::u16string> paths;
        for (const std::string& each : options.folders) {
            paths.push_back(handheld_folder(each));
            ends_.emplace_back(each, paths.back());
        }
        std::vector<WCHAR*> pointers;
        pointers.reserve(paths.size());
        for (std::u16string& each : paths) {
            pointers.push_back(each.data());
        }
        const std::string* const extension = options.extension;
        const std::u16string wide = extension ? to_utf16(*extension) : std::u16string();
        if (monitor_.Initialize(this, pointers.data(), static_cast<unsigned int>(pointers.size()),
                                extension ? wide.c_str() : nullptr, 0) != 1)
            throw Failure{Exit::Unreadable, "the folders cannot be watched: error " + std::to_string(GetLastError())};
    }

    std::vector<HANDLE> events() const override {
        std::vector<HANDLE> events;
        for (const FolderEnd& each : ends_) {
            events.push_back(each.event());
        }
        return events;
    }

    void report(HANDLE event) override {
        for (const FolderEnd& each : ends_) {
            if (each.event() == event) each.report();
        }
    }

    void OnFileCreated(const WCHAR* path) override { changes_.tell("created", path, nullptr); }
    void OnFileChanged(const WCHAR* path) override { changes_.tell("changed", path, nullptr); }
    void OnFileDeleted(const WCHAR* path) override { changes_.tell("deleted", path, nullptr); }
    void OnFileRenamed(const WCHAR* from, const WCHAR* to) override {
        const std::u16string now = to;
        changes_.tell("renamed", from, &now);
    }

private:
    FileChanges changes_;
    std::vector<FolderEnd> ends_;
    EveryChange monitor_;
};

}  // namespace

std::string why_not_watched(DWORD error) {
    switch (error) {
        case ERROR_PATH_NOT_FOUND:
            return "it was deleted, renamed or unmounted";
        case ERROR_ACCESS_DENIED:
            return "permission denied";
        case ERROR_NO_SYSTEM_RESOURCES:
            return "the system has no room for more watched folders (fs.inotify.max_user_watches)";
        case ERROR_TOO_MANY_OPEN_FILES:
            return "the system has no room for more programs that watch (fs.inotify.max_user_instances)";
        default:
            return "error " + std::to_string(error);
    }
}

std::unique_ptr<Watched> watch_folders(const FolderWatchOptions& options) {
    if (options.folders.size() > FileSystemMonitor::MAX_DIRECTORIES)
        throw Failure{Exit::Usage, "ten folders at most can be watched"};
    if (options.extension && !is_extension(*options.extension))
        throw Failure{Exit::Usage, "--ext: " + *options.extension +
                                       " is not an extension of three characters or less, without its dot"};
    if (options.below) return watch_trees(options);
    return std::make_unique<WatchedFolders>(options);
}

}  // namespace zr
