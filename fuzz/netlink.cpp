// The kernel's messages: whatever they say, what is told of them is whole.

#include "iphelper/netlink.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include "support/input.h"

namespace {

using namespace zr::platform;
using zr::fuzz::require;

template <std::size_t Size>
bool is_terminated(const char (&text)[Size]) {
    return std::memchr(text, '\0', Size) != nullptr;
}

struct Checker final : NetlinkReader {
    void interface(const NetInterface& each, bool) override {
        require(is_terminated(each.name) && is_terminated(each.kind));
        require(each.name[0] != '\0' && std::strchr(each.name, '/') == nullptr);
    }
    void address(const NetAddress& each, bool) override { require(each.family == 2 || each.family == 10); }
    void default_route(const NetDefaultRoute&, bool) override { ++told; }
    void other() override { ++told; }
    void done(int) override { ++told; }
    void interrupted() override { ++told; }

    std::size_t told = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // In a block of exactly its size, so that a sanitizer sees a step outside.
    const std::vector<unsigned char> datagram(data, data + size);
    Checker checker;
    read_netlink(datagram, checker);
    require(checker.told <= size);
    return 0;
}
