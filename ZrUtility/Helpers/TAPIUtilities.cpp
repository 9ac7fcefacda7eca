#include "ZrUtility/Helpers/TAPIUtilities.h"

#include <algorithm>
#include <cstring>

#include "ZrLog/ZrLog.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\TAPIUtilities.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x68, kZrLogFailure);
constexpr std::uint32_t LOG_WARNING = zrLogCategory(0x68, kZrLogWarning);

constexpr DWORD VERSION = 0x00020000;

constexpr DWORD FIRST_CAPS_SIZE = 292;
constexpr DWORD FIRST_LIST_SIZE = sizeof(TAPIUtilities::LINECALLLISTEX);
constexpr DWORD FIRST_STATUS_SIZE = 4;  // so that the first answer is what it needs
static_assert(FIRST_LIST_SIZE == 28);
// The needed size is told behind the total one, however small that is.
constexpr DWORD SMALLEST_BLOCK = 3 * sizeof(DWORD);

std::uintptr_t Logged(LONG result) {
    return static_cast<ULONG>(result);
}

void LogResult(int line, LONG result) {
    zrKelDebugBinLog1(LOG_SOURCE, line, LOG_FAILURE, Logged(result));
}

void IgnoreMessage(DWORD, DWORD, DWORD_PTR, DWORD_PTR, DWORD_PTR, DWORD_PTR) {}

// Calls with a block that grows to what is needed.
template <class Structure, class Call>
LONG CallGrowing(Structure*& block, DWORD size, const Call& call) {
    block = static_cast<Structure*>(LocalAlloc(LPTR, std::max(size, SMALLEST_BLOCK)));
    if (block == nullptr) return LINEERR_NOMEM;
    block->dwTotalSize = size;
    LONG result = call(block);
    while (result == LINEERR_STRUCTURETOOSMALL && block->dwNeededSize > block->dwTotalSize) {
        const DWORD needed = block->dwNeededSize;
        // It stays in its place where it can; one that had to move is not at the old place any more.
        void* const grown = LocalReAlloc(block, std::max(needed, SMALLEST_BLOCK), LMEM_MOVEABLE);
        if (grown == nullptr) return LINEERR_NOMEM;
        block = static_cast<Structure*>(grown);
        block->dwTotalSize = needed;
        result = call(block);
    }
    return result;
}

template <class Structure, class Call>
bool GetStructure(int line, Structure** structure, DWORD size, int* error, const Call& call) {
    if (structure == nullptr) {
        zrKelDebugBinLog0(LOG_SOURCE, line, LOG_WARNING);
        return false;
    }
    Structure* block = nullptr;
    const LONG result = CallGrowing(block, size, call);
    if (error != nullptr) *error = result;
    if (result == 0) {
        *structure = block;
        return true;
    }
    LogResult(line, result);
    LocalFree(block);
    return false;
}

struct LineWalk {
    void* context;
    TAPIUtilities::LineVisitor visitor;
};

bool OpenAndShow(const HLINEAPP session, ULONG device, ULONG version, linedevcaps_tag* const caps, void* context) {
    const LineWalk& walk = *static_cast<const LineWalk*>(context);
    HLINE line = 0;
    const LONG result = lineOpen(session, 0, &line, version, 0, device, LINECALLPRIVILEGE_MONITOR, 0, nullptr);
    if (result == 0) return walk.visitor(line, caps, walk.context);
    zrKelDebugBinLog3(LOG_SOURCE, __LINE__, LOG_FAILURE, device, version, Logged(result));
    return true;
}

// False ends the walk.
bool ShowDevice(HLINEAPP session, DWORD device, void* context, TAPIUtilities::DeviceVisitor visitor) {
    DWORD version = 0;
    LINEEXTENSIONID extension{};
    const LONG result = lineNegotiateAPIVersion(session, device, VERSION, VERSION, &version, &extension);
    if (result != 0) {
        zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, device, Logged(result));
        return true;
    }
    linedevcaps_tag* caps = nullptr;
    if (!TAPIUtilities::GetDevCaps(session, device, version, &caps, nullptr)) return false;
    const bool more = visitor(session, device, version, caps, context);
    TAPIUtilities::Free(&caps);
    return more;
}

}  // namespace

bool TAPIUtilities::Free(void** block) {
    if (block == nullptr) return false;
    LocalFree(*block);
    *block = nullptr;
    return true;
}

bool TAPIUtilities::Free(LINECALLLISTEX** list) {
    return Free(reinterpret_cast<void**>(list));
}

bool TAPIUtilities::Free(linecallstatus_tag** status) {
    return Free(reinterpret_cast<void**>(status));
}

bool TAPIUtilities::Free(linedevcaps_tag** caps) {
    return Free(reinterpret_cast<void**>(caps));
}

bool TAPIUtilities::GetDevCaps(const HLINEAPP session, ULONG device, ULONG version, linedevcaps_tag** caps,
                               int* error) {
    return GetStructure(__LINE__, caps, FIRST_CAPS_SIZE, error,
                        [&](linedevcaps_tag* block) { return lineGetDevCaps(session, device, version, 0, block); });
}

bool TAPIUtilities::GetNewCalls(const HLINE line, ULONG address, ULONG select, LINECALLLISTEX** list, int* error) {
    return GetStructure(__LINE__, list, FIRST_LIST_SIZE, error,
                        [&](LINECALLLISTEX* block) { return lineGetNewCalls(line, address, select, block); });
}

bool TAPIUtilities::GetCallStatus(const HCALL call, linecallstatus_tag** status, int* error) {
    return GetStructure(__LINE__, status, FIRST_STATUS_SIZE, error,
                        [&](linecallstatus_tag* block) { return lineGetCallStatus(call, block); });
}

bool TAPIUtilities::EnumDevices(void* context, DeviceVisitor visitor, LINECALLBACK callback) {
    HLINEAPP session = 0;
    DWORD count = 0;
    LINECALLBACK const told = callback != nullptr ? callback : IgnoreMessage;
    if (const LONG result = lineInitialize(&session, GetModuleHandleW(nullptr), told, nullptr, &count); result != 0) {
        LogResult(__LINE__, result);
        return false;
    }
    bool more = true;
    for (DWORD device = 0; device < count && more; ++device) {
        more = ShowDevice(session, device, context, visitor);
    }
    if (const LONG result = lineShutdown(session); result != 0) LogResult(__LINE__, result);
    return more;
}

bool TAPIUtilities::EnumLines(void* context, LineVisitor visitor, LINECALLBACK callback) {
    LineWalk walk{context, visitor};
    return EnumDevices(&walk, OpenAndShow, callback);
}

bool TAPIUtilities::EnumNewCalls(const HLINE line, void* context, CallVisitor visitor) {
    LINECALLLISTEX* list = nullptr;
    int error = 0;
    if (!GetNewCalls(line, 0, LINECALLSELECT_LINE, &list, &error)) {
        LogResult(__LINE__, error);
        return false;
    }
    bool more = true;
    const DWORD count = list->dwCallsNumEntries;
    for (DWORD i = 0; i < count && more; ++i) {
        HCALL call = 0;
        const auto* const calls = reinterpret_cast<const unsigned char*>(list) + sizeof(LINECALLLIST);
        std::memcpy(&call, calls + i * sizeof call, sizeof call);
        linecallstatus_tag* status = nullptr;
        more = GetCallStatus(call, &status, nullptr) && visitor(call, status, context);
        Free(&status);
    }
    Free(&list);
    return more;
}
