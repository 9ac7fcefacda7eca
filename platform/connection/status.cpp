// The chain of records.

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/utf.h"
#include "bus/system_bus.h"
#include "connection_kind.h"
#include "iphelper/network_watch.h"
#include "kernel/thread.h"
#include "network_manager.h"
#include "network_rules.h"
#include "network_state.h"
#include "platform/base.h"
#include "platform/connection.h"
#include "platform/kernel.h"
#include "platform/time.h"

namespace zr::platform {
namespace {

using Record = CONNMGR_CONNECTION_DETAILED_STATUS;

// A connection with all that is said of it.
struct Described {
    NetworkConnection connection;
    ConnectionKind kind;
    Judgement judgement;
    std::u16string adapter;
    std::u16string name;  // NetworkManager's
    Metered metered = Metered::Unknown;
    std::int64_t last_connect = 0;
    std::optional<unsigned> signal;
};

DWORD describe_all(std::vector<Described>& all) {
    std::vector<NetworkConnection> connections;
    if (const DWORD error = read_network_state(connections)) return error;
    if (connections.empty()) return ERROR_SUCCESS;
    const NetworkRules rules;
    const auto managed = managed_connections();
    for (NetworkConnection& each : connections) {
        Described& made = all.emplace_back();
        made.kind = connection_kind(each.interface);
        made.adapter = host_to_wide(each.interface.name);
        if (const ManagedConnection* const known = find_managed(managed.get(), each)) {
            made.kind = managed_kind(*known).value_or(made.kind);
            made.name = known->name;
            made.metered = known->metered;
            made.last_connect = known->last_connect;
            made.signal = known->signal;
        }
        made.judgement = rules.judge(each, made.kind, made.name);
        made.connection = std::move(each);
    }
    return ERROR_SUCCESS;
}

HRESULT failure(DWORD error) {
    return error == ERROR_NOT_ENOUGH_MEMORY ? E_OUTOFMEMORY : HRESULT_FROM_WIN32(error);
}

constexpr std::size_t aligned(std::size_t size) {
    return (size + 7) & ~std::size_t{7};
}

// Where in the buffer things come to lie; without one, only how much they take.
class Room {
public:
    explicit Room(void* buffer) : start_(static_cast<unsigned char*>(buffer)) {}

    template <class T>
    T* take(std::size_t size) {
        T* const place = start_ ? reinterpret_cast<T*>(start_ + used_) : nullptr;
        used_ += aligned(size);
        return place;
    }
    LPWSTR take_text(const std::u16string& text) {
        const std::size_t size = (text.size() + 1) * sizeof(WCHAR);
        auto* const place = take<WCHAR>(size);
        if (place) std::memcpy(place, text.c_str(), size);
        return place;
    }
    std::size_t used() const { return used_; }

private:
    unsigned char* const start_;
    std::size_t used_ = 0;
};

void write_address(const NetAddress& address, SOCKADDR_STORAGE& to) {
    std::memset(&to, 0, sizeof to);
    to.ss_family = address.family;
    // Behind the family: IPv4 has its port in front of the address; IPv6 has the flow, too, and the interface behind.
    const std::size_t size = address.family == AF_INET ? 4 : 16;
    std::memcpy(to.ss_data + (address.family == AF_INET ? 2 : 6), address.bytes, size);
    const bool scoped = address.family == AF_INET6 && address.bytes[0] == 0xFE && (address.bytes[1] & 0xC0) == 0x80;
    if (scoped) std::memcpy(to.ss_data + 22, &address.interface, sizeof address.interface);
}

CONNMGR_CONNECTION_IPADDR* write_addresses(const std::vector<NetAddress>& addresses, Room& room) {
    if (addresses.empty()) return nullptr;
    const std::size_t size = offsetof(CONNMGR_CONNECTION_IPADDR, IPAddr) + addresses.size() * sizeof(SOCKADDR_STORAGE);
    auto* const list = room.take<CONNMGR_CONNECTION_IPADDR>(size);
    if (!list) return nullptr;
    list->cIPAddr = static_cast<DWORD>(addresses.size());
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        write_address(addresses[i], list->IPAddr[i]);
    }
    return list;
}

void write_time(std::int64_t second, Record& record) {
    constexpr std::int64_t from_1601_to_1970 = 11'644'473'600;
    constexpr std::int64_t last = 253'402'300'799;  // of the year 9999
    if (second <= 0 || second > last) return;
    const auto units = static_cast<std::uint64_t>(second + from_1601_to_1970) * 10'000'000;
    const FILETIME time{static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
    if (FileTimeToSystemTime(&time, &record.LastConnectTime))
        record.dwParams |= CONNMGRDETAILEDSTATUS_PARAM_LASTCONNECT;
}

void write_signal(std::optional<unsigned> percent, Record& record) {
    if (!percent) return;
    record.dwSignalQuality = std::min(*percent, 100u) * 255 / 100;
    record.dwParams |= CONNMGRDETAILEDSTATUS_PARAM_SIGNALQUALITY;
}

// NULL when the room only counts.
Record* write_record(const Described& described, Room& room) {
    auto* const record = room.take<Record>(sizeof(Record));
    const LPWSTR description = room.take_text(described.name.empty() ? described.adapter : described.name);
    const LPWSTR adapter = room.take_text(described.adapter);
    CONNMGR_CONNECTION_IPADDR* const addresses = write_addresses(described.connection.addresses, room);
    if (!record) return nullptr;
    std::memset(static_cast<void*>(record), 0, sizeof *record);
    record->dwVer = CONNMGRDETAILEDSTATUS_VERSION;
    record->dwParams = CONNMGRDETAILEDSTATUS_PARAM_TYPE | CONNMGRDETAILEDSTATUS_PARAM_SUBTYPE |
                       CONNMGRDETAILEDSTATUS_PARAM_SECURE | CONNMGRDETAILEDSTATUS_PARAM_DESCRIPTION |
                       CONNMGRDETAILEDSTATUS_PARAM_ADAPTERNAME | CONNMGRDETAILEDSTATUS_PARAM_CONNSTATUS;
    record->dwType = described.kind.type;
    record->dwSubtype = described.kind.subtype;
    record->dwSecure = described.kind.type == CM_CONNTYPE_VPN;
    if (described.judgement.reason != ZrConnectionReason::None) record->dwParams |= CONNMGRDETAILEDSTATUS_PARAM_DESTNET;
    record->guidDestNet = described.judgement.network;
    if (described.metered != Metered::Unknown) record->dwParams |= CONNMGRDETAILEDSTATUS_PARAM_FLAGS;
    if (described.metered == Metered::Yes) record->dwFlags = CM_DSF_BILLBYTIME;
    record->szDescription = description;
    record->szAdapterName = adapter;
    record->dwConnectionStatus =
        is_connected(described.connection) ? CONNMGR_STATUS_CONNECTED : CONNMGR_STATUS_DISCONNECTED;
    write_time(described.last_connect, *record);
    write_signal(described.signal, *record);
    record->pIPAddr = addresses;
    if (addresses) record->dwParams |= CONNMGRDETAILEDSTATUS_PARAM_IPADDR;
    return record;
}

std::size_t write_chain(const std::vector<Described>& all, void* buffer) {
    Room room(buffer);
    Record* last = nullptr;
    for (const Described& each : all) {
        Record* const record = write_record(each, room);
        if (last) last->pNext = record;
        last = record;
    }
    return room.used();
}

HRESULT query(Record* buffer, DWORD& size) {
    std::vector<Described> all;
    if (const DWORD error = describe_all(all)) return failure(error);
    // Counted first: who is in want of room is told how much.
    const std::size_t needed = write_chain(all, nullptr);
    if (needed > 0xFFFFFFFF) return E_OUTOFMEMORY;
    const bool fits = buffer != nullptr && size >= needed;
    size = static_cast<DWORD>(needed);
    if (needed == 0) return S_OK;
    if (!fits) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    write_chain(all, buffer);
    return S_OK;
}

HRESULT visit_all(ZrConnectionVisitor visit, LPVOID context) {
    std::vector<Described> all;
    if (const DWORD error = describe_all(all)) return failure(error);
    std::vector<unsigned char> bytes;
    for (const Described& each : all) {
        Room count(nullptr);
        write_record(each, count);
        bytes.resize(count.used());
        Room room(bytes.data());
        const Record* const record = write_record(each, room);
        const ZrConnection shown{record,
                                 each.judgement.name.c_str(),
                                 each.judgement.reason,
                                 each.judgement.rule.c_str(),
                                 each.name.c_str(),
                                 each.metered == Metered::Yes};
        if (visit(&shown, context) != 0) break;
    }
    return S_OK;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HRESULT ConnMgrQueryDetailedStatus(CONNMGR_CONNECTION_DETAILED_STATUS* buffer, DWORD* size) try {
    cancellation_point();
    return size != nullptr ? query(buffer, *size) : E_INVALIDARG;
} catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
}

HRESULT ZrVisitConnections(ZrConnectionVisitor visit, LPVOID context) try {
    cancellation_point();
    return visit != nullptr ? visit_all(visit, context) : E_INVALIDARG;
} catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
}

DWORD ZrNotifyConnectionChange(HANDLE* handle) try {
    cancellation_point();
    if (handle == nullptr) return ERROR_INVALID_PARAMETER;
    const DWORD error = watch_network(NetworkChanges::All, *handle);
    // From here on NetworkManager says what it changes.
    if (error == ERROR_SUCCESS) managed_connections();
    return error;
} catch (const std::bad_alloc&) {
    CloseHandle(std::exchange(*handle, nullptr));
    return ERROR_NOT_ENOUGH_MEMORY;
}

void ZrPrepareConnections() {
    cancellation_point();
    prepare_system_bus();
}
