#pragma once

// A system bus of the test's own, at the address that the sandbox gives to everybody in it, and services on it that
// python3-dbusmock plays.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "bus/system_bus.h"
#include "support/background.h"
#include "support/sandbox.h"

namespace zr::test {

class PrivateBus {
public:
    // The mocks are on the system bus; with Session::Too it is the session bus as well.
    enum class Session { No, Too };

    explicit PrivateBus(Session session = Session::No)
        : daemon_({"dbus-daemon", "--nofork", "--print-address", "--config-file=" + write_configuration()}) {
        if (!daemon_.is_there()) {
            why_ = "there is no dbus-daemon (package dbus-daemon)";
        } else if (daemon_.line().empty()) {
            why_ = "the bus does not start";
        }
        if (session == Session::Too) {
            setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + socket().string()).c_str(), 1);
        }
    }
    ~PrivateBus() {
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        daemon_.end();
        std::error_code ignored;
        std::filesystem::remove(socket(), ignored);
    }

    // Empty when all is well.
    const std::string& why() const { return why_; }
    Background& daemon() { return daemon_; }

    static std::filesystem::path socket() { return sandbox() / "bus"; }

private:
    static std::string write_configuration() {
        const std::filesystem::path file = sandbox() / "bus.conf";
        std::ofstream(file)
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
               "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><listen>unix:path="
            << socket().string()
            << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\" "
               "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
        return file.string();
    }

    Background daemon_;
    std::string why_;
};

// A mock on the bus: an object with that interface, to which org.freedesktop.DBus.Mock adds whatever a test wants. It
// is there when the constructor returns.
class MockService {
public:
    static constexpr const char* kMock = "org.freedesktop.DBus.Mock";

    // Debian's python3 has Debian's packages.
    MockService(std::string name, std::string path, std::string interface)
        : name_(std::move(name)),
          path_(std::move(path)),
          process_(
              {"/usr/bin/python3", "-m", "dbusmock", "--system", "--logfile", "/dev/null", name_, path_, interface}) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!is_there() && process_.is_running() && std::chrono::steady_clock::now() < end) {
        }
        if (!is_there()) why_ = "python3-dbusmock does not start a service";
    }

    const std::string& why() const { return why_; }
    Background& process() { return process_; }

    platform::BusAnswer call(const std::string& interface, const std::string& member,
                             std::vector<platform::BusValue> arguments, const std::string& path = "") const {
        return platform::call_bus({name_, path.empty() ? path_ : path, interface, member, std::move(arguments)},
                                  60'000);
    }
    bool add_method(const std::string& interface, const std::string& name, const std::string& in,
                    const std::string& out, const std::string& code, const std::string& path = "") const {
        using platform::bus_text;
        return call(kMock, "AddMethod",
                    {bus_text(interface), bus_text(name), bus_text(in), bus_text(out), bus_text(code)}, path)
                   .result == platform::BusResult::Answered;
    }
    using Properties = std::vector<platform::BusValue>;  // entries
    bool add_object(const std::string& path, const std::string& interface, Properties properties) const {
        using platform::bus_array;
        using platform::bus_text;
        return call(kMock, "AddObject",
                    {bus_text(path), bus_text(interface), bus_array("{sv}", std::move(properties)),
                     bus_array("(ssss)", {})})
                   .result == platform::BusResult::Answered;
    }
    // A further interface of an object.
    bool add_properties(const std::string& path, const std::string& interface, Properties properties) const {
        using platform::bus_array;
        using platform::bus_text;
        return call(kMock, "AddProperties", {bus_text(interface), bus_array("{sv}", std::move(properties))}, path)
                   .result == platform::BusResult::Answered;
    }
    // With the signal that says so.
    bool set(const std::string& path, const std::string& interface, Properties properties) const {
        using platform::bus_array;
        using platform::bus_text;
        return call(kMock, "UpdateProperties", {bus_text(interface), bus_array("{sv}", std::move(properties))}, path)
                   .result == platform::BusResult::Answered;
    }

private:
    bool is_there() const { return platform::find_bus_owner(name_).result == platform::BusResult::Answered; }

    const std::string name_;
    const std::string path_;
    Background process_;
    std::string why_;
};

// For the first line of a test or of a fixture's SetUp.
#define ZR_NEEDS_BUS(which) \
    if (!(which).why().empty()) GTEST_SKIP() << (which).why()

}  // namespace zr::test
