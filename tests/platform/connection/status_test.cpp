#include <gtest/gtest.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/connection.h"
#include "platform/iphelper.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "support/failing_new.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/network_space.h"

namespace {

using zr::test::FailingNew;
using zr::test::NetworkSpace;
using Record = CONNMGR_CONNECTION_DETAILED_STATUS;

constexpr HRESULT kTooSmall = ZRPLATFORM_HRESULT(0x8007007A);

// The chain in a block of exactly the size that it was said to need.
struct Chain {
    std::vector<ULONGLONG> block;
    HRESULT result = 0;
    DWORD size = 0;
    std::vector<const Record*> records;

    const Record* named(const std::u16string& adapter) const {
        for (const Record* each : records) {
            if (each->szAdapterName == adapter) return each;
        }
        return nullptr;
    }
};

Chain query() {
    Chain chain;
    chain.result = ConnMgrQueryDetailedStatus(nullptr, &chain.size);
    while (chain.result == kTooSmall) {
        chain.block.assign(chain.size / sizeof(ULONGLONG), 0xEEEEEEEEEEEEEEEE);
        chain.result = ConnMgrQueryDetailedStatus(reinterpret_cast<Record*>(chain.block.data()), &chain.size);
    }
    if (chain.block.empty()) return chain;
    for (auto* each = reinterpret_cast<const Record*>(chain.block.data()); each; each = each->pNext) {
        chain.records.push_back(each);
    }
    return chain;
}

std::string address(const SOCKADDR_STORAGE& at) {
    sockaddr_in v4{};
    std::memcpy(&v4, &at, sizeof v4);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&v4.sin_addr);
    return std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." + std::to_string(bytes[2]) + "." +
           std::to_string(bytes[3]);
}

struct Judged {
    std::u16string network;
    ZrConnectionReason reason;
    std::u16string rule;
};

Judged judged(const std::u16string& adapter) {
    struct Search {
        const std::u16string& adapter;
        Judged found{u"(not there)", ZrConnectionReason::None, u""};
    } search{adapter};
    const auto visit = [](const ZrConnection* each, LPVOID context) {
        Search& wanted = *static_cast<Search*>(context);
        if (each->Status->szAdapterName != wanted.adapter) return 0;
        wanted.found = {each->Network, each->Reason, each->Rule};
        return 1;
    };
    EXPECT_EQ(ZrVisitConnections(visit, &search), S_OK);
    return search.found;
}

void set_text(const std::u16string& key, LPCWSTR name, const std::u16string& text, DWORD type = REG_SZ) {
    HKEY opened = nullptr;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, (u"Comm\\ConnMgr\\" + key).c_str(), 0, nullptr, 0, 0, nullptr, &opened,
                    nullptr);
    RegSetValueExW(opened, name, 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>((text.size() + 1) * sizeof(WCHAR)));
    RegCloseKey(opened);
}

class ConnectionStatus : public testing::Test {
protected:
    void SetUp() override { ZR_NEEDS_NETWORK(network_); }
    void TearDown() override { RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr"); }

    static void run(const std::string& arguments) { ASSERT_TRUE(NetworkSpace::run(arguments)) << arguments; }
    static void add(const std::string& name, const std::string& first = "") {
        ASSERT_TRUE(NetworkSpace::add_device(name));
        if (!first.empty()) run("addr add " + first + " dev " + name);
    }

    NetworkSpace network_;
};

}  // namespace

TEST_F(ConnectionStatus, HasNoRecordsWithoutConnections) {
    DWORD size = 77;
    EXPECT_EQ(ConnMgrQueryDetailedStatus(nullptr, &size), S_OK);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(ConnMgrQueryDetailedStatus(nullptr, nullptr), E_INVALIDARG);
}

TEST_F(ConnectionStatus, SaysOfAConnectionWhatItIs) {
    add("one", "192.168.7.2/24");
    run("addr add fd00::2/64 dev one nodad");
    const Chain chain = query();
    ASSERT_EQ(chain.result, S_OK);
    const Record* const one = chain.named(u"one");
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one->dwVer, CONNMGRDETAILEDSTATUS_VERSION);
    EXPECT_EQ(one->dwType, CM_CONNTYPE_NIC);
    EXPECT_EQ(one->dwSubtype, CM_CONNSUBTYPE_NIC_ETHERNET);
    EXPECT_EQ(one->dwConnectionStatus, CONNMGR_STATUS_CONNECTED);
    EXPECT_EQ(one->szDescription, std::u16string(u"one"));
    EXPECT_EQ(one->guidDestNet, IID_DestNetCorp);
    EXPECT_EQ(one->dwSecure, 0u);
    ASSERT_NE(one->pIPAddr, nullptr);
    ASSERT_EQ(one->pIPAddr->cIPAddr, 2u);
    EXPECT_EQ(one->pIPAddr->IPAddr[0].ss_family, AF_INET);
    EXPECT_EQ(address(one->pIPAddr->IPAddr[0]), "192.168.7.2");
    EXPECT_EQ(one->pIPAddr->IPAddr[1].ss_family, AF_INET6);
    EXPECT_EQ(one->pIPAddr->IPAddr[1].ss_data[6], 0xFD);
    constexpr DWORD all = CONNMGRDETAILEDSTATUS_PARAM_TYPE | CONNMGRDETAILEDSTATUS_PARAM_DESTNET |
                          CONNMGRDETAILEDSTATUS_PARAM_CONNSTATUS | CONNMGRDETAILEDSTATUS_PARAM_IPADDR;
    EXPECT_EQ(one->dwParams & all, all);
    EXPECT_EQ(chain.named(u"lo"), nullptr);
    const Record* const peer = chain.named(u"one-peer");
    ASSERT_NE(peer, nullptr);
    EXPECT_EQ(peer->dwConnectionStatus, CONNMGR_STATUS_DISCONNECTED);
}

TEST_F(ConnectionStatus, HoldsAllInsideTheBuffer) {
    add("one", "192.168.7.2/24");
    add("two", "192.168.8.2/24");
    const Chain chain = query();
    const auto* const begin = reinterpret_cast<const unsigned char*>(chain.block.data());
    const auto inside = [&](const void* at) {
        return at >= begin && static_cast<const unsigned char*>(at) < begin + chain.size;
    };
    ASSERT_EQ(chain.records.size(), 4u);
    for (const Record* each : chain.records) {
        EXPECT_TRUE(inside(each) && inside(each->szAdapterName) && inside(each->szDescription));
        EXPECT_TRUE(each->pIPAddr == nullptr || inside(each->pIPAddr));
    }
}

TEST_F(ConnectionStatus, WritesNothingIntoABufferThatIsTooSmall) {
    add("one", "192.168.7.2/24");
    DWORD needed = 0;
    ASSERT_EQ(ConnMgrQueryDetailedStatus(nullptr, &needed), kTooSmall);
    std::vector<unsigned char> block(needed, 0x5A);
    DWORD size = needed - 1;
    EXPECT_EQ(ConnMgrQueryDetailedStatus(reinterpret_cast<Record*>(block.data()), &size), kTooSmall);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(block, std::vector<unsigned char>(needed, 0x5A));
}

TEST_F(ConnectionStatus, IsNotConnectedWithoutAnAddressOrWhenDown) {
    add("one", "169.254.3.4/16");
    add("two", "192.168.8.2/24");
    EXPECT_EQ(query().named(u"one")->dwConnectionStatus, CONNMGR_STATUS_DISCONNECTED);
    EXPECT_EQ(query().named(u"two")->dwConnectionStatus, CONNMGR_STATUS_CONNECTED);
    run("link set two down");
    EXPECT_EQ(query().named(u"two")->dwConnectionStatus, CONNMGR_STATUS_DISCONNECTED);
}

TEST_F(ConnectionStatus, LeadsIntoTheInternetByADefaultRoute) {
    add("one", "192.168.7.2/24");
    add("two", "192.168.8.2/24");
    add("far", "203.0.113.5/24");
    run("route add default via 192.168.7.1 metric 200");
    run("route add default via 192.168.8.1 metric 100");
    const Judged one = judged(u"one");
    EXPECT_EQ(one.network, u"Internet");
    EXPECT_EQ(one.reason, ZrConnectionReason::DefaultRoute);
    EXPECT_EQ(judged(u"far").reason, ZrConnectionReason::None);
    EXPECT_EQ(judged(u"far").network, u"");
    const Chain chain = query();
    EXPECT_EQ(chain.records[0]->szAdapterName, std::u16string(u"two"));
    EXPECT_EQ(chain.records[1]->szAdapterName, std::u16string(u"one"));
    EXPECT_EQ(chain.records[0]->guidDestNet, IID_DestNetInternet);
    EXPECT_EQ(chain.named(u"far")->dwParams & CONNMGRDETAILEDSTATUS_PARAM_DESTNET, 0u);
    run("route del default via 192.168.7.1");
    EXPECT_EQ(judged(u"one").reason, ZrConnectionReason::PrivateNetwork);
}

TEST_F(ConnectionStatus, LeadsIntoTheWorkNetworkThroughATunnel) {
    if (!NetworkSpace::run("tuntap add tun0 mode tun")) GTEST_SKIP() << "the kernel makes no tun devices";
    run("addr add 203.0.113.9/32 dev tun0");
    const Judged tunnel = judged(u"tun0");
    EXPECT_EQ(tunnel.network, u"Work");
    EXPECT_EQ(tunnel.reason, ZrConnectionReason::Vpn);
    const Chain chain = query();
    EXPECT_EQ(chain.named(u"tun0")->dwType, CM_CONNTYPE_VPN);
    EXPECT_NE(chain.named(u"tun0")->dwSecure, 0u);
}

TEST_F(ConnectionStatus, FollowsTheRegistrysRulesInTheirOrder) {
    add("one", "192.168.7.2/24");
    add("two", "192.168.8.2/24");
    const std::u16string own = u"{3584769F-41FC-4035-BE97-320DA11E0F02}";
    set_text(u"Destinations\\My Net", u"DestId", own);
    set_text(u"Destinations\\Broken", u"DestId", u"no GUID");
    set_text(u"Rules\\20", u"Interface", u"O*");
    set_text(u"Rules\\20", u"Network", u"my net");
    set_text(u"Rules\\30", u"Network", u"Internet");
    EXPECT_EQ(judged(u"one").network, u"My Net");
    EXPECT_EQ(judged(u"one").rule, u"20");
    EXPECT_EQ(judged(u"one").reason, ZrConnectionReason::Rule);
    EXPECT_EQ(judged(u"two").rule, u"30");
    EXPECT_EQ(judged(u"two").network, u"Internet");
    set_text(u"Rules\\10", u"Type", u"Ethernet");
    set_text(u"Rules\\10", u"Interface", u"?n?");
    set_text(u"Rules\\10", u"Network", IID_DestNetCorp == GUID{} ? u"" : u"{A1182988-0D73-439E-87AD-2A5B369F808B}");
    EXPECT_EQ(judged(u"one").rule, u"10");
    EXPECT_EQ(judged(u"one").network, u"Work");
    set_text(u"Rules\\10", u"Type", u"vpn");
    EXPECT_EQ(judged(u"one").rule, u"20");
}

TEST_F(ConnectionStatus, PassesOverRulesThatCannotBeRead) {
    add("one", "192.168.7.2/24");
    set_text(u"Rules\\10", u"Network", u"Nowhere");
    set_text(u"Rules\\11", u"Interface", u"one");
    set_text(u"Rules\\12", u"Interface", u"one", REG_BINARY);
    set_text(u"Rules\\12", u"Network", u"Internet");
    set_text(u"Rules\\13", u"Network", u"Internet", REG_MULTI_SZ);
    set_text(u"Rules\\14", u"Network", std::u16string(100000, u'x'));
    EXPECT_EQ(judged(u"one").reason, ZrConnectionReason::PrivateNetwork);
}

TEST_F(ConnectionStatus, KeepsNamesOfWhateverBytes) {
    ASSERT_TRUE(NetworkSpace::run("link add name \"$(printf 'a\\377b')\" type veth peer name other"));
    EXPECT_NE(query().named(u"a\xDCFF"
                            u"b"),
              nullptr);
}

TEST_F(ConnectionStatus, Holds10000Addresses) {
    add("one");
    std::string lines;
    for (int i = 0; i < 10000; ++i) {
        lines += "addr add 10." + std::to_string(2 + i / 250) + "." + std::to_string(i % 250) + ".1/32 dev one\n";
    }
    ASSERT_TRUE(NetworkSpace::run_all(lines));
    const Chain chain = query();
    ASSERT_EQ(chain.result, S_OK);
    EXPECT_EQ(chain.named(u"one")->pIPAddr->cIPAddr, 10000u);
}

TEST_F(ConnectionStatus, IsWholeWhileInterfacesComeAndGo) {
    add("stays", "192.168.7.2/24");
    std::atomic<bool> stop{false};
    const int space = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    std::thread flapping([&] {
        setns(space, CLONE_NEWNET);
        while (!stop) {
            NetworkSpace::run_all(
                "link add fl type veth peer name fl1\naddr add 10.9.9.1/24 dev fl\nlink set fl up\nlink del fl\n");
        }
    });
    for (int look = 0; look < 300; ++look) {
        const Chain chain = query();
        ASSERT_EQ(chain.result, S_OK);
        const Record* const stays = chain.named(u"stays");
        ASSERT_NE(stays, nullptr);
        ASSERT_EQ(stays->pIPAddr->cIPAddr, 1u);
    }
    stop = true;
    flapping.join();
    close(space);
}

TEST_F(ConnectionStatus, FailsWhole) {
    add("one", "192.168.7.2/24");
    query();
    int failures = 0;
    for (int successes = 0;; ++successes) {
        ASSERT_LT(successes, 300);
        DWORD size = 0;
        HRESULT result = 0;
        {
            const FailingNew failing(successes);
            result = ConnMgrQueryDetailedStatus(nullptr, &size);
        }
        if (result == kTooSmall) break;
        EXPECT_EQ(result, E_OUTOFMEMORY);
        ++failures;
    }
    EXPECT_GT(failures, 3);
}

TEST_F(ConnectionStatus, TellsWhenSomethingChanges) {
    add("one", "192.168.7.2/24");
    HANDLE changes = nullptr;
    ASSERT_EQ(ZrNotifyConnectionChange(&changes), NO_ERROR);
    for (const char* const change : {"link set one down", "link set one up", "route add default via 192.168.7.1"}) {
        ASSERT_TRUE(NetworkSpace::run(change));
        EXPECT_EQ(WaitForSingleObject(changes, 30000), WAIT_OBJECT_0) << change;
    }
    CloseHandle(changes);
    EXPECT_EQ(ZrNotifyConnectionChange(nullptr), ERROR_INVALID_PARAMETER);
}

TEST_F(ConnectionStatus, ThreeHundredForksUnderLoad) {
    add("one", "192.168.7.2/24");
    HANDLE kept = nullptr;
    ASSERT_EQ(ZrNotifyConnectionChange(&kept), NO_ERROR);
    const auto use = [] {
        if (query().named(u"one") == nullptr) return 1;
        HANDLE changes = nullptr;
        if (NotifyAddrChange(&changes, nullptr) != NO_ERROR) return 2;
        return CloseHandle(changes) ? 0 : 3;
    };
    {
        const zr::test::Load load({[&] { EXPECT_EQ(use(), 0); }, [&] { EXPECT_EQ(use(), 0); }});
        for (int i = 0; i < 300 / zr::test::kStride; ++i) {
            ASSERT_EQ(zr::test::in_fork([&] { return WaitForSingleObject(kept, 0) == WAIT_FAILED ? 4 : use(); }), 0)
                << "fork " << i;
        }
    }
    while (WaitForSingleObject(kept, 0) == WAIT_OBJECT_0) {
    }
    run("addr add 192.168.7.3/24 dev one");
    EXPECT_EQ(WaitForSingleObject(kept, 30000), WAIT_OBJECT_0);
    CloseHandle(kept);
}
