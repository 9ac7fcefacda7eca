#pragma once

// What the platform and its D-Bus module say to each other. The module has one connection's bytes and types; threads,
// deadlines and who is told what are the platform's.

#include <cstdint>
#include <string>
#include <vector>

#include "bus/bus_value.h"

namespace zr::platform {

enum class BusKind : int {
    System,   // of the computer
    Session,  // of the user
};

struct BusRequest {
    std::string destination;  // a name on the bus
    std::string path;
    std::string interface;
    std::string member;
    std::vector<BusValue> arguments;
};

enum class BusResult : int {
    Answered,
    Refused,   // by the other side, which names an error; or a request that the bus cannot carry
    TimedOut,  // nobody answered in time
    Lost,      // the bus, or who was asked, went away meanwhile
    NoBus,     // this computer has none, or it does not let us in
    NoModule,
    NoMemory,
};

struct BusAnswer {
    BusResult result = BusResult::TimedOut;
    std::string error;  // its name, when refused; a sentence for NoBus and NoModule
    std::vector<BusValue> values;
    std::uint64_t order = 0;  // of two answers or signals, the greater one's came later

    const BusValue* first() const noexcept { return values.empty() ? nullptr : &values.front(); }
};

struct BusSignal {
    std::string path;
    std::string interface;
    std::string member;
    std::vector<BusValue> values;
    std::uint64_t order = 0;
};

// Whom the module tells, while it processes.
struct BusEvents {
    void* context;
    void (*answer)(void* context, std::uint64_t call, BusAnswer& answer) noexcept;
    void (*signal)(void* context, std::uint64_t match, BusSignal& signal) noexcept;
};

struct BusPoll {
    int descriptor;
    short events;
    int milliseconds;  // -1: no limit
};

// One connection is used by one thread at a time. None of them throws.
struct BusFunctions {
    // May take minutes with a bus that does not answer. NULL with a sentence.
    void* (*connect)(const BusEvents* events, BusKind kind, std::string& why) noexcept;
    // Also in a child made by fork, which the connection is of no use to: nothing is said on it then.
    void (*close)(void* connection) noexcept;
    // When process() is to be called.
    BusPoll (*poll)(void* connection) noexcept;
    // All that is there. False when the connection is lost: then it is to be closed.
    bool (*process)(void* connection) noexcept;
    // Sends; the answer comes while processing, once, unless the result is an error.
    BusResult (*call)(void* connection, std::uint64_t call, const BusRequest& request, std::uint64_t microseconds,
                      std::string& error) noexcept;
    // Signals that fit the rule are told from now on. Waits for the bus, two seconds at most.
    BusResult (*match)(void* connection, std::uint64_t match, const std::string& rule) noexcept;
    void (*unmatch)(void* connection, std::uint64_t match) noexcept;
};

using BusFunctionsOf = const BusFunctions* (*)();
inline constexpr const char* kBusModule = "libzrplatform_bus.so";
inline constexpr const char* kBusFunctions = "zr_bus_functions";

}  // namespace zr::platform
