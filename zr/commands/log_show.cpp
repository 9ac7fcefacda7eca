// zr log show: the records of a binary log, one per line.

#include <ZrLog/ZrLogReader.h>
#include <poll.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <optional>

#include "zr/base/failure.h"
#include "zr/base/input_file.h"
#include "zr/base/interruption.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

struct LogShowOptions {
    std::string file;
    std::string level;
    std::string since;
    bool follow = false;
    bool json = false;
};

// How often a log is looked at for what is new: its writers tell nobody.
constexpr std::chrono::milliseconds kFollowEvery{200};

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

// A source tag is the path of a file of the library and, right behind it, what it was built as.
struct Source {
    std::string path;
    std::string tag;
};

Source source_of(const ZrLogEntry& entry) {
    for (const std::string_view ending : {".cpp", ".h"}) {
        const std::size_t at = entry.source.find(ending);
        if (at == std::string::npos) continue;
        const std::size_t cut = at + ending.size();
        return {entry.source.substr(0, cut), entry.source.substr(cut)};
    }
    return {entry.source, {}};
}

std::string line_of(const ZrLogEntry& entry) {
    const Source source = source_of(entry);
    std::string line = time_text(entry.time) + " " + std::to_string(entry.process) + "/" +
                       std::to_string(entry.thread) + " " + level_name(level_of(entry)) + " " +
                       module_text(module_of(entry)) + " " + printable(source.path) + ":" + std::to_string(entry.line) +
                       (source.tag.empty() ? "" : " " + printable(source.tag));
    for (int i = 0; i < entry.argumentCount; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, " 0x%llx", static_cast<unsigned long long>(entry.arguments[i]));
        line += text;
    }
    if (entry.isBuffer) line += " [" + std::to_string(entry.size) + " bytes] " + hex(entry.data);
    return line + "\n";
}

Json object_of(const ZrLogEntry& entry) {
    const Source source = source_of(entry);
    Json json = {{"time", time_text(entry.time)},
                 {"process", entry.process},
                 {"thread", entry.thread},
                 {"source", entry.source},
                 {"path", source.path},
                 {"tag", source.tag},
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

// Nanoseconds since 1970: of a span before now such as 90s, 10m, 2h or 3d, or of a time in UTC as the lines have it,
// or the beginning of one.
std::uint64_t since_when(const std::string& text) {
    using namespace std::chrono;
    long number = 0;
    char unit = 0;
    char rest = 0;
    if (std::sscanf(text.c_str(), "%9ld%c%c", &number, &unit, &rest) == 2 && number >= 0) {
        const long seconds = unit == 's' ? 1 : unit == 'm' ? 60 : unit == 'h' ? 3600 : unit == 'd' ? 86400 : 0;
        if (seconds > 0) {
            const auto now = duration_cast<nanoseconds>(system_clock::now().time_since_epoch());
            const nanoseconds before = std::chrono::seconds(number * seconds);
            return before > now ? 0 : static_cast<std::uint64_t>((now - before).count());
        }
    }
    int y = 0;
    unsigned mo = 0, d = 0, h = 0, mi = 0;
    double s = 0;
    int end = 0;
    const int day = std::sscanf(text.c_str(), "%4d-%2u-%2u%n", &y, &mo, &d, &end);
    bool good = day == 3;
    if (good && text[static_cast<std::size_t>(end)] != '\0') {
        const char* at = text.c_str() + end;
        int used = 0;
        good = (*at == 'T' || *at == ' ') && std::sscanf(at + 1, "%2u:%2u%n", &h, &mi, &used) == 2;
        at += 1 + used;
        if (good && *at == ':') {
            good = std::sscanf(at + 1, "%lf%n", &s, &used) == 1;
            at += 1 + used;
        }
        if (good && *at == 'Z') ++at;
        good = good && *at == '\0';
    }
    const year_month_day date{year(y), month(mo), std::chrono::day(d)};
    if (!good || !date.ok() || y < 1970 || h > 23 || mi > 59 || !(s >= 0 && s < 61))
        throw Failure{Exit::Usage, "--since: " + text + " is no time such as 2026-01-31T09:00 (UTC) or 10m"};
    const auto whole = sys_days(date).time_since_epoch() + hours(h) + minutes(mi);
    return static_cast<std::uint64_t>(duration_cast<nanoseconds>(whole).count()) + static_cast<std::uint64_t>(s * 1e9);
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

class LogShow {
public:
    explicit LogShow(const LogShowOptions& options)
        : options_(options),
          least_(wanted_level(options.level)),
          since_(options.since.empty() ? 0 : since_when(options.since)) {}

    Exit run() {
        { const InputFile readable(options_.file); }  // tells a file that cannot be read from one that is no log
        std::string error;
        const auto reader = ZrLogReader::open(options_.file, error);
        if (!reader) throw Failure{Exit::NotALog, error};
        if (!options_.follow) page_output();
        print_new(*reader);
        if (options_.follow) follow(*reader);
        tell_gaps(options_.file, reader->statistics());
        return Exit::Ok;
    }

private:
    void print_new(ZrLogReader& reader) const {
        for (ZrLogEntry entry; reader.next(entry);) {
            if ((least_ && level_of(entry) > *least_) || entry.time < since_) continue;
            if (options_.json) {
                print_json_line(object_of(entry));
            } else {
                print(line_of(entry));
            }
        }
        flush_output();
    }

    void follow(ZrLogReader& reader) const {
        const Interruption interruption;
        pollfd asked = {interruption.descriptor(), POLLIN, 0};
        while (::poll(&asked, 1, static_cast<int>(kFollowEvery.count())) <= 0 && !interruption.asked()) {
            print_new(reader);
        }
        print_new(reader);
    }

    const LogShowOptions& options_;
    const std::optional<std::uint32_t> least_;
    const std::uint64_t since_;
};

}  // namespace

void add_log_show(Command log) {
    const auto options = std::make_shared<LogShowOptions>();
    Command command = log.add_command("show", "Print the records of a log file");
    command.add_option("FILE", options->file, "The log, as ZR_LOG named it when it was written").required();
    command.add_option("-l,--level", options->level, "Only records that are at least this severe")
        .one_of({"failure", "warning", "information", "trace"});
    command.add_option("--since", options->since,
                       "Only records from this time on: UTC such as 2026-01-31T09:00, or 90s, 10m, 2h or 3d ago");
    command.add_flag("-f,--follow", options->follow, "Stay, and print what is written from now on");
    command.add_flag("--json", options->json, "Print one JSON object per record and line");
    command.footer(
        "FILE.1, FILE.2 and so on, to which a log that has grown long is renamed, are printed before it. A line\n"
        "is time (UTC), process/thread, level, module, path:line, the source's tag and the arguments. What is\n"
        "damaged or was not finished is counted on standard error. --follow goes on in the new file when a log\n"
        "is rotated, and ends with SIGINT or SIGTERM.\n"
        "\n"
        "Examples:\n"
        "  zr log show --follow --since 10m /tmp/zr.log\n"
        "  ZR_LOG=/tmp/zr.log zr resolve jo@example.com; zr log show --level warning /tmp/zr.log");
    command.runs([options] { return LogShow(*options).run(); });
}

}  // namespace zr
