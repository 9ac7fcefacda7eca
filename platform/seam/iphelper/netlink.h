#pragma once

// What the kernel says of interfaces, addresses and routes.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/host_fd.h"
#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

struct NetInterface {
    std::uint32_t index = 0;
    std::uint32_t flags = 0;  // IFF_
    std::uint16_t type = 0;   // ARPHRD_
    char name[16] = "";       // whatever bytes, but no slash
    char kind[16] = "";       // of a device that is made by software; empty otherwise
};

struct NetAddress {
    std::uint32_t interface = 0;
    std::uint8_t family = 0;  // AF_INET or AF_INET6
    std::uint8_t prefix = 0;
    bool usable = true;  // no: others may have it, or it is still being found out
    unsigned char bytes[16] = {};

    friend auto operator<=>(const NetAddress&, const NetAddress&) = default;
};

// A way to everywhere that has none of its own.
struct NetDefaultRoute {
    std::uint32_t interface = 0;
    std::uint32_t metric = 0;
    std::uint8_t family = 0;
};

// Whom to tell what messages say. The calls must not throw.
class NetlinkReader {
public:
    virtual void interface(const NetInterface&, bool /*removed*/) {}
    virtual void address(const NetAddress&, bool /*removed*/) {}
    virtual void default_route(const NetDefaultRoute&, bool /*removed*/) {}
    // Something about interfaces or routes that is none of these.
    virtual void other() {}
    // The end of a listing, or an answer; an errno.
    virtual void done(int /*error*/) {}
    virtual void interrupted() {}  // what is listed changed meanwhile: the listing may be torn

protected:
    ~NetlinkReader() = default;
};

// Reads the messages in a datagram; what is not whole, or says less than it must, is passed over.
ZRPLATFORM_API void read_netlink(std::span<const unsigned char> datagram, NetlinkReader& reader) noexcept;

class ZRPLATFORM_API NetlinkSocket {
public:
    // Opens; with groups (RTMGRP_) it is told what changes. An error code, or 0.
    DWORD open(std::uint32_t groups) noexcept;
    void close() noexcept { socket_ = HostFd(); }
    explicit operator bool() const noexcept { return static_cast<bool>(socket_); }
    int descriptor() const noexcept { return socket_.get(); }

    // More to be told of from now on, or less. An error code, or 0.
    DWORD join(std::uint32_t groups) noexcept;
    void leave(std::uint32_t groups) noexcept;

    enum class What { Interfaces, Addresses, Routes };
    // Lists all there are, in one datagram after the other. A torn listing tells interrupted(), and is to be done again
    // by a reader that forgets it. An error code, or 0.
    DWORD list(What what, NetlinkReader& reader) noexcept;

    // What has come by itself, as far as it is there. False when some of it was lost.
    bool read_changes(NetlinkReader& reader) noexcept;

private:
    HostFd socket_;
    std::uint32_t sequence_ = 0;
};

}  // namespace zr::platform
