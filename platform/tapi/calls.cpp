// What is asked of calls, and asked for.

#include <algorithm>
#include <cstring>
#include <list>
#include <new>
#include <utility>

#include "exchange.h"
#include "kernel/thread.h"
#include "priorities.h"
#include "structure.h"

namespace zr::platform {
namespace {

constexpr std::size_t kMostDigits = 80;

template <class Body>
LONG guarded_call(Body&& body) {
    cancellation_point();
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return LINEERR_NOMEM;
    }
}

// A call handle as it was at one moment.
struct Seen {
    CallHandle handle;
    OpenLineRef open;
    VoiceService service{};
    CallFacts facts;
    SYSTEMTIME entered{};

    // For its owner also once he has dropped it.
    bool is_over() const {
        return handle.dropped || facts.state == LINECALLSTATE_IDLE || facts.state == LINECALLSTATE_DISCONNECTED;
    }
};

// 0 with what is known of a call after asking for the newest; or why not.
LONG see(HCALL handle, Seen& seen, bool fresh = true) {
    Exchange& exchange = Exchange::instance();
    const auto find = [&]() -> LONG {
        const CallHandle* const found = exchange.find_call(handle);
        if (found == nullptr || !found->call) return LINEERR_INVALCALLHANDLE;
        seen.handle = *found;
        seen.open = exchange.open_lines[found->line];
        seen.service = seen.open->line->facts.service;
        seen.facts = found->call->facts;
        seen.entered = found->call->entered;
        return 0;
    };
    {
        const auto lock = exchange.enter();
        if (const LONG error = find()) return error;
    }
    if (!fresh) return 0;
    const LONG error = exchange.bring_up_to_date(&seen.service);
    const auto lock = exchange.enter();
    const LONG gone = find();
    return gone != 0 ? gone : error;
}

DWORD count_monitors(const Call& call) {
    Exchange& exchange = Exchange::instance();
    const auto lock = exchange.enter();
    return static_cast<DWORD>(std::ranges::count_if(call.handles, [&](const auto& each) {
        const CallHandle* const handle = exchange.find_call(each.second);
        return handle != nullptr && handle->privilege == LINECALLPRIVILEGE_MONITOR;
    }));
}

DWORD features_of(const Seen& seen) {
    if (seen.handle.privilege != LINECALLPRIVILEGE_OWNER || seen.is_over()) return 0;
    const bool rings = seen.facts.state == LINECALLSTATE_OFFERING;
    return LINECALLFEATURE_DROP | (rings ? LINECALLFEATURE_ANSWER : 0);
}

LONG list_new_calls(HLINE handle, LPLINECALLLIST list) {
    Exchange& exchange = Exchange::instance();
    VoiceService service{};
    {
        const auto lock = exchange.enter();
        const OpenLine* const open = exchange.find_line(handle);
        if (open == nullptr) return LINEERR_INVALLINEHANDLE;
        service = open->line->facts.service;
    }
    if (const LONG error = exchange.bring_up_to_date(&service)) return error;
    const auto lock = exchange.enter();
    const OpenLine* const open = exchange.find_line(handle);
    if (open == nullptr) return LINEERR_INVALLINEHANDLE;
    // One of those that go out may be the one that the line is about to make, which has a handle already.
    const bool is_making = exchange.is_making_call(handle);
    std::vector<CallRef> calls;
    for (const auto& [path, call] : open->line->calls) {
        const bool is_live = call->facts.state != 0 && call->facts.state != LINECALLSTATE_IDLE;
        if (is_making && !call->facts.incoming) continue;
        if (is_live && exchange.handle_of(handle, call) == nullptr) calls.push_back(call);
    }
    std::ranges::sort(calls, {}, &Call::number);
    const DWORD total = list->dwTotalSize;
    const auto size = static_cast<DWORD>(calls.size() * sizeof(HCALL));
    const DWORD needed = sizeof(LINECALLLIST) + size;
    if (total < needed) {
        list->dwNeededSize = needed;
        return LINEERR_STRUCTURETOOSMALL;
    }
    const std::vector<HCALL> handles = exchange.make_call_handles(handle, calls);
    *list = {total, needed, needed, static_cast<DWORD>(calls.size()), size, sizeof(LINECALLLIST)};
    if (size != 0) std::memcpy(reinterpret_cast<unsigned char*>(list) + sizeof(LINECALLLIST), handles.data(), size);
    return 0;
}

LONG write_info(const Seen& seen, LPLINECALLINFO info) {
    StructureWriter writer(info);
    LINECALLINFO& fixed = writer.fixed;
    const CallFacts& facts = seen.facts;
    fixed.hLine = seen.handle.line;
    fixed.dwLineDeviceID = seen.open->line->device;
    fixed.dwBearerMode = LINEBEARERMODE_VOICE;
    fixed.dwMediaMode = LINEMEDIAMODE_INTERACTIVEVOICE;
    fixed.dwCallID = seen.handle.call->number;
    fixed.dwOrigin = facts.incoming ? LINECALLORIGIN_INBOUND : LINECALLORIGIN_OUTBOUND;
    fixed.dwReason = LINECALLREASON_DIRECT;
    fixed.dwNumOwners = count_owners(seen.handle.call->name);
    fixed.dwNumMonitors = count_monitors(*seen.handle.call);
    const DWORD flags =
        (facts.number.empty() ? 0 : LINECALLPARTYID_ADDRESS) | (facts.name.empty() ? 0 : LINECALLPARTYID_NAME);
    const DWORD said = flags != 0 ? flags : LINECALLPARTYID_UNKNOWN;
    fixed.dwConnectedIDFlags = LINECALLPARTYID_UNAVAIL;
    fixed.dwRedirectionIDFlags = LINECALLPARTYID_UNAVAIL;
    fixed.dwRedirectingIDFlags = LINECALLPARTYID_UNAVAIL;
    fixed.dwCallerIDFlags = facts.incoming ? said : LINECALLPARTYID_UNAVAIL;
    fixed.dwCalledIDFlags = facts.incoming ? LINECALLPARTYID_UNAVAIL : said;
    if (facts.incoming) {
        writer.put_text(facts.number, &LINECALLINFO::dwCallerIDSize, &LINECALLINFO::dwCallerIDOffset);
        writer.put_text(facts.name, &LINECALLINFO::dwCallerIDNameSize, &LINECALLINFO::dwCallerIDNameOffset);
    } else {
        writer.put_text(facts.number, &LINECALLINFO::dwCalledIDSize, &LINECALLINFO::dwCalledIDOffset);
        writer.put_text(facts.name, &LINECALLINFO::dwCalledIDNameSize, &LINECALLINFO::dwCalledIDNameOffset);
    }
    return writer.finish();
}

// False: it has gone meanwhile, with its modem.
bool put_privilege(HCALL handle, DWORD privilege) {
    Exchange& exchange = Exchange::instance();
    const auto lock = exchange.enter();
    CallHandle* const found = exchange.find_call(handle);
    if (found != nullptr) found->privilege = privilege;
    return found != nullptr;
}

// False: the call would be left without an owner.
bool disown(const Seen& seen, bool may_be_last) {
    const SharedName& name = seen.handle.call->name;
    {
        Exchange& exchange = Exchange::instance();
        const auto lock = exchange.enter();
        if (exchange.owns_otherwise(seen.open->session, name, seen.handle.handle)) return true;
    }
    return disown_call(name, seen.open->session, !may_be_last);
}

LONG set_privilege(HCALL handle, DWORD privilege) {
    Seen seen;
    if (const LONG error = see(handle, seen, privilege == LINECALLPRIVILEGE_MONITOR)) return error;
    const auto rights = Exchange::instance().change_rights();
    if (const LONG error = see(handle, seen, false)) return error;
    if (privilege == seen.handle.privilege) return 0;
    if (privilege == LINECALLPRIVILEGE_OWNER) {
        if (const LONG error = own_call(seen.handle.call->name, seen.open->session)) return error;
    } else if (!disown(seen, seen.is_over())) {
        return LINEERR_INVALCALLSTATE;
    }
    if (put_privilege(handle, privilege)) return 0;
    if (privilege == LINECALLPRIVILEGE_OWNER) disown(seen, true);
    return LINEERR_INVALCALLHANDLE;
}

LONG deallocate(HCALL handle) {
    Seen seen;
    if (const LONG error = see(handle, seen, false)) return error;
    if (seen.handle.privilege == LINECALLPRIVILEGE_OWNER) static_cast<void>(see(handle, seen));
    Exchange& exchange = Exchange::instance();
    const auto rights = exchange.change_rights();
    if (const LONG error = see(handle, seen, false)) return error;
    const bool owns = seen.handle.privilege == LINECALLPRIVILEGE_OWNER;
    if (owns && !disown(seen, seen.is_over())) return LINEERR_INVALCALLSTATE;
    const auto lock = exchange.enter();
    exchange.remove_call_handle(handle);
    return 0;
}

// Asks for something to be done with a call.
LONG request_of(HCALL handle, CallRequest::Kind kind) {
    Seen seen;
    if (const LONG error = see(handle, seen)) return error;
    if (seen.handle.privilege != LINECALLPRIVILEGE_OWNER) return LINEERR_NOTOWNER;
    const bool rings = seen.facts.state == LINECALLSTATE_OFFERING;
    const bool fits = kind == CallRequest::Kind::Answer ? rings : !seen.is_over();
    if (!fits) return LINEERR_INVALCALLSTATE;
    Exchange& exchange = Exchange::instance();
    std::list<CallRequest> request(1);
    CallRequest& made = request.front();
    const auto lock = exchange.enter();
    made.kind = kind;
    made.id = exchange.new_request();
    made.session = seen.open->session;
    made.line = seen.handle.line;
    made.handle = handle;
    made.on = seen.open->line;
    made.call = seen.handle.call;
    made.waiting = seen.facts.waiting;
    const LONG id = made.id;
    CallHandle* const found = exchange.find_call(handle);
    if (found != nullptr && kind == CallRequest::Kind::Drop) found->dropped = true;
    exchange.request(request);
    return id;
}

// What is dialled; empty for what cannot be.
std::string dialable(LPCWSTR address) {
    std::string digits;
    for (; *address != 0; ++address) {
        const WCHAR unit = *address;
        const bool counts = (unit >= u'0' && unit <= u'9') || unit == u'*' || unit == u'#';
        if (counts || (unit == u'+' && digits.empty())) {
            digits += static_cast<char>(unit);
        } else if (std::u16string_view(u" ()-./\u00A0").find(unit) == std::u16string_view::npos) {
            return {};
        }
        if (digits.size() > kMostDigits) return {};
    }
    return digits == "+" ? std::string() : digits;
}

LONG check_params(const LINECALLPARAMS* params) {
    if (params == nullptr) return 0;
    if (params->dwTotalSize < sizeof *params) return LINEERR_STRUCTURETOOSMALL;
    if (params->dwBearerMode != 0 && params->dwBearerMode != LINEBEARERMODE_VOICE) return LINEERR_INVALBEARERMODE;
    const DWORD media = params->dwMediaMode;
    if (media != 0 && media != LINEMEDIAMODE_INTERACTIVEVOICE) return LINEERR_INVALMEDIAMODE;
    return params->dwAddressID == 0 ? 0 : LINEERR_INVALADDRESSID;
}

LONG make_call(HLINE line, LPHCALL call, std::string number) {
    Exchange& exchange = Exchange::instance();
    std::list<CallRequest> request(1);
    CallRequest& made = request.front();
    const auto lock = exchange.enter();
    const OpenLine* const open = exchange.find_line(line);
    if (open == nullptr) return LINEERR_INVALLINEHANDLE;
    if (!open->line->facts.voice) return LINEERR_OPERATIONUNAVAIL;
    made.kind = CallRequest::Kind::Make;
    made.id = exchange.new_request();
    made.session = open->session;
    made.line = line;
    made.on = open->line;
    made.number = std::move(number);
    made.handle = exchange.make_call_handle(line, nullptr, LINECALLPRIVILEGE_OWNER);
    *call = made.handle;
    const LONG id = made.id;
    exchange.request(request);
    return id;
}

bool is_one_mode(DWORD media_mode) {
    return media_mode != 0 && (media_mode & (media_mode - 1)) == 0;
}

LONG hand_off(HCALL handle, LPCWSTR name, DWORD media_mode) {
    Seen seen;
    if (const LONG error = see(handle, seen)) return error;
    if (seen.handle.privilege != LINECALLPRIVILEGE_OWNER) return LINEERR_NOTOWNER;
    const bool named = name != nullptr && *name != 0;
    if (!named && !is_one_mode(media_mode)) return LINEERR_INVALMEDIAMODE;
    const std::vector<std::u16string> order = named ? std::vector<std::u16string>{name} : priority_order(media_mode);
    return hand_call(seen.handle.call->name, seen.open->line->name, named ? ~DWORD{0} : media_mode, order, named,
                     seen.open->session);
}

}  // namespace

LONG Exchange::new_request() noexcept {
    last_request_ = last_request_ == INT32_MAX ? 1 : last_request_ + 1;
    return last_request_;
}

}  // namespace zr::platform

using namespace zr::platform;

LONG lineGetNewCalls(HLINE line, DWORD address, DWORD select, LPLINECALLLIST list) {
    if (list == nullptr) return LINEERR_INVALPOINTER;
    if (select != LINECALLSELECT_LINE && select != LINECALLSELECT_ADDRESS) return LINEERR_INVALCALLSELECT;
    if (select == LINECALLSELECT_ADDRESS && address != 0) return LINEERR_INVALADDRESSID;
    return guarded_call([&] { return list_new_calls(line, list); });
}

LONG lineGetCallStatus(HCALL call, LPLINECALLSTATUS status) {
    if (status == nullptr) return LINEERR_INVALPOINTER;
    return guarded_call([&]() -> LONG {
        Seen seen;
        if (const LONG error = see(call, seen)) return error;
        StructureWriter writer(status);
        writer.fixed.dwCallState = seen.facts.state;
        writer.fixed.dwCallStateMode = seen.facts.mode;
        writer.fixed.dwCallPrivilege = seen.handle.privilege;
        writer.fixed.dwCallFeatures = features_of(seen);
        writer.fixed.tStateEntryTime = seen.entered;
        return writer.finish();
    });
}

LONG lineGetCallInfo(HCALL call, LPLINECALLINFO info) {
    if (info == nullptr) return LINEERR_INVALPOINTER;
    return guarded_call([&]() -> LONG {
        Seen seen;
        if (const LONG error = see(call, seen)) return error;
        return write_info(seen, info);
    });
}

LONG lineSetCallPrivilege(HCALL call, DWORD privilege) {
    if (privilege != LINECALLPRIVILEGE_OWNER && privilege != LINECALLPRIVILEGE_MONITOR) {
        return LINEERR_INVALCALLPRIVILEGE;
    }
    return guarded_call([&] { return set_privilege(call, privilege); });
}

LONG lineDeallocateCall(HCALL call) {
    return guarded_call([&] { return deallocate(call); });
}

LONG lineMakeCall(HLINE line, LPHCALL call, LPCWSTR address, DWORD, const LINECALLPARAMS* params) {
    if (call == nullptr || address == nullptr) return LINEERR_INVALPOINTER;
    if (const LONG error = check_params(params)) return error;
    return guarded_call([&]() -> LONG {
        std::string number = dialable(address);
        return number.empty() ? LINEERR_INVALADDRESS : make_call(line, call, std::move(number));
    });
}

LONG lineAnswer(HCALL call, LPCSTR, DWORD) {
    return guarded_call([&] { return request_of(call, CallRequest::Kind::Answer); });
}

LONG lineDrop(HCALL call, LPCSTR, DWORD) {
    return guarded_call([&] { return request_of(call, CallRequest::Kind::Drop); });
}

LONG lineHandoff(HCALL call, LPCWSTR name, DWORD media_mode) {
    return guarded_call([&] { return hand_off(call, name, media_mode); });
}

LONG lineSetAppPriority(LPCWSTR name, DWORD media_mode, LPLINEEXTENSIONID, DWORD request_mode, LPCWSTR,
                        DWORD priority) {
    if (name == nullptr) return LINEERR_INVALPOINTER;
    if (*name == 0) return LINEERR_INVALAPPNAME;
    if (request_mode != 0) return LINEERR_INVALREQUESTMODE;
    if (priority > 1) return LINEERR_INVALPARAM;
    return guarded_call([&] { return set_priority(name, media_mode, priority == 1); });
}
