#pragma once

// What ModemManager and oFono say of modems and calls, in telephony's words.

#include <functional>
#include <string>
#include <vector>

#include "bus/system_bus.h"
#include "platform/export.h"
#include "platform/tapi.h"

namespace zr::platform {

enum class VoiceService { ModemManager, Ofono };
inline constexpr int kVoiceServices = 2;

struct CallFacts {
    std::string path;
    DWORD state = 0;  // LINECALLSTATE_...; 0: no call (yet)
    DWORD mode = 0;
    bool incoming = false;
    bool waiting = false;  // rings beside another one
    std::string number;
    std::string name;  // the caller's, as the network says it
};

struct LineFacts {
    VoiceService service = VoiceService::ModemManager;
    std::string owner;  // the service's address on the bus
    std::string path;
    std::string name;
    std::string number;
    bool voice = false;
    std::vector<CallFacts> calls;
    std::uint64_t heard = 0;  // oFono: the order of the answer that told the calls
};

struct VoiceNames {
    const char* provider;
    const char* bus_name;
};
const VoiceNames& names_of(VoiceService service) noexcept;

// What is said of one call: properties, an a{sv}. What is no property of a call is passed over. They may throw
// std::bad_alloc.
ZRPLATFORM_API CallFacts read_manager_call(const std::string& path, const BusValue& properties);
ZRPLATFORM_API CallFacts read_ofono_call(const std::string& path, const BusValue& properties);
// Lines, from GetManagedObjects, and the calls of each by their paths; from GetModems; and the calls of one oFono
// modem.
ZRPLATFORM_API std::vector<LineFacts> read_manager_lines(const std::string& owner, const BusValue& objects);
ZRPLATFORM_API std::vector<LineFacts> read_ofono_lines(const std::string& owner, const BusValue& modems);
ZRPLATFORM_API std::vector<CallFacts> read_ofono_calls(const BusValue& calls);

// Asks a service for everything, within one time. `known` spares asking for a call whose facts the asker has: NULL for
// others. Answered also where the service is not there.
using KnownCall = std::function<const CallFacts*(const std::string& owner, const std::string& path)>;
BusResult ask_service(VoiceService service, const KnownCall& known, int milliseconds, std::vector<LineFacts>& lines);

}  // namespace zr::platform
