// zr net: the connections of this computer, and which network each leads into.

#include <platform/base.h>
#include <platform/connection.h>
#include <platform/kernel.h>
#include <sys/socket.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "zr/base/event_loop.h"
#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/reg_command.h"

namespace zr {
namespace {

// What moves while a connection lasts, and is no change of it.
struct Passing {
    std::string since;               // UTC; empty: not known
    std::optional<unsigned> signal;  // percent

    bool operator==(const Passing&) const { return true; }
};

struct NetConnection {
    std::string name;
    std::string connection;  // NetworkManager's name
    std::string state;
    std::string kind;
    std::string network;
    std::string reason;
    bool metered = false;
    Passing passing;
    std::vector<std::string> addresses;

    bool operator==(const NetConnection&) const = default;
};

std::string kind_of(const CONNMGR_CONNECTION_DETAILED_STATUS& status) {
    switch (status.dwType) {
        case CM_CONNTYPE_CELLULAR:
            return "cellular";
        case CM_CONNTYPE_NIC:
            return status.dwSubtype == CM_CONNSUBTYPE_NIC_WIFI ? "wifi" : "ethernet";
        case CM_CONNTYPE_BLUETOOTH:
            return "bluetooth";
        case CM_CONNTYPE_UNIMODEM:
            return "dialup";
        case CM_CONNTYPE_VPN:
            return "vpn";
        default:
            return "other";
    }
}

std::string reason_of(const ZrConnection& connection) {
    switch (connection.Reason) {
        case ZrConnectionReason::Rule:
            return "rule " + to_utf8(connection.Rule);
        case ZrConnectionReason::DefaultRoute:
            return "default route";
        case ZrConnectionReason::Vpn:
            return "VPN without default route";
        case ZrConnectionReason::PrivateNetwork:
            return "private network";
        default:
            return "";
    }
}

std::string address_text(const SOCKADDR_STORAGE& address) {
    char text[INET6_ADDRSTRLEN] = "";
    const std::size_t at = address.ss_family == AF_INET ? 2 : 6;
    inet_ntop(address.ss_family, address.ss_data + at, text, sizeof text);
    return text;
}

Passing passing_of(const CONNMGR_CONNECTION_DETAILED_STATUS& status) {
    Passing passing;
    const SYSTEMTIME& time = status.LastConnectTime;
    if ((status.dwParams & CONNMGRDETAILEDSTATUS_PARAM_LASTCONNECT) != 0) {
        char text[64];
        std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02uZ", time.wYear, time.wMonth, time.wDay,
                      time.wHour, time.wMinute, time.wSecond);
        passing.since = text;
    }
    if ((status.dwParams & CONNMGRDETAILEDSTATUS_PARAM_SIGNALQUALITY) != 0)
        passing.signal = (status.dwSignalQuality * 100 + 127) / 255;
    return passing;
}

int collect(const ZrConnection* connection, LPVOID all) {
    const CONNMGR_CONNECTION_DETAILED_STATUS& status = *connection->Status;
    NetConnection found;
    found.name = to_utf8(status.szAdapterName);
    found.state = status.dwConnectionStatus == CONNMGR_STATUS_CONNECTED ? "connected" : "disconnected";
    found.kind = kind_of(status);
    found.network = to_utf8(connection->Network);
    found.reason = reason_of(*connection);
    found.connection = to_utf8(connection->Name);
    found.metered = connection->Metered != FALSE;
    found.passing = passing_of(status);
    for (DWORD i = 0; status.pIPAddr != nullptr && i < status.pIPAddr->cIPAddr; ++i) {
        found.addresses.push_back(address_text(status.pIPAddr->IPAddr[i]));
    }
    static_cast<std::vector<NetConnection>*>(all)->push_back(std::move(found));
    return 0;
}

std::vector<NetConnection> connections() {
    std::vector<NetConnection> all;
    const HRESULT result = ZrVisitConnections(collect, &all);
    if (SUCCEEDED(result)) return all;
    throw Failure{Exit::StoreFailed, "the connections cannot be read: error " + std::to_string(result & 0xFFFF)};
}

std::string text_of(const NetConnection& connection) {
    std::string text = connection.state + ", " + connection.kind + ", ";
    if (!connection.connection.empty()) text += "\"" + printable(connection.connection) + "\", ";
    if (connection.metered) text += "metered, ";
    if (connection.passing.signal) text += "signal " + std::to_string(*connection.passing.signal) + " %, ";
    if (!connection.passing.since.empty()) text += "last connected " + connection.passing.since + ", ";
    text += connection.network.empty() ? "no network"
                                       : printable(connection.network) + " (" + printable(connection.reason) + ")";
    for (std::size_t i = 0; i < connection.addresses.size(); ++i) {
        text += (i == 0 ? ", " : " ") + connection.addresses[i];
    }
    return text;
}

Json json_of(const NetConnection& connection) {
    Json addresses = Json::array();
    for (const std::string& address : connection.addresses) {
        addresses.add(address);
    }
    const Passing& passing = connection.passing;
    return {{"name", connection.name},
            {"connection", connection.connection},
            {"state", connection.state},
            {"kind", connection.kind},
            {"metered", connection.metered},
            {"signal", passing.signal ? Json(*passing.signal) : Json(nullptr)},
            {"lastConnected", passing.since.empty() ? Json(nullptr) : Json(passing.since)},
            {"network", connection.network},
            {"reason", connection.reason},
            {"addresses", std::move(addresses)}};
}

Exit status(bool json) {
    JsonArray array;
    Table table({{"INTERFACE", Column::Kind::Reference}, {"CONNECTION"}});
    for (const NetConnection& each : connections()) {
        if (json) {
            array.add(json_of(each));
        } else {
            table.add(printable(each.name) + "\t" + text_of(each) + "\n");
        }
    }
    table.finish();
    if (json) array.finish();
    return Exit::Ok;
}

void tell(const char* change, const NetConnection& connection, bool json) {
    if (json) {
        Json line = {{"change", change}};
        line.set_all(json_of(connection));
        print_json_line(line);
    } else {
        print(std::string(change) + " " + printable(connection.name) + ": " + text_of(connection) + "\n");
    }
}

using ByName = std::map<std::string, NetConnection>;

ByName look() {
    ByName all;
    for (NetConnection& each : connections()) {
        std::string name = each.name;
        all.emplace(std::move(name), std::move(each));
    }
    return all;
}

void report(const ByName& before, const ByName& now, bool json) {
    for (const auto& [name, connection] : before) {
        if (!now.contains(name)) tell("removed", connection, json);
    }
    for (const auto& [name, connection] : now) {
        const auto old = before.find(name);
        if (old == before.end()) {
            tell("added", connection, json);
        } else if (!(old->second == connection)) {
            tell("changed", connection, json);
        }
    }
    flush_output();
}

Exit watch(bool json) {
    EventLoop loop;
    HANDLE changes = nullptr;
    if (const DWORD error = ZrNotifyConnectionChange(&changes); error != NO_ERROR)
        throw Failure{Exit::StoreFailed, "the connections cannot be watched: error " + std::to_string(error)};
    const std::unique_ptr<void, decltype(&CloseHandle)> owner(changes, &CloseHandle);
    ByName last = look();
    for (const auto& [name, connection] : last) {
        tell("now", connection, json);
    }
    flush_output();
    while (const auto place = loop.wait({changes})) {
        if (*place != 0) continue;
        ByName now = look();
        report(last, now, json);
        last = std::move(now);
    }
    return Exit::Ok;
}

}  // namespace

void add_net_status(Command net) {
    Command command = net.add_command("status", "List the connections and the networks they lead into");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "Print JSON");
    command.footer(
        "A line is the interface's name and, behind a tab, its state, its kind, NetworkManager's name for the\n"
        "connection, whether it is metered, how strong its signal is and when it was last connected, in UTC (where\n"
        "NetworkManager runs), the network and what decided that, and its addresses. Rules are keys below "
        "HKLM\\Comm\\ConnMgr\\Rules, the first that fits decides: Network is "
        "a\n"
        "network's name or GUID; Interface and Connection (with * and ?) and Type (cellular, ethernet, wifi, "
        "bluetooth,\n"
        "dialup, vpn) say which connections it fits.\n\n"
        "Examples:\n"
        "  zr net status\n"
        "  zr reg set 'HKLM\\Comm\\ConnMgr\\Rules\\10' Network Work\n"
        "  zr reg set 'HKLM\\Comm\\ConnMgr\\Rules\\10' Interface 'eth*'");
    runs_with_registry(command, [json] { return status(*json); });
}

void add_net_watch(Command net) {
    Command command = net.add_command("watch", "Print connections and addresses as they change, until interrupted");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "Print one JSON object per change and line");
    command.footer(
        "The connections as they are come first. Ends with SIGINT, SIGTERM or SIGHUP.\n\nExample:\n  zr net watch");
    runs_with_registry(command, [json] { return watch(*json); });
}

}  // namespace zr
