// Connections, addresses, provisioning and the proxy helper, each beside the bare calls below it.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <libxml/parser.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ZrUtility/Helpers/PyxProxyHelper.h"
#include "platform/connection.h"
#include "platform/iphelper.h"
#include "platform/kernel.h"
#include "platform/provisioning.h"
#include "platform/registry.h"

namespace {

const std::string folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    setenv("ZR_HOME", (pattern + "/home").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", pattern.c_str(), 1);
    static const std::string made = pattern;
    atexit([] { std::filesystem::remove_all(made); });
    return pattern;
}();

// ---- Connections ----

void query_ours(benchmark::State& state) {
    std::vector<ULONGLONG> block(8192);
    for (auto _ : state) {
        auto size = static_cast<DWORD>(block.size() * sizeof(ULONGLONG));
        ConnMgrQueryDetailedStatus(reinterpret_cast<CONNMGR_CONNECTION_DETAILED_STATUS*>(block.data()), &size);
        benchmark::DoNotOptimize(block.data());
    }
}
BENCHMARK(query_ours)->Name("query_connections/ours");

void dump_routes() {
    struct {
        nlmsghdr header;
        rtmsg body;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    const int socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    send(socket, &request, sizeof request, 0);
    alignas(nlmsghdr) char buffer[32768];
    for (bool done = false; !done;) {
        ssize_t left = recv(socket, buffer, sizeof buffer, 0);
        for (auto* each = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(each, left); each = NLMSG_NEXT(each, left)) {
            done = done || each->nlmsg_type == NLMSG_DONE;
        }
    }
    close(socket);
}

void query_getifaddrs(benchmark::State& state) {
    for (auto _ : state) {
        ifaddrs* all = nullptr;
        getifaddrs(&all);
        dump_routes();
        freeifaddrs(all);
    }
}
BENCHMARK(query_getifaddrs)->Name("query_connections/getifaddrs_and_routes");

void query_ip(benchmark::State& state) {
    char piece[4096];
    for (auto _ : state) {
        FILE* const pipe = popen("exec ip -j addr", "re");
        while (pipe && std::fread(piece, 1, sizeof piece, pipe) > 0) {
        }
        if (pipe) pclose(pipe);
    }
}
BENCHMARK(query_ip)->Name("query_connections/ip_j_addr")->UseRealTime();

// ---- Changes of addresses ----

// A network of the benchmark's own, for the calling thread and those that it starts.
class OwnNetwork {
public:
    OwnNetwork() : before_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
        if (unshare(CLONE_NEWNET) != 0) return;
        socket_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        there_ = change(RTM_NEWADDR) && change(RTM_DELADDR);
    }
    ~OwnNetwork() {
        if (socket_ >= 0) close(socket_);
        setns(before_, CLONE_NEWNET);
        close(before_);
    }
    OwnNetwork(const OwnNetwork&) = delete;
    OwnNetwork& operator=(const OwnNetwork&) = delete;

    bool is_there() const { return there_; }
    // An address of the loopback comes or goes.
    bool change(std::uint16_t what) const {
        struct {
            nlmsghdr header;
            ifaddrmsg body;
            rtattr attribute;
            unsigned char address[4];
        } request{};
        request.header.nlmsg_len = sizeof request;
        request.header.nlmsg_type = what;
        request.header.nlmsg_flags =
            static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | (what == RTM_NEWADDR ? NLM_F_CREATE : 0));
        request.body.ifa_family = AF_INET;
        request.body.ifa_prefixlen = 32;
        request.body.ifa_index = 1;
        request.attribute = {RTA_LENGTH(4), IFA_LOCAL};
        request.address[0] = 10;
        request.address[3] = 1;
        if (send(socket_, &request, sizeof request, 0) < 0) return false;
        struct {
            nlmsghdr header;
            nlmsgerr body;
        } answer{};
        return recv(socket_, &answer, sizeof answer, MSG_TRUNC) > 0 && answer.body.error == 0;
    }

private:
    const int before_;
    int socket_ = -1;
    bool there_ = false;
};

// One change after the other, each until the handler's thread has run.
template <class Wait>
void measure_changes(benchmark::State& state, const OwnNetwork& network, std::atomic<int>& handled, Wait&& wait) {
    std::atomic<bool> stop{false};
    std::thread handler([&] {
        while (wait() && !stop) {
            ++handled;
            handled.notify_one();
        }
    });
    bool adding = true;
    for (auto _ : state) {
        const int before = handled;
        if (!network.change(adding ? RTM_NEWADDR : RTM_DELADDR)) state.SkipWithError("no change");
        adding = !adding;
        handled.wait(before);
    }
    stop = true;
    network.change(adding ? RTM_NEWADDR : RTM_DELADDR);
    handler.join();
}

void change_ours(benchmark::State& state) {
    const OwnNetwork network;
    HANDLE changes = nullptr;
    if (!network.is_there() || NotifyAddrChange(&changes, nullptr) != NO_ERROR)
        return state.SkipWithError("no network of its own");
    std::atomic<int> handled{0};
    measure_changes(state, network, handled, [&] { return WaitForSingleObject(changes, INFINITE) == WAIT_OBJECT_0; });
    CloseHandle(changes);
}
BENCHMARK(change_ours)->Name("address_change/ours")->UseRealTime();

void change_rtnetlink(benchmark::State& state) {
    const OwnNetwork network;
    const int listener = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    self.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (!network.is_there() || bind(listener, reinterpret_cast<const sockaddr*>(&self), sizeof self) != 0)
        return state.SkipWithError("no network of its own");
    std::atomic<int> handled{0};
    alignas(nlmsghdr) char buffer[8192];
    measure_changes(state, network, handled, [&] { return recv(listener, buffer, sizeof buffer, 0) > 0; });
    close(listener);
}
BENCHMARK(change_rtnetlink)->Name("address_change/rtnetlink")->UseRealTime();

// ---- Provisioning ----

// About 10 MB in values of `length` characters.
const std::string& document_of(std::size_t length) {
    static std::string text[2];
    std::string& made = text[length > 1000];
    if (!made.empty()) return made;
    made = "<wap-provisioningdoc><characteristic type=\"Registry\"><characteristic type=\"HKCU\\Bench\">";
    const std::string value(length, 'v');
    for (int i = 0; made.size() < 10'000'000; ++i) {
        made += "<parm name=\"value" + std::to_string(i) + "\" value=\"" + value + "\"/>";
    }
    made += "</characteristic></characteristic></wap-provisioningdoc>";
    return made;
}

template <DWORD Flags>
void provision_ours(benchmark::State& state) {
    const std::string& text = document_of(static_cast<std::size_t>(state.range(0)));
    const std::u16string document(text.begin(), text.end());
    for (auto _ : state) {
        LPWSTR result = nullptr;
        if (DMProcessConfigXML(document.c_str(), Flags, &result) != S_OK) state.SkipWithError("not carried out");
        delete[] result;
        state.PauseTiming();
        RegDeleteKeyW(HKEY_CURRENT_USER, u"Bench");
        state.ResumeTiming();
    }
}
BENCHMARK(provision_ours<CFGFLAG_PROCESS>)->Name("provision_10MB/ours")->Arg(60)->Arg(100'000)->UseRealTime();
BENCHMARK(provision_ours<CFGFLAG_METADATA>)->Name("examine_10MB/ours")->Arg(60)->Arg(100'000)->UseRealTime();

void provision_libxml2(benchmark::State& state) {
    const std::string& text = document_of(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        xmlDoc* const tree =
            xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_HUGE);
        if (!tree) state.SkipWithError("not read");
        xmlFreeDoc(tree);
    }
}
BENCHMARK(provision_libxml2)->Name("provision_10MB/libxml2_tree")->Arg(60)->Arg(100'000)->UseRealTime();
BENCHMARK(provision_libxml2)->Name("examine_10MB/libxml2_tree")->Arg(60)->Arg(100'000)->UseRealTime();

// ---- The proxy helper ----

constexpr int kEntries = 1000;

void make_entries() {
    std::string inner;
    const auto entry = [&](const std::string& name, const std::string& source, const char* enable) {
        inner += "<characteristic type=\"" + name + "\"><parm name=\"SrcId\" value=\"" + source +
                 "\"/><parm name=\"DestId\" value=\"{}\"/><parm name=\"Enable\" value=\"" + enable +
                 "\"/></characteristic>";
    };
    for (int i = 0; i < kEntries; ++i) {
        entry("out" + std::to_string(i), "{436EF144-B4FB-4863-A041-8F905A62C572}", "1");
    }
    entry("HTTP-{3584769F-41FC-4035-BE97-320DA11E0F02}", "{}", "0");
    entry("null-corp-{3584769F-41FC-4035-BE97-320DA11E0F02}", "{}", "0");
    const std::string text = "<wap-provisioningdoc><characteristic type=\"CM_ProxyEntries\">" + inner +
                             "</characteristic></wap-provisioningdoc>";
    LPWSTR result = nullptr;
    DMProcessConfigXML(std::u16string(text.begin(), text.end()).c_str(), CFGFLAG_PROCESS, &result);
    delete[] result;
}

void enable_ours(benchmark::State& state) {
    make_entries();
    for (auto _ : state) {
        ChangeProxySettings(1, 1);
        ChangeProxySettings(0, 1);
    }
    PyxProxyHelper::Release();
}
BENCHMARK(enable_ours)
    ->Name("enable_and_revert_1000/ours")
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The same values written and put back in one transaction each.
void enable_sqlite(benchmark::State& state) {
    sqlite3* db = nullptr;
    sqlite3_open((folder + "/peer.db").c_str(), &db);
    const auto run = [db](const char* sql) { sqlite3_exec(db, sql, nullptr, nullptr, nullptr); };
    run("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; CREATE TABLE value(entry INTEGER, name TEXT, data BLOB, "
        "PRIMARY KEY(entry, name)); CREATE TABLE backup(entry INTEGER, name TEXT, data BLOB, PRIMARY KEY(entry, "
        "name))");
    sqlite3_stmt* set = nullptr;
    sqlite3_stmt* keep = nullptr;
    sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO value VALUES(?, 'Enable', ?)", -1, &set, nullptr);
    sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO backup VALUES(?, 'Enable', 1)", -1, &keep, nullptr);
    const auto each = [&](sqlite3_stmt* statement, int value) {
        for (int i = 0; i < kEntries; ++i) {
            sqlite3_bind_int(statement, 1, i);
            if (statement == set) sqlite3_bind_int(statement, 2, value);
            sqlite3_step(statement);
            sqlite3_reset(statement);
        }
    };
    for (auto _ : state) {
        run("BEGIN");
        each(keep, 1);
        each(set, 0);
        run("COMMIT; BEGIN");
        each(set, 1);
        run("DELETE FROM backup; COMMIT");
    }
    sqlite3_finalize(set);
    sqlite3_finalize(keep);
    sqlite3_close(db);
}
BENCHMARK(enable_sqlite)
    ->Name("enable_and_revert_1000/sqlite_transaction")
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
