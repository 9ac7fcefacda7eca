// zr watch: what changes, as it changes.

#include "watch.h"

#include <vector>

#include "command.h"
#include "event_loop.h"
#include "failure.h"
#include "output.h"

namespace zr {
namespace {

struct Options {
    bool clock = false;
    bool json = false;
};

Exit watch(const Options& options) {
    if (!options.clock) throw Failure{Exit::Usage, "nothing to watch (zr watch --help tells more)"};
    EventLoop loop;
    std::vector<std::unique_ptr<Watched>> all;
    all.push_back(watch_clock(options.json));
    std::vector<Watched*> by_event;
    std::vector<HANDLE> events;
    for (const auto& each : all) {
        if (each->event() == nullptr) continue;
        by_event.push_back(each.get());
        events.push_back(each->event());
    }
    flush_output();
    while (const auto place = loop.wait(events)) {
        if (*place < by_event.size()) by_event[*place]->report();
        flush_output();
    }
    return Exit::Ok;
}

}  // namespace

void add_watch(Command zr) {
    const auto options = std::make_shared<Options>();
    Command command = zr.add_command("watch", "Print what changes, as it changes, until interrupted");
    command.add_flag("--clock", options->clock, "Watch the device's clock and time zone");
    command.add_flag("--json", options->json, "Print one JSON object per change and line");
    command.footer(
        "The first line tells the time and the zone as they are. A line follows whenever the clock is set,\n"
        "with how far it was moved, and whenever the system's zone changes, until SIGINT, SIGTERM or SIGHUP.\n"
        "\n"
        "Examples:\n"
        "  zr watch --clock\n"
        "  zr watch --clock --json | jq -r 'select(.change == \"zone\") | .zone'");
    command.runs([options] { return watch(*options); });
}

}  // namespace zr
