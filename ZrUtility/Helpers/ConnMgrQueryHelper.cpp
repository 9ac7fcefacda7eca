#include "ZrUtility/Helpers/ConnMgrQueryHelper.h"

#include <cstdio>
#include <cstring>

#include "ZrLog/ZrLog.h"
#include "platform/base.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\ConnMgrQueryHelper.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x94, kZrLogFailure);

constexpr HRESULT INSUFFICIENT_BUFFER = HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
constexpr int MOST_BUFFERS = 10;

using Record = CONNMGR_CONNECTION_DETAILED_STATUS;

bool IsTooSmall(HRESULT result) {
    return result == INSUFFICIENT_BUFFER || result == static_cast<HRESULT>(ERROR_INSUFFICIENT_BUFFER);
}

// All connections, in one block.
class Snapshot {
public:
    Snapshot() = default;
    ~Snapshot() { Free(); }
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    HRESULT Take() {
        DWORD size = 0;
        HRESULT result = ConnMgrQueryDetailedStatus(nullptr, &size);
        // What is needed may grow from one call to the next.
        for (int buffers = 0; IsTooSmall(result) && buffers < MOST_BUFFERS; ++buffers) {
            Free();
            m_first = static_cast<Record*>(LocalAlloc(LPTR, size));
            if (m_first == nullptr) return E_OUTOFMEMORY;
            result = ConnMgrQueryDetailedStatus(m_first, &size);
        }
        return result;
    }
    Record* First() const { return m_first; }

private:
    void Free() {
        if (m_first != nullptr) LocalFree(m_first);
        m_first = nullptr;
    }

    Record* m_first = nullptr;
};

void LogFailure(HRESULT result) {
    char text[16];
    const char* name = text;
    if (result == E_INVALIDARG) {
        name = "E_INVALIDARG";
    } else if (result == E_ACCESSDENIED) {
        name = "E_ACCESSDENIED";
    } else if (IsTooSmall(result)) {
        name = "ERROR_INSUFFICIENT_BUFFER";
    } else {
        std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(result));
    }
    zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_FAILURE);
    zrKelDebugBinBuffer(LOG_SOURCE, __LINE__, LOG_FAILURE | kZrLogBuffer, name, std::strlen(name));
}

}  // namespace

int ConnMgrQueryHelper::QueryDetailedStatus(Visitor visitor, void* context) {
    if (visitor == nullptr) return 0;
    Snapshot connections;
    if (const HRESULT result = connections.Take(); result != S_OK) {
        LogFailure(result);
        return 0;
    }
    int visited = 0;
    for (Record* record = connections.First(); record != nullptr; record = record->pNext) {
        ++visited;
        if (visitor(record, context) != 0) break;
    }
    return visited;
}

void ConnMgrQueryHelper::DebugLogAllConnections() {}

void ConnMgrQueryHelper::DebugLogConnMgrConnection(CONNMGR_CONNECTION_DETAILED_STATUS*) {}

int ConnMgrQueryHelper::DebugLogAllConnectionsCallback(CONNMGR_CONNECTION_DETAILED_STATUS*, void*) {
    return 0;
}
