#pragma once

// The computer's system bus (D-Bus), on which its services are: NetworkManager, ModemManager and others; and the user's
// session bus, on which his desktop's are.
//
// The process has one connection to each, made by the first call, on a thread of its own (zr-bus). It ends when nobody
// needed it for half a minute, and when the bus goes away; the next call makes another one. Where the bus is: what
// DBUS_SYSTEM_BUS_ADDRESS or DBUS_SESSION_BUS_ADDRESS says, or the usual place. Where there is none no library is
// loaded and no thread started.
//
// A child made by fork has no connection, and none of its parent's listeners listens in it.

#include <atomic>
#include <span>

#include "bus/bus_module.h"
#include "platform/export.h"

namespace zr::platform {

// How long a service of this computer may take to answer.
inline constexpr int kBusPatience = 2000;

// Whether there may be such a bus: quick, for who asks often.
ZRPLATFORM_API bool may_have_bus(BusKind kind) noexcept;
inline bool may_have_system_bus() noexcept {
    return may_have_bus(BusKind::System);
}

// Loads what calls need, where there may be a bus. Connects to nothing.
ZRPLATFORM_API void prepare_system_bus() noexcept;

// How long a connection is kept that nobody needs. Tests make it short.
ZRPLATFORM_API extern std::atomic<int> bus_idle_milliseconds;

// Calls, and waits for the answer, as many milliseconds at most: also when the bus itself does not answer. Any thread
// but the bus's own.
ZRPLATFORM_API BusAnswer call_bus(const BusRequest& request, int milliseconds = kBusPatience,
                                  BusKind kind = BusKind::System) noexcept;

// The properties of an object's interface, as one a{sv}.
ZRPLATFORM_API BusAnswer read_bus_properties(const std::string& destination, const std::string& path,
                                             const std::string& interface, int milliseconds = kBusPatience) noexcept;

// Who has a name on the bus: his address, which no other service gets later, as the answer's first value. Refused when
// nobody has it: he is not started for being asked.
ZRPLATFORM_API BusAnswer find_bus_owner(const std::string& name, int milliseconds = kBusPatience,
                                        BusKind kind = BusKind::System) noexcept;

// Is told signals. The calls come on the bus's thread, which serves everybody: they are short, and do not call the bus.
class BusListener {
public:
    virtual void signal(const BusSignal& signal) noexcept = 0;
    // The connection ended: whatever comes later is not told. Listens no more.
    virtual void lost() noexcept = 0;
    // Nobody has called the bus for a while: whether the connection is to be kept for this listener.
    virtual bool is_needed() noexcept = 0;

protected:
    ~BusListener() = default;
};

// Signals that fit one of the rules (D-Bus's match rules) are told from now on. Answered, or why not: then none is.
ZRPLATFORM_API BusResult listen_to_bus(BusListener& listener, std::span<const char* const> rules,
                                       int milliseconds = kBusPatience, BusKind kind = BusKind::System) noexcept;

// When this returns the listener is not being called, and will not be. May take as long as a call.
ZRPLATFORM_API void stop_listening_to_bus(BusListener& listener) noexcept;

}  // namespace zr::platform
