// zr alone: what is kept, at a glance.

#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/terminal.h"
#include "zr/base/text.h"
#include "zr/base/writable_copy.h"
#include "zr/commands/calendar_day.h"
#include "zr/commands/command.h"
#include "zr/stores/calendar.h"
#include "zr/stores/contacts.h"
#include "zr/stores/mail.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

std::string counted(long count, const char* one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

// What a store holds, in words and as JSON.
struct Facts {
    std::string text;
    Json json;
};

Facts contacts_now() {
    Store store;
    const int count = store.count();
    return {counted(count, "contact"), {{"contacts", count}}};
}

// The first one from today on that is not over yet.
std::optional<EventFields> next_appointment(CalendarStore& store) {
    constexpr std::chrono::days kFarthest{366};
    const Moment now = local_now();
    store.restrict_to(today(), today() + kFarthest);
    const int count = store.appointments();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IAppointment> item = store.appointment_at(i);
        if (!item) continue;
        const EventFields fields = read_fields(item.get());
        if (has_left(item.get()) || fields.end <= now || is_cancelled(fields)) continue;
        return fields;
    }
    return {};
}

Facts calendar_now() {
    CalendarStore store;
    long open = 0;
    const int tasks = store.tasks();
    for (int i = 1; i <= tasks; ++i) {
        const ComPtr<ITask> task = store.task_at(i);
        if (task && !read_task(task.get()).complete) ++open;
    }
    const int appointments = store.appointments();
    Facts facts = {counted(appointments, "appointment") + ", " + counted(open, "open task"),
                   {{"appointments", appointments}, {"openTasks", open}}};
    if (const auto next = next_appointment(store)) {
        facts.text += "; next " + shown_time(next->start, next->all_day) + " " + printable(next->subject);
        facts.json.set("next", fields_json(*next));
    }
    return facts;
}

Facts mail_now() {
    MailSession mail;
    long messages = 0;
    long unread = 0;
    for (const MailFolder& folder : mail.folders()) {
        messages += static_cast<long>(folder.messages);
        unread += static_cast<long>(folder.unread);
    }
    return {counted(messages, "message") + ", " + std::to_string(unread) + " not read",
            {{"messages", messages}, {"unread", unread}}};
}

Facts registry_now() {
    long keys = 0;
    for (const RegRoot root : kRegRoots) {
        keys += static_cast<long>(RegKey::existing({root, u""}).sub_keys().size());
    }
    tell_what_was_set_aside();
    if (was_set_aside()) throw Failure{Exit::DamagedStore, "the registry was damaged"};
    return {counted(keys, "key") + " below the roots", {{"keys", keys}}};
}

struct Part {
    const char* name;
    const char* key;   // in JSON
    const char* file;  // of the store
    Facts (*now)();
};

constexpr Part kParts[] = {{"Contacts", "contacts", "pim.db", contacts_now},
                           {"Calendar", "calendar", "pim.db", calendar_now},
                           {"Mail", "mail", "mail.db", mail_now},
                           {"Registry", "registry", "registry.db", registry_now}};

const char* state_of(Exit code) {
    return code == Exit::DamagedStore ? "damaged" : code == Exit::NewerStore ? "of a newer version" : "not readable";
}

Facts facts_of(const Part& part, Exit& code) {
    try {
        // To look makes no store.
        if (::access((folder_of_stores() + "/" + part.file).c_str(), F_OK) != 0) return {"empty", {{"state", "empty"}}};
        Facts facts = part.now();
        facts.json.set("state", "readable");
        return facts;
    } catch (const Failure& failure) {
        complain(failure.text);
        code = combine(code, failure.code);
        return {state_of(failure.code), {{"state", state_of(failure.code)}}};
    }
}

}  // namespace

Exit show_overview(bool as_json) {
    const WritableCopy copy;
    Exit code = Exit::Ok;
    Json json;
    for (const Part& part : kParts) {
        Facts facts = facts_of(part, code);
        if (as_json) {
            json.set(part.key, std::move(facts.json));
            continue;
        }
        constexpr std::size_t kLabel = 10;
        const std::string label = part.name;
        const std::string blanks(kLabel - std::min(kLabel, label.size()), ' ');
        std::string line = strong(label);
        line += blanks;
        line += facts.text;
        line += '\n';
        print(line);
    }
    if (as_json) {
        print_json_line(json);
    } else {
        print("\nzr --help lists the commands.\n");
    }
    return code;
}

}  // namespace zr
