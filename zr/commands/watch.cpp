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
    FolderWatchOptions files;
    std::string extension;
    Option extension_option{nullptr};
    bool clock = false;
};

Exit watch(WatchOptions& options) {
    FolderWatchOptions& files = options.files;
    if (!options.clock && files.folders.empty())
        throw Failure{Exit::Usage, "nothing to watch (zr watch --help tells more)"};
    if (files.folders.empty() && (files.below || !files.only.empty() || !files.exec.empty()))
        throw Failure{Exit::Usage, "--recursive, --only and --exec are for folders"};
    if (options.extension_option.given()) files.extension = &options.extension;
    EventLoop loop;
    std::vector<std::unique_ptr<Watched>> all;
    if (!files.folders.empty()) all.push_back(watch_folders(files));
    if (options.clock) all.push_back(watch_clock(files.json));
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
    FolderWatchOptions& files = options->files;
    command.add_option("DIR", files.folders, "Folders whose files and folders are watched, ten at most");
    command.add_flag("-r,--recursive", files.below, "Watch all folders below them, too, new ones as well");
    options->extension_option =
        command.add_option("--ext", options->extension, "Only names with this extension; '' for those without");
    command
        .add_option("--only", files.only,
                    "Only names that match this pattern, such as '*.jp*g', or with a / in it, paths; may be given\n"
                    "several times")
        .one_at_a_time();
    command.add_rest("--exec", files.exec,
                     "Run this program for each change, with all that follows as its arguments; {} is the path");
    command.add_flag("--clock", options->clock, "Watch the device's clock and time zone");
    command.add_flag("--json", files.json, "Print one JSON object per change and line");
    command.footer(
        "A line follows for each file or folder that is created, changed, deleted or renamed in a DIR, or with\n"
        "--recursive below it. What happens closely together to one file is told once; a DIR that is deleted,\n"
        "renamed, unmounted or made unreadable is told of on standard error, and not watched any more.\n"
        "--exec comes last. Its program is started without a shell and waited for; ZR_CHANGE (created,\n"
        "changed, deleted, renamed), ZR_PATH and for a rename ZR_NEW_PATH, which {} is then, are in its\n"
        "environment. With --clock the first line tells the time and the zone as they are, and one follows\n"
        "whenever the clock is set, with how far it was moved, and whenever the system's zone changes. Ends\n"
        "with SIGINT, SIGTERM or SIGHUP.\n"
        "\n"
        "Examples:\n"
        "  zr watch ~/Documents --ext txt\n"
        "  zr watch -r ~/src --only '*.c' --only '*.h' --exec make\n"
        "  zr watch --clock --json | jq -r 'select(.change == \"zone\") | .zone'");
    command.runs([options] { return watch(*options); });
}

}  // namespace zr
