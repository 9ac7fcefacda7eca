// Calendar import: whatever is read is text and times that the store can keep, and what is written of it is read again
// as it was.

#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zr/base/text.h"
#include "zr/icalendar/event_writer.h"
#include "zr/icalendar/reader.h"
#include "zr/icalendar/recurrence.h"

namespace {

void check(bool holds) {
    if (!holds) std::abort();
}

void check_text(const std::string& text) {
    check(zr::is_utf8(text) && text.find('\0') == std::string::npos);
}

void check_fields(const zr::EventFields& fields) {
    for (const std::string* text : {&fields.subject, &fields.location, &fields.body, &fields.categories, &fields.extras,
                                    &fields.reminder_sound}) {
        check_text(*text);
    }
    check(zr::is_storable(fields.start) && zr::is_storable(fields.end) && fields.start <= fields.end);
}

void check_series(const zr::Event& event) {
    using std::chrono::floor;
    const zr::CalendarDay first = floor<std::chrono::days>(event.start);
    check(zr::occurs_on(*event.pattern, first, first));
    zr::CalendarDay before{std::chrono::days(-1000000)};
    for (const zr::Change& change : event.changes) {
        check(change.day > before && zr::occurs_on(*event.pattern, first, change.day));
        before = change.day;
        if (!change.deleted) check_fields(change.fields);
    }
}

void check_written(const zr::Event& event) {
    static const zr::CalendarWriter writer(2026, {});
    // The device's own zone needs no definition.
    std::string text = "BEGIN:VCALENDAR\r\n";
    writer.write(event, text);
    zr::CalendarWriter::end(text);
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CalendarReader reader(lines);
    zr::CalendarReader::Item again;
    check(reader.next(again) && again.kind == zr::CalendarReader::Kind::Event);
    check(again.event.start == event.start && again.event.end == event.end && again.event.all_day == event.all_day);
    check(again.event.pattern == event.pattern);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = (setenv("TZ", "Europe/Berlin", 1), tzset(), true);
    check(ready);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CalendarReader reader(lines);
    zr::CalendarReader::Item item;
    while (reader.next(item)) {
        check(item.kind != zr::CalendarReader::Kind::LeftOut || !item.problems.empty());
        if (item.kind == zr::CalendarReader::Kind::Event) {
            check_text(item.event.uid);
            check_fields(item.event);
            if (item.event.pattern) check_series(item.event);
            if (item.event.extras.find("RECURRENCE-ID") == std::string::npos) check_written(item.event);
        }
        if (item.kind == zr::CalendarReader::Kind::Task) {
            check_text(item.task.subject);
            check_text(item.task.extras);
        }
    }
    return 0;
}
