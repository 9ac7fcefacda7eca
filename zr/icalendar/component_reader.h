#pragma once

// One component of a calendar, property by property, and what events and tasks read alike.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zr/base/content_line.h"
#include "zr/icalendar/event.h"
#include "zr/icalendar/splitter.h"
#include "zr/icalendar/zones.h"

namespace zr {

// A property that is read when the whole component is known.
struct Property {
    ContentLine content;
    std::string_view text;  // the whole line
    long line = 0;
};

// The reader of one component. Views into it and into the zones: both must outlive it.
class ComponentReader {
public:
    ComponentReader(const RawComponent& raw, CalendarZones& zones, std::vector<Problem>& problems)
        : raw_(raw), zones_(zones), problems_(problems) {}

protected:
    ~ComponentReader() = default;

    // A component inside of this one: the places of its BEGIN and its END among the lines.
    struct Part {
        std::size_t begin = 0;
        std::size_t end = 0;
    };

    // Goes through the component: every property that take() does not take, and every component but alarms, is kept as
    // text in extras().
    void walk();
    // Whether the property is one that the item has a field for.
    virtual bool take(const Property& property) = 0;

    // Takes what events and tasks have alike.
    bool take_text(const Property& property, std::string_view name, std::string& field);
    bool take_categories(const Property& property, std::string& field);
    bool take_class(const Property& property, int& sensitivity);
    bool take_own(const Property& property, int& reminder_options, std::string& reminder_sound);
    // Takes the first property of the name for later.
    bool take_first(const Property& property, std::string_view name, std::optional<Property>& field);

    // The time of a property; none, and a problem, when it has none.
    std::optional<ZonedTime> time_of(const Property& property);
    std::optional<ZonedTime> time_of(const Property& property, const std::string& value);
    // The time behind a DURATION.
    std::optional<ZonedTime> time_after(const ZonedTime& start, const Property& duration);

    // What an alarm says: a time, or a span before (negative) or behind the start or the end.
    struct Trigger {
        bool wanted = false;  // a person is to be reminded
        std::optional<ZonedTime> at;
        std::optional<std::chrono::seconds> span;
        bool from_end = false;
        long line = 0;
    };
    Trigger trigger_of(const Part& alarm);
    const std::vector<Part>& alarms() const { return alarms_; }
    void keep_part(const Part& part);

    void keep(std::string_view line);  // a property
    // What was kept and told so far, and going back to it.
    struct Mark {
        std::size_t kept = 0;
        std::size_t told = 0;
    };
    Mark mark() const { return {kept_properties_.size(), problems_.size()}; }
    void go_back(const Mark& mark);
    std::string extras() const { return kept_properties_ + kept_components_; }

    // Names a property of this component that is not imported, or that a person should know of.
    void lost(const Property& property, const std::string& why) {
        tell(property.line, property.content.name, why, true);
    }
    void warn(const Property& property, const std::string& why) {
        tell(property.line, property.content.name, why, false);
    }
    void tell(long line, std::string_view what, const std::string& why, bool is_lost);
    const std::string& uid() const { return uid_; }
    const RawComponent& raw() const { return raw_; }

private:
    void take_component(std::size_t& at);
    Zone zone_of(const Property& property, const std::string& id);

    const RawComponent& raw_;
    CalendarZones& zones_;
    std::vector<Problem>& problems_;
    std::string uid_;
    bool has_categories_ = false;
    std::vector<std::string> seen_;  // names whose first property was taken
    std::vector<Part> alarms_;
    std::string kept_properties_;
    std::string kept_components_;
};

// A time as UTC, or a day: for lines that are kept.
std::string portable_time(const ZonedTime& time);

}  // namespace zr
