#include "platform/objects.h"

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "kernel/thread.h"
#include "named/session.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace zr::platform::named {
namespace {

struct Record {
    std::u16string name;
    ZrNamedObject object{};
    std::vector<DWORD> processes;
};

Record record_of(const Region& region, const Object& object) {
    Record record;
    record.name.resize(object.name_length);
    copy_name(region, object, record.name.data());
    for (std::uint32_t place = 0; place < kProcesses; ++place) {
        if (object.open.has(place)) record.processes.push_back(region.process(place).id.load());
    }
    std::sort(record.processes.begin(), record.processes.end());
    const std::uint64_t word = object.word.load(std::memory_order_acquire);
    ZrNamedObject& out = record.object;
    switch (object.kind) {
        case Kind::Event:
            out.Kind = ZrNamedObjectKind::Event;
            out.ManualReset = object.manual_reset != 0 ? TRUE : FALSE;
            out.Signalled = (word & kSignalled) != 0 ? TRUE : FALSE;
            break;
        case Kind::Mutex:
            out.Kind = ZrNamedObjectKind::Mutex;
            out.Signalled = (word & kOwner) == 0 ? TRUE : FALSE;
            out.Abandoned = (word & kAbandoned) != 0 ? TRUE : FALSE;
            if ((word & kOwner) == 0) break;
            out.OwnerProcess = region.process(owner_place(word)).id.load();
            out.OwnerThread = owner_tid(word);
            break;
        case Kind::FileMapping:
            out.Kind = ZrNamedObjectKind::FileMapping;
            out.Size = object.size;
            out.Protection = object.protection;
            break;
        case Kind::Semaphore:
            out.Kind = ZrNamedObjectKind::Semaphore;
            out.Count = static_cast<LONG>(word & kCount);
            out.MaximumCount = static_cast<LONG>(object.size);
            out.Signalled = out.Count != 0 ? TRUE : FALSE;
            break;
        case Kind::Timer:
            out.Kind = ZrNamedObjectKind::Timer;
            out.ManualReset = object.manual_reset != 0 ? TRUE : FALSE;
            out.Signalled = (word & kSignalled) != 0 ? TRUE : FALSE;
            break;
    }
    return record;
}

// All objects at one instant. An error code.
DWORD collect(std::vector<Record>& records) {
    Region region;
    RegionFile file;
    DWORD error = ERROR_SUCCESS;
    if (!file.open(region, false, error)) return error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error;
    try {
        const Hold hold(region);
        clear_dead(region);
        for (std::uint32_t i = 0; i < region.count<Object>(); ++i) {
            const Object& object = region.at<Object>(i);
            if (object.state.load(std::memory_order_relaxed) == Object::Named) {
                records.push_back(record_of(region, object));
            }
        }
    } catch (const std::bad_alloc&) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    region.detach();
    return error;
}

DWORD enumerate(ZrNamedObjectVisitor visitor, LPVOID context) {
    std::vector<Record> records;
    if (const DWORD error = collect(records)) return error;
    std::sort(records.begin(), records.end(), [](const Record& a, const Record& b) { return a.name < b.name; });
    for (Record& record : records) {
        record.object.Name = record.name.c_str();
        record.object.NameLength = static_cast<DWORD>(record.name.size());
        record.object.Processes = record.processes.data();
        record.object.ProcessCount = static_cast<DWORD>(record.processes.size());
        if (visitor(&record.object, context) == FALSE) break;
    }
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace zr::platform::named

BOOL ZrEnumNamedObjects(ZrNamedObjectVisitor visitor, LPVOID context) {
    zr::platform::cancellation_point();
    DWORD error = ERROR_INVALID_PARAMETER;
    if (visitor) error = zr::platform::named::enumerate(visitor, context);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}
