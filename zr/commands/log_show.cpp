// zr log show: the records of a binary log, one per line.

#include <ZrLog/ZrLogReader.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <optional>

#include "zr/base/failure.h"
#include "zr/base/input_file.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

struct LogShowOptions {
    std::string file;
    std::string level;
    bool json = false;
};

struct LevelName {
    std::uint32_t level;
    const char* name;
};
constexpr LevelName kLevels[] = {
    {kZrLogFailure, "failure"}, {kZrLogWarning, "warning"}, {kZrLogInformation, "information"}, {kZrLogTrace, "trace"}};

std::uint32_t level_of(const ZrLogEntry& entry) {
    return entry.category & 0xFFFF;
}

std::uint32_t module_of(const ZrLogEntry& entry) {
    return (entry.category & ~kZrLogBuffer) >> 16;
}

std::string level_name(std::uint32_t level) {
    for (const LevelName& known : kLevels) {
        if (known.level == level) return known.name;
    }
    char text[16];
    std::snprintf(text, sizeof text, "0x%02x", level);
    return text;
}

const char* module_name(std::uint32_t module) {
    static const std::map<std::uint32_t, const char*> names = {
        {0x14, "mapi"},        {0x18, "files"},   {0x34, "meetings"},   {0x68, "telephony"},
        {0x73, "contacts"},    {0x78, "delayed"}, {0x84, "outlook"},    {0x88, "system time"},
        {0x94, "connections"}, {0x98, "locks"},   {0xA8, "containers"},
    };
    const auto found = names.find(module);
    return found == names.end() ? nullptr : found->second;
}

std::string time_text(std::uint64_t nanoseconds) {
    const auto seconds = static_cast<std::time_t>(nanoseconds / 1000000000);
    std::tm utc = {};
    gmtime_r(&seconds, &utc);
    char day[32];
    std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%s.%06uZ", day, static_cast<unsigned>(nanoseconds % 1000000000 / 1000));
    return text;
}

std::string hex(const std::string& data) {
    std::string text;
    for (const char c : data) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x", static_cast<unsigned char>(c));
        text += byte;
    }
    return text;
}

std::string module_text(std::uint32_t module) {
    if (const char* name = module_name(module)) return name;
    char text[16];
    std::snprintf(text, sizeof text, "0x%02x", module);
    return text;
}

std::string line_of(const ZrLogEntry& entry) {
    std::string line = time_text(entry.time) + " " + std::to_string(entry.process) + "/" +
                       std::to_string(entry.thread) + " " + level_name(level_of(entry)) + " " +
                       module_text(module_of(entry)) + " " + printable(entry.source) + ":" + std::to_string(entry.line);
    for (int i = 0; i < entry.argumentCount; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, " 0x%llx", static_cast<unsigned long long>(entry.arguments[i]));
        line += text;
    }
    if (entry.isBuffer) line += " [" + std::to_string(entry.size) + " bytes] " + hex(entry.data);
    return line + "\n";
}

Json object_of(const ZrLogEntry& entry) {
    Json json = {{"time", time_text(entry.time)},
                 {"process", entry.process},
                 {"thread", entry.thread},
                 {"source", entry.source},
                 {"line", entry.line},
                 {"category", entry.category},
                 {"module", module_of(entry)},
                 {"level", level_name(level_of(entry))}};
    if (entry.isBuffer) {
        json.set("size", entry.size);
        json.set("data", hex(entry.data));
        return json;
    }
    Json arguments = Json::array();
    for (int i = 0; i < entry.argumentCount; ++i) {
        arguments.add(entry.arguments[i]);
    }
    json.set("arguments", std::move(arguments));
    return json;
}

// The least severe level to show, or none.
std::optional<std::uint32_t> wanted_level(const std::string& name) {
    for (const LevelName& known : kLevels) {
        if (name == known.name) return known.level;
    }
    return std::nullopt;
}

void tell_gaps(const std::string& file, const ZrLogStatistics& statistics) {
    const std::array<std::pair<std::uint64_t, const char*>, 4> gaps = {{
        {statistics.unfinished, "records were not finished by their writers"},
        {statistics.damaged, "places hold what is not a record as it was written"},
        {statistics.missing, "records are missing at the end of the file"},
        {statistics.lost, "records found no room when they were written"},
    }};
    for (const auto& [count, text] : gaps) {
        if (count > 0) complain(file + ": " + std::to_string(count) + " " + text);
    }
    if (statistics.cuts > 0) complain(file + ": the log was cut short or removed while it was written");
}

Exit show_log(const LogShowOptions& options) {
    InputFile readable(options.file);  // tells a file that cannot be read from one that is no log
    std::string error;
    const auto reader = ZrLogReader::open(options.file, error);
    if (!reader) throw Failure{Exit::NotALog, options.file + ": " + error};
    const auto least = wanted_level(options.level);
    ZrLogEntry entry;
    while (reader->next(entry)) {
        if (least && level_of(entry) > *least) continue;
        if (options.json) {
            print_json_line(object_of(entry));
        } else {
            print(line_of(entry));
        }
    }
    flush_output();
    tell_gaps(options.file, reader->statistics());
    return Exit::Ok;
}

}  // namespace

void add_log_show(Command log) {
    const auto options = std::make_shared<LogShowOptions>();
    Command command = log.add_command("show", "Print the records of a log file");
    command.add_option("FILE", options->file, "The log, as ZR_LOG named it when it was written").required();
    command.add_option("-l,--level", options->level, "Only records that are at least this severe")
        .one_of({"failure", "warning", "information", "trace"});
    command.add_flag("--json", options->json, "Print one JSON object per record and line");
    command.footer(
        "FILE.1, FILE.2 and so on, to which a log that has grown long is renamed, are printed before it. A line\n"
        "is time (UTC), process/thread, level, module, source:line and the arguments. What is damaged or was\n"
        "not finished is counted on standard error.\n"
        "\n"
        "Example:\n"
        "  ZR_LOG=/tmp/zr.log zr resolve jo@example.com; zr log show --level warning /tmp/zr.log");
    command.runs([options] { return show_log(*options); });
}

}  // namespace zr
