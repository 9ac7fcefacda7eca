// zr modules: the modules of a folder, with identity and version.

#include <ZrUtility/ZrIModuleEnumerator.h>
#include <platform/base.h>
#include <platform/files.h>
#include <platform/modules.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zr/base/failure.h"
#include "zr/base/host_paths.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/separate_process.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

constexpr int kAnyVersion = 0;
constexpr int kExactVersion = 1;
constexpr int kSomeVersion = 5;

struct ModulesOptions {
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

// What is known of a module, and how the process that looked says it.
struct Found {
    int id;
    std::u16string path;
};

std::string message_of(const Found& found) {
    std::string message(reinterpret_cast<const char*>(&found.id), sizeof found.id);
    return message.append(reinterpret_cast<const char*>(found.path.data()), found.path.size() * sizeof(WCHAR));
}

Found found_in(const std::string& message) {
    Found found = {};
    std::memcpy(&found.id, message.data(), sizeof found.id);
    found.path.resize((message.size() - sizeof found.id) / sizeof(WCHAR));
    std::memcpy(found.path.data(), message.data() + sizeof found.id, found.path.size() * sizeof(WCHAR));
    return found;
}

void print_module(const Found& module, bool json, Table& table) {
    const std::string shown = to_utf8(to_utf16(host_path(module.path)));
    const std::string version = version_of(module.path);
    if (!json) {
        table.add(std::to_string(module.id) + "\t" + (version.empty() ? "-" : version) + "\t" + printable(shown) +
                  "\n");
        return;
    }
    Json line = {{"id", module.id}, {"version", nullptr}, {"path", shown}};
    if (!version.empty()) line.set("version", version);
    print_json_line(line);
}

// The file, if it is a module that a client would find who looks for companions with this number and version.
std::optional<Found> find_wanted(const ModulesOptions& options, const std::u16string& path) {
    const std::size_t slash = path.rfind(u'\\');
    std::u16string folder = path.substr(0, slash);
    std::u16string name = path.substr(slash + 1);
    const bool any = options.version.empty();
    ZrIModuleEnumerator walk;
    if (walk.start(options.id, any ? _ModuleVersion{} : parse_version(options.version),
                   any ? kAnyVersion : options.level, folder.data(), name.data()) != 0)
        return std::nullopt;
    // The name is looked for as a pattern, which others may match.
    const bool matches_others = name.find_first_of(u"*?") != name.npos;
    for (; walk.isValid(); walk.advance()) {
        const Module module(walk.value());
        Found found = {static_cast<int>(options.id), path_of(module.get())};
        if (!matches_others || found.path == path) return found;
    }
    return std::nullopt;
}

// The file, if it is a module that has an identity.
std::optional<Found> find_any(const std::u16string& path) {
    const Module module(LoadLibraryW(path.c_str()));
    if (!module) return std::nullopt;
    const auto identity = reinterpret_cast<int (*)()>(GetProcAddressW(module.get(), u"ZrIGetModuleId"));
    if (!identity) return std::nullopt;
    const int id = identity();
    return Found{id, path_of(module.get())};
}

std::vector<std::u16string> files_of(std::u16string folder, std::u16string pattern) {
    FileEnumerator files;
    if (files.start(folder.data(), pattern.data()) != 0)
        throw Failure{Exit::Usage, "the folder's path and the pattern are too long together"};
    std::vector<std::u16string> found;
    for (; files.isValid(); files.advance()) {
        found.emplace_back(files.value());
    }
    return found;
}

Exit list_modules(const ModulesOptions& options) {
    const bool by_id = options.id_option.given();
    if (!by_id && (!options.version.empty() || options.level_option.given()))
        throw Failure{Exit::Usage, "--version and --level need --id"};
    if (options.version.empty() && options.level_option.given()) throw Failure{Exit::Usage, "--level needs --version"};
    if (options.level < kExactVersion || options.level > kSomeVersion)
        throw Failure{Exit::Usage, "--level: " + std::to_string(options.level) + " is not a number from 1 to 5"};
    if (!options.version.empty()) parse_version(options.version);
    const std::vector<std::u16string> files = files_of(handheld_folder(options.folder), to_utf16(options.pattern));
    // To look is to load, and to run what is loaded.
    SeparateProcess process([&](std::size_t i) {
        const std::optional<Found> found = by_id ? find_wanted(options, files[i]) : find_any(files[i]);
        return found ? message_of(*found) : std::string();
    });
    Exit code = Exit::None;
    Table table({{"NUMBER", Column::Kind::Reference}, {"VERSION"}, {"FILE"}});
    page_output();
    for (std::size_t i = 0; i < files.size(); ++i) {
        std::string answer;
        if (!process.ask(i, answer)) {
            complain(host_path(files[i]) + ": " + process.failure() + "; passed over");
            code = Exit::DamagedCards;
        } else if (!answer.empty()) {
            print_module(found_in(answer), options.json, table);
            if (code == Exit::None) code = Exit::Ok;
        }
    }
    table.finish();
    return code;
}

}  // namespace

void add_modules(Command zr) {
    const auto options = std::make_shared<ModulesOptions>();
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
        "loaded to ask it, which runs its code, in a process of its own; what cannot be loaded or has no\n"
        "ZrIGetModuleId is left out, what crashes or does not answer is named. The exit code is 1 when\n"
        "nothing is found, and 7 when something was named.\n"
        "\n"
        "Examples:\n"
        "  zr modules /usr/lib/client\n"
        "  zr modules /usr/lib/client --id 7 --version 1.2.0.0 --level 1");
    command.runs([options] { return list_modules(*options); });
}

}  // namespace zr
