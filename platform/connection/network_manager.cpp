#include "network_manager.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "base/forks.h"
#include "base/utf.h"
#include "bus/system_bus.h"
#include "iphelper/network_watch.h"
#include "platform/connection.h"

namespace zr::platform {
namespace {

using Clock = std::chrono::steady_clock;

#define ZR_MANAGER "org.freedesktop.NetworkManager"
constexpr const char* kManager = ZR_MANAGER;
constexpr const char* kActive = ZR_MANAGER ".Connection.Active";
constexpr const char* kDevice = ZR_MANAGER ".Device";
constexpr const char* kWireless = ZR_MANAGER ".Device.Wireless";
constexpr const char* kAccessPoint = ZR_MANAGER ".AccessPoint";
constexpr const char* kSettings = ZR_MANAGER ".Settings.Connection";
#define ZR_CHANGED                                                                                             \
    "type='signal',interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',sender='" ZR_MANAGER \
    "',arg0='"
// Not what an access point says of its strength, every few seconds.
constexpr const char* kSignals[] = {
    ZR_CHANGED ZR_MANAGER "'",
    ZR_CHANGED ZR_MANAGER ".Connection.Active'",
    ZR_CHANGED ZR_MANAGER ".Device'",
    ZR_CHANGED ZR_MANAGER ".IP4Config'",
    ZR_CHANGED ZR_MANAGER ".IP6Config'",
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" ZR_MANAGER "'",
};
#undef ZR_CHANGED
#undef ZR_MANAGER

constexpr std::int64_t kActivated = 2;
constexpr std::size_t kMostConnections = 1000;
constexpr std::chrono::seconds kQuiet{30};
constexpr std::chrono::seconds kSignalAge{5};

int milliseconds_until(Clock::time_point end) {
    return std::max(0, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count()));
}

// Reads it all, within one time for everything.
class ManagerReader {
public:
    explicit ManagerReader(Clock::time_point end) : end_(end) {}

    // Answered also where there is no manager; otherwise why not.
    BusResult read(ManagedConnections& all);

private:
    // NULL: no such object, or nobody answers any more.
    const BusValue* properties(std::string_view path, const char* interface);
    void read_connection(std::string_view path, ManagedConnections& all);
    void read_device(std::string_view path, ManagedConnection& connection);
    void read_signal(std::string_view path, ManagedConnection& connection);
    void read_settings(std::string_view path, ManagedConnection& connection);
    void read_addresses(std::string_view path, const char* interface, ManagedConnection& connection);
    bool ask(BusAnswer answer);
    bool can_ask(std::string_view path) const { return answers_ && path.starts_with('/') && path != "/"; }
    int left() const { return milliseconds_until(end_); }

    const Clock::time_point end_;
    std::string manager_;  // its address
    BusAnswer answer_;
    bool answers_ = true;
};

bool ManagerReader::ask(BusAnswer answer) {
    answer_ = std::move(answer);
    if (answer_.result == BusResult::NoMemory) throw std::bad_alloc();
    answers_ = answer_.result == BusResult::Answered || answer_.result == BusResult::Refused;
    return answer_.result == BusResult::Answered;
}

const BusValue* ManagerReader::properties(std::string_view path, const char* interface) {
    if (!can_ask(path)) return nullptr;
    return ask(read_bus_properties(manager_, std::string(path), interface, left())) ? answer_.first() : nullptr;
}

BusResult ManagerReader::read(ManagedConnections& all) {
    // The owner is asked for, as a call by name would start one that is not there.
    if (!ask(find_bus_owner(kManager, left()))) return answers_ ? BusResult::Answered : answer_.result;
    manager_ = text_of(answer_.first());
    const BusValue* const manager = properties("/org/freedesktop/NetworkManager", kManager);
    const std::vector<BusValue> paths = items_of(manager ? manager->find("ActiveConnections") : nullptr);
    for (const BusValue& path : paths) {
        if (all.size() == kMostConnections) break;
        read_connection(text_of(&path), all);
    }
    return answers_ ? BusResult::Answered : answer_.result;
}

void ManagerReader::read_connection(std::string_view path, ManagedConnections& all) {
    const BusValue* const found = properties(path, kActive);
    if (!found || integer_of(found->find("State")) != kActivated) return;
    ManagedConnection connection;
    connection.name = host_to_wide(text_of(found->find("Id")));
    connection.type = text_of(found->find("Type"));
    connection.vpn = integer_of(found->find("Vpn")) != 0 || connection.type == "vpn" || connection.type == "wireguard";
    const bool own = connection.type != "vpn" && integer_of(found->find("Vpn")) == 0;
    const std::vector<BusValue> devices = items_of(found->find("Devices"));
    const std::string four(text_of(found->find("Ip4Config")));
    const std::string six(text_of(found->find("Ip6Config")));
    const std::string settings(text_of(found->find("Connection")));
    for (const BusValue& device : devices) {
        if (own) read_device(text_of(&device), connection);
    }
    if (!own) {
        read_addresses(four, "org.freedesktop.NetworkManager.IP4Config", connection);
        read_addresses(six, "org.freedesktop.NetworkManager.IP6Config", connection);
    }
    read_settings(settings, connection);
    all.push_back(std::move(connection));
}

// When it was last seen to be connected stands in what is kept of the connection.
void ManagerReader::read_settings(std::string_view path, ManagedConnection& connection) {
    if (!can_ask(path)) return;
    if (!ask(call_bus({manager_, std::string(path), kSettings, "GetSettings", {}}, left()))) return;
    const BusValue* const group = answer_.first() ? answer_.first()->find("connection") : nullptr;
    connection.last_connect = integer_of(group ? group->find("timestamp") : nullptr);
}

void ManagerReader::read_signal(std::string_view path, ManagedConnection& connection) {
    const BusValue* const wireless = properties(path, kWireless);
    const std::string point(text_of(wireless ? wireless->find("ActiveAccessPoint") : nullptr));
    const BusValue* const found = properties(point, kAccessPoint);
    const BusValue* const strength = found ? found->find("Strength") : nullptr;
    if (strength && strength->type == 'y') connection.signal = static_cast<unsigned>(strength->integer);
}

void ManagerReader::read_device(std::string_view path, ManagedConnection& connection) {
    const BusValue* const device = properties(path, kDevice);
    if (!device) return;
    // The one that has the addresses, where it is another one: of a modem, say.
    for (const char* const name : {"IpInterface", "Interface"}) {
        const std::string_view interface = text_of(device->find(name));
        if (!interface.empty()) connection.interfaces.emplace_back(interface);
    }
    const std::int64_t metered = integer_of(device->find("Metered"));  // 1 yes, 2 no, 3 and 4 the same as a guess
    if (metered == 1 || metered == 3) connection.metered = Metered::Yes;
    if (metered == 2 || metered == 4) connection.metered = Metered::No;
    if (connection.type == "802-11-wireless") read_signal(path, connection);
}

void ManagerReader::read_addresses(std::string_view path, const char* interface, ManagedConnection& connection) {
    const BusValue* const config = properties(path, interface);
    if (!config) return;
    for (const BusValue& each : items_of(config->find("AddressData"))) {
        const std::string text(text_of(each.find("address")));
        NetAddress address;
        address.family = text.find(':') == std::string::npos ? AF_INET : AF_INET6;
        if (inet_pton(address.family, text.c_str(), address.bytes) == 1) connection.addresses.push_back(address);
    }
}

// Keeps what was read until it is said to have changed.
class Manager final : public BusListener {
public:
    std::shared_ptr<const ManagedConnections> connections();

    void signal(const BusSignal&) noexcept override { note(); }
    void lost() noexcept override {
        listening_ = false;
        note();
    }
    bool is_needed() noexcept override { return network_is_watched(); }

    void lock() noexcept { mutex_.lock(); }
    void unlock() noexcept { mutex_.unlock(); }
    void begin_child() noexcept {
        listening_ = false;
        told_.fetch_add(1);
        unlock();
    }

private:
    void note() noexcept {
        told_.fetch_add(1);
        tell_network_watches();
    }
    bool listen(int milliseconds) noexcept;
    bool is_old(Clock::time_point now) const;

    std::atomic<std::uint64_t> told_{1};
    std::atomic<bool> listening_{false};
    std::mutex mutex_;
    std::shared_ptr<const ManagedConnections> known_;
    std::uint64_t known_at_ = 0;  // told_, before it was read
    Clock::time_point read_at_;
    std::uint64_t quiet_at_ = 0;
    Clock::time_point quiet_until_;
};

// Never destroyed: the bus's thread may run as long as the process.
alignas(Manager) unsigned char manager_storage[sizeof(Manager)];
Manager& the_manager = *new (manager_storage) Manager;

const AtFork connection_at_fork{ForkRank::Connection,
                                {[]() noexcept { the_manager.lock(); }, []() noexcept { the_manager.unlock(); },
                                 []() noexcept { the_manager.begin_child(); }}};

bool Manager::listen(int milliseconds) noexcept {
    if (listening_.exchange(true)) return true;
    const bool good = listen_to_bus(*this, kSignals, milliseconds) == BusResult::Answered;
    if (!good) listening_ = false;
    return good;
}

// Nobody says when the strength of a signal changes.
bool Manager::is_old(Clock::time_point now) const {
    return known_ && now >= read_at_ + kSignalAge &&
           std::ranges::any_of(*known_, [](const ManagedConnection& each) { return each.signal.has_value(); });
}

std::shared_ptr<const ManagedConnections> Manager::connections() {
    if (!may_have_system_bus()) return nullptr;
    const std::uint64_t told = told_.load();
    const Clock::time_point now = Clock::now();
    {
        const std::lock_guard guard(mutex_);
        const bool quiet = quiet_at_ == told && now < quiet_until_;
        if (known_at_ == told && (quiet || !is_old(now))) return known_;
        if (quiet) return nullptr;
    }
    // First listened, then read: nothing falls in between. Nothing is locked meanwhile, so that two who come at once
    // may read twice.
    const Clock::time_point end = now + std::chrono::milliseconds(kBusPatience);
    const bool listens = listen(milliseconds_until(end));
    auto read = std::make_shared<ManagedConnections>();
    const BusResult result = ManagerReader(end).read(*read);
    const std::lock_guard guard(mutex_);
    if (result == BusResult::Answered) {
        if (listens) known_at_ = told;
        read_at_ = now;
        known_ = std::move(read);
        return known_;
    }
    if (result != BusResult::TimedOut) return nullptr;
    quiet_at_ = told;
    quiet_until_ = Clock::now() + kQuiet;
    return known_at_ == told ? known_ : nullptr;
}

}  // namespace

std::shared_ptr<const ManagedConnections> managed_connections() {
    return the_manager.connections();
}

const ManagedConnection* find_managed(const ManagedConnections* all, const NetworkConnection& connection) noexcept {
    if (!all) return nullptr;
    const auto has_address = [&](const NetAddress& wanted) {
        return std::ranges::any_of(connection.addresses, [&](const NetAddress& each) {
            return each.family == wanted.family && std::ranges::equal(each.bytes, wanted.bytes);
        });
    };
    // A VPN's interface may have a connection of its own, which only says that somebody made it.
    const ManagedConnection* found = nullptr;
    for (const ManagedConnection& each : *all) {
        if (std::ranges::any_of(each.addresses, has_address)) return &each;
        if (!found && std::ranges::count(each.interfaces, std::string_view(connection.interface.name)) != 0)
            found = &each;
    }
    return found;
}

std::optional<ConnectionKind> managed_kind(const ManagedConnection& connection) noexcept {
    constexpr std::pair<std::string_view, ConnectionKind> kinds[] = {
        {"802-3-ethernet", {CM_CONNTYPE_NIC, CM_CONNSUBTYPE_NIC_ETHERNET}},
        {"802-11-wireless", {CM_CONNTYPE_NIC, CM_CONNSUBTYPE_NIC_WIFI}},
        {"gsm", {CM_CONNTYPE_CELLULAR, CM_CONNSUBTYPE_UNKNOWN}},
        {"cdma", {CM_CONNTYPE_CELLULAR, CM_CONNSUBTYPE_UNKNOWN}},
        {"bluetooth", {CM_CONNTYPE_BLUETOOTH, CM_CONNSUBTYPE_BLUETOOTH_PAN}},
        {"pppoe", {CM_CONNTYPE_UNIMODEM, CM_CONNSUBTYPE_UNKNOWN}},
        {"adsl", {CM_CONNTYPE_UNIMODEM, CM_CONNSUBTYPE_UNKNOWN}},
    };
    if (connection.vpn) return ConnectionKind{CM_CONNTYPE_VPN, CM_CONNSUBTYPE_UNKNOWN};
    for (const auto& [type, kind] : kinds) {
        if (type == connection.type) return kind;
    }
    return std::nullopt;
}

}  // namespace zr::platform
