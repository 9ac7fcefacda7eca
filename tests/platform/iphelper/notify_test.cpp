#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "iphelper/network_watch.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/iphelper.h"
#include "platform/kernel.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/network_space.h"
#include "support/own_process.h"

namespace {

using zr::test::count_descriptors;
using zr::test::NetworkSpace;
using zr::test::until_threads;

constexpr DWORD kLong = 30000;

class NotifyAddr : public testing::Test {
protected:
    void SetUp() override {
        ZR_NEEDS_NETWORK(network_);
        ASSERT_TRUE(NetworkSpace::add_device("one"));
    }
    void TearDown() override {
        if (changes_ != nullptr) CloseHandle(changes_);
    }

    void watch() { ASSERT_EQ(NotifyAddrChange(&changes_, nullptr), NO_ERROR); }
    bool told(DWORD milliseconds = kLong) const { return WaitForSingleObject(changes_, milliseconds) == WAIT_OBJECT_0; }

    // A change that is certain to be told comes last: what was told before it has been, too.
    static bool mark() { return NetworkSpace::run("addr add 10.99.0.1/32 dev lo"); }

    NetworkSpace network_;
    HANDLE changes_ = nullptr;
};

}  // namespace

TEST_F(NotifyAddr, TellsOfEachAddressThatComesOrGoes) {
    watch();
    EXPECT_FALSE(told(0));
    for (const char* const change :
         {"addr add 10.1.0.1/24 dev one", "addr add 10.1.0.2/24 dev one", "addr add fd00::1/64 dev one nodad",
          "addr del 10.1.0.2/24 dev one", "addr del fd00::1/64 dev one", "addr flush dev one"}) {
        ASSERT_TRUE(NetworkSpace::run(change));
        EXPECT_TRUE(told()) << change;
    }
}

TEST_F(NotifyAddr, IsResetByTheWaitItEnds) {
    watch();
    ASSERT_TRUE(NetworkSpace::run("addr add 10.1.0.1/24 dev one"));
    EXPECT_TRUE(told());
    EXPECT_FALSE(told(0));
}

TEST_F(NotifyAddr, TellsNotOfWhatIsNoChangeOfAddresses) {
    ASSERT_TRUE(NetworkSpace::run("addr add 10.1.0.1/24 dev one"));
    watch();
    // The same once more, with another lifetime; an interface; a route.
    ASSERT_TRUE(NetworkSpace::run("addr change 10.1.0.1/24 dev one valid_lft 1000 preferred_lft 500"));
    ASSERT_TRUE(NetworkSpace::run("link set one mtu 1400"));
    ASSERT_TRUE(NetworkSpace::run("route add 10.7.0.0/24 dev one"));
    HANDLE all = nullptr;
    ASSERT_EQ(zr::platform::watch_network(zr::platform::NetworkChanges::All, all), 0u);
    ASSERT_TRUE(NetworkSpace::run("link set one mtu 1500"));
    EXPECT_EQ(WaitForSingleObject(all, kLong), WAIT_OBJECT_0);
    CloseHandle(all);
    EXPECT_FALSE(told(0));
    ASSERT_TRUE(mark());
    EXPECT_TRUE(told());
}

namespace {

// What the kernel tells this process's sockets of, all together (RTMGRP_).
std::uint32_t groups_joined() {
    std::set<std::string> own;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        if (target.starts_with("socket:[")) own.insert(target.substr(8, target.size() - 9));
    }
    std::ifstream table("/proc/thread-self/net/netlink");
    std::string line;
    std::getline(table, line);
    std::uint32_t joined = 0;
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
        if (fields.size() >= 10 && own.contains(fields[9]))
            joined |= static_cast<std::uint32_t>(std::stoul(fields[3], nullptr, 16));
    }
    return joined;
}

}  // namespace

TEST_F(NotifyAddr, IsWokenForAddressesAloneUnlessSomebodyWantsAll) {
    constexpr std::uint32_t addresses = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    constexpr std::uint32_t others = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    using zr::platform::NetworkChanges;
    HANDLE all[2] = {};
    watch();
    EXPECT_EQ(groups_joined(), addresses);
    for (HANDLE& each : all) {
        ASSERT_EQ(zr::platform::watch_network(NetworkChanges::All, each), 0u);
        EXPECT_EQ(groups_joined(), addresses | others);
    }
    ASSERT_TRUE(NetworkSpace::run("link set one mtu 1400"));
    EXPECT_EQ(WaitForSingleObject(all[1], kLong), WAIT_OBJECT_0);
    CloseHandle(all[0]);
    EXPECT_EQ(groups_joined(), addresses | others);
    EXPECT_EQ(zr::test::in_fork([&] {
                  WaitForSingleObject(changes_, 0);  // which begins its own look
                  return groups_joined() == (addresses | others) ? 7 : 1;
              }),
              7);
    CloseHandle(all[1]);
    EXPECT_EQ(groups_joined(), addresses);
    ASSERT_TRUE(mark());
    EXPECT_TRUE(told());
    // Begun with all.
    CloseHandle(changes_);
    changes_ = nullptr;
    EXPECT_EQ(groups_joined(), 0u);
    ASSERT_EQ(zr::platform::watch_network(NetworkChanges::All, all[0]), 0u);
    EXPECT_EQ(groups_joined(), addresses | others);
    CloseHandle(all[0]);
}

TEST_F(NotifyAddr, AnAddressThatIsBeingTriedDoesNotCountYet) {
    watch();
    ASSERT_TRUE(NetworkSpace::run("addr add fd00::7/64 dev one"));
    EXPECT_TRUE(told());  // when it has been found to be nobody else's, which the kernel does within seconds
}

TEST_F(NotifyAddr, TellsEveryHandle) {
    watch();
    HANDLE other = nullptr;
    ASSERT_EQ(NotifyAddrChange(&other, nullptr), NO_ERROR);
    EXPECT_NE(other, changes_);
    ASSERT_TRUE(NetworkSpace::run("addr add 10.1.0.1/24 dev one"));
    EXPECT_TRUE(told());
    EXPECT_EQ(WaitForSingleObject(other, kLong), WAIT_OBJECT_0);
    CloseHandle(other);
    ASSERT_TRUE(NetworkSpace::run("addr del 10.1.0.1/24 dev one"));
    EXPECT_TRUE(told());
}

TEST_F(NotifyAddr, TellsWhenAnInterfaceGoesWithItsAddresses) {
    ASSERT_TRUE(NetworkSpace::run("addr add 10.1.0.1/24 dev one"));
    watch();
    ASSERT_TRUE(NetworkSpace::run("link del one"));
    EXPECT_TRUE(told());
}

TEST_F(NotifyAddr, MissesNothingWhenMoreHappensThanTheKernelKeeps) {
    watch();
    // Far more than the socket's buffer holds, and all of it at once for the thread that reads: the last is what
    // counts.
    std::string lines;
    for (int i = 0; i < 10000; ++i) {
        lines += "addr add 10." + std::to_string(2 + i / 250) + "." + std::to_string(i % 250) + ".1/32 dev one\n";
    }
    ASSERT_TRUE(NetworkSpace::run_all(lines));
    EXPECT_TRUE(told());
    while (told(0)) {
    }
    // From here on the addresses are known again: taking one away is told, and only that.
    ASSERT_TRUE(NetworkSpace::run("addr del 10.2.0.1/32 dev one"));
    EXPECT_TRUE(told());
    ASSERT_TRUE(NetworkSpace::run("addr flush dev one"));
    EXPECT_TRUE(told());
}

TEST_F(NotifyAddr, WaitsItselfWithoutAHandle) {
    std::atomic<bool> returned{false};
    const int space = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    std::thread waiter([&] {
        EXPECT_EQ(setns(space, CLONE_NEWNET), 0);
        EXPECT_EQ(NotifyAddrChange(nullptr, nullptr), NO_ERROR);
        returned = true;
    });
    for (int i = 0; !returned; i = (i + 1) % 200) {
        const std::string address = "10.3.0." + std::to_string(i + 1) + "/32 dev one";
        if (!NetworkSpace::run("addr add " + address)) NetworkSpace::run("addr del " + address);
    }
    waiter.join();
    close(space);
}

TEST_F(NotifyAddr, RefusesWhatItCannotDo) {
    HANDLE handle = this;
    EXPECT_EQ(NotifyAddrChange(&handle, reinterpret_cast<OVERLAPPED*>(this)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(zr::platform::watch_network(zr::platform::NetworkChanges::All, handle), 0u);
    CloseHandle(handle);
}

TEST_F(NotifyAddr, LeavesNothingBehind) {
    const int idle = 1 + zr::test::added_threads();
    watch();
    CloseHandle(std::exchange(changes_, nullptr));
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    // The thread that read for the handle takes its own descriptor along.
    EXPECT_TRUE(until_threads(idle));
    const int open_files = count_descriptors();
    for (int round = 0; round < 50; ++round) {
        watch();
        CloseHandle(std::exchange(changes_, nullptr));
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
    EXPECT_TRUE(until_threads(idle));
    EXPECT_EQ(count_descriptors(), open_files);
}

TEST_F(NotifyAddr, FailsWithoutDescriptorsAndWorksLater) {
    // The undefined behaviour sanitizer looks an object's type up by a pipe, but only once for each.
    watch();
    CloseHandle(std::exchange(changes_, nullptr));
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 3;
    setrlimit(RLIMIT_NOFILE, &none);
    HANDLE handle = this;
    const DWORD error = NotifyAddrChange(&handle, nullptr);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(error, ERROR_TOO_MANY_OPEN_FILES);
    EXPECT_EQ(handle, nullptr);
    watch();
    ASSERT_TRUE(mark());
    EXPECT_TRUE(told());
}

TEST_F(NotifyAddr, GoesOnInAForkedChildAndInItsParent) {
    watch();
    const pid_t child = zr::test::fork_beside_threads();
    if (child == 0) {
        // The first wait looks what has changed since the fork.
        while (!told(10)) {
            NetworkSpace::run("addr add 10.8.0.1/24 dev one");
            NetworkSpace::run("addr del 10.8.0.1/24 dev one");
        }
        _exit(told(0) ? 2 : 0);
    }
    EXPECT_GE(zr::test::await_child(child), 0);
    ASSERT_TRUE(mark());
    EXPECT_TRUE(told());
}
