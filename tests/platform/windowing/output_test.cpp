// The real output: what display servers say of it.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/screen.h"
#include "support/display.h"
#include "support/forked.h"
#include "windowing/screen_facts.h"

namespace {

using zr::platform::screen_facts;
using zr::platform::ScreenFacts;
using zr::test::Environment;
using zr::test::SilentServer;
using zr::test::WaylandServer;
using zr::test::XServer;

const bool asks_always = (zr::platform::output_kept_milliseconds = 0) == 0;

// The server has a second, and this computer may be busy: asked until it has answered.
ScreenFacts answered_facts() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        const ScreenFacts facts = screen_facts();
        if (facts.width != 240 || std::chrono::steady_clock::now() > end) return facts;
        std::this_thread::yield();
    }
}

void expect_usual(const ScreenFacts& facts) {
    EXPECT_EQ(facts.width, 240);
    EXPECT_EQ(facts.height, 320);
    EXPECT_EQ(facts.depth, 24);
    EXPECT_EQ(facts.dots_across, 96);
    EXPECT_EQ(facts.dots_down, 96);
}

TEST(Output, IsTheXServers) {
    const XServer server("480x640x24", 192);
    ZR_NEEDS_DISPLAY(server);
    const Environment display("DISPLAY", server.name());
    const ScreenFacts facts = answered_facts();
    EXPECT_EQ(facts.width, 480);
    EXPECT_EQ(facts.height, 640);
    EXPECT_EQ(facts.depth, 24);
    EXPECT_NEAR(facts.dots_across, 192, 2);  // it keeps whole millimetres
    EXPECT_NEAR(facts.dots_down, 192, 2);
    EXPECT_EQ(GetSystemMetrics(SM_CXSCREEN), 480);
    EXPECT_EQ(GetSystemMetrics(SM_CYSCREEN), 640);
}

TEST(Output, HasTheDepthOfTheXServer) {
    const XServer server("320x200x16", 96);
    ZR_NEEDS_DISPLAY(server);
    const Environment display("DISPLAY", server.name());
    const ScreenFacts facts = answered_facts();
    EXPECT_EQ(facts.width, 320);
    EXPECT_EQ(facts.height, 200);
    EXPECT_EQ(facts.depth, 16);
}

TEST(Output, IsTheWaylandServersFirst) {
    const WaylandServer server(800, 480);
    ZR_NEEDS_DISPLAY(server);
    const Environment wayland("WAYLAND_DISPLAY", server.name());
    const Environment display("DISPLAY", ":no display");
    const ScreenFacts facts = answered_facts();
    EXPECT_EQ(facts.width, 800);
    EXPECT_EQ(facts.height, 480);
    EXPECT_EQ(facts.depth, 24);
    EXPECT_GE(facts.dots_across, 20);
}

TEST(Output, IsAsTheWaylandServerTurnsIt) {
    const WaylandServer server(800, 480, "rotate-90");
    ZR_NEEDS_DISPLAY(server);
    const Environment wayland("WAYLAND_DISPLAY", server.name());
    const ScreenFacts facts = answered_facts();
    EXPECT_EQ(facts.width, 480);
    EXPECT_EQ(facts.height, 800);
}

TEST(Output, IsTheXServersWhereWaylandHasNone) {
    const XServer server("480x640x24", 96);
    ZR_NEEDS_DISPLAY(server);
    const Environment wayland("WAYLAND_DISPLAY", "no-such-server");
    const Environment display("DISPLAY", server.name());
    EXPECT_EQ(answered_facts().height, 640);
}

TEST(Output, IsNotLookedAtWhereASizeIsSet) {
    const SilentServer server;
    ASSERT_TRUE(server.is_there());
    const Environment display("DISPLAY", server.name());
    const Environment size("ZR_SCREEN", "111x222@333");
    EXPECT_EQ(screen_facts().width, 111);
    EXPECT_EQ(screen_facts().dots_down, 333);
}

TEST(Output, OfNobodyIsAsUsual) {
    expect_usual(screen_facts());
    const Environment wayland("WAYLAND_DISPLAY", "no-such-server");
    const Environment display("DISPLAY", "/no/such/server");
    expect_usual(screen_facts());
    const Environment long_name("WAYLAND_DISPLAY", std::string(300, 'x'));
    expect_usual(screen_facts());
}

void expect_patience_with(const char* variable) {
    const SilentServer server;
    ASSERT_TRUE(server.is_there());
    const Environment display(variable, server.name());
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i) {
        expect_usual(screen_facts());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(60));
}

TEST(Output, OfAWaylandServerThatSaysNothingIsWaitedForOnce) {
    expect_patience_with("WAYLAND_DISPLAY");
}

TEST(Output, OfAnXServerThatSaysNothingIsWaitedForOnce) {
    expect_patience_with("DISPLAY");
}

TEST(Output, OfAServerThatDiedIsForgotten) {
    XServer server("480x640x24", 96);
    ZR_NEEDS_DISPLAY(server);
    const Environment display("DISPLAY", server.name());
    EXPECT_EQ(answered_facts().width, 480);
    server.process().end();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (screen_facts().width != 240 && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    expect_usual(screen_facts());
}

TEST(Output, IsAskedForByManyThreadsAndBothSidesOfAFork) {
    const XServer server("480x640x24", 96);
    ZR_NEEDS_DISPLAY(server);
    const Environment display("DISPLAY", server.name());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] { EXPECT_EQ(answered_facts().width, 480); });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(zr::test::in_fork([] { return answered_facts().height == 640 ? 0 : 1; }), 0);
    EXPECT_EQ(answered_facts().height, 640);
}

}  // namespace
