#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <new>
#include <string>

#include "files/host_path.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/files.h"
#include "platform/shell.h"

namespace zr::platform {
namespace {

namespace fs = std::filesystem;

// Where the user keeps a kind of file.
enum class Base {
    None,  // only the handheld has it
    UserDir,
    Data,
    Config,
    Cache,
    Home,
};

struct Row {
    int folder;
    Base base;
    const char* user_dir;  // the variable's name in user-dirs.dirs
    const char* below;     // below the base; for a user folder, its usual name below the home folder
    const WCHAR* own;      // the handheld's own
};

constexpr Row kTable[] = {
    {CSIDL_DESKTOP, Base::UserDir, "XDG_DESKTOP_DIR", "Desktop", u"\\Windows\\Desktop"},
    {CSIDL_DESKTOPDIRECTORY, Base::UserDir, "XDG_DESKTOP_DIR", "Desktop", u"\\Windows\\Desktop"},
    {CSIDL_PERSONAL, Base::UserDir, "XDG_DOCUMENTS_DIR", "Documents", u"\\My Documents"},
    {CSIDL_MYMUSIC, Base::UserDir, "XDG_MUSIC_DIR", "Music", u"\\My Documents\\My Music"},
    {CSIDL_MYVIDEO, Base::UserDir, "XDG_VIDEOS_DIR", "Videos", u"\\My Documents\\My Videos"},
    {CSIDL_MYPICTURES, Base::UserDir, "XDG_PICTURES_DIR", "Pictures", u"\\My Documents\\My Pictures"},
    {CSIDL_TEMPLATES, Base::UserDir, "XDG_TEMPLATES_DIR", "Templates", u"\\My Documents\\Templates"},
    {CSIDL_PROGRAMS, Base::Data, "", "applications", u"\\Windows\\Start Menu\\Programs"},
    {CSIDL_STARTMENU, Base::Data, "", "applications", u"\\Windows\\Start Menu"},
    {CSIDL_FAVORITES, Base::Data, "", "favorites", u"\\Windows\\Favorites"},
    {CSIDL_RECENT, Base::Data, "", "recent", u"\\Windows\\Recent"},
    {CSIDL_FONTS, Base::Data, "", "fonts", u"\\Windows\\Fonts"},
    {CSIDL_APPDATA, Base::Data, "", "", u"\\Application Data"},
    {CSIDL_STARTUP, Base::Config, "", "autostart", u"\\Windows\\StartUp"},
    {CSIDL_INTERNET_CACHE, Base::Cache, "", "internet", u"\\Windows\\Temporary Internet Files"},
    {CSIDL_PROFILE, Base::Home, "", "", u"\\Windows\\Profiles\\guest"},
    {CSIDL_WINDOWS, Base::None, "", "", u"\\Windows"},
    {CSIDL_PROGRAM_FILES, Base::None, "", "", u"\\Program Files"},
};

const Row* find_row(int folder) {
    for (const Row& row : kTable)
        if (row.folder == folder) return &row;
    return nullptr;
}

fs::path home() {
    const char* set = getenv("HOME");
    if (set && *set == '/') return set;
    char buffer[4096];
    passwd entry;
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found && found->pw_dir)
        return found->pw_dir;
    return {};
}

// An XDG base folder; a relative one does not count.
fs::path base_folder(const char* variable, const char* usual) {
    const char* set = getenv(variable);
    if (set && *set == '/') return set;
    const fs::path user = home();
    return user.empty() ? fs::path() : user / usual;
}

// The text between the quotes with \x read as x, as a shell would.
std::string unquote(const std::string& text) {
    std::string value;
    for (std::size_t i = 1; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) ++i;
        value += text[i];
    }
    return value;
}

// The last line NAME="$HOME/..." or NAME="/..." of user-dirs.dirs counts. Empty when the user has none there.
fs::path configured_folder(const std::string& name, bool& found) {
    constexpr std::string_view kHome = "$HOME";
    std::ifstream file(base_folder("XDG_CONFIG_HOME", ".config") / "user-dirs.dirs");
    fs::path folder;
    for (std::string line; std::getline(file, line);) {
        line.erase(0, std::min(line.find_first_not_of(" \t"), line.size()));
        if (!line.starts_with(name + "=\"")) continue;
        const std::string value = unquote(line.substr(name.size() + 1));
        if (value.starts_with('/')) folder = value;
        if (value == kHome || value.starts_with(std::string(kHome) + '/'))
            folder = home().string() + value.substr(kHome.size());
        found = found || !folder.empty();
    }
    return folder;
}

fs::path user_folder(const Row& row) {
    switch (row.base) {
        case Base::UserDir: {
            bool found = false;
            const fs::path configured = configured_folder(row.user_dir, found);
            const fs::path user = home();
            return found || user.empty() ? configured : user / row.below;
        }
        case Base::Data:
            return base_folder("XDG_DATA_HOME", ".local/share") / row.below;
        case Base::Config:
            return base_folder("XDG_CONFIG_HOME", ".config") / row.below;
        case Base::Cache:
            return base_folder("XDG_CACHE_HOME", ".cache") / row.below;
        case Base::Home:
            return home();
        default:
            return {};
    }
}

std::u16string handheld_folder(const Row& row) {
    std::string host = user_folder(row).lexically_normal().string();
    while (host.size() > 1 && host.back() == '/')
        host.pop_back();
    std::u16string path;
    return handheld_path(host, path) ? path : std::u16string(row.own);
}

// Makes the folder and those above it. A system error code, or 0.
DWORD make_folders(const std::u16string& path) {
    if (path == u"\\") return ERROR_SUCCESS;
    for (std::size_t end = 1; end != path.npos;) {
        end = path.find(u'\\', end + 1);
        const std::u16string prefix = path.substr(0, end);
        if (CreateDirectoryW(prefix.c_str(), nullptr)) continue;
        const DWORD error = GetLastError();
        const DWORD attributes = error == ERROR_ALREADY_EXISTS ? GetFileAttributesW(prefix.c_str()) : 0;
        if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY)) return error;
    }
    return ERROR_SUCCESS;
}

DWORD special_folder(LPWSTR out, int folder, bool create) {
    const Row* row = find_row(folder);
    if (!row) return ERROR_INVALID_PARAMETER;
    const std::u16string path = handheld_folder(*row);
    if (path.size() >= MAX_PATH) return ERROR_FILENAME_EXCED_RANGE;
    if (create)
        if (const DWORD error = make_folders(path)) return error;
    path.copy(out, path.size());
    out[path.size()] = 0;
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

BOOL SHGetSpecialFolderPath(HWND, LPWSTR path, int folder, BOOL create) {
    cancellation_point();
    DWORD error = ERROR_INVALID_PARAMETER;
    if (path) {
        path[0] = 0;
        try {
            error = special_folder(path, folder & ~CSIDL_FLAG_CREATE, create || (folder & CSIDL_FLAG_CREATE));
        } catch (const std::bad_alloc&) {
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    if (error) SetLastError(error);
    return error ? FALSE : TRUE;
}
