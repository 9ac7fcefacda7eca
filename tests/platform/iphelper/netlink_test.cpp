#include "iphelper/netlink.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace zr::platform;

// A message under construction.
class Message {
public:
    explicit Message(std::uint16_t type, std::uint16_t flags = 0) {
        nlmsghdr header{};
        header.nlmsg_type = type;
        header.nlmsg_flags = flags;
        add(&header, sizeof header);
    }
    template <class T>
    Message& head(const T& value) {
        add(&value, sizeof value);
        return *this;
    }
    Message& attribute(std::uint16_t type, const void* data, std::size_t size) {
        rtattr header{};
        header.rta_type = type;
        header.rta_len = static_cast<std::uint16_t>(sizeof header + size);
        add(&header, sizeof header);
        add(data, size);
        return *this;
    }
    Message& attribute(std::uint16_t type, const std::string& data) {
        return attribute(type, data.data(), data.size());
    }
    std::vector<unsigned char> bytes() const {
        auto result = bytes_;
        const auto length = static_cast<std::uint32_t>(result.size());
        std::memcpy(result.data(), &length, sizeof length);
        return result;
    }

private:
    void add(const void* data, std::size_t size) {
        const auto* const from = static_cast<const unsigned char*>(data);
        bytes_.insert(bytes_.end(), from, from + size);
        bytes_.resize((bytes_.size() + 3) / 4 * 4);
    }
    std::vector<unsigned char> bytes_;
};

struct Told final : NetlinkReader {
    void interface(const NetInterface& each, bool removed) override {
        text += std::string(removed ? "-" : "+") + "interface " + std::to_string(each.index) + " " + each.name + "/" +
                each.kind + ";";
    }
    void address(const NetAddress& each, bool removed) override {
        text += std::string(removed ? "-" : "+") + "address " + std::to_string(each.interface);
        for (int i = 0; i < (each.family == AF_INET ? 4 : 16); ++i)
            text += (i == 0 ? " " : ".") + std::to_string(each.bytes[i]);
        text += each.usable ? ";" : " tried;";
    }
    void default_route(const NetDefaultRoute& each, bool removed) override {
        text += std::string(removed ? "-" : "+") + "route " + std::to_string(each.interface) + " " +
                std::to_string(each.metric) + ";";
    }
    void other() override { text += "other;"; }
    void done(int error) override { text += "done " + std::to_string(error) + ";"; }
    void interrupted() override { text += "torn;"; }

    std::string text;
};

std::string told(const std::vector<unsigned char>& bytes) {
    Told reader;
    // In a block of exactly its size, so that a sanitizer sees a step outside.
    const std::vector<unsigned char> exact(bytes.begin(), bytes.end());
    read_netlink(exact, reader);
    return reader.text;
}

ifaddrmsg address_head(unsigned char family) {
    ifaddrmsg head{};
    head.ifa_family = family;
    head.ifa_index = 3;
    return head;
}

Message interface(const std::string& name) {
    ifinfomsg head{};
    head.ifi_index = 3;
    return Message(RTM_NEWLINK).head(head).attribute(IFLA_IFNAME, name);
}

}  // namespace

TEST(Netlink, TellsInterfaces) {
    EXPECT_EQ(told(interface(std::string("eth0\0", 5)).bytes()), "+interface 3 eth0/;");
    const Message kind = Message(0).attribute(IFLA_INFO_KIND, "veth");
    const auto inner = kind.bytes();
    Message with_kind = interface("a\xFF!");
    with_kind.attribute(IFLA_LINKINFO | NLA_F_NESTED, inner.data() + sizeof(nlmsghdr), inner.size() - sizeof(nlmsghdr));
    EXPECT_EQ(told(with_kind.bytes()), "+interface 3 a\xFF!/veth;");
}

TEST(Netlink, PassesOverNamesThatCannotBe) {
    EXPECT_EQ(told(interface("../../etc").bytes()), "");
    EXPECT_EQ(told(interface("").bytes()), "");
    EXPECT_EQ(told(interface(std::string(300, 'n')).bytes()), "+interface 3 " + std::string(15, 'n') + "/;");
}

TEST(Netlink, TellsOwnAddressesNotTheirPeers) {
    const unsigned char own[] = {10, 0, 0, 1};
    const unsigned char peer[] = {10, 0, 0, 2};
    EXPECT_EQ(told(Message(RTM_NEWADDR)
                       .head(address_head(AF_INET))
                       .attribute(IFA_ADDRESS, peer, 4)
                       .attribute(IFA_LOCAL, own, 4)
                       .bytes()),
              "+address 3 10.0.0.1;");
    EXPECT_EQ(told(Message(RTM_NEWADDR)
                       .head(address_head(AF_INET))
                       .attribute(IFA_LOCAL, own, 4)
                       .attribute(IFA_ADDRESS, peer, 4)
                       .bytes()),
              "+address 3 10.0.0.1;");
    EXPECT_EQ(told(Message(RTM_DELADDR).head(address_head(AF_INET)).attribute(IFA_ADDRESS, peer, 4).bytes()),
              "-address 3 10.0.0.2;");
    const std::uint32_t flags = IFA_F_TENTATIVE;
    EXPECT_EQ(told(Message(RTM_NEWADDR)
                       .head(address_head(AF_INET))
                       .attribute(IFA_LOCAL, own, 4)
                       .attribute(IFA_FLAGS, &flags, 4)
                       .bytes()),
              "+address 3 10.0.0.1 tried;");
}

TEST(Netlink, PassesOverAddressesThatAreNone) {
    const unsigned char short_one[] = {10, 0};
    EXPECT_EQ(told(Message(RTM_NEWADDR).head(address_head(AF_INET)).attribute(IFA_LOCAL, short_one, 2).bytes()), "");
    EXPECT_EQ(told(Message(RTM_NEWADDR).head(address_head(AF_INET)).bytes()), "");
    const unsigned char own[16] = {};
    EXPECT_EQ(told(Message(RTM_NEWADDR).head(address_head(77)).attribute(IFA_LOCAL, own, 16).bytes()), "");
}

TEST(Netlink, TellsDefaultRoutesOfAllTheirWays) {
    rtmsg head{};
    head.rtm_type = RTN_UNICAST;
    head.rtm_table = RT_TABLE_MAIN;
    const std::uint32_t out = 5;
    const std::uint32_t metric = 100;
    EXPECT_EQ(
        told(Message(RTM_NEWROUTE).head(head).attribute(RTA_OIF, &out, 4).attribute(RTA_PRIORITY, &metric, 4).bytes()),
        "+route 5 100;");
    rtnexthop ways[2] = {};
    ways[0] = {sizeof(rtnexthop), 0, 0, 7};
    ways[1] = {sizeof(rtnexthop), 0, 0, 8};
    EXPECT_EQ(told(Message(RTM_NEWROUTE).head(head).attribute(RTA_MULTIPATH, ways, sizeof ways).bytes()),
              "+route 7 0;+route 8 0;");
    ways[1].rtnh_len = 1;
    EXPECT_EQ(told(Message(RTM_NEWROUTE).head(head).attribute(RTA_MULTIPATH, ways, sizeof ways).bytes()),
              "+route 7 0;");
    head.rtm_dst_len = 8;
    EXPECT_EQ(told(Message(RTM_DELROUTE).head(head).attribute(RTA_OIF, &out, 4).bytes()), "other;");
    head.rtm_dst_len = 0;
    head.rtm_type = RTN_UNREACHABLE;
    EXPECT_EQ(told(Message(RTM_NEWROUTE).head(head).attribute(RTA_OIF, &out, 4).bytes()), "other;");
}

TEST(Netlink, TellsEndsAndTornListings) {
    EXPECT_EQ(told(Message(NLMSG_DONE).head(0).bytes()), "done 0;");
    EXPECT_EQ(told(Message(NLMSG_ERROR).head(-13).bytes()), "done 13;");
    EXPECT_EQ(told(Message(NLMSG_ERROR).head(INT_MIN).bytes()), "done " + std::to_string(EPROTO) + ";");
    EXPECT_EQ(told(Message(NLMSG_DONE).bytes()), "done 0;");
    EXPECT_EQ(told(Message(NLMSG_DONE, NLM_F_DUMP_INTR).head(0).bytes()), "torn;done 0;");
}

TEST(Netlink, ReadsEveryPieceOfADatagramWithoutAStepOutside) {
    const unsigned char own[] = {10, 0, 0, 1};
    std::vector<unsigned char> all = interface("eth0").bytes();
    const auto address = Message(RTM_NEWADDR).head(address_head(AF_INET)).attribute(IFA_LOCAL, own, 4).bytes();
    all.insert(all.end(), address.begin(), address.end());
    EXPECT_EQ(told(all), "+interface 3 eth0/;+address 3 10.0.0.1;");
    for (std::size_t size = 0; size < all.size(); ++size) {
        told({all.begin(), all.begin() + static_cast<std::ptrdiff_t>(size)});
    }
    for (std::size_t at = 0; at < all.size(); ++at) {
        auto wrong = all;
        for (const int value : {0, 1, 0x7F, 0xFF}) {
            wrong[at] = static_cast<unsigned char>(value);
            told(wrong);
        }
    }
}
