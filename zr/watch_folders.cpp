// Files and folders, for zr watch.

#include <ZrUtility/Helpers/FileSystemMonitor.h>
#include <platform/base.h>
#include <platform/file_changes.h>

#include <string>
#include <vector>

#include "failure.h"
#include "host_paths.h"
#include "output.h"
#include "text.h"
#include "watch.h"

namespace zr {
namespace {

constexpr std::size_t kLongestExtension = 3;

// The monitor says nothing of a folder that it cannot watch.
void check_watchable(const std::string& name, const std::u16string& path) {
    const HANDLE changes = FindFirstChangeNotificationW(path.c_str(), FALSE, FILE_NOTIFY_CHANGE_FILE_NAME);
    if (changes == INVALID_HANDLE_VALUE)
        throw Failure{Exit::Unreadable, name + ": cannot be watched: error " + std::to_string(GetLastError())};
    FindCloseChangeNotification(changes);
}

class WatchedFolders final : public Watched, public FileSystemListener {
public:
    WatchedFolders(const std::vector<std::string>& folders, const std::string* extension, bool json) : json_(json) {
        std::vector<std::u16string> paths;
        for (const std::string& each : folders) {
            paths.push_back(handheld_folder(each));
            check_watchable(each, paths.back());
        }
        std::vector<WCHAR*> pointers;
        for (std::u16string& each : paths) {
            pointers.push_back(each.data());
        }
        const std::u16string wide = extension ? to_utf16(*extension) : std::u16string();
        if (monitor_.Initialize(this, pointers.data(), static_cast<unsigned int>(pointers.size()),
                                extension ? wide.c_str() : nullptr, 0) != 1)
            throw Failure{Exit::Unreadable, "the folders cannot be watched: error " + std::to_string(GetLastError())};
    }

    void OnFileCreated(const WCHAR* path) override { print_change("created", path, nullptr); }
    void OnFileChanged(const WCHAR* path) override { print_change("changed", path, nullptr); }
    void OnFileDeleted(const WCHAR* path) override { print_change("deleted", path, nullptr); }
    void OnFileRenamed(const WCHAR* from, const WCHAR* to) override { print_change("renamed", from, to); }

private:
    // Names are the host's bytes; what is not valid UTF-8 in them is shown as U+FFFD.
    static std::string shown(const WCHAR* path) { return to_utf8(to_utf16(host_path(path))); }

    void print_change(const char* change, const WCHAR* path, const WCHAR* to) const {
        if (!json_) {
            print(std::string(change) + " " + printable(shown(path)) + (to ? " -> " + printable(shown(to)) : "") +
                  "\n");
            return;
        }
        Json json = {{"change", change}, {"path", shown(path)}};
        if (to) json["to"] = shown(to);
        print_json_line(json);
    }

    const bool json_;
    FileSystemMonitor monitor_;
};

}  // namespace

std::unique_ptr<Watched> watch_folders(const std::vector<std::string>& folders, const std::string* extension,
                                       bool json) {
    if (folders.size() > FileSystemMonitor::MAX_DIRECTORIES)
        throw Failure{Exit::Usage, "ten folders at most can be watched"};
    if (extension && (!is_utf8(*extension) || to_utf16(*extension).size() > kLongestExtension))
        throw Failure{Exit::Usage, "--ext: " + *extension + " is not an extension of three characters or less"};
    return std::make_unique<WatchedFolders>(folders, extension, json);
}

}  // namespace zr
