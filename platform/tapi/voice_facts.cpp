#include "tapi/voice_facts.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <new>
#include <string_view>
#include <utility>

namespace zr::platform {
namespace {

using VoiceClock = std::chrono::steady_clock;

#define ZR_MODEMS "org.freedesktop.ModemManager1"
constexpr VoiceNames kNames[kVoiceServices] = {{"ModemManager", ZR_MODEMS}, {"oFono", "org.ofono"}};
constexpr const char* kManagerCall = ZR_MODEMS ".Call";
constexpr const char* kModemsRoot = "/org/freedesktop/ModemManager1";
constexpr std::string_view kModem = ZR_MODEMS ".Modem";
constexpr std::string_view kModemVoice = ZR_MODEMS ".Modem.Voice";
#undef ZR_MODEMS

// What no computer has.
constexpr std::size_t kMostLines = 64;
constexpr std::size_t kMostCalls = 10'000;
constexpr std::size_t kMostText = 200;

std::string short_text(const BusValue* value) {
    return std::string(text_of(value).substr(0, kMostText));
}

std::string joined(const std::string& first, const std::string& second) {
    return first.empty() || second.empty() ? first + second : first + " " + second;
}

struct StateWord {
    std::int64_t number;
    std::string_view word;
    DWORD state;
};

// ModemManager's numbers; 0 is a call that was made up and not begun.
constexpr StateWord kManagerStates[] = {
    {0, "", 0},
    {1, "dialing", LINECALLSTATE_DIALING},
    {2, "alerting", LINECALLSTATE_RINGBACK},
    {3, "incoming", LINECALLSTATE_OFFERING},
    {4, "active", LINECALLSTATE_CONNECTED},
    {5, "held", LINECALLSTATE_ONHOLD},
    {6, "waiting", LINECALLSTATE_OFFERING},
    {7, "disconnected", LINECALLSTATE_DISCONNECTED},
};

// Why it is over, by ModemManager's reasons.
DWORD disconnect_mode(std::int64_t reason) {
    switch (reason) {
        case 3:
        case 4:
            return LINEDISCONNECTMODE_NORMAL;
        case 5:
            return LINEDISCONNECTMODE_BUSY;
        case 6:
        case 7:
            return LINEDISCONNECTMODE_UNAVAIL;
        default:
            return LINEDISCONNECTMODE_UNKNOWN;
    }
}

bool is_path(std::string_view path) {
    return path.size() > 1 && path.front() == '/' && path.size() <= kMostText;
}

// Runs within one time for everything.
class ServiceReader {
public:
    ServiceReader(VoiceService service, const KnownCall& known, int milliseconds)
        : service_(service), known_(known), end_(VoiceClock::now() + std::chrono::milliseconds(milliseconds)) {}

    BusResult read(std::vector<LineFacts>& lines);

private:
    BusResult read_manager(std::vector<LineFacts>& lines);
    BusResult read_ofono(std::vector<LineFacts>& lines);
    // Whether it was answered; false for a refusal, too, which is no reason to give up.
    bool ask(BusAnswer answer);
    bool gave_up() const { return answer_.result != BusResult::Answered && answer_.result != BusResult::Refused; }
    int left() const {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end_ - VoiceClock::now()).count();
        return std::max(0, static_cast<int>(rest));
    }

    const VoiceService service_;
    const KnownCall& known_;
    const VoiceClock::time_point end_;
    std::string owner_;
    BusAnswer answer_;
};

bool ServiceReader::ask(BusAnswer answer) {
    answer_ = std::move(answer);
    if (answer_.result == BusResult::NoMemory) throw std::bad_alloc();
    return answer_.result == BusResult::Answered && answer_.first() != nullptr;
}

BusResult ServiceReader::read(std::vector<LineFacts>& lines) {
    // The owner is asked for, as a call by name would start one that is not there.
    if (!ask(find_bus_owner(names_of(service_).bus_name, left()))) {
        return gave_up() ? answer_.result : BusResult::Answered;
    }
    owner_ = text_of(answer_.first());
    return service_ == VoiceService::ModemManager ? read_manager(lines) : read_ofono(lines);
}

BusResult ServiceReader::read_manager(std::vector<LineFacts>& lines) {
    if (!ask(call_bus({owner_, kModemsRoot, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", {}}, left()))) {
        return answer_.result == BusResult::Answered ? BusResult::Refused : answer_.result;
    }
    lines = read_manager_lines(owner_, *answer_.first());
    for (LineFacts& line : lines) {
        std::vector<CallFacts> calls;
        for (CallFacts& each : line.calls) {
            if (const CallFacts* const known = known_(owner_, each.path)) {
                calls.push_back(*known);
            } else if (ask(read_bus_properties(owner_, each.path, kManagerCall, left()))) {
                calls.push_back(read_manager_call(each.path, *answer_.first()));
            } else if (gave_up()) {
                return answer_.result;
            }
        }
        line.calls = std::move(calls);
    }
    return BusResult::Answered;
}

BusResult ServiceReader::read_ofono(std::vector<LineFacts>& lines) {
    if (!ask(call_bus({owner_, "/", "org.ofono.Manager", "GetModems", {}}, left()))) {
        return answer_.result == BusResult::Answered ? BusResult::Refused : answer_.result;
    }
    lines = read_ofono_lines(owner_, *answer_.first());
    for (LineFacts& line : lines) {
        if (!line.voice) continue;
        if (ask(call_bus({owner_, line.path, "org.ofono.VoiceCallManager", "GetCalls", {}}, left()))) {
            line.calls = read_ofono_calls(*answer_.first());
            line.heard = answer_.order;
        } else if (gave_up()) {
            return answer_.result;
        }
    }
    return BusResult::Answered;
}

}  // namespace

const VoiceNames& names_of(VoiceService service) noexcept {
    return kNames[static_cast<int>(service)];
}

CallFacts read_manager_call(const std::string& path, const BusValue& properties) {
    CallFacts call;
    call.path = path;
    const BusValue* const state = properties.find("State");
    const auto* const found = std::ranges::find(kManagerStates, integer_of(state), &StateWord::number);
    const bool said = state != nullptr && found != std::end(kManagerStates);
    call.state = said ? found->state : LINECALLSTATE_UNKNOWN;
    call.waiting = said && found->word == "waiting";
    if (call.state == LINECALLSTATE_DISCONNECTED)
        call.mode = disconnect_mode(integer_of(properties.find("StateReason")));
    call.incoming = integer_of(properties.find("Direction")) == 1;
    call.number = short_text(properties.find("Number"));
    return call;
}

CallFacts read_ofono_call(const std::string& path, const BusValue& properties) {
    CallFacts call;
    call.path = path;
    const std::string_view state = text_of(properties.find("State"));
    const auto* const found = std::ranges::find(kManagerStates, state, &StateWord::word);
    const bool said = !state.empty() && found != std::end(kManagerStates);
    call.state = said ? found->state : LINECALLSTATE_UNKNOWN;
    call.waiting = said && found->word == "waiting";
    if (call.state == LINECALLSTATE_DISCONNECTED) call.mode = LINEDISCONNECTMODE_UNKNOWN;
    call.incoming = call.state == LINECALLSTATE_OFFERING;
    call.number = short_text(properties.find("LineIdentification"));
    call.name = short_text(properties.find("Name"));
    return call;
}

std::vector<LineFacts> read_manager_lines(const std::string& owner, const BusValue& objects) {
    std::vector<LineFacts> lines;
    for (const BusValue& object : items_of(&objects)) {
        if (object.type != 'e' || object.items.size() != 2) continue;
        const BusValue& interfaces = object.items[1];
        const BusValue* const modem = interfaces.find(kModem);
        const std::string_view path = text_of(object.items.data());
        if (modem == nullptr || !is_path(path) || lines.size() == kMostLines) continue;
        const BusValue* const voice = interfaces.find(kModemVoice);
        LineFacts line;
        line.service = VoiceService::ModemManager;
        line.owner = owner;
        line.path = path;
        line.name = joined(short_text(modem->find("Manufacturer")), short_text(modem->find("Model")));
        const auto& numbers = items_of(modem->find("OwnNumbers"));
        if (!numbers.empty()) line.number = short_text(numbers.data());
        line.voice = voice != nullptr;
        for (const BusValue& call : items_of(voice != nullptr ? voice->find("Calls") : nullptr)) {
            if (!is_path(text_of(&call)) || line.calls.size() == kMostCalls) continue;
            line.calls.emplace_back().path = text_of(&call);
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<LineFacts> read_ofono_lines(const std::string& owner, const BusValue& modems) {
    std::vector<LineFacts> lines;
    for (const BusValue& modem : items_of(&modems)) {
        if (modem.type != 'r' || modem.items.size() != 2 || lines.size() == kMostLines) continue;
        const std::string_view path = text_of(modem.items.data());
        const BusValue& properties = modem.items[1];
        if (!is_path(path)) continue;
        LineFacts line;
        line.service = VoiceService::Ofono;
        line.owner = owner;
        line.path = path;
        line.name = joined(short_text(properties.find("Manufacturer")), short_text(properties.find("Model")));
        line.voice = std::ranges::any_of(items_of(properties.find("Interfaces")), [](const BusValue& each) {
            return text_of(&each) == "org.ofono.VoiceCallManager";
        });
        lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<CallFacts> read_ofono_calls(const BusValue& calls) {
    std::vector<CallFacts> all;
    for (const BusValue& call : items_of(&calls)) {
        if (call.type != 'r' || call.items.size() != 2 || all.size() == kMostCalls) continue;
        const std::string_view path = text_of(call.items.data());
        if (is_path(path)) all.push_back(read_ofono_call(std::string(path), call.items[1]));
    }
    return all;
}

BusResult ask_service(VoiceService service, const KnownCall& known, int milliseconds, std::vector<LineFacts>& lines) {
    return ServiceReader(service, known, milliseconds).read(lines);
}

}  // namespace zr::platform
