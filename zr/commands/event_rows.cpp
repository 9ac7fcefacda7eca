#include "zr/commands/event_rows.h"

#include <algorithm>
#include <string>

#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

void print_text(std::string_view label, std::string_view value) {
    if (!value.empty()) print_row(label, value);
}

}  // namespace

void print_row(std::string_view label, std::string_view value) {
    std::string row(label);
    row += ": ";
    row.resize(std::max<std::size_t>(row.size(), 24), ' ');
    print(row + printable(value) + "\n");
}

void print_kept(std::string_view label, std::string_view lines) {
    constexpr std::size_t kMost = 200;
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        // A photo or an attachment is kept, but nobody reads it here.
        std::string line(lines.substr(0, std::min(end, kMost)));
        if (end > kMost) line += "... (" + std::to_string(end) + " bytes)";
        print_row(label, line);
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
}

void print_fields(const EventFields& fields) {
    print_text("Subject", fields.subject);
    const auto time = [&](Moment moment) {
        return shown_time(fields.all_day ? moment : as_it_becomes(moment), fields.all_day);
    };
    print_text("Start", time(fields.start));
    print_text("End", time(shown_end(fields)));
    if (is_cancelled(fields)) print_row("Cancelled", "yes");
    if (fields.all_day) print_row("All day", "yes");
    print_text("Location", fields.location);
    print_row("Shown as", busy_text(fields));
    if (fields.sensitivity != 0) print_row("Sensitivity", sensitivity_text(fields.sensitivity));
    if (fields.reminder) print_row("Reminder", std::to_string(fields.reminder_minutes) + " minutes before");
    print_text("Categories", fields.categories);
    print_text("Body", fields.body);
}

}  // namespace zr
