// zr calendar remove: appointments and tasks by identifier.

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/commands/command.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

struct CalendarRemoveOptions {
    std::vector<LONG> oids;
    bool json = false;
};

Exit remove(const CalendarRemoveOptions& options) {
    CalendarStore store;
    Exit code = Exit::Ok;
    Json removed = Json::array();
    for (const LONG oid : options.oids) {
        const ComPtr<IAppointment> appointment = store.appointment(oid);
        const ComPtr<ITask> task = appointment ? ComPtr<ITask>() : store.task(oid);
        if (!appointment && !task) {
            complain("no appointment or task " + std::to_string(oid));
            code = Exit::None;
            continue;
        }
        check(appointment ? appointment->Delete() : task->Delete(), "removing an item");
        removed.add(oid);
    }
    if (options.json) print_json_line({{"removed", removed}});
    return code;
}

}  // namespace

void add_calendar_remove(Command calendar) {
    const auto options = std::make_shared<CalendarRemoveOptions>();
    Command command = calendar.add_command("remove", "Remove appointments and tasks");
    command.add_option("OID", options->oids, "Identifiers, as list prints them").required();
    command.add_flag("--json", options->json, "Print the removed identifiers as JSON");
    command.footer(
        "A series goes with all of its occurrences. The exit code is 1 when an item does not exist.\n"
        "\n"
        "Example:\n"
        "  zr calendar remove 150994945");
    command.runs([options] { return remove(*options); });
}

}  // namespace zr
