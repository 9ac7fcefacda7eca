// The worker: requests, reading when nobody asks, calls that other processes hand over.

#include <algorithm>
#include <new>
#include <utility>

#include "exchange.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "tapi/patience.h"

namespace zr::platform {
namespace {

// A network may take its time with these.
constexpr int kRequestPatience = 10'000;
constexpr DWORD kTryAgain = 5'000;

#define ZR_MODEMS "org.freedesktop.ModemManager1"
constexpr const char* kVoice = ZR_MODEMS ".Modem.Voice";
constexpr const char* kManagerCallName = ZR_MODEMS ".Call";
#undef ZR_MODEMS
constexpr const char* kOfonoVoice = "org.ofono.VoiceCallManager";
constexpr const char* kOfonoCall = "org.ofono.VoiceCall";

std::string made_path(const BusAnswer& answer) {
    return std::string(text_of(answer.first()));
}

}  // namespace

LONG line_error(const BusAnswer& answer) noexcept {
    struct Name {
        std::string_view end;
        LONG error;
    };
    constexpr Name kNames[] = {{"Unsupported", LINEERR_OPERATIONUNAVAIL},
                               {"NotImplemented", LINEERR_OPERATIONUNAVAIL},
                               {"NotSupported", LINEERR_OPERATIONUNAVAIL},
                               {"UnknownMethod", LINEERR_OPERATIONUNAVAIL},
                               {"InvalidFormat", LINEERR_INVALADDRESS},
                               {"InvalidArguments", LINEERR_INVALADDRESS},
                               {"InvalidArgs", LINEERR_INVALADDRESS},
                               {"WrongState", LINEERR_INVALCALLSTATE},
                               {"UnknownObject", LINEERR_INVALCALLSTATE},
                               {"NotFound", LINEERR_INVALCALLSTATE},
                               {"InProgress", LINEERR_INUSE},
                               {"NoMemory", LINEERR_NOMEM}};
    if (answer.result == BusResult::Answered) return 0;
    if (answer.result == BusResult::NoMemory) return LINEERR_NOMEM;
    for (const Name& each : kNames) {
        if (answer.result == BusResult::Refused && answer.error.ends_with(each.end)) return each.error;
    }
    return LINEERR_OPERATIONFAILED;
}

void Exchange::wake() noexcept {
    const std::lock_guard touching(told_lock_);
    if (wake_ == nullptr) wake_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (wake_ == nullptr) return;
    if (!worker_.is_running()) worker_.start([](void* self) { static_cast<Exchange*>(self)->work(); }, this);
    SetEvent(wake_);
}

bool Exchange::listen_to_others() {
    if (handed_ == nullptr) {
        const std::u16string name = handed_calls_event();
        if (!name.empty()) handed_ = CreateEventW(nullptr, FALSE, FALSE, name.c_str());
    }
    wake();
    return handed_ != nullptr;
}

void Exchange::request(CallRequest request) {
    if (Session* const session = find_session(request.session)) ++session->requests;
    requests_.push_back(std::move(request));
    wake();
}

void Exchange::wait_for_requests(std::unique_lock<std::mutex>& lock, HLINEAPP session) {
    finished_.wait_for(lock, std::chrono::milliseconds(voice_patience), [&] {
        const Session* const found = find_session(session);
        return found == nullptr || found->requests == 0;
    });
}

void Exchange::work() {
    for (;;) {
        HANDLE events[2] = {};
        DWORD count = 0;
        DWORD limit = INFINITE;
        {
            const auto lock = enter();
            if (sessions.empty() && requests_.empty()) {
                const std::lock_guard touching(told_lock_);
                worker_.leave();
                return;
            }
            events[count++] = wake_;
            if (handed_ != nullptr) events[count++] = handed_;
            if (read_at_ != told_ && may_have_system_bus()) limit = kTryAgain;
            if (!requests_.empty()) limit = 0;
        }
        if (WaitForMultipleObjects(count, events, FALSE, limit) == WAIT_FAILED) Sleep(kTryAgain);
        try {
            while (work_once()) {
            }
        } catch (const std::bad_alloc&) {
            Sleep(1);  // for memory
        }
    }
}

// Whether there was a request.
bool Exchange::work_once() {
    CallRequest next;
    bool found = false;
    bool is_behind = false;
    bool is_told = false;
    {
        const auto lock = enter();
        found = !requests_.empty();
        if (found) {
            next = std::move(requests_.front());
            requests_.pop_front();
        }
        for (const auto& [handle, session] : sessions) {
            post(*session);
        }
        is_behind = read_at_ != told_ && !sessions.empty();
        is_told = handed_ != nullptr;
    }
    if (found) {
        carry_out(next);
        return true;
    }
    if (is_behind) bring_up_to_date();
    if (is_told) take_handed();
    return false;
}

void Exchange::carry_out(const CallRequest& request) {
    std::string made;
    LONG result = LINEERR_NOMEM;
    try {
        result = ask(request, made);
    } catch (const std::bad_alloc&) {
        made.clear();
    }
    finish(request, result, made);
}

LONG Exchange::ask(const CallRequest& request, std::string& made) {
    std::string owner;
    std::string line;
    std::string call;
    bool is_manager = false;
    {
        const auto lock = enter();
        if (!request.on->present) return LINEERR_OPERATIONFAILED;
        owner = request.on->facts.owner;
        line = request.on->facts.path;
        is_manager = request.on->facts.service == VoiceService::ModemManager;
        if (request.call) call = request.call->facts.path;
    }
    const auto tell = [&](const std::string& path, const char* interface, const char* member,
                          std::vector<BusValue> arguments = {}) {
        return call_bus({owner, path, interface, member, std::move(arguments)}, kRequestPatience);
    };
    const char* const call_interface = is_manager ? kManagerCallName : kOfonoCall;
    const char* const line_interface = is_manager ? kVoice : kOfonoVoice;
    switch (request.kind) {
        case CallRequest::Kind::Drop:
            return line_error(tell(call, call_interface, "Hangup"));
        case CallRequest::Kind::Answer:
            if (request.waiting)
                return line_error(tell(line, line_interface, is_manager ? "HoldAndAccept" : "HoldAndAnswer"));
            return line_error(tell(call, call_interface, is_manager ? "Accept" : "Answer"));
        case CallRequest::Kind::Make:
            break;
    }
    if (!is_manager) {
        const BusAnswer answer = tell(line, line_interface, "Dial", {bus_text(request.number), bus_text("default")});
        made = made_path(answer);
        return answer.result == BusResult::Answered && made.empty() ? LINEERR_OPERATIONFAILED : line_error(answer);
    }
    const BusAnswer created =
        tell(line, line_interface, "CreateCall", {bus_array("{sv}", {bus_entry("number", bus_text(request.number))})});
    const std::string path = made_path(created);
    if (created.result != BusResult::Answered || path.empty()) {
        return path.empty() && created.result == BusResult::Answered ? LINEERR_OPERATIONFAILED : line_error(created);
    }
    const LONG result = line_error(tell(path, call_interface, "Start"));
    if (result == 0) {
        made = path;
    } else {
        tell(line, line_interface, "DeleteCall", {bus_text(path, 'o')});
    }
    return result;
}

void Exchange::finish(const CallRequest& request, LONG result, const std::string& made) {
    const bool is_made = request.kind == CallRequest::Kind::Make && result == 0;
    SharedName name;
    {
        const auto lock = enter();
        name = shared_name(request.on->facts.owner, made);
    }
    if (is_made) static_cast<void>(own_call(name, request.session));
    tell_finished(request, result, made, name);
    // Who has gone meanwhile owns nothing.
    bool is_there = false;
    {
        const auto lock = enter();
        is_there = find_line(request.line) != nullptr || owns_otherwise(request.session, name, 0);
    }
    if (is_made && !is_there) disown_call(name, request.session, false);
}

void Exchange::tell_finished(const CallRequest& request, LONG result, const std::string& made, const SharedName& name) {
    const bool is_made = request.kind == CallRequest::Kind::Make && result == 0;
    const auto lock = enter();
    CallRef call;
    if (is_made) {
        {
            const std::lock_guard touching(told_lock_);
            touched_[made] = told_ + 1;
        }
        const auto found = request.on->calls.find(made);
        CallRef known = found == request.on->calls.end() ? nullptr : found->second;
        if (!known) {
            known = std::make_shared<Call>();
            known->number = ++last_call_;
            known->name = name;
            known->facts.path = made;
            request.on->calls.emplace(made, known);
        }
        known->since = told_ + 1;
        if (known->facts.state == 0) {
            known->facts.state = LINECALLSTATE_DIALING;
            known->facts.number = request.number;
        }
        call = known;
    }
    CallHandle* const handle = find_call(request.handle);
    if (handle != nullptr && result != 0) handle->dropped = false;
    if (request.kind == CallRequest::Kind::Make) {
        if (handle != nullptr && is_made) handle->call = call;
        if (handle != nullptr && !is_made) call_handles.erase(request.handle);
    }
    if (Session* const session = find_session(request.session)) {
        --session->requests;
        const OpenLine* const open = find_line(request.line);
        CallMessage reply;
        reply.message = LINE_REPLY;
        reply.instance = open != nullptr ? open->instance : 0;
        reply.params[0] = static_cast<DWORD_PTR>(request.id);
        reply.params[1] = static_cast<DWORD>(result);
        send(*session, std::move(reply));
        if (call && open != nullptr) {
            CallMessage state;
            state.message = LINE_CALLSTATE;
            state.instance = open->instance;
            state.params[0] = call->facts.state;
            state.params[2] = LINECALLPRIVILEGE_OWNER;
            state.line = request.line;
            state.call = call;
            send(*session, std::move(state));
        }
    }
    finished_.notify_all();
    note();  // what the service says of it now
}

void Exchange::take_handed() {
    for (const HandedCall& each : take_handed_calls()) {
        LineRef line;
        {
            const auto lock = enter();
            const OpenLine* const open = find_line(each.line);
            if (open == nullptr) continue;
            line = open->line;
        }
        bring_up_to_date();
        const auto lock = enter();
        const OpenLine* const open = find_line(each.line);
        Session* const session = open != nullptr ? find_session(open->session) : nullptr;
        if (session == nullptr) continue;
        const auto found =
            std::ranges::find_if(line->calls, [&](const auto& call) { return call.second->name == each.call; });
        if (found == line->calls.end()) continue;
        CallMessage message;
        message.message = LINE_APPNEWCALL;
        message.instance = open->instance;
        message.line = each.line;
        message.call = found->second;
        message.params[0] = found->second->facts.state;
        message.params[1] = found->second->facts.mode;
        message.params[2] = LINECALLPRIVILEGE_OWNER;
        send(*session, std::move(message));
    }
}

}  // namespace zr::platform
