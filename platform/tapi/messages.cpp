// How sessions are told: through the window that each has on its thread.

#include <utility>

#include "exchange.h"
#include "priorities.h"
#include "session_window.h"

namespace zr::platform {
namespace {

// Of a session whose thread takes no messages; replies come on top.
constexpr std::size_t kMostMessages = 10'000;

}  // namespace

void Session::room() noexcept {
    Exchange& exchange = Exchange::instance();
    const std::unique_lock lock = exchange.enter();
    blocked = false;
    exchange.wake();
}

void Exchange::send(Session& session, CallMessage message) {
    if (session.messages.size() >= kMostMessages && message.message != LINE_REPLY) return;
    session.messages.push_back(std::move(message));
    post(session);
}

void Exchange::post(Session& session) noexcept {
    if (session.posted || session.blocked || session.messages.empty()) return;
    switch (post_or_wait(session.window, kLookMessage, session.handle, 0, session)) {
        case Posted::Yes:
            session.posted = true;
            break;
        case Posted::Full:
            session.blocked = true;
            break;
        case Posted::Gone:
            session.messages.clear();
            break;
        case Posted::Later:
            break;
    }
}

void Exchange::tell_sessions(DWORD message, DWORD device) {
    for (const auto& [handle, session] : sessions) {
        CallMessage made;
        made.message = message;
        made.params[0] = device;
        send(*session, std::move(made));
    }
}

void Exchange::tell_call(const LineRef& line, const CallRef& call, DWORD message, DWORD first, DWORD second) {
    for (const auto& [handle, open] : open_lines) {
        if (open->line != line) continue;
        Session* const session = find_session(open->session);
        // The handle may still be under way, in a message of before.
        if (session == nullptr || (open->privileges == LINECALLPRIVILEGE_NONE && !handle_of(handle, call))) continue;
        CallMessage made;
        made.message = message;
        made.instance = open->instance;
        made.params[0] = first;
        made.params[1] = second;
        made.line = handle;
        made.call = call;
        send(*session, std::move(made));
    }
}

void Exchange::tell_new_call(const LineRef& line, const CallRef& call) {
    for (const auto& [handle, open] : open_lines) {
        constexpr DWORD told = LINECALLPRIVILEGE_MONITOR | LINECALLPRIVILEGE_OWNER;
        if (open->line != line || (open->privileges & told) == 0) continue;
        Session* const session = find_session(open->session);
        if (session == nullptr) continue;
        CallMessage made;
        made.message = LINE_APPNEWCALL;
        made.instance = open->instance;
        made.params[0] = call->facts.state;
        made.params[1] = call->facts.mode;
        made.line = handle;
        made.call = call;
        send(*session, std::move(made));
    }
}

void Exchange::deliver(HLINEAPP handle) {
    Exchange& exchange = instance();
    SessionRef session;
    std::size_t left = 0;
    {
        const auto lock = exchange.enter();
        if (exchange.find_session(handle) == nullptr) return;
        session = exchange.sessions[handle];
        session->posted = false;
        left = session->messages.size();
    }
    // One by one, as a callback may take messages itself: then those behind come there.
    for (; left > 0; --left) {
        CallMessage message;
        {
            const auto lock = exchange.enter();
            if (exchange.find_session(handle) == nullptr || session->messages.empty()) return;
            message = std::move(session->messages.front());
            session->messages.pop_front();
        }
        exchange.deliver_one(session, message);
    }
}

void Exchange::deliver_one(const SessionRef& session, CallMessage& message) {
    if (message.message == LINE_APPNEWCALL) return deliver_new_call(session, message);
    {
        const auto lock = enter();
        // A callback may have ended the session.
        if (find_session(session->handle) == nullptr) return;
        if (message.call) {
            const CallHandle* const call = handle_of(message.line, message.call);
            if (call == nullptr) return;
            message.device = call->handle;
        }
    }
    session->callback(message.device, message.message, message.instance, message.params[0], message.params[1],
                      message.params[2]);
}

void Exchange::deliver_new_call(const SessionRef& session, CallMessage& message) {
    OpenLine open;
    const bool handed = message.params[2] != 0;
    {
        const auto lock = enter();
        const OpenLine* const found = find_line(message.line);
        if (find_session(session->handle) == nullptr || found == nullptr) return;
        open = *found;
        // Asked for meanwhile; or it is the one that this line is about to make.
        const bool is_making = !message.call->facts.incoming && handle_of(message.line, nullptr) != nullptr;
        if (!handed && (is_making || handle_of(message.line, message.call) != nullptr)) return;
    }
    DWORD privilege = static_cast<DWORD>(message.params[2]);
    constexpr DWORD voice = LINEMEDIAMODE_INTERACTIVEVOICE;
    if (!handed) {
        const bool takes = (open.privileges & LINECALLPRIVILEGE_OWNER) != 0 && (open.media_modes & voice) != 0 &&
                           takes_calls(open.line->name, voice, priority_order(voice), open.session) &&
                           own_call(message.call->name, open.session) == 0;
        privilege = takes ? LINECALLPRIVILEGE_OWNER : open.privileges & LINECALLPRIVILEGE_MONITOR;
        if (privilege == 0) return;
    }
    HCALL handle = 0;
    bool is_new = false;
    {
        const auto lock = enter();
        if (find_line(message.line) == nullptr) return;
        CallHandle* call = handle_of(message.line, message.call);
        is_new = call == nullptr;
        if (is_new) call = &make_call_handle(message.line, message.call, privilege);
        call->privilege = privilege;
        handle = call->handle;
    }
    if (is_new) session->callback(message.line, LINE_APPNEWCALL, message.instance, 0, handle, privilege);
    {
        const auto lock = enter();
        if (find_session(session->handle) == nullptr || find_call(handle) == nullptr) return;
    }
    session->callback(handle, LINE_CALLSTATE, message.instance, message.params[0], message.params[1], privilege);
}

}  // namespace zr::platform
