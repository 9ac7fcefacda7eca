#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "base/host_error.h"
#include "iphelper/netlink.h"
#include "platform/errors.h"

namespace zr::platform {
namespace {

// The kernel lists in pieces of at most this size when there is room for them.
constexpr std::size_t kPiece = 32768;
// How long the kernel may take to answer: it does so at once.
constexpr timeval kPatience = {2, 0};

struct Request {
    nlmsghdr header;
    union {
        ifinfomsg interface;
        ifaddrmsg address;
        rtmsg route;
    };
    // Only what listings of interfaces take: statistics are left out.
    rtattr filter_header;
    std::uint32_t filter;
};

// Passes on what belongs to a listing, and notes its end.
class Listing final : public NetlinkReader {
public:
    explicit Listing(NetlinkReader& to) : to_(to) {}
    void interface(const NetInterface& each, bool removed) override { to_.interface(each, removed); }
    void address(const NetAddress& each, bool removed) override { to_.address(each, removed); }
    void default_route(const NetDefaultRoute& each, bool removed) override { to_.default_route(each, removed); }
    void interrupted() override { to_.interrupted(); }
    void done(int number) override {
        ended = true;
        error = number;
    }

    bool ended = false;
    int error = 0;

private:
    NetlinkReader& to_;
};

// An errno, or 0.
int set_groups(int socket, std::uint32_t groups, int option) noexcept {
    for (int number = 1; groups != 0; ++number, groups >>= 1) {
        const bool meant = (groups & 1) != 0;
        if (meant && setsockopt(socket, SOL_NETLINK, option, &number, sizeof number) != 0) return errno;
    }
    return 0;
}

}  // namespace

DWORD NetlinkSocket::open(std::uint32_t groups) noexcept {
    const int type = SOCK_RAW | SOCK_CLOEXEC | (groups != 0 ? SOCK_NONBLOCK : 0);
    socket_ = HostFd(above_standard(::socket(AF_NETLINK, type, NETLINK_ROUTE)));
    if (!socket_) return error_from_errno(errno);
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    self.nl_groups = groups;
    const bool bound = bind(socket_.get(), reinterpret_cast<const sockaddr*>(&self), sizeof self) == 0;
    if (bound && setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience) == 0) return 0;
    const DWORD error = error_from_errno(errno);
    close();
    return error;
}

DWORD NetlinkSocket::join(std::uint32_t groups) noexcept {
    const int error = set_groups(socket_.get(), groups, NETLINK_ADD_MEMBERSHIP);
    if (error == 0) return ERROR_SUCCESS;
    leave(groups);
    return error_from_errno(error);
}

void NetlinkSocket::leave(std::uint32_t groups) noexcept {
    set_groups(socket_.get(), groups, NETLINK_DROP_MEMBERSHIP);
}

DWORD NetlinkSocket::list(What what, NetlinkReader& reader) noexcept {
    Request request;
    std::memset(&request, 0, sizeof request);
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = ++sequence_;
    switch (what) {
        case What::Interfaces:
            request.header.nlmsg_type = RTM_GETLINK;
            request.header.nlmsg_len = sizeof request;
            request.filter_header = {RTA_LENGTH(sizeof request.filter), IFLA_EXT_MASK};
            request.filter = RTEXT_FILTER_SKIP_STATS;
            static_assert(offsetof(Request, filter_header) == NLMSG_LENGTH(sizeof(ifinfomsg)));
            break;
        case What::Addresses:
            request.header.nlmsg_type = RTM_GETADDR;
            request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.address);
            break;
        case What::Routes:
            request.header.nlmsg_type = RTM_GETROUTE;
            request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.route);
            break;
    }
    if (send(socket_.get(), &request, request.header.nlmsg_len, 0) < 0) return error_from_errno(errno);
    const std::unique_ptr<unsigned char[]> piece(new (std::nothrow) unsigned char[kPiece]);
    if (!piece) return ERROR_NOT_ENOUGH_MEMORY;
    Listing listing(reader);
    while (!listing.ended) {
        const ssize_t size = recv(socket_.get(), piece.get(), kPiece, 0);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return error_from_errno(errno);
        read_netlink({piece.get(), static_cast<std::size_t>(size)}, listing);
    }
    return error_from_errno(listing.error);
}

bool NetlinkSocket::read_changes(NetlinkReader& reader) noexcept {
    alignas(nlmsghdr) unsigned char datagram[kPiece / 4];
    for (;;) {
        const ssize_t size = recv(socket_.get(), datagram, sizeof datagram, MSG_DONTWAIT | MSG_TRUNC);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return errno != ENOBUFS;
        if (static_cast<std::size_t>(size) > sizeof datagram) return false;
        read_netlink({datagram, static_cast<std::size_t>(size)}, reader);
    }
}

}  // namespace zr::platform
