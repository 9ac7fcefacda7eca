// zr modules: the modules of a folder, with identity and version.

#include <ZrUtility/ZrIModuleEnumerator.h>
#include <platform/base.h>
#include <platform/files.h>
#include <platform/modules.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zr/base/failure.h"
#include "zr/base/host_paths.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

constexpr int kAnyVersion = 0;
constexpr int kExactVersion = 1;
constexpr int kSomeVersion = 5;

struct Options {
    std::string folder;
    std::string pattern = "*";
    LONG id = 0;
    std::string version;
    LONG level = kExactVersion;
    Option id_option{nullptr};
    Option level_option{nullptr};
    bool json = false;
};

struct FreeModule {
    void operator()(HINSTANCE__* module) const { FreeLibrary(module); }
};
using Module = std::unique_ptr<HINSTANCE__, FreeModule>;

_ModuleVersion parse_version(const std::string& text) {
    _ModuleVersion version{};
    char rest;
    const bool shaped = text.find_first_not_of("0123456789.") == text.npos &&
                        std::sscanf(text.c_str(), "%5d.%5d.%5d.%5d%c", &version.major, &version.minor, &version.build,
                                    &version.revision, &rest) == 4;
    for (const int part : {version.major, version.minor, version.build, version.revision}) {
        if (!shaped || part > 0xFFFF)
            throw Failure{Exit::Usage, "--version: " + text + " is not a version such as 1.2.0.417"};
    }
    return version;
}

std::u16string path_of(HINSTANCE module) {
    WCHAR path[MAX_PATH];
    return {path, GetModuleFileNameW(module, path, MAX_PATH)};
}

// As text, with "debug" behind it where it says so; empty for a module without one.
std::string version_of(const std::u16string& path) {
    std::vector<DWORD> block((GetFileVersionInfoSizeW(path.c_str(), nullptr) + 3) / sizeof(DWORD));
    LPVOID value = nullptr;
    if (block.empty() ||
        !GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size() * sizeof(DWORD)), block.data()) ||
        !VerQueryValueW(block.data(), u"\\", &value, nullptr))
        return {};
    const auto& info = *static_cast<const VS_FIXEDFILEINFO*>(value);
    std::string text = std::to_string(info.dwProductVersionMS >> 16);
    for (const DWORD part :
         {info.dwProductVersionMS & 0xFFFF, info.dwProductVersionLS >> 16, info.dwProductVersionLS & 0xFFFF}) {
        text += "." + std::to_string(part);
    }
    return info.dwFileFlags & VS_FF_DEBUG ? text + " debug" : text;
}

void print_module(HINSTANCE module, int id, bool json) {
    const std::u16string path = path_of(module);
    const std::string shown = to_utf8(to_utf16(host_path(path)));
    const std::string version = version_of(path);
    if (!json) {
        print(std::to_string(id) + "\t" + (version.empty() ? "-" : version) + "\t" + printable(shown) + "\n");
        return;
    }
    Json line = {{"id", id}, {"version", nullptr}, {"path", shown}};
    if (!version.empty()) line.set("version", version);
    print_json_line(line);
}

// Those that answer one number, as a client finds its companions.
bool list_wanted(const Options& options, std::u16string folder, std::u16string pattern) {
    const bool any = options.version.empty();
    ZrIModuleEnumerator walk;
    const int error = walk.start(options.id, any ? _ModuleVersion{} : parse_version(options.version),
                                 any ? kAnyVersion : options.level, folder.data(), pattern.data());
    if (error != 0) throw Failure{Exit::Usage, "the folder's path and the pattern are too long together"};
    bool found = false;
    for (; walk.isValid(); walk.advance()) {
        const Module module(walk.value());
        print_module(module.get(), options.id, options.json);
        found = true;
    }
    return found;
}

// Every module that has an identity.
bool list_all(const Options& options, std::u16string folder, std::u16string pattern) {
    FileEnumerator files;
    if (files.start(folder.data(), pattern.data()) != 0)
        throw Failure{Exit::Usage, "the folder's path and the pattern are too long together"};
    bool found = false;
    for (; files.isValid(); files.advance()) {
        const Module module(LoadLibraryW(files.value()));
        if (!module) continue;
        const auto identity = reinterpret_cast<int (*)()>(GetProcAddressW(module.get(), u"ZrIGetModuleId"));
        if (!identity) continue;
        print_module(module.get(), identity(), options.json);
        found = true;
    }
    return found;
}

Exit list_modules(const Options& options) {
    const bool by_id = options.id_option.given();
    if (!by_id && (!options.version.empty() || options.level_option.given()))
        throw Failure{Exit::Usage, "--version and --level need --id"};
    if (options.version.empty() && options.level_option.given()) throw Failure{Exit::Usage, "--level needs --version"};
    if (options.level < kExactVersion || options.level > kSomeVersion)
        throw Failure{Exit::Usage, "--level: " + std::to_string(options.level) + " is not a number from 1 to 5"};
    const std::u16string folder = handheld_folder(options.folder);
    const std::u16string pattern = to_utf16(options.pattern);
    const bool found = by_id ? list_wanted(options, folder, pattern) : list_all(options, folder, pattern);
    return found ? Exit::Ok : Exit::None;
}

}  // namespace

void add_modules(Command zr) {
    const auto options = std::make_shared<Options>();
    Command command = zr.add_command("modules", "List the modules of a folder, with identity and version");
    command.add_option("DIR", options->folder, "The folder").required();
    options->id_option = command.add_option("--id", options->id, "Only modules that answer this number");
    command.add_option("--version", options->version, "Only modules of this version, such as 1.2.0.417");
    options->level_option = command.add_option(
        "--level", options->level,
        "How much of the version counts: 1 all, 2 without the first number, 3 the last two, 4 the last, 5 nothing");
    command.add_option("--pattern", options->pattern, "Only files with such names").shows_default();
    command.add_flag("--json", options->json, "Print one JSON object per module and line");
    command.footer(
        "A line is the number that the module answers, its version (- for none) and its path. Each file is\n"
        "loaded to ask it, which runs its code; what cannot be loaded or has no ZrIGetModuleId is left\n"
        "out. The exit code is 1 when nothing is found.\n"
        "\n"
        "Examples:\n"
        "  zr modules /usr/lib/client\n"
        "  zr modules /usr/lib/client --id 7 --version 1.2.0.0 --level 1");
    command.runs([options] { return list_modules(*options); });
}

}  // namespace zr
