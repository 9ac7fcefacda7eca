// A program that finds its plug-ins by what they answer and which version they have, not by their file names.
//
//   modules FOLDER
//
// It takes the greeting modules (plug_ins/greeting.h) of the shared objects in the folder: first all of them, then
// those of version 2.1.0.417 alone, and calls what it found. Whatever else lies in the folder is passed over.

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "plug_ins/greeting.h"

namespace {

constexpr int kAnyVersion = 0;
constexpr int kAllFourNumbers = 1;  // 2 would leave out the first, 3 the first two, 4 all but the last

// The library takes texts that it may write to.
WCHAR pattern[] = u"*.so";

// The platform's paths are the handheld's; with the default ZR_ROOT they are the host's with backslashes.
std::u16string handheld_path(const char* host) {
    std::error_code error;
    const std::filesystem::path whole = std::filesystem::absolute(host, error);
    WCHAR path[MAX_PATH];
    const DWORD length = ZrHandheldPath(whole.c_str(), path, MAX_PATH);
    return {path, length < MAX_PATH ? length : 0};
}

void call(HINSTANCE module) {
    const auto greet = reinterpret_cast<GreetFunction>(GetProcAddressW(module, u"Greet"));
    std::printf("    %s\n", greet ? greet("Jo") : "does not greet");
}

// Calls each module that answers the number and, where the level says so, has the version. How many there were.
int call_all(std::u16string folder, _ModuleVersion version, int level) {
    ZrIModuleEnumerator walk;
    if (walk.start(kGreetingModule, version, level, folder.data(), pattern) != 0) return 0;
    int count = 0;
    for (; walk.isValid(); walk.advance()) {
        call(walk.value());
        FreeLibrary(walk.value());  // what the walk hands out is the caller's
        ++count;
    }
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    const std::u16string folder = argc == 2 ? handheld_path(argv[1]) : std::u16string();
    if (folder.empty()) {
        std::fprintf(stderr, "usage: modules FOLDER\n");
        return 2;
    }
    std::printf("of any version\n");
    const int any = call_all(folder, {}, kAnyVersion);
    std::printf("of version 2.1.0.417\n");
    const int exact = call_all(folder, {2, 1, 0, 417, 0}, kAllFourNumbers);
    std::printf("found %d and %d\n", any, exact);
    return exact > 0 ? 0 : 1;
}
