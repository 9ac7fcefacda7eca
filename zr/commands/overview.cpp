// zr alone: what is kept, at a glance.

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

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

std::string contacts_now() {
    Store store;
    return counted(store.count(), "contact");
}

// The first one from today on that is not over yet.
std::string next_appointment(CalendarStore& store) {
    constexpr std::chrono::days kFarthest{366};
    const Moment now = local_now();
    store.restrict_to(today(), today() + kFarthest);
    const int count = store.appointments();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IAppointment> item = store.appointment_at(i);
        if (!item) continue;
        const EventFields fields = read_fields(item.get());
        if (has_left(item.get()) || fields.end <= now || is_cancelled(fields)) continue;
        return shown_time(fields.start, fields.all_day) + " " + printable(fields.subject);
    }
    return {};
}

std::string calendar_now() {
    CalendarStore store;
    long open = 0;
    const int tasks = store.tasks();
    for (int i = 1; i <= tasks; ++i) {
        const ComPtr<ITask> task = store.task_at(i);
        if (task && !read_task(task.get()).complete) ++open;
    }
    std::string text = counted(store.appointments(), "appointment") + ", " + counted(open, "open task");
    const std::string next = next_appointment(store);
    return next.empty() ? text : text + "; next " + next;
}

std::string mail_now() {
    MailSession mail;
    long messages = 0;
    long unread = 0;
    for (const MailFolder& folder : mail.folders()) {
        messages += static_cast<long>(folder.messages);
        unread += static_cast<long>(folder.unread);
    }
    return counted(messages, "message") + ", " + std::to_string(unread) + " not read";
}

std::string registry_now() {
    long keys = 0;
    for (const RegRoot root : kRegRoots) {
        keys += static_cast<long>(RegKey::existing({root, u""}).sub_keys().size());
    }
    tell_what_was_set_aside();
    if (was_set_aside()) throw Failure{Exit::DamagedStore, "the registry was damaged"};
    return counted(keys, "key") + " below the roots";
}

struct Part {
    const char* name;
    const char* file;  // of the store
    std::string (*now)();
};

constexpr Part kParts[] = {{"Contacts", "pim.db", contacts_now},
                           {"Calendar", "pim.db", calendar_now},
                           {"Mail", "mail.db", mail_now},
                           {"Registry", "registry.db", registry_now}};

const char* state_of(Exit code) {
    return code == Exit::DamagedStore ? "damaged" : code == Exit::NewerStore ? "of a newer version" : "not readable";
}

}  // namespace

Exit show_overview() {
    const WritableCopy copy;
    Exit code = Exit::Ok;
    for (const Part& part : kParts) {
        std::string text = "empty";
        try {
            // To look makes no store.
            if (::access((folder_of_stores() + "/" + part.file).c_str(), F_OK) == 0) text = part.now();
        } catch (const Failure& failure) {
            complain(failure.text);
            code = combine(code, failure.code);
            text = state_of(failure.code);
        }
        constexpr std::size_t kLabel = 10;
        std::string label = part.name;
        const std::string blanks(kLabel - std::min(kLabel, label.size()), ' ');
        std::string line = strong(label);
        line += blanks;
        line += text;
        line += '\n';
        print(line);
    }
    print("\nzr --help lists the commands.\n");
    return code;
}

}  // namespace zr
