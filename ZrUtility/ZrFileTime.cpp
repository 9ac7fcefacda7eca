#include "ZrUtility/ZrFileTime.h"

#include <cstddef>

static_assert(sizeof(ZrFileTime) == sizeof(FILETIME));
static_assert(alignof(ZrFileTime) == alignof(FILETIME));  // NOLINT(misc-redundant-expression)
static_assert(offsetof(ZrFileTime, dwLowDateTime) == offsetof(FILETIME, dwLowDateTime));
static_assert(offsetof(ZrFileTime, dwHighDateTime) == offsetof(FILETIME, dwHighDateTime));

constinit const ZrFileTime ZrFileTime::EPOCH_FILETIME(0x019DB1DE, 0xD53E8000);

ZrFileTime ZrFileTime::GetCurrentTime() {
    SYSTEMTIME now{};
    FILETIME time{};
    GetSystemTime(&now);
    SystemTimeToFileTime(&now, &time);
    return ZrFileTime(time);
}
