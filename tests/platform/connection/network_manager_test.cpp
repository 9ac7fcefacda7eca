// What NetworkManager says of the connections, beside what the kernel says of them.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/connection.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "support/forked.h"
#include "support/network_space.h"
#include "support/private_bus.h"

namespace {

using namespace zr::platform;
using zr::test::MockService;
using zr::test::NetworkSpace;
using zr::test::PrivateBus;
using Clock = std::chrono::steady_clock;

#define ZR_NAME "org.freedesktop.NetworkManager"
constexpr const char* kManagerName = ZR_NAME;
constexpr const char* kActiveName = ZR_NAME ".Connection.Active";
constexpr const char* kDeviceName = ZR_NAME ".Device";
constexpr const char* kConfigName = ZR_NAME ".IP4Config";
constexpr const char* kWirelessName = ZR_NAME ".Device.Wireless";
constexpr const char* kPointName = ZR_NAME ".AccessPoint";
constexpr const char* kSettingsName = ZR_NAME ".Settings.Connection";
#undef ZR_NAME
constexpr const char* kRoot = "/org/freedesktop/NetworkManager";
constexpr DWORD kManagerLimit = 30'000;

std::string at(const std::string& what) {
    return std::string(kRoot) + "/" + what;
}
BusValue path_of(const std::string& what) {
    return bus_text(at(what), 'o');
}

// What is said of one connection.
struct Said {
    std::u16string name;
    std::u16string description;
    std::u16string network;
    std::u16string rule;
    DWORD params = 0;
    DWORD type = 0;
    DWORD subtype = 0;
    DWORD flags = 0;
    DWORD secure = 0;
    bool metered = false;
    SYSTEMTIME last_connect{};
    DWORD signal = 0;
};

std::optional<Said> ask(const std::u16string& adapter) {
    struct Search {
        const std::u16string& adapter;
        std::optional<Said> found;
    } search{adapter, {}};
    const auto visit = [](const ZrConnection* each, LPVOID context) {
        Search& wanted = *static_cast<Search*>(context);
        const CONNMGR_CONNECTION_DETAILED_STATUS& status = *each->Status;
        if (status.szAdapterName != wanted.adapter) return 0;
        wanted.found = Said{each->Name,      status.szDescription,   each->Network,          each->Rule,
                            status.dwParams, status.dwType,          status.dwSubtype,       status.dwFlags,
                            status.dwSecure, each->Metered != FALSE, status.LastConnectTime, status.dwSignalQuality};
        return 1;
    };
    EXPECT_EQ(ZrVisitConnections(visit, &search), S_OK);
    return search.found;
}

// Asks until it is so. On a busy computer a manager may once take longer than it may, and is then left in peace for a
// while.
bool becomes(const std::u16string& adapter, const std::u16string& name) {
    const auto end = Clock::now() + std::chrono::seconds(100);
    while (Clock::now() < end) {
        if (const auto said = ask(adapter); said && said->name == name) return true;
    }
    return false;
}

class NetworkManagerStatus : public testing::Test {
protected:
    void SetUp() override {
        ZR_NEEDS_NETWORK(network_);
        ZR_NEEDS_BUS(bus_);
        add_interface("one", "192.168.7.2/24");
        start_manager();
    }
    void TearDown() override { RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr"); }

    static void add_interface(const std::string& name, const std::string& address) {
        ASSERT_TRUE(NetworkSpace::add_device(name));
        ASSERT_TRUE(NetworkSpace::run("addr add " + address + " dev " + name));
    }
    void start_manager() {
        manager_.emplace(kManagerName, kRoot, kManagerName);
        ASSERT_EQ(manager_->why(), "");
        active_.clear();
        ASSERT_EQ(manager_
                      ->call(MockService::kMock, "AddProperties",
                             {bus_text(kManagerName),
                              bus_array("{sv}", {bus_entry("ActiveConnections", bus_array("o", {}))})})
                      .result,
                  BusResult::Answered);
    }

    void add_device(const std::string& interface, std::int64_t metered) {
        ASSERT_TRUE(manager_->add_object(
            at("Devices/" + interface), kDeviceName,
            {bus_entry("Interface", bus_text(interface)), bus_entry("IpInterface", bus_text(interface)),
             bus_entry("Metered", bus_integer(metered, 'u'))}));
    }
    using Properties = MockService::Properties;
    static Properties connection(const std::string& name, const std::string& type, const std::string& device,
                                 bool vpn = false) {
        return {bus_entry("Id", bus_text(name)),
                bus_entry("Type", bus_text(type)),
                bus_entry("State", bus_integer(2, 'u')),
                bus_entry("Vpn", bus_integer(vpn, 'b')),
                bus_entry("Ip4Config", path_of("IP4Config/1")),
                bus_entry("Devices", bus_array("o", {path_of("Devices/" + device)}))};
    }
    void add_connection(const std::string& object, Properties properties) {
        ASSERT_TRUE(manager_->add_object(at("ActiveConnection/" + object), kActiveName, std::move(properties)));
        active_.push_back(path_of("ActiveConnection/" + object));
        ASSERT_TRUE(set_active(bus_array("o", active_)));
    }
    bool set_active(BusValue connections) {
        return manager_->set("", kManagerName, {bus_entry("ActiveConnections", std::move(connections))});
    }
    // One interface, with a connection.
    void add_usual() {
        add_device("one", 1);
        add_connection("1", connection("Caf\xC3\xA9", "802-11-wireless", "one"));
    }

    NetworkSpace network_;
    PrivateBus bus_;
    std::optional<MockService> manager_;
    std::vector<BusValue> active_;
};

void set_rule(LPCWSTR name, const std::u16string& text) {
    HKEY opened = nullptr;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr\\Rules\\10", 0, nullptr, 0, 0, nullptr, &opened, nullptr);
    RegSetValueExW(opened, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>((text.size() + 1) * sizeof(WCHAR)));
    RegCloseKey(opened);
}

}  // namespace

TEST_F(NetworkManagerStatus, SaysNameKindAndWhetherItIsMetered) {
    add_usual();
    ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    const auto said = ask(u"one");
    ASSERT_TRUE(said);
    EXPECT_EQ(said->name, u"Caf\u00E9");
    EXPECT_EQ(said->description, u"Caf\u00E9");
    EXPECT_EQ(said->type, CM_CONNTYPE_NIC);
    EXPECT_EQ(said->subtype, CM_CONNSUBTYPE_NIC_WIFI);
    EXPECT_TRUE(said->metered);
    EXPECT_NE(said->params & CONNMGRDETAILEDSTATUS_PARAM_FLAGS, 0u);
    EXPECT_EQ(said->flags, CM_DSF_BILLBYTIME);
    const auto other = ask(u"one-peer");
    ASSERT_TRUE(other);
    EXPECT_EQ(other->name, u"");
    EXPECT_EQ(other->description, u"one-peer");
    EXPECT_EQ(other->params & CONNMGRDETAILEDSTATUS_PARAM_FLAGS, 0u);
}

TEST_F(NetworkManagerStatus, TakesAGuessForAWord) {
    add_interface("two", "192.168.8.2/24");
    add_device("one", 3);
    add_device("two", 4);
    add_connection("1", connection("first", "802-3-ethernet", "one"));
    add_connection("2", connection("second", "gsm", "two"));
    ASSERT_TRUE(becomes(u"two", u"second"));
    EXPECT_TRUE(ask(u"one")->metered);
    const auto two = ask(u"two");
    EXPECT_FALSE(two->metered);
    EXPECT_NE(two->params & CONNMGRDETAILEDSTATUS_PARAM_FLAGS, 0u);
    EXPECT_EQ(two->flags, 0u);
    EXPECT_EQ(two->type, CM_CONNTYPE_CELLULAR);
}

TEST_F(NetworkManagerStatus, SaysWhenItWasEstablishedAndHowStrongItIs) {
    add_device("one", 1);
    ASSERT_TRUE(manager_->add_properties(at("Devices/one"), kWirelessName,
                                         {bus_entry("ActiveAccessPoint", path_of("AccessPoint/9"))}));
    ASSERT_TRUE(manager_->add_object(at("AccessPoint/9"), kPointName, {bus_entry("Strength", bus_integer(60, 'y'))}));
    ASSERT_TRUE(manager_->add_object(at("Settings/3"), kSettingsName, {}));
    ASSERT_TRUE(manager_->add_method(kSettingsName, "GetSettings", "", "a{sa{sv}}",
                                     "ret = {'connection': {'timestamp': dbus.UInt64(1700000000)}}", at("Settings/3")));
    Properties known = connection("Home", "802-11-wireless", "one");
    known.push_back(bus_entry("Connection", path_of("Settings/3")));
    add_connection("1", known);
    ASSERT_TRUE(becomes(u"one", u"Home"));
    const auto said = ask(u"one");
    ASSERT_TRUE(said);
    constexpr DWORD both = CONNMGRDETAILEDSTATUS_PARAM_LASTCONNECT | CONNMGRDETAILEDSTATUS_PARAM_SIGNALQUALITY;
    EXPECT_EQ(said->params & both, both);
    EXPECT_EQ(said->signal, 153u);
    const SYSTEMTIME& time = said->last_connect;  // 14 November 2023, 22:13:20 UTC, a Tuesday
    EXPECT_EQ(
        (std::vector{time.wYear, time.wMonth, time.wDay, time.wDayOfWeek, time.wHour, time.wMinute, time.wSecond}),
        (std::vector<WORD>{2023, 11, 14, 2, 22, 13, 20}));
    EXPECT_EQ(ask(u"one-peer")->params & both, 0u);
    // The strength is asked for again, though nobody says that it changed.
    ASSERT_TRUE(manager_->set(at("AccessPoint/9"), kPointName, {bus_entry("Strength", bus_integer(100, 'y'))}));
    const HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const auto end = Clock::now() + std::chrono::seconds(100);
    while (ask(u"one").value_or(Said{}).signal != 255 && Clock::now() < end) {
        WaitForSingleObject(never, 100);
    }
    CloseHandle(never);
    EXPECT_EQ(ask(u"one")->signal, 255u);
}

TEST_F(NetworkManagerStatus, LeavesOutATimeAndASignalThatCannotBe) {
    add_device("one", 1);
    ASSERT_TRUE(manager_->add_properties(at("Devices/one"), kWirelessName,
                                         {bus_entry("ActiveAccessPoint", path_of("AccessPoint/9"))}));
    ASSERT_TRUE(manager_->add_object(at("AccessPoint/9"), kPointName, {bus_entry("Strength", bus_text("very"))}));
    ASSERT_TRUE(manager_->add_object(at("Settings/3"), kSettingsName, {}));
    ASSERT_TRUE(manager_->add_method(kSettingsName, "GetSettings", "", "a{sa{sv}}",
                                     "ret = {'connection': {'timestamp': dbus.UInt64(2**64 - 1)}}", at("Settings/3")));
    Properties known = connection("Home", "802-11-wireless", "one");
    known.push_back(bus_entry("Connection", path_of("Settings/3")));
    add_connection("1", known);
    ASSERT_TRUE(becomes(u"one", u"Home"));
    EXPECT_EQ(
        ask(u"one")->params & (CONNMGRDETAILEDSTATUS_PARAM_LASTCONNECT | CONNMGRDETAILEDSTATUS_PARAM_SIGNALQUALITY),
        0u);
}

TEST_F(NetworkManagerStatus, KnowsAVpnByItsAddresses) {
    // The device of a VPN is the one that it goes through.
    add_usual();
    add_interface("secret", "10.66.0.2/32");
    ASSERT_TRUE(manager_->add_object(
        at("IP4Config/1"), kConfigName,
        {bus_entry("AddressData",
                   bus_array("a{sv}", {bus_array("{sv}", {bus_entry("address", bus_text("10.66.0.2")),
                                                          bus_entry("prefix", bus_integer(32, 'u'))})}))}));
    add_connection("2", connection("Office", "vpn", "one", true));
    ASSERT_TRUE(becomes(u"secret", u"Office"));
    const auto vpn = ask(u"secret");
    ASSERT_TRUE(vpn);
    EXPECT_EQ(vpn->name, u"Office");
    EXPECT_EQ(vpn->type, CM_CONNTYPE_VPN);
    EXPECT_NE(vpn->secure, 0u);
    EXPECT_EQ(vpn->network, u"Work");
    EXPECT_EQ(ask(u"one")->name, u"Caf\u00E9");
    EXPECT_EQ(ask(u"one")->secure, 0u);
}

TEST_F(NetworkManagerStatus, FitsRulesByTheConnectionsName) {
    add_usual();
    ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    set_rule(u"Connection", u"caf*");
    set_rule(u"Network", u"Work");
    EXPECT_EQ(ask(u"one")->rule, u"10");
    EXPECT_EQ(ask(u"one-peer")->rule, u"");
    set_rule(u"Connection", u"Home");
    EXPECT_EQ(ask(u"one")->rule, u"");
    set_rule(u"Connection", u"Caf\u00E9");
    set_rule(u"Type", u"wifi");
    EXPECT_EQ(ask(u"one")->rule, u"10");
    set_rule(u"Type", u"ethernet");
    EXPECT_EQ(ask(u"one")->rule, u"");
}

TEST_F(NetworkManagerStatus, PassesOverWhatIsNotActive) {
    add_device("one", 0);
    Properties activating = connection("Later", "802-3-ethernet", "one");
    activating[2] = bus_entry("State", bus_integer(1, 'u'));
    add_connection("1", activating);
    EXPECT_EQ(ask(u"one")->name, u"");
    ASSERT_TRUE(manager_->set(at("ActiveConnection/1"), kActiveName, {bus_entry("State", bus_integer(2, 'u'))}));
    EXPECT_TRUE(becomes(u"one", u"Later"));
}

TEST_F(NetworkManagerStatus, TellsWhatItChanges) {
    add_usual();
    ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    HANDLE changes = nullptr;
    ASSERT_EQ(ZrNotifyConnectionChange(&changes), NO_ERROR);
    const std::unique_ptr<void, decltype(&CloseHandle)> owner(changes, &CloseHandle);
    while (WaitForSingleObject(changes, 0) == WAIT_OBJECT_0) {
    }
    ASSERT_TRUE(manager_->set(at("ActiveConnection/1"), kActiveName, {bus_entry("Id", bus_text("Tea room"))}));
    EXPECT_EQ(WaitForSingleObject(changes, kManagerLimit), WAIT_OBJECT_0);
    EXPECT_TRUE(becomes(u"one", u"Tea room"));
    ASSERT_TRUE(manager_->set(at("Devices/one"), kDeviceName, {bus_entry("Metered", bus_integer(2, 'u'))}));
    EXPECT_EQ(WaitForSingleObject(changes, kManagerLimit), WAIT_OBJECT_0);
}

TEST_F(NetworkManagerStatus, AsksOnlyWhenSomethingChanged) {
    add_usual();
    ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    // Who is not asked need not answer.
    manager_->process().stop();
    const auto before = Clock::now();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(ask(u"one")->name, u"Caf\u00E9");
    }
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(30));
    manager_->process().go_on();
}

TEST_F(NetworkManagerStatus, AnswersFromTheKernelWhenItNeverAnswers) {
    add_usual();
    manager_->process().stop();
    const auto before = Clock::now();
    for (int i = 0; i < 100; ++i) {
        const auto said = ask(u"one");
        ASSERT_TRUE(said);
        EXPECT_EQ(said->name, u"");
        EXPECT_EQ(said->description, u"one");
        EXPECT_EQ(said->network, u"Work");
    }
    // It was waited for once, not a hundred times.
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(60));
    manager_->process().go_on();
}

TEST_F(NetworkManagerStatus, AnswersFromTheKernelWhenItOrTheBusDies) {
    add_usual();
    ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    manager_->process().end();
    EXPECT_TRUE(becomes(u"one", u""));
    start_manager();
    add_usual();
    EXPECT_TRUE(becomes(u"one", u"Caf\u00E9"));
    bus_.daemon().end();
    EXPECT_TRUE(becomes(u"one", u""));
}

TEST_F(NetworkManagerStatus, AnswersFromTheKernelWhenTheBusDiesInTheMiddle) {
    for (int round = 0; round < 3; ++round) {
        PrivateBus* bus = &bus_;
        std::optional<PrivateBus> next;
        if (round > 0) {
            bus = &next.emplace();
            ASSERT_EQ(bus->why(), "");
            start_manager();
        }
        add_usual();
        std::atomic<bool> stop{false};
        std::thread asking([&] {
            while (!stop) {
                EXPECT_TRUE(ask(u"one"));
            }
        });
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(manager_->set(at("Devices/one"), kDeviceName, {bus_entry("Metered", bus_integer(i % 5, 'u'))}));
        }
        bus->daemon().end();
        EXPECT_TRUE(becomes(u"one", u""));
        stop = true;
        asking.join();
        manager_.reset();
        std::filesystem::remove(PrivateBus::socket());
    }
}

TEST_F(NetworkManagerStatus, PassesOverNonsense) {
    add_usual();
    ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    const BusValue nonsense[] = {
        bus_text("no list"),
        bus_integer(7, 'u'),
        bus_array("s", {bus_text("no path"), bus_text("/"), bus_text("")}),
        bus_array("o", {path_of("ActiveConnection/not_there"), bus_text("/", 'o'), path_of("Devices/one")}),
        bus_array("(ss)", {BusValue{'r', 0, 0, {}, {bus_text("a"), bus_text("b")}}}),
    };
    for (const BusValue& each : nonsense) {
        ASSERT_TRUE(set_active(each));
        EXPECT_TRUE(becomes(u"one", u"")) << each.type;
        ASSERT_TRUE(set_active(bus_array("o", active_)));
        ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    }
    // A connection all of whose properties are of another type.
    const Properties odd = {bus_entry("Id", bus_integer(1, 'u')), bus_entry("Type", bus_array("s", {})),
                            bus_entry("State", bus_integer(2, 'u')), bus_entry("Vpn", bus_text("yes")),
                            bus_entry("Devices", bus_array("o", {path_of("Devices/one")}))};
    add_connection("2", odd);
    EXPECT_TRUE(ask(u"one"));
}

TEST_F(NetworkManagerStatus, NamesOfWhateverLengthAreCarried) {
    add_device("one", 0);
    const std::string name(100'000, 'n');
    add_connection("1", connection(name, "802-3-ethernet", "one"));
    EXPECT_TRUE(becomes(u"one", std::u16string(100'000, u'n')));
}

TEST_F(NetworkManagerStatus, AForkedChildAsksItself) {
    add_usual();
    ASSERT_TRUE(becomes(u"one", u"Caf\u00E9"));
    EXPECT_EQ(zr::test::in_fork([] { return becomes(u"one", u"Caf\u00E9") ? 7 : 1; }), 7);
    // What changes in the parent's time is known to both.
    ASSERT_TRUE(manager_->set(at("ActiveConnection/1"), kActiveName, {bus_entry("Id", bus_text("Tea room"))}));
    EXPECT_EQ(zr::test::in_fork([] { return becomes(u"one", u"Tea room") ? 7 : 1; }), 7);
    EXPECT_TRUE(becomes(u"one", u"Tea room"));
}
