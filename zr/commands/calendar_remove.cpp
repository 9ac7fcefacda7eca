// zr calendar remove: appointments and tasks by identifier.

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

struct CalendarRemoveOptions {
    std::vector<std::string> items;
    bool json = false;
};

Exit remove(const CalendarRemoveOptions& options) {
    CalendarStore store;
    Exit code = Exit::Ok;
    Json removed = Json::array();
    for (const std::string& wanted : options.items) {
        bool any = false;
        for (const LONG oid : find_items(store, wanted)) {
            const ComPtr<IAppointment> appointment = store.appointment(oid);
            const ComPtr<ITask> task = appointment ? ComPtr<ITask>() : store.task(oid);
            if (!appointment && !task) continue;
            any = true;
            check(appointment ? appointment->Delete() : task->Delete(), "removing an item");
            removed.add(oid);
        }
        if (any) continue;
        complain("no appointment or task " + printable(wanted));
        code = Exit::None;
    }
    if (options.json) print_json_line({{"removed", removed}});
    return code;
}

}  // namespace

void add_calendar_remove(Command calendar) {
    const auto options = std::make_shared<CalendarRemoveOptions>();
    Command command = calendar.add_command("remove", "Remove appointments and tasks");
    command.add_option("ITEM", options->items, "Numbers or lasting identifiers, as list prints them").required();
    command.add_flag("--json", options->json, "Print the removed identifiers as JSON");
    command.footer(
        "A series goes with all of its occurrences, and so do appointments of one identifier. The exit code is 1 when "
        "an item does not exist.\n"
        "\n"
        "Example:\n"
        "  zr calendar remove 150994945");
    command.runs([options] { return remove(*options); });
}

}  // namespace zr
