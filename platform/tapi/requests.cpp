// The worker: requests, reading when nobody asks, calls that other processes hand over.

#include <algorithm>
#include <list>
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

// What has to be done is done once there is memory for it.
template <class Body>
void insist(const Body& body) {
    for (;;) {
        try {
            return body();
        } catch (const std::bad_alloc&) {
            Sleep(1);
        }
    }
}

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

void Exchange::request(std::list<CallRequest>& request) noexcept {
    if (Session* const session = find_session(request.front().session)) ++session->requests;
    requests_.splice(requests_.end(), request);
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
    std::list<CallRequest> next;
    bool is_behind = false;
    bool is_told = false;
    {
        const auto lock = enter();
        if (!requests_.empty()) next.splice(next.end(), requests_, requests_.begin());
        for (const auto& [handle, session] : sessions) {
            post(*session);
        }
        is_behind = read_at_ != told_ && !sessions.empty();
        is_told = handed_ != nullptr;
    }
    if (!next.empty()) {
        carry_out(next.front());
        return true;
    }
    if (is_behind) bring_up_to_date();
    if (is_told) take_handed();
    return false;
}

void Exchange::carry_out(const CallRequest& request) {
    MadeCall made;
    LONG result = LINEERR_NOMEM;
    try {
        result = ask(request, made);
    } catch (const std::bad_alloc&) {
        made.path.clear();
    }
    finish(request, result, made);
}

LONG Exchange::ask(const CallRequest& request, MadeCall& made) {
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
        made = {made_path(answer), answer.order};
        return answer.result == BusResult::Answered && made.path.empty() ? LINEERR_OPERATIONFAILED : line_error(answer);
    }
    const BusAnswer created =
        tell(line, line_interface, "CreateCall", {bus_array("{sv}", {bus_entry("number", bus_text(request.number))})});
    const std::string path = made_path(created);
    if (created.result != BusResult::Answered || path.empty()) {
        return path.empty() && created.result == BusResult::Answered ? LINEERR_OPERATIONFAILED : line_error(created);
    }
    const LONG result = line_error(tell(path, call_interface, "Start"));
    if (result == 0) {
        made.path = path;
    } else {
        tell(line, line_interface, "DeleteCall", {bus_text(path, 'o')});
    }
    return result;
}

void Exchange::finish(const CallRequest& request, LONG result, const MadeCall& made) {
    const bool is_made = request.kind == CallRequest::Kind::Make && result == 0;
    const auto rights = change_rights();
    const SharedName name = [&] {
        const auto lock = enter();
        return shared_name(request.on->facts.owner, made.path);
    }();
    const auto is_there = [&] {
        const auto lock = enter();
        return find_call(request.handle) != nullptr;
    };
    // Who has gone meanwhile owns nothing.
    if (is_made && is_there()) insist([&] { static_cast<void>(own_call(name, request.session)); });
    insist([&] { tell_finished(request, result, made); });
    if (!is_made || is_there()) return;
    insist([&] {
        {
            const auto lock = enter();
            if (owns_otherwise(request.session, name, 0)) return;
        }
        disown_call(name, request.session, false);
    });
}

// The call that the service made, in the picture. May be done twice.
CallRef Exchange::take_made_call(const CallRequest& request, const MadeCall& made) {
    {
        const std::lock_guard touching(told_lock_);
        touched_[made.path] = told_ + 1;
    }
    const auto found = request.on->calls.find(made.path);
    CallRef known = found == request.on->calls.end() ? nullptr : found->second;
    if (known && is_of_before(*known, made.heard)) end_call(request.on, known);
    const bool is_over = known && known->facts.state == LINECALLSTATE_IDLE && known->heard < made.heard;
    std::string number = request.number;
    if (!known || is_over) {
        known = std::make_shared<Call>();
        known->name = shared_name(request.on->facts.owner, made.path);
        known->facts.path = made.path;
        request.on->calls.insert_or_assign(made.path, known);
        known->number = ++last_call_;
    }
    known->heard = std::max(known->heard, made.heard);
    known->since = told_ + 1;
    if (known->facts.state == 0) {
        known->facts.state = LINECALLSTATE_DIALING;
        known->facts.number = std::move(number);
    }
    return known;
}

// All or, thrown out of, nothing that anybody is told.
void Exchange::tell_finished(const CallRequest& request, LONG result, const MadeCall& made) {
    const bool is_make = request.kind == CallRequest::Kind::Make;
    const auto lock = enter();
    const CallRef call = is_make && result == 0 ? take_made_call(request, made) : nullptr;
    if (call) call->handles.reserve(call->handles.size() + 1);
    Session* const session = find_session(request.session);
    const OpenLine* const open = find_line(request.line);
    Outbox box;
    if (session != nullptr) {
        CallMessage reply;
        reply.message = LINE_REPLY;
        reply.instance = open != nullptr ? open->instance : 0;
        reply.params[0] = static_cast<DWORD_PTR>(request.id);
        reply.params[1] = static_cast<DWORD>(result);
        box.add(*session, std::move(reply));
    }
    if (session != nullptr && call && open != nullptr) {
        CallMessage state;
        state.message = LINE_CALLSTATE;
        state.instance = open->instance;
        state.params[0] = call->facts.state;
        state.params[2] = LINECALLPRIVILEGE_OWNER;
        state.line = request.line;
        state.call = call;
        box.add(*session, std::move(state));
    }
    if (CallHandle* const handle = find_call(request.handle)) {
        if (result != 0) handle->dropped = false;
        if (call) {
            handle->call = call;
            call->handles.emplace_back(handle->line, handle->handle);
        }
    }
    if (is_make && result != 0) remove_call_handle(request.handle);
    if (session != nullptr) --session->requests;
    box.send();
    finished_.notify_all();
    note();  // what the service says of it now
}

// Whether nothing more is to be done for it: the session is told, or is not there any more.
bool Exchange::hand_over(const HandedCall& handed) {
    const auto lock = enter();
    const OpenLine* const open = find_line(handed.line);
    Session* const session = open != nullptr ? find_session(open->session) : nullptr;
    if (session == nullptr) return false;
    const auto& calls = open->line->calls;
    const auto found = std::ranges::find_if(calls, [&](const auto& each) { return each.second->name == handed.call; });
    if (found == calls.end()) return false;
    const CallRef& call = found->second;
    CallMessage message;
    message.message = LINE_APPNEWCALL;
    message.instance = open->instance;
    message.line = handed.line;
    message.call = call;
    message.params[0] = call->facts.state;
    message.params[1] = call->facts.mode;
    message.params[2] = LINECALLPRIVILEGE_OWNER;
    Outbox box;
    box.add(*session, std::move(message));
    box.send();
    return true;
}

void Exchange::refuse(const HandedCall& handed) {
    const auto rights = change_rights();
    {
        const auto lock = enter();
        if (owns_otherwise(handed.session, handed.call, 0)) return;
    }
    disown_call(handed.call, handed.session, false);
}

void Exchange::take_handed() {
    const std::size_t before = handed_calls_.size();
    take_handed_calls(handed_calls_);
    if (handed_calls_.empty()) return;
    const bool has_new = handed_calls_.size() != before;
    const auto hand_over_known = [this] {
        for (auto each = handed_calls_.begin(); each != handed_calls_.end();) {
            each = hand_over(*each) ? handed_calls_.erase(each) : each + 1;
        }
        return handed_calls_.empty();
    };
    bring_up_to_date();
    if (hand_over_known()) return;
    // The word may have been quicker than the service's own: it is asked once more.
    if (has_new) ++told_;
    const bool is_known = bring_up_to_date() == 0;
    if (hand_over_known() || !is_known) return;
    while (!handed_calls_.empty()) {
        refuse(handed_calls_.back());
        handed_calls_.pop_back();
    }
}

}  // namespace zr::platform
