// zr phone: the telephone lines of this computer, and the calls on them.

#include <platform/kernel.h>
#include <platform/tapi.h>
#include <platform/windowing.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "zr/base/event_loop.h"
#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/phone_number.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/stores/caller.h"

namespace zr {
namespace {

// A network may take its time.
constexpr std::chrono::seconds kRequestPatience{30};

Failure line_failure(const std::string& what, LONG error) {
    switch (error) {
        case LINEERR_NOMEM:
            return {Exit::StoreFailed, what + ": out of memory"};
        case LINEERR_OPERATIONFAILED:
            return {Exit::StoreFailed, what + ": the telephone service does not do it, or does not answer"};
        case LINEERR_OPERATIONUNAVAIL:
            return {Exit::StoreFailed, what + ": the line cannot do that"};
        case LINEERR_INUSE:
            return {Exit::StoreFailed, what + ": the line is busy"};
        default:
            char number[16];
            std::snprintf(number, sizeof number, "0x%08X", static_cast<unsigned>(error));
            return {Exit::StoreFailed, what + ": error " + number};
    }
}

// Of a line or a call that has gone meanwhile.
bool is_gone(LONG error) {
    return error == LINEERR_NODEVICE || error == LINEERR_BADDEVICEID || error == LINEERR_INVALLINEHANDLE ||
           error == LINEERR_INVALCALLHANDLE;
}

// A structure that a call fills, with as much room as it wants; with nothing in it when what it is about has gone.
template <class Structure>
class Filled {
public:
    template <class Call>
    explicit Filled(const char* what, const Call& call) : room_(sizeof(Structure) + 256) {
        for (;;) {
            get()->dwTotalSize = static_cast<DWORD>(room_.size());
            const LONG result = call(get());
            const bool is_whole = result == 0 && get()->dwNeededSize <= room_.size();
            if (is_whole) return;
            if (is_gone(result)) {
                gone_ = true;
                room_.assign(sizeof(Structure), 0);
                return;
            }
            if (result != 0 && result != LINEERR_STRUCTURETOOSMALL) throw line_failure(what, result);
            room_.assign(std::max<std::size_t>(get()->dwNeededSize, room_.size() + 64), 0);
        }
    }
    bool gone() const { return gone_; }
    const Structure* operator->() const { return reinterpret_cast<const Structure*>(room_.data()); }

    std::string text(DWORD size, DWORD offset) const {
        const std::size_t units = size / sizeof(WCHAR);
        return units == 0 ? std::string() : to_utf8({reinterpret_cast<const WCHAR*>(room_.data() + offset), units - 1});
    }
    // The calls of a list.
    HCALL call(std::size_t place) const {
        return reinterpret_cast<const HCALL*>(room_.data() + (*this)->dwCallsOffset)[place];
    }

private:
    Structure* get() { return reinterpret_cast<Structure*>(room_.data()); }
    std::vector<unsigned char> room_;
    bool gone_ = false;
};

struct PhoneLine {
    DWORD device = 0;
    HLINE handle = 0;
    bool voice = false;
    std::string name;
    std::string service;
    std::string number;
};

struct PhoneCall {
    HCALL handle = 0;
    DWORD device = 0;
    DWORD state = 0;
    DWORD place = 0;
    bool incoming = false;
    std::string number;
    std::string name;

    bool is_over() const { return state == LINECALLSTATE_IDLE || state == LINECALLSTATE_DISCONNECTED; }
};

struct PhoneMessage {
    DWORD device;
    DWORD message;
    DWORD_PTR first;
    DWORD_PTR second;
};

const char* state_word(DWORD state) {
    switch (state) {
        case LINECALLSTATE_OFFERING:
            return "ringing";
        case LINECALLSTATE_DIALING:
            return "dialing";
        case LINECALLSTATE_RINGBACK:
            return "alerting";
        case LINECALLSTATE_CONNECTED:
            return "active";
        case LINECALLSTATE_ONHOLD:
            return "held";
        case LINECALLSTATE_IDLE:
        case LINECALLSTATE_DISCONNECTED:
            return "ended";
        default:
            return "unknown";
    }
}

// A contact's name for a number. Calls are told without when the contacts cannot be read.
class CallerNames {
public:
    std::string find(const std::string& number) {
        if (is_broken_) return {};
        try {
            return name_of_caller(number);
        } catch (const Failure& failure) {
            is_broken_ = true;
            complain(failure.text);
            return {};
        }
    }

private:
    bool is_broken_ = false;
};

// A session with all lines open. One at a time.
class Phone {
public:
    explicit Phone(DWORD privilege = LINECALLPRIVILEGE_MONITOR) : privilege_(privilege) {
        messages().clear();
        DWORD count = 0;
        const LONG result = lineInitialize(&session_, nullptr, note, u"zr", &count);
        if (result != 0) throw line_failure("the lines cannot be read", result);
        try {
            for (DWORD device = 0; device < count; ++device) {
                add_line(device);
            }
        } catch (...) {
            lineShutdown(session_);
            throw;
        }
    }
    ~Phone() { lineShutdown(session_); }
    Phone(const Phone&) = delete;
    Phone& operator=(const Phone&) = delete;

    const std::vector<PhoneLine>& lines() const { return lines_; }

    // One that has gone meanwhile is none.
    void add_line(DWORD device) {
        PhoneLine line;
        line.device = device;
        if (lineOpen(session_, device, &line.handle, TAPI_CURRENT_VERSION, 0, device, privilege_, 0, nullptr) != 0)
            return;
        const Filled<LINEDEVCAPS> caps("the line cannot be read", [&](LPLINEDEVCAPS to) {
            return lineGetDevCaps(session_, device, TAPI_CURRENT_VERSION, 0, to);
        });
        if (caps.gone()) {
            lineClose(line.handle);
            return;
        }
        line.voice = (caps->dwMediaModes & LINEMEDIAMODE_INTERACTIVEVOICE) != 0;
        line.name = caps.text(caps->dwLineNameSize, caps->dwLineNameOffset);
        line.service = caps.text(caps->dwProviderInfoSize, caps->dwProviderInfoOffset);
        line.number = caps.text(caps->dwSwitchInfoSize, caps->dwSwitchInfoOffset);
        lines_.push_back(std::move(line));
    }

    void forget_line(HLINE handle) {
        std::erase_if(lines_, [handle](const PhoneLine& each) { return each.handle == handle; });
    }

    // The calls that there is no handle for yet.
    std::vector<PhoneCall> new_calls() {
        std::vector<PhoneCall> calls;
        for (const PhoneLine& line : lines_) {
            if (!line.voice) continue;
            const Filled<LINECALLLIST> list("the calls cannot be read", [&](LPLINECALLLIST to) {
                return lineGetNewCalls(line.handle, 0, LINECALLSELECT_LINE, to);
            });
            for (DWORD i = 0; i < list->dwCallsNumEntries; ++i) {
                if (std::optional<PhoneCall> call = look(list.call(i))) calls.push_back(*std::move(call));
            }
        }
        std::ranges::sort(calls, {}, &PhoneCall::place);
        return calls;
    }

    // Nothing when it has gone with its line.
    std::optional<PhoneCall> look(HCALL handle) {
        PhoneCall call;
        call.handle = handle;
        const Filled<LINECALLINFO> info("the call cannot be read",
                                        [&](LPLINECALLINFO to) { return lineGetCallInfo(handle, to); });
        if (info.gone()) return {};
        call.state = state_of(handle);
        call.device = info->dwLineDeviceID;
        call.place = info->dwCallID;
        call.incoming = info->dwOrigin == LINECALLORIGIN_INBOUND;
        call.number = call.incoming ? info.text(info->dwCallerIDSize, info->dwCallerIDOffset)
                                    : info.text(info->dwCalledIDSize, info->dwCalledIDOffset);
        call.name = names_.find(call.number);
        if (call.name.empty() && call.incoming)
            call.name = info.text(info->dwCallerIDNameSize, info->dwCallerIDNameOffset);
        return call;
    }

    static DWORD state_of(HCALL handle) {
        LINECALLSTATUS status{};
        status.dwTotalSize = sizeof status;
        return lineGetCallStatus(handle, &status) == 0 ? status.dwCallState : 0;
    }

    // Waits for what was asked for.
    static void await(LONG request, const std::string& what) {
        if (request < 0) throw line_failure(what, request);
        const auto end = std::chrono::steady_clock::now() + kRequestPatience;
        for (;;) {
            handle_messages();
            const auto reply = std::ranges::find_if(messages(), [request](const PhoneMessage& each) {
                return each.message == LINE_REPLY && each.first == static_cast<DWORD_PTR>(request);
            });
            if (reply != messages().end()) {
                const auto result = static_cast<LONG>(reply->second);
                if (result != 0) throw line_failure(what, result);
                return;
            }
            if (std::chrono::steady_clock::now() > end) throw line_failure(what, LINEERR_OPERATIONFAILED);
            MsgWaitForMultipleObjectsEx(0, nullptr, 1000, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        }
    }

    // What the session was told, in order.
    static std::vector<PhoneMessage>& messages() {
        static std::vector<PhoneMessage> all;
        return all;
    }

private:
    static void note(DWORD device, DWORD message, DWORD_PTR, DWORD_PTR first, DWORD_PTR second, DWORD_PTR) {
        messages().push_back({device, message, first, second});
    }
    static void handle_messages() {
        for (MSG message; PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);) {
            DispatchMessageW(&message);
        }
    }

    const DWORD privilege_;
    HLINEAPP session_ = 0;
    std::vector<PhoneLine> lines_;
    CallerNames names_;
};

Json json_of(const PhoneCall& call) {
    return {{"line", call.device},
            {"state", state_word(call.state)},
            {"incoming", call.incoming},
            {"number", call.number},
            {"name", call.name}};
}

std::string text_of(const PhoneCall& call) {
    std::string text = std::string(state_word(call.state)) + (call.incoming ? "\tfrom " : "\tto ");
    text += call.number.empty() ? "unknown" : printable(call.number);
    return call.name.empty() ? text : text + "\t" + printable(call.name);
}

void tell(const PhoneCall& call, bool json, JsonArray& array) {
    if (json) {
        array.add(json_of(call));
    } else {
        print(text_of(call) + "\n");
    }
}

Exit show_lines(bool json) {
    const Phone phone;
    JsonArray array;
    for (const PhoneLine& line : phone.lines()) {
        if (json) {
            array.add({{"line", line.device},
                       {"name", line.name},
                       {"voice", line.voice},
                       {"number", line.number},
                       {"service", line.service}});
            continue;
        }
        print(std::to_string(line.device) + "\t" + printable(line.name) + "\t" + (line.voice ? "voice" : "data") +
              ", " + line.service + (line.number.empty() ? "" : ", " + printable(line.number)) + "\n");
    }
    if (json) array.finish();
    return Exit::Ok;
}

Exit show_calls(bool json) {
    Phone phone;
    JsonArray array;
    for (const PhoneCall& call : phone.new_calls()) {
        tell(call, json, array);
    }
    if (json) array.finish();
    return Exit::Ok;
}

// ---- What is done with calls ----

using Wanted = std::function<bool(const PhoneCall&)>;
using Request = LONG (*)(HCALL call, LPCSTR info, DWORD size);

PhoneCall ended(PhoneCall call) {
    call.state = LINECALLSTATE_IDLE;
    return call;
}

void do_to_call(HCALL call, Request request, const std::string& what) {
    if (const LONG error = lineSetCallPrivilege(call, LINECALLPRIVILEGE_OWNER)) throw line_failure(what, error);
    Phone::await(request(call, nullptr, 0), what);
}

// Does it to each call that is wanted, and fails behind the last one if one of them did. The session is an owner for
// that long; the calls go on without one.
Exit do_to_calls(const Wanted& wanted, Request request, const std::string& what, const std::string& nothing,
                 bool json) {
    Phone phone;
    JsonArray array;
    bool any = false;
    std::optional<Failure> first_failure;
    for (PhoneCall& call : phone.new_calls()) {
        if (!wanted(call)) continue;
        any = true;
        try {
            // One call may have ended with another.
            if (const DWORD state = Phone::state_of(call.handle); state == 0 || state == LINECALLSTATE_IDLE) {
                call.state = LINECALLSTATE_IDLE;
            } else {
                do_to_call(call.handle, request, what);
                call = phone.look(call.handle).value_or(ended(call));
            }
            tell(call, json, array);
        } catch (const Failure& failure) {
            if (!first_failure) first_failure = failure;
        }
    }
    if (json && any) array.finish();
    if (!any) throw Failure{Exit::None, nothing};
    if (first_failure) throw Failure(*first_failure);
    return Exit::Ok;
}

Exit answer(bool json) {
    bool first = true;
    const auto rings = [&first](const PhoneCall& call) {
        return call.state == LINECALLSTATE_OFFERING && std::exchange(first, false);
    };
    return do_to_calls(rings, lineAnswer, "the call is not answered", "no call rings", json);
}

Exit hang_up(const std::string& number, bool json) {
    const auto fits = [&](const PhoneCall& call) {
        return !call.is_over() && (number.empty() || same_number(call.number, number));
    };
    return do_to_calls(fits, lineDrop, "the call is not ended", "there is no such call", json);
}

Exit dial(const std::string& number, LONG line, bool json) {
    Phone phone(LINECALLPRIVILEGE_NONE);
    const auto found = std::ranges::find_if(phone.lines(), [line](const PhoneLine& each) {
        return each.voice && (line < 0 || each.device == static_cast<DWORD>(line));
    });
    if (found == phone.lines().end()) throw Failure{Exit::None, "there is no such line for calls"};
    HCALL call = 0;
    const LONG request = lineMakeCall(found->handle, &call, to_utf16(number).c_str(), 0, nullptr);
    if (request == LINEERR_INVALADDRESS)
        throw Failure{Exit::Usage, "'" + number + "' cannot be dialled: digits, *, # and + in front"};
    Phone::await(request, "the number is not called");
    JsonArray array;
    PhoneCall made;
    made.device = found->device;
    made.number = number;
    tell(phone.look(call).value_or(ended(made)), json, array);
    if (json) array.finish();
    return Exit::Ok;
}

// ---- watch ----

class PhoneWatch {
public:
    explicit PhoneWatch(bool json) : json_(json) {}

    Exit run() {
        add_all("now");
        flush_output();
        while (loop_.wait({})) {
            std::vector<PhoneMessage> told;
            told.swap(Phone::messages());
            for (const PhoneMessage& each : told) {
                take(each);
            }
            flush_output();
        }
        return Exit::Ok;
    }

private:
    void take(const PhoneMessage& message) {
        if (message.message == LINE_CLOSE) remove_line(message.device);
        if (message.message == LINE_CREATE) add_line(static_cast<DWORD>(message.first));
        if (message.message == LINE_APPNEWCALL) add_new(static_cast<HCALL>(message.second));
        if (message.message == LINE_CALLSTATE) change(message.device, static_cast<DWORD>(message.first));
    }

    void add_line(DWORD device) {
        going_on([&] { phone_.add_line(device); });
        add_all("new");
    }

    // Its calls' handles went with it.
    void remove_line(HLINE handle) {
        const auto gone = std::ranges::find(phone_.lines(), handle, &PhoneLine::handle);
        if (gone == phone_.lines().end()) return;
        for (const auto& [number, call] : calls_) {
            if (call.device == gone->device && !call.is_over()) print_change("changed", ended(call));
        }
        std::erase_if(calls_, [&](const auto& each) { return each.second.device == gone->device; });
        phone_.forget_line(handle);
    }

    void add_all(const char* change) {
        going_on([&] {
            for (const PhoneCall& call : phone_.new_calls()) {
                add(call, change);
            }
        });
    }

    void add_new(HCALL handle) {
        going_on([&] {
            if (calls_.contains(handle)) return;
            if (const std::optional<PhoneCall> call = phone_.look(handle)) add(*call, "new");
        });
    }

    // A service may be slow, and tell later; a call may be over already, and its line gone.
    template <class Body>
    static void going_on(const Body& body) {
        try {
            body();
        } catch (const Failure& failure) {
            complain(failure.text);
        }
    }

    void add(const PhoneCall& call, const char* change) {
        calls_[call.handle] = call;
        print_change(change, call);
    }

    void change(HCALL handle, DWORD state) {
        const auto found = calls_.find(handle);
        if (found == calls_.end()) return;
        PhoneCall& call = found->second;
        const bool ends = state == LINECALLSTATE_IDLE;
        // What was seen when the call was new may be further on than what is told now.
        if (!ends) state = Phone::state_of(handle);
        if (state != 0 && call.state != state && !(ends && call.is_over())) {
            call.state = state;
            print_change("changed", call);
        }
        if (!ends) return;
        lineDeallocateCall(handle);
        calls_.erase(found);
    }

    void print_change(const char* change, const PhoneCall& call) const {
        if (!json_) return print(std::string(change) + "\t" + text_of(call) + "\n");
        Json line = {{"change", change}};
        line.set_all(json_of(call));
        print_json_line(line);
    }

    const bool json_;
    EventLoop loop_;  // before other threads
    Phone phone_;
    std::map<HCALL, PhoneCall> calls_;
};

struct PhoneOptions {
    std::string number;
    LONG line = -1;
    bool json = false;
};

}  // namespace

void add_phone_lines(Command phone) {
    Command command = phone.add_command("lines", "List the lines: the modems of this computer");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "Print JSON");
    command.footer(
        "A line is its number and, behind tabs, the modem's name, whether it carries calls (voice or data), the\n"
        "service that has it (ModemManager or oFono) and its own telephone number, where that is known.\n\n"
        "Example:\n  zr phone lines");
    command.reads([json] { return show_lines(*json); });
}

void add_phone_calls(Command phone) {
    Command command = phone.add_command("calls", "List the calls");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "Print JSON");
    command.footer(
        "A call is its state (ringing, dialing, alerting, active, held, ended or unknown) and, behind tabs, its\n"
        "number and the name of the contact that has the number, or the one that the network tells.\n\n"
        "Example:\n  zr phone calls --json");
    command.reads([json] { return show_calls(*json); });
}

void add_phone_watch(Command phone) {
    Command command = phone.add_command("watch", "Print calls as they come and change, until interrupted");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "Print one JSON object per change and line");
    command.footer(
        "The calls as they are come first. Ends with SIGINT, SIGTERM or SIGHUP.\n\nExample:\n  zr phone watch");
    command.reads([json] { return PhoneWatch(*json).run(); });
}

void add_phone_answer(Command phone) {
    Command command = phone.add_command("answer", "Answer the call that rings");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "Print the call as JSON");
    command.footer(
        "Of several calls the first one is answered; one that waits is answered by holding the others. The exit\n"
        "code is 1 when no call rings.\n\nExample:\n  zr phone answer");
    command.reads([json] { return answer(*json); });
}

void add_phone_hangup(Command phone) {
    Command command = phone.add_command("hangup", "End calls");
    const auto options = std::make_shared<PhoneOptions>();
    command.add_option("NUMBER", options->number, "End only calls with this number");
    command.add_flag("--json", options->json, "Print the calls as JSON");
    command.footer(
        "Ends all calls, those that ring too. The exit code is 1 when there is none.\n\n"
        "Examples:\n  zr phone hangup\n  zr phone hangup '0171 555'");
    command.reads([options] { return hang_up(options->number, options->json); });
}

void add_phone_dial(Command phone) {
    Command command = phone.add_command("dial", "Call a number");
    const auto options = std::make_shared<PhoneOptions>();
    command.add_option("NUMBER", options->number, "The number").required();
    command.add_option("-l,--line", options->line, "The line to call on; else the first one for calls");
    command.add_flag("--json", options->json, "Print the call as JSON");
    command.footer(
        "A number is digits, * and #, with + in front; spaces and ( ) - . / between them do not count. Ends when the\n"
        "network has taken the call, which goes on. The exit code is 1 when there is no line.\n\n"
        "Example:\n  zr phone dial '+49 30 123456'");
    command.reads([options] { return dial(options->number, options->line, options->json); });
}

}  // namespace zr
