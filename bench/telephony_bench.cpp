// Whether a call rings, beside the same questions put to the service by a bare D-Bus client.

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ZrUtility/Helpers/PhoneUtilities.h"
#include "platform/tapi.h"

namespace {

const std::string kService = "org.freedesktop.ModemManager1";
const std::string kRoot = "/org/freedesktop/ModemManager1";
const std::string kModem = kRoot + "/Modem/0";
const std::string kCall = kRoot + "/Call/1";

const std::string bench_folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    setenv("ZR_HOME", (pattern + "/home").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", pattern.c_str(), 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + pattern + "/bus").c_str(), 1);
    static const std::string made = pattern;
    static const pid_t owner = getpid();
    atexit([] {
        if (getpid() == owner) std::filesystem::remove_all(made);
    });
    return pattern;
}();

// A child that ends with this process.
template <class Body>
void in_child(const Body& body) {
    if (fork() != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    _exit(1);
}

void run_bus() {
    const std::string file = bench_folder + "/bus.conf";
    std::ofstream(file) << "<busconfig><listen>unix:path=" << bench_folder
                        << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow "
                           "send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow "
                           "own=\"*\"/></policy></busconfig>\n";
    // What it says of this machine is of no account.
    if (freopen("/dev/null", "w", stderr) == nullptr) _exit(1);
    execlp("dbus-daemon", "dbus-daemon", "--nofork", ("--config-file=" + file).c_str(), nullptr);
}

// A modem with a call that rings.
void run_service() {
    const auto bus = sdbus::createSystemBusConnection(kService);
    const auto root = sdbus::createObject(*bus, kRoot);
    root->addObjectManager();
    const auto modem = sdbus::createObject(*bus, kModem);
    modem->registerProperty("Model").onInterface(kService + ".Modem").withGetter([] { return std::string("Model"); });
    modem->registerProperty("Calls").onInterface(kService + ".Modem.Voice").withGetter([] {
        return std::vector<sdbus::ObjectPath>{kCall};
    });
    modem->finishRegistration();
    const auto call = sdbus::createObject(*bus, kCall);
    const std::string interface = kService + ".Call";
    call->registerProperty("State").onInterface(interface).withGetter([] { return std::int32_t{3}; });
    call->registerProperty("Direction").onInterface(interface).withGetter([] { return std::int32_t{1}; });
    call->registerProperty("Number").onInterface(interface).withGetter([] { return std::string("+49301"); });
    call->finishRegistration();
    bus->enterEventLoop();
}

using Properties = std::map<std::string, sdbus::Variant>;
using Objects = std::map<sdbus::ObjectPath, std::map<std::string, Properties>>;

// What a program asks that has nothing but a connection.
bool ask_whether_one_rings(sdbus::IConnection& bus) {
    const auto manager = sdbus::createProxy(bus, kService, kRoot);
    Objects objects;
    manager->callMethod("GetManagedObjects").onInterface("org.freedesktop.DBus.ObjectManager").storeResultsTo(objects);
    for (const auto& [path, interfaces] : objects) {
        const auto voice = interfaces.find(kService + ".Modem.Voice");
        if (voice == interfaces.end()) continue;
        for (const auto& each : voice->second.at("Calls").get<std::vector<sdbus::ObjectPath>>()) {
            const auto call = sdbus::createProxy(bus, kService, each);
            Properties properties;
            call->callMethod("GetAll")
                .onInterface("org.freedesktop.DBus.Properties")
                .withArguments(kService + ".Call")
                .storeResultsTo(properties);
            if (properties.at("State").get<std::int32_t>() == 3) return true;
        }
    }
    return false;
}

// One connection for all turns, like ours; empty when there is no bus.
std::unique_ptr<sdbus::IConnection> connect() {
    static const bool started = [] {
        signal(SIGCHLD, SIG_IGN);
        in_child(run_bus);
        for (int i = 0; i < 1000 && access((bench_folder + "/bus").c_str(), F_OK) != 0; ++i) {
            usleep(10'000);
        }
        in_child(run_service);
        return true;
    }();
    static_cast<void>(started);
    for (int i = 0; i < 1000; ++i) {
        try {
            auto bus = sdbus::createSystemBusConnection();
            if (ask_whether_one_rings(*bus)) return bus;
        } catch (const sdbus::Error&) {
        }
        usleep(10'000);
    }
    return nullptr;
}

// First, while there is no bus.
void session_without_bus(benchmark::State& state) {
    const LINECALLBACK ignore = [](DWORD, DWORD, DWORD_PTR, DWORD_PTR, DWORD_PTR, DWORD_PTR) {};
    for (auto _ : state) {
        HLINEAPP session = 0;
        DWORD count = 0;
        if (lineInitialize(&session, nullptr, ignore, u"bench", &count) != 0 || lineShutdown(session) != 0) {
            state.SkipWithError("no session");
        }
    }
}
BENCHMARK(session_without_bus)->Name("telephony_session_without_bus/ours");

void ring_ours(benchmark::State& state) {
    if (!connect() || !PhoneUtilities::IsIncomingVoiceCall()) return state.SkipWithError("no bus");
    for (auto _ : state) {
        benchmark::DoNotOptimize(PhoneUtilities::IsIncomingVoiceCall());
    }
}
BENCHMARK(ring_ours)->Name("incoming_call/ours");

void ring_bare(benchmark::State& state) {
    const auto bus = connect();
    if (!bus) return state.SkipWithError("no bus");
    for (auto _ : state) {
        benchmark::DoNotOptimize(ask_whether_one_rings(*bus));
    }
}
BENCHMARK(ring_bare)->Name("incoming_call/sdbus_cpp");

// The first question of a process, with its connection: in a child each time.
template <class Ask>
void first_question(benchmark::State& state, const Ask& ask) {
    if (!connect()) return state.SkipWithError("no bus");
    for (auto _ : state) {
        int pipes[2];
        if (pipe(pipes) != 0) return state.SkipWithError("no pipe");
        in_child([&] {
            const char rings = ask() ? 'y' : 'n';
            if (write(pipes[1], &rings, 1) != 1) _exit(2);
            _exit(0);
        });
        close(pipes[1]);
        char rings = 0;
        if (read(pipes[0], &rings, 1) != 1 || rings != 'y') state.SkipWithError("it does not ring");
        close(pipes[0]);
    }
}

void first_ours(benchmark::State& state) {
    first_question(state, [] { return PhoneUtilities::IsIncomingVoiceCall(); });
}
BENCHMARK(first_ours)->Name("incoming_call_first/ours")->UseRealTime();

void first_bare(benchmark::State& state) {
    first_question(state, [] { return ask_whether_one_rings(*sdbus::createSystemBusConnection()); });
}
BENCHMARK(first_bare)->Name("incoming_call_first/sdbus_cpp")->UseRealTime();

}  // namespace
