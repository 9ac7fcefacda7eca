// How sessions are told: through the window that each has on its thread.

#include <new>
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

void Outbox::add(Session& session, CallMessage message) {
    CallMessages one;
    one.push_back(std::move(message));
    letters_.emplace_back(&session, std::move(one));
}

void Outbox::send() noexcept {
    for (auto& [session, message] : letters_) {
        const CallMessage& each = message.front();
        // A call that was handed over is its receiver's already.
        const bool counts = each.message == LINE_REPLY || (each.message == LINE_APPNEWCALL && each.params[2] != 0);
        if (session->messages.size() >= kMostMessages && !counts) continue;
        session->messages.splice(session->messages.end(), message);
        Exchange::post(*session);
    }
    letters_.clear();
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

void Exchange::tell_sessions(Outbox& box, DWORD message, DWORD device) {
    for (const auto& [handle, session] : sessions) {
        CallMessage made;
        made.message = message;
        made.params[0] = device;
        box.add(*session, std::move(made));
    }
}

void Exchange::tell_call(Outbox& box, const LineRef& line, const CallRef& call, DWORD message, DWORD first,
                         DWORD second) {
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
        box.add(*session, std::move(made));
    }
}

void Exchange::tell_new_call(Outbox& box, const LineRef& line, const CallRef& call) {
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
        box.add(*session, std::move(made));
    }
}

void Exchange::deliver(HLINEAPP handle) {
    Exchange& exchange = instance();
    SessionRef session;
    std::size_t left = 0;
    {
        const auto lock = exchange.enter();
        const auto found = exchange.sessions.find(handle);
        if (found == exchange.sessions.end()) return;
        session = found->second;
        session->posted = false;
        left = session->messages.size();
    }
    // One by one, as a callback may take messages itself: then those behind come there.
    for (; left > 0; --left) {
        CallMessages message;
        {
            const auto lock = exchange.enter();
            if (exchange.find_session(handle) == nullptr || session->messages.empty()) return;
            message.splice(message.end(), session->messages, session->messages.begin());
        }
        if (exchange.deliver_one(session, message.front())) continue;
        const auto lock = exchange.enter();
        session->messages.splice(session->messages.begin(), message);
        exchange.wake();  // it is posted again
        return;
    }
}

// False, and nothing is done, without memory.
bool Exchange::deliver_one(const SessionRef& session, const CallMessage& message) {
    if (message.message == LINE_APPNEWCALL) {
        NewHandle made;
        try {
            made = take_new_handle(session, message);
        } catch (const std::bad_alloc&) {
            return false;
        }
        deliver_new_call(session, message, made);
        return true;
    }
    DWORD device = message.device;
    {
        const auto lock = enter();
        // A callback may have ended the session.
        if (find_session(session->handle) == nullptr) return true;
        if (message.call) {
            const CallHandle* const call = handle_of(message.line, message.call);
            if (call == nullptr) return true;
            device = call->handle;
        }
    }
    session->callback(device, message.message, message.instance, message.params[0], message.params[1],
                      message.params[2]);
    return true;
}

NewHandle Exchange::take_new_handle(const SessionRef& session, const CallMessage& message) {
    constexpr DWORD voice = LINEMEDIAMODE_INTERACTIVEVOICE;
    const bool handed = message.params[2] != 0;
    OpenLine open;
    {
        const auto lock = enter();
        const OpenLine* const found = find_line(message.line);
        if (find_session(session->handle) == nullptr || found == nullptr) return {};
        open = *found;
        // Asked for meanwhile; or it is the one that this line is about to make.
        const bool is_making = !message.call->facts.incoming && is_making_call(message.line);
        if (!handed && (is_making || handle_of(message.line, message.call) != nullptr)) return {};
    }
    const bool may_take = (open.privileges & LINECALLPRIVILEGE_OWNER) != 0 && (open.media_modes & voice) != 0;
    const auto order = !handed && may_take ? priority_order(voice) : std::vector<std::u16string>();
    const auto rights = change_rights();
    const bool takes = !handed && may_take && takes_calls(open.line->name, voice, order, open.session);
    NewHandle made;
    made.privilege = open.privileges & LINECALLPRIVILEGE_MONITOR;
    if (takes || handed) made.privilege = LINECALLPRIVILEGE_OWNER;
    if (made.privilege == 0) return {};
    {
        const auto lock = enter();
        if (find_line(message.line) == nullptr) return {};
        const CallHandle* const call = handle_of(message.line, message.call);
        made.is_new = call == nullptr;
        made.handle =
            call != nullptr ? call->handle : make_call_handle(message.line, message.call, LINECALLPRIVILEGE_MONITOR);
    }
    bool owns = handed;
    try {
        owns = owns || (takes && own_call(message.call->name, open.session) == 0);
    } catch (const std::bad_alloc&) {
        const auto lock = enter();
        if (made.is_new) remove_call_handle(made.handle);
        throw;
    }
    if (!owns) made.privilege = LINECALLPRIVILEGE_MONITOR;
    bool is_there = false;
    {
        const auto lock = enter();
        CallHandle* const call = find_call(made.handle);
        is_there = call != nullptr;
        if (is_there && (owns || made.is_new)) call->privilege = made.privilege;
    }
    if (is_there) return made;
    if (owns) disown_call(message.call->name, open.session, false);
    return {};
}

void Exchange::deliver_new_call(const SessionRef& session, const CallMessage& message, const NewHandle& made) {
    if (made.handle == 0) return;
    if (made.is_new) {
        session->callback(message.line, LINE_APPNEWCALL, message.instance, 0, made.handle, made.privilege);
    }
    {
        const auto lock = enter();
        if (find_session(session->handle) == nullptr || find_call(made.handle) == nullptr) return;
    }
    session->callback(made.handle, LINE_CALLSTATE, message.instance, message.params[0], message.params[1],
                      made.privilege);
}

}  // namespace zr::platform
