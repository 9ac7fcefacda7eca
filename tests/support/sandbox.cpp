#include "support/sandbox.h"

#include <stdlib.h>

#include <atomic>
#include <stdexcept>

namespace zr::test {
namespace {

namespace fs = std::filesystem;

// A child process works in its parent's world, so it takes the folder over and leaves the removal to the parent.
constexpr const char* kInherited = "ZR_TEST_SANDBOX";
fs::path folder;
bool owned = false;

void set(const char* name, const fs::path& value) {
    if (!fs::exists(value)) {
        fs::create_directories(value);
        fs::permissions(value, fs::perms::owner_all);
    }
    setenv(name, value.c_str(), 1);
}

}  // namespace

void enter_sandbox() {
    if (const char* inherited = getenv(kInherited)) {
        folder = inherited;
        return;
    }
    std::string pattern = (fs::temp_directory_path() / "zrtest-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create " + pattern);
    folder = pattern;
    owned = true;
    setenv(kInherited, folder.c_str(), 1);
    set("ZR_HOME", folder / "state");
    set("ZR_ROOT", folder / "root");
    set("XDG_RUNTIME_DIR", folder / "run");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + (folder / "bus").string()).c_str(), 1);
    set("HOME", folder / "home");
    set("XDG_DATA_HOME", folder / "home/.local/share");
    set("XDG_CONFIG_HOME", folder / "home/.config");
    set("XDG_CACHE_HOME", folder / "home/.cache");
    unsetenv("ZR_LOG");
    unsetenv("ZR_SCREEN");
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
}

void leave_sandbox() {
    if (!owned) return;
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

fs::path sandbox() {
    return folder;
}
fs::path sandbox_home() {
    return folder / "state";
}
fs::path sandbox_root() {
    return folder / "root";
}

TempFolder::TempFolder() {
    std::string pattern = (sandbox_root() / "t-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create " + pattern);
    host_ = pattern;
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    fs::remove_all(host_, ignored);
}

std::u16string TempFolder::handheld() const {
    return u"\\" + host_.filename().u16string();
}

}  // namespace zr::test
