#include "connection_kind.h"

#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "base/host_fd.h"
#include "platform/connection.h"

namespace zr::platform {
namespace {

constexpr std::string_view kTunnels[] = {"wireguard", "tun", "ipip", "ip6tnl", "gre", "ip6gre",
                                         "sit",       "vti", "vti6", "xfrm",   "ovpn"};

bool is_private_v4(const unsigned char* a) {
    return a[0] == 10 || (a[0] == 172 && (a[1] & 0xF0) == 16) || (a[0] == 192 && a[1] == 168) ||
           (a[0] == 100 && (a[1] & 0xC0) == 64);
}

bool is_link_local(const NetAddress& address) {
    const unsigned char* const a = address.bytes;
    return address.family == AF_INET ? a[0] == 169 && a[1] == 254 : a[0] == 0xFE && (a[1] & 0xC0) == 0x80;
}

// What the driver of a device says it is; empty for the usual ones.
std::string_view device_type(const char* name, char (&text)[256]) {
    char path[64];
    std::snprintf(path, sizeof path, "/sys/class/net/%s/uevent", name);
    const HostFd file = open_host(path, O_RDONLY);
    if (!file) return {};
    const ssize_t size = read(file.get(), text, sizeof text);
    if (size <= 0) return {};
    std::string_view rest(text, static_cast<std::size_t>(size));
    constexpr std::string_view key = "DEVTYPE=";
    const std::size_t at = rest.starts_with(key) ? 0 : rest.find("\nDEVTYPE=");
    if (at == std::string_view::npos) return {};
    rest.remove_prefix(at + key.size() + (at == 0 ? 0 : 1));
    return rest.substr(0, rest.find('\n'));
}

ConnectionKind device_kind(const NetInterface& interface) {
    char text[256];
    const std::string_view type = device_type(interface.name, text);
    if (type == "wlan") return {CM_CONNTYPE_NIC, CM_CONNSUBTYPE_NIC_WIFI};
    if (type == "wwan") return {CM_CONNTYPE_CELLULAR, CM_CONNSUBTYPE_UNKNOWN};
    if (type == "bluetooth") return {CM_CONNTYPE_BLUETOOTH, CM_CONNSUBTYPE_BLUETOOTH_PAN};
    return {CM_CONNTYPE_NIC, CM_CONNSUBTYPE_NIC_ETHERNET};
}

}  // namespace

ConnectionKind connection_kind(const NetInterface& interface) noexcept {
    const std::string_view kind = interface.kind;
    if (interface.type == ARPHRD_PPP || kind == "ppp") return {CM_CONNTYPE_UNIMODEM, CM_CONNSUBTYPE_UNKNOWN};
    if (kind == "wwan" || kind == "rmnet") return {CM_CONNTYPE_CELLULAR, CM_CONNSUBTYPE_UNKNOWN};
    if (interface.type != ARPHRD_ETHER && std::ranges::count(kTunnels, kind) != 0)
        return {CM_CONNTYPE_VPN, CM_CONNSUBTYPE_UNKNOWN};
    if (interface.type != ARPHRD_ETHER) {
        const ConnectionKind device = kind.empty() ? device_kind(interface) : ConnectionKind{};
        return device.type == CM_CONNTYPE_CELLULAR ? device : ConnectionKind{CM_CONNTYPE_UNKNOWN, 0};
    }
    if (!kind.empty()) return {CM_CONNTYPE_NIC, CM_CONNSUBTYPE_NIC_ETHERNET};
    return device_kind(interface);
}

std::u16string_view kind_word(const ConnectionKind& kind) noexcept {
    switch (kind.type) {
        case CM_CONNTYPE_CELLULAR:
            return u"cellular";
        case CM_CONNTYPE_NIC:
            return kind.subtype == CM_CONNSUBTYPE_NIC_WIFI ? u"wifi" : u"ethernet";
        case CM_CONNTYPE_BLUETOOTH:
            return u"bluetooth";
        case CM_CONNTYPE_UNIMODEM:
            return u"dialup";
        case CM_CONNTYPE_VPN:
            return u"vpn";
        default:
            return {};
    }
}

bool is_connected(const NetworkConnection& connection) noexcept {
    constexpr unsigned up = IFF_UP | IFF_RUNNING;
    return (connection.interface.flags & up) == up && !std::ranges::all_of(connection.addresses, is_link_local);
}

bool is_private(const NetworkConnection& connection) noexcept {
    return std::ranges::any_of(connection.addresses, [](const NetAddress& each) {
        return each.family == AF_INET ? is_private_v4(each.bytes) : (each.bytes[0] & 0xFE) == 0xFC;
    });
}

}  // namespace zr::platform
