// The services themselves, where they are installed: on a computer without modems.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

#include "modem_lines.h"

namespace {

using namespace zr::test;

// Whether the service has come to the bus: it may end where it is not allowed what it needs.
bool comes_to_the_bus(const Background& service, const char* name) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (service.is_running() && std::chrono::steady_clock::now() < end) {
        if (zr::platform::find_bus_owner(name).result == zr::platform::BusResult::Answered) return true;
        Sleep(10);
    }
    return false;
}

void expect_no_lines(const char* name) {
    const LineSession session;
    EXPECT_EQ(session.result(), 0);
    EXPECT_EQ(session.count(), 0u);
    HLINE line = 0;
    EXPECT_EQ(lineOpen(session.handle(), 0, &line, 0x20000, 0, 0, LINECALLPRIVILEGE_MONITOR, 0, nullptr),
              LINEERR_BADDEVICEID);
    // It was there all the time.
    EXPECT_EQ(zr::platform::find_bus_owner(name).result, zr::platform::BusResult::Answered);
}

}  // namespace

TEST(RealServices, OfonoHasNoModem) {
    if (access("/usr/sbin/ofonod", X_OK) != 0) GTEST_SKIP() << "there is no ofonod (package ofono)";
    PrivateBus bus;
    ZR_NEEDS_BUS(bus);
    const Background service({"/usr/sbin/ofonod", "--nodetach"});
    if (!comes_to_the_bus(service, "org.ofono")) GTEST_SKIP() << "ofonod does not run on this computer";
    expect_no_lines("org.ofono");
}

TEST(RealServices, ModemManagerHasNoModem) {
    if (access("/usr/sbin/ModemManager", X_OK) != 0) GTEST_SKIP() << "there is no ModemManager (package modemmanager)";
    PrivateBus bus;
    ZR_NEEDS_BUS(bus);
    const Background service({"/usr/sbin/ModemManager", "--test-no-udev", "--test-no-suspend-resume"});
    if (!comes_to_the_bus(service, "org.freedesktop.ModemManager1"))
        GTEST_SKIP() << "ModemManager does not run on this computer";
    const auto asked = zr::platform::call_bus({"org.freedesktop.ModemManager1",
                                               "/org/freedesktop/ModemManager1",
                                               "org.freedesktop.DBus.ObjectManager",
                                               "GetManagedObjects",
                                               {}},
                                              60'000);
    if (asked.result != zr::platform::BusResult::Answered) GTEST_SKIP() << "ModemManager does not answer";
    if (!zr::platform::items_of(asked.first()).empty()) GTEST_SKIP() << "this computer has modems";
    expect_no_lines("org.freedesktop.ModemManager1");
}
