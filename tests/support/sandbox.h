#pragma once

// Every test program runs in a world of its own: fresh folders for the stores, the handheld's root, the runtime
// directory and the home folder, all removed when the program ends; and no system bus (see private_bus.h).

#include <filesystem>
#include <string>

namespace zr::test {

// Creates the folders and points ZR_HOME, ZR_ROOT, XDG_RUNTIME_DIR, XDG_*_HOME and HOME at them. Called by main().
void enter_sandbox();
void leave_sandbox();

std::filesystem::path sandbox();       // the folder that holds all of the following
std::filesystem::path sandbox_home();  // ZR_HOME
std::filesystem::path sandbox_root();  // ZR_ROOT

// A fresh folder below sandbox_root(), removed with the object. `handheld()` is its path as the platform writes it.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& host() const { return host_; }
    std::u16string handheld() const;

private:
    std::filesystem::path host_;
};

}  // namespace zr::test
