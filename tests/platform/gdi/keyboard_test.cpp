// The input panel: a state that processes share, and the desktop's on-screen keyboard where one runs.

#include "gdi/keyboard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/base.h"
#include "platform/gdi.h"
#include "platform/input_panel.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/private_bus.h"

namespace {

using zr::platform::bus_entry;
using zr::platform::bus_integer;
using zr::platform::keyboard_patience;
using zr::platform::keyboard_rest;
using zr::test::Child;
using zr::test::MockService;
using zr::test::PrivateBus;

constexpr const char* kKeyboard = "sm.puri.OSK0";
constexpr const char* kObject = "/sm/puri/OSK0";

bool is_up() {
    SIPINFO info{};
    info.cbSize = sizeof info;
    EXPECT_TRUE(SHSipInfo(SPI_GETSIPINFO, 0, &info, 0));
    return (info.fdwFlags & SIPF_ON) != 0;
}

bool set_up(bool up) {
    SIPINFO info{};
    info.cbSize = sizeof info;
    info.fdwFlags = up ? SIPF_ON : SIPF_OFF;
    return SHSipInfo(SPI_SETSIPINFO, 0, &info, 0) != FALSE;
}

class TopWindow {
public:
    TopWindow() {
        WNDCLASSW description{};
        description.lpfnWndProc = DefWindowProcW;
        description.lpszClassName = u"keyboard.test";
        RegisterClassW(&description);
        window_ =
            CreateWindowExW(0, description.lpszClassName, nullptr, 0, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
        EXPECT_NE(window_, nullptr);
    }
    ~TopWindow() { DestroyWindow(window_); }
    TopWindow(const TopWindow&) = delete;
    TopWindow& operator=(const TopWindow&) = delete;

    // Waits for a change to be told, for a minute at most.
    bool is_told() const {
        constexpr UINT_PTR kTimer = 1;
        SetTimer(window_, kTimer, 60'000, nullptr);
        MSG message{};
        while (GetMessageW(&message, window_, 0, 0) > 0 && message.message != WM_TIMER) {
            if (message.message == WM_SETTINGCHANGE && message.wParam == SPI_SETSIPINFO) {
                KillTimer(window_, kTimer);
                return true;
            }
        }
        KillTimer(window_, kTimer);
        return false;
    }
    bool is_told_at_once() const {
        MSG message{};
        return PeekMessageW(&message, window_, WM_SETTINGCHANGE, WM_SETTINGCHANGE, PM_REMOVE) != FALSE;
    }

private:
    HWND window_ = nullptr;
};

// ---- Without a keyboard ----

ZR_CHILD(panel_user) {
    const TopWindow window;
    zr::test::say(is_up() ? "up" : "down");
    for (std::string line = zr::test::hear(); !line.empty(); line = zr::test::hear()) {
        if (line == "await") {
            const bool told = window.is_told();
            zr::test::say(!told ? "not told" : is_up() ? "up" : "down");
        } else {
            set_up(line == "up");
            zr::test::say("done");
        }
    }
    return 0;
}

TEST(InputPanel, TellsTheWindowsOfAllProcesses) {
    const TopWindow window;
    EXPECT_FALSE(is_up());
    Child other("panel_user");
    EXPECT_EQ(other.hear(), "down");
    EXPECT_TRUE(set_up(true));
    EXPECT_TRUE(window.is_told_at_once());
    other.say("await");
    EXPECT_EQ(other.hear(), "up");
    other.say("down");
    EXPECT_EQ(other.hear(), "done");
    EXPECT_TRUE(window.is_told());
    EXPECT_FALSE(is_up());
    EXPECT_FALSE(window.is_told_at_once());
}

TEST(InputPanel, IsKnownToBothSidesOfAFork) {
    const TopWindow window;
    EXPECT_FALSE(is_up());
    EXPECT_EQ(zr::test::in_fork([] { return !is_up() && set_up(true) && is_up() ? 0 : 1; }), 0);
    EXPECT_TRUE(window.is_told());
    EXPECT_TRUE(is_up());
    EXPECT_TRUE(set_up(false));
}

// ---- With one ----

class Keyboard : public testing::Test {
protected:
    void SetUp() override {
        bus_ = std::make_unique<PrivateBus>(PrivateBus::Session::Too);
        ZR_NEEDS_BUS(*bus_);
        keyboard_patience = 60'000;
        keyboard_rest = 0;
        mock_ = std::make_unique<MockService>(kKeyboard, kObject, kKeyboard);
        ZR_NEEDS_BUS(*mock_);
        ASSERT_TRUE(mock_->add_properties(kObject, kKeyboard, {bus_entry("Visible", bus_integer(0, 'b'))}));
        ASSERT_TRUE(mock_->add_method(kKeyboard, "SetVisible", "b", "",
                                      "self.UpdateProperties('sm.puri.OSK0', {'Visible': dbus.Boolean(args[0])})"));
    }
    void TearDown() override {
        keyboard_rest = 0;
        mock_.reset();
        bus_.reset();
        set_up(false);
    }
    void move(bool up) const {
        EXPECT_TRUE(mock_->set(kObject, kKeyboard, {bus_entry("Visible", bus_integer(up ? 1 : 0, 'b'))}));
    }
    std::size_t moves() const {
        const auto calls = mock_->call(MockService::kMock, "GetMethodCalls", {zr::platform::bus_text("SetVisible")});
        return zr::platform::items_of(calls.first()).size();
    }

    std::unique_ptr<PrivateBus> bus_;
    std::unique_ptr<MockService> mock_;
};

TEST_F(Keyboard, IsMovedAndAsked) {
    const TopWindow window;
    EXPECT_FALSE(is_up());
    EXPECT_TRUE(set_up(true));
    EXPECT_EQ(moves(), 1u);
    EXPECT_TRUE(is_up());
    EXPECT_TRUE(window.is_told_at_once());
    move(false);
    EXPECT_FALSE(is_up());
    EXPECT_TRUE(SHSipPreference(GetDesktopWindow(), SIP_UP));
    EXPECT_EQ(moves(), 2u);
    EXPECT_TRUE(is_up());
}

TEST_F(Keyboard, TellsWhenAPersonMovesIt) {
    const TopWindow window;
    EXPECT_FALSE(is_up());
    move(true);
    EXPECT_TRUE(window.is_told());
    move(false);
    EXPECT_TRUE(window.is_told());
    EXPECT_FALSE(is_up());
}

TEST_F(Keyboard, ThatDiesLeavesTheState) {
    EXPECT_TRUE(set_up(true));
    mock_->process().end();
    EXPECT_TRUE(is_up());
    EXPECT_TRUE(set_up(false));
    EXPECT_FALSE(is_up());
}

TEST_F(Keyboard, ThatNeverAnswersIsLeftAlone) {
    EXPECT_FALSE(is_up());
    mock_->process().stop();
    keyboard_patience = 100;
    keyboard_rest = 60'000;
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(set_up(i % 2 == 0));
        EXPECT_EQ(is_up(), i % 2 == 0);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(60));
    mock_->process().go_on();
}

TEST_F(Keyboard, IsAskedInAForkedChild) {
    EXPECT_FALSE(is_up());
    move(true);
    EXPECT_EQ(zr::test::in_fork([] {
                  keyboard_patience = 60'000;
                  return is_up() && set_up(false) && !is_up() ? 0 : 1;
              }),
              0);
    EXPECT_FALSE(is_up());
}

}  // namespace
