// Messages of the kernel, taken apart.

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "iphelper/netlink.h"

namespace zr::platform {
namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t aligned(std::size_t size) {
    return (size + 3) & ~std::size_t{3};
}

// Takes a header off the front; false when there is not all of it.
template <class T>
bool take(Bytes& bytes, T& header) {
    if (bytes.size() < sizeof header) return false;
    std::memcpy(&header, bytes.data(), sizeof header);
    bytes = bytes.subspan(std::min(bytes.size(), aligned(sizeof header)));
    return true;
}

template <class T>
bool value_of(Bytes data, T& value) {
    if (data.size() < sizeof value) return false;
    std::memcpy(&value, data.data(), sizeof value);
    return true;
}

// Calls visit(type, data) for each attribute that is whole.
template <class Visit>
void each_attribute(Bytes bytes, Visit&& visit) {
    rtattr header{};
    while (bytes.size() >= sizeof header) {
        std::memcpy(&header, bytes.data(), sizeof header);
        if (header.rta_len < sizeof header || header.rta_len > bytes.size()) return;
        visit(header.rta_type & ~(NLA_F_NESTED | NLA_F_NET_BYTEORDER),
              bytes.subspan(sizeof header, header.rta_len - sizeof header));
        bytes = bytes.subspan(std::min(bytes.size(), aligned(header.rta_len)));
    }
}

template <std::size_t Size>
void copy_text(Bytes data, char (&text)[Size]) {
    const std::size_t length = std::min(data.size(), Size - 1);
    std::memcpy(text, data.data(), length);
    text[length] = '\0';
}

void read_interface(Bytes body, bool removed, NetlinkReader& reader) {
    ifinfomsg header{};
    // Those of bridges are about the same interfaces once more.
    if (!take(body, header) || header.ifi_family != AF_UNSPEC) return reader.other();
    NetInterface interface;
    interface.index = static_cast<std::uint32_t>(header.ifi_index);
    interface.flags = header.ifi_flags;
    interface.type = header.ifi_type;
    each_attribute(body, [&](int type, Bytes data) {
        if (type == IFLA_IFNAME) copy_text(data, interface.name);
        if (type != IFLA_LINKINFO) return;
        each_attribute(data, [&](int inner, Bytes kind) {
            if (inner == IFLA_INFO_KIND) copy_text(kind, interface.kind);
        });
    });
    if (interface.name[0] != '\0' && std::strchr(interface.name, '/') == nullptr) reader.interface(interface, removed);
}

void read_address(Bytes body, bool removed, NetlinkReader& reader) {
    ifaddrmsg header{};
    if (!take(body, header)) return;
    const std::size_t size = header.ifa_family == AF_INET ? 4 : header.ifa_family == AF_INET6 ? 16 : 0;
    if (size == 0) return;
    NetAddress address;
    address.interface = header.ifa_index;
    address.family = header.ifa_family;
    address.prefix = header.ifa_prefixlen;
    std::uint32_t flags = header.ifa_flags;
    bool known = false;
    bool local = false;
    each_attribute(body, [&](int type, Bytes data) {
        if (type == IFA_FLAGS) value_of(data, flags);
        // With a peer the address is the peer's, and the local one ours.
        const bool ours = type == IFA_LOCAL || (type == IFA_ADDRESS && !local);
        if (!ours || data.size() < size) return;
        std::memcpy(address.bytes, data.data(), size);
        known = true;
        local = local || type == IFA_LOCAL;
    });
    address.usable = (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0;
    if (known) reader.address(address, removed);
}

// The ways of a route that has several.
void read_ways(Bytes bytes, NetDefaultRoute route, bool removed, NetlinkReader& reader) {
    rtnexthop way{};
    while (bytes.size() >= sizeof way) {
        std::memcpy(&way, bytes.data(), sizeof way);
        if (way.rtnh_len < sizeof way || way.rtnh_len > bytes.size()) return;
        route.interface = static_cast<std::uint32_t>(way.rtnh_ifindex);
        reader.default_route(route, removed);
        bytes = bytes.subspan(std::min(bytes.size(), aligned(way.rtnh_len)));
    }
}

void read_route(Bytes body, bool removed, NetlinkReader& reader) {
    rtmsg header{};
    if (!take(body, header)) return;
    const bool leads = header.rtm_type == RTN_UNICAST && header.rtm_table != RT_TABLE_LOCAL;
    if (header.rtm_dst_len != 0 || !leads) return reader.other();
    NetDefaultRoute route;
    route.family = header.rtm_family;
    Bytes ways;
    each_attribute(body, [&](int type, Bytes data) {
        if (type == RTA_OIF) value_of(data, route.interface);
        if (type == RTA_PRIORITY) value_of(data, route.metric);
        if (type == RTA_MULTIPATH) ways = data;
    });
    if (route.interface != 0) reader.default_route(route, removed);
    read_ways(ways, route, removed, reader);
}

void read_end(Bytes body, NetlinkReader& reader) {
    int error = 0;
    value_of(body, error);
    if (error == INT_MIN) error = -EPROTO;  // no kernel's
    reader.done(error < 0 ? -error : 0);
}

}  // namespace

void read_netlink(Bytes datagram, NetlinkReader& reader) noexcept {
    nlmsghdr header{};
    while (datagram.size() >= sizeof header) {
        std::memcpy(&header, datagram.data(), sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size()) return;
        const Bytes body = datagram.subspan(sizeof header, header.nlmsg_len - sizeof header);
        if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) reader.interrupted();
        switch (header.nlmsg_type) {
            case RTM_NEWLINK:
            case RTM_DELLINK:
                read_interface(body, header.nlmsg_type == RTM_DELLINK, reader);
                break;
            case RTM_NEWADDR:
            case RTM_DELADDR:
                read_address(body, header.nlmsg_type == RTM_DELADDR, reader);
                break;
            case RTM_NEWROUTE:
            case RTM_DELROUTE:
                read_route(body, header.nlmsg_type == RTM_DELROUTE, reader);
                break;
            case NLMSG_DONE:
            case NLMSG_ERROR:
                read_end(body, reader);
                break;
            default:
                break;
        }
        datagram = datagram.subspan(std::min(datagram.size(), aligned(header.nlmsg_len)));
    }
}

}  // namespace zr::platform
