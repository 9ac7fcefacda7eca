#include "zr/commands/file_change.h"

#include <fnmatch.h>

#include <algorithm>

#include "zr/base/failure.h"
#include "zr/base/host_paths.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/program.h"
#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::string_view kPlace = "{}";

// Names are the host's bytes; what is not valid UTF-8 in them is shown as U+FFFD.
std::string shown_path(const std::string& path) {
    return to_utf8(to_utf16(path));
}

std::string filled(std::string word, const std::string& path) {
    for (std::size_t at = word.find(kPlace); at != std::string::npos; at = word.find(kPlace, at + path.size())) {
        word.replace(at, kPlace.size(), path);
    }
    return word;
}

}  // namespace

// A pattern with a slash is one of the whole path, any other one of the name.
bool FileChanges::is_wanted(const std::string& path) const {
    if (options_.only.empty()) return true;
    const std::string name = path.substr(path.rfind('/') + 1);
    return std::any_of(options_.only.begin(), options_.only.end(), [&](const std::string& pattern) {
        const bool whole = pattern.find('/') != std::string::npos;
        return ::fnmatch(pattern.c_str(), whole ? path.c_str() : name.c_str(), 0) == 0;
    });
}

void FileChanges::tell(const char* change, const std::u16string& path, const std::u16string* to) const {
    const std::string from = host_path(path);
    const std::string now = to ? host_path(*to) : std::string();
    if (!is_wanted(from) && !(to && is_wanted(now))) return;
    print_change(change, from, now);
    if (!options_.exec.empty()) run(change, from, now);
}

void FileChanges::print_change(const char* change, const std::string& path, const std::string& to) const {
    if (!options_.json) {
        print(std::string(change) + " " + printable(shown_path(path)) +
              (to.empty() ? "" : " -> " + printable(shown_path(to))) + "\n");
        return;
    }
    Json json = {{"change", change}, {"path", shown_path(path)}};
    if (!to.empty()) json.set("to", shown_path(to));
    print_json_line(json);
}

void FileChanges::run(const char* change, const std::string& path, const std::string& to) const {
    flush_output();  // so that the lines of the program come behind ours
    std::vector<std::string> command;
    command.reserve(options_.exec.size());
    for (const std::string& word : options_.exec) {
        command.push_back(filled(word, to.empty() ? path : to));
    }
    std::vector<std::string> environment = {"ZR_CHANGE=" + std::string(change), "ZR_PATH=" + path};
    if (!to.empty()) environment.push_back("ZR_NEW_PATH=" + to);
    try {
        const std::string fault = program_fault(run_program(command, environment));
        if (!fault.empty()) complain(command.front() + " " + fault);
    } catch (const Failure& failure) {
        complain(failure.text);
    }
}

}  // namespace zr
