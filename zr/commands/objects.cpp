// zr objects: the named events, mutexes and file mappings of the user's programs.

#include <platform/base.h>
#include <platform/errors.h>
#include <platform/memory.h>
#include <platform/objects.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

struct Object {
    std::string name;
    ZrNamedObject facts;  // without its pointers, which do not last
    std::vector<DWORD> processes;
};

// Keeps what the visitor is shown, as it is gone afterwards. No exception passes through the enumeration.
struct Collector {
    std::vector<Object> objects;
    bool out_of_memory = false;

    static BOOL visit(const ZrNamedObject* object, LPVOID context) {
        auto& self = *static_cast<Collector*>(context);
        try {
            self.objects.push_back({to_utf8({object->Name, object->NameLength}),
                                    *object,
                                    {object->Processes, object->Processes + object->ProcessCount}});
            return TRUE;
        } catch (const std::bad_alloc&) {
            self.out_of_memory = true;
            return FALSE;
        }
    }
};

std::vector<Object> all_objects() {
    Collector collector;
    if (!ZrEnumNamedObjects(Collector::visit, &collector)) {
        if (GetLastError() == ERROR_NOT_ENOUGH_MEMORY) throw std::bad_alloc();
        throw Failure{Exit::Unreadable,
                      "the folder of the named objects cannot be read: error " + std::to_string(GetLastError())};
    }
    if (collector.out_of_memory) throw std::bad_alloc();
    return std::move(collector.objects);
}

const char* kind_name(ZrNamedObjectKind kind) {
    switch (kind) {
        case ZrNamedObjectKind::Event:
            return "event";
        case ZrNamedObjectKind::Mutex:
            return "mutex";
        case ZrNamedObjectKind::FileMapping:
            return "mapping";
        case ZrNamedObjectKind::Semaphore:
            return "semaphore";
        case ZrNamedObjectKind::Timer:
            return "timer";
    }
    return "other";
}

std::string protection_name(DWORD protection) {
    switch (protection & 0xFF) {
        case PAGE_READONLY:
            return "read";
        case PAGE_READWRITE:
            return "read-write";
        case PAGE_WRITECOPY:
            return "copy-on-write";
        case PAGE_EXECUTE_READ:
            return "read-execute";
        case PAGE_EXECUTE_READWRITE:
            return "read-write-execute";
        case PAGE_EXECUTE_WRITECOPY:
            return "copy-on-write-execute";
        default:
            return std::to_string(protection);
    }
}

std::string state_of(const ZrNamedObject& facts) {
    switch (facts.Kind) {
        case ZrNamedObjectKind::Event:
        case ZrNamedObjectKind::Timer:
            return std::string(facts.Signalled ? "set" : "not set") + (facts.ManualReset ? ", manual" : ", auto");
        case ZrNamedObjectKind::Mutex:
            if (facts.OwnerProcess != 0) return "owned";
            return facts.Abandoned ? "abandoned" : "free";
        case ZrNamedObjectKind::FileMapping:
            return protection_name(facts.Protection);
        case ZrNamedObjectKind::Semaphore:
            return std::to_string(facts.Count) + " of " + std::to_string(facts.MaximumCount);
    }
    return "";
}

std::string joined(const std::vector<DWORD>& processes) {
    std::string text;
    for (const DWORD process : processes) {
        text += (text.empty() ? "" : ",") + std::to_string(process);
    }
    return text;
}

constexpr std::size_t kColumns = 6;
using Row = std::array<std::string, kColumns>;

Row row_of(const Object& object) {
    const ZrNamedObject& facts = object.facts;
    const bool is_mapping = facts.Kind == ZrNamedObjectKind::FileMapping;
    const bool is_owned = facts.OwnerProcess != 0;
    return {kind_name(facts.Kind),
            state_of(facts),
            is_mapping ? std::to_string(facts.Size) : "-",
            is_owned ? std::to_string(facts.OwnerProcess) + "/" + std::to_string(facts.OwnerThread) : "-",
            joined(object.processes),
            printable(object.name)};
}

void print_table(const std::vector<Object>& objects) {
    page_output();
    std::vector<Row> rows = {{"KIND", "STATE", "SIZE", "OWNER", "OPEN IN", "NAME"}};
    for (const Object& object : objects) {
        rows.push_back(row_of(object));
    }
    std::array<std::size_t, kColumns> widths{};
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < kColumns; ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i + 1 < kColumns; ++i) {
            line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        }
        print(line + row.back() + "\n");
    }
}

Json object_json(const Object& object) {
    const ZrNamedObject& facts = object.facts;
    Json json = {{"name", object.name}, {"kind", kind_name(facts.Kind)}};
    switch (facts.Kind) {
        case ZrNamedObjectKind::Event:
        case ZrNamedObjectKind::Timer:
            json.set("manual_reset", facts.ManualReset != FALSE);
            json.set("set", facts.Signalled != FALSE);
            break;
        case ZrNamedObjectKind::Mutex:
            json.set("owner", nullptr);
            if (facts.OwnerProcess != 0) {
                json.set("owner", {{"process", facts.OwnerProcess}, {"thread", facts.OwnerThread}});
            }
            json.set("abandoned", facts.Abandoned != FALSE);
            break;
        case ZrNamedObjectKind::FileMapping:
            json.set("size", facts.Size);
            json.set("protection", protection_name(facts.Protection));
            break;
        case ZrNamedObjectKind::Semaphore:
            json.set("count", facts.Count);
            json.set("maximum", facts.MaximumCount);
            break;
    }
    Json processes = Json::array();
    for (const DWORD process : object.processes) {
        processes.add(process);
    }
    json.set("processes", std::move(processes));
    return json;
}

Exit show_objects(bool as_json) {
    const std::vector<Object> objects = all_objects();
    if (as_json) {
        JsonArray array;
        for (const Object& object : objects) {
            array.add(object_json(object));
        }
        array.finish();
    } else if (!objects.empty()) {
        print_table(objects);
    }
    return objects.empty() ? Exit::None : Exit::Ok;
}

}  // namespace

void add_objects(Command zr) {
    const auto json = std::make_shared<bool>(false);
    Command command = zr.add_command("objects", "List the named events, mutexes and file mappings");
    command.add_flag("--json", *json, "Print JSON");
    command.footer(
        "A line is the kind, the state, a mapping's size in bytes, the process and thread that own a mutex,\n"
        "the processes that have the object open, and the name. Objects of programs that were killed are\n"
        "cleared away. The exit code is 1 when there are no objects.\n"
        "\n"
        "Examples:\n"
        "  zr objects\n"
        "  zr objects --json | jq -r '.[] | select(.kind == \"mutex\" and .owner) | .name'");
    command.runs([json] { return show_objects(*json); });
}

}  // namespace zr
