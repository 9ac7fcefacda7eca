// zr watch: what changes, as it changes.

#include "zr/commands/watch.h"

#include <vector>

#include "zr/base/event_loop.h"
#include "zr/base/failure.h"
#include "zr/base/output.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

struct WatchOptions {
    std::vector<std::string> folders;
    std::string extension;
    Option extension_option{nullptr};
    bool clock = false;
    bool json = false;
};

Exit watch(const WatchOptions& options) {
    if (!options.clock && options.folders.empty())
        throw Failure{Exit::Usage, "nothing to watch (zr watch --help tells more)"};
    EventLoop loop;
    std::vector<std::unique_ptr<Watched>> all;
    const std::string* const extension = options.extension_option.given() ? &options.extension : nullptr;
    if (!options.folders.empty()) all.push_back(watch_folders(options.folders, extension, options.json));
    if (options.clock) all.push_back(watch_clock(options.json));
    std::vector<Watched*> by_event;
    std::vector<HANDLE> events;
    for (const auto& each : all) {
        for (const HANDLE event : each->events()) {
            by_event.push_back(each.get());
            events.push_back(event);
        }
    }
    flush_output();
    while (const auto place = loop.wait(events)) {
        if (*place < by_event.size()) by_event[*place]->report(events[*place]);
        flush_output();
    }
    return Exit::Ok;
}

}  // namespace

void add_watch(Command zr) {
    const auto options = std::make_shared<WatchOptions>();
    Command command = zr.add_command("watch", "Print what changes, as it changes, until interrupted");
    command.add_option("DIR", options->folders, "Folders whose files and folders are watched, ten at most");
    options->extension_option =
        command.add_option("--ext", options->extension, "Only names with this extension; '' for those without");
    command.add_flag("--clock", options->clock, "Watch the device's clock and time zone");
    command.add_flag("--json", options->json, "Print one JSON object per change and line");
    command.footer(
        "A line follows for each file or folder that is created, changed, deleted or renamed in a DIR, not\n"
        "below it. What happens closely together to one file is told once; a DIR that is deleted, renamed,\n"
        "unmounted or made unreadable is told of on standard error, and not watched any more. With --clock the first "
        "line\n"
        "tells the time and the zone as they are, and one follows whenever the clock is set, with how far\n"
        "it was moved, and whenever the system's zone changes. Ends with SIGINT, SIGTERM or SIGHUP.\n"
        "\n"
        "Examples:\n"
        "  zr watch ~/Documents --ext txt\n"
        "  zr watch --clock --json | jq -r 'select(.change == \"zone\") | .zone'");
    command.runs([options] { return watch(*options); });
}

}  // namespace zr
