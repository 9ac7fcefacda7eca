// Sessions and lines.

#include <algorithm>
#include <new>
#include <utility>

#include "exchange.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/modules.h"
#include "session_window.h"
#include "structure.h"

namespace zr::platform {
namespace {

constexpr DWORD kOldestVersion = 0x00010003;
constexpr DWORD kVoiceModes = LINEMEDIAMODE_INTERACTIVEVOICE;
constexpr DWORD kMostLineCalls = 7;  // a network's

bool is_version(DWORD version) {
    return version >= kOldestVersion && version <= TAPI_CURRENT_VERSION;
}

std::u16string program_name() {
    WCHAR path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::u16string whole(path, std::min<DWORD>(length, MAX_PATH));
    return whole.substr(whole.find_last_of(u"\\/") + 1);
}

DWORD media_modes_of(const Line& line) {
    return line.facts.voice ? kVoiceModes : LINEMEDIAMODE_DATAMODEM;
}

// The line of a device; NULL with `error`.
LineRef find_device(Exchange& exchange, DWORD device, LONG& error) {
    error = LINEERR_BADDEVICEID;
    if (device >= exchange.lines.size()) return nullptr;
    error = LINEERR_NODEVICE;
    return exchange.lines[device]->present ? exchange.lines[device] : nullptr;
}

LONG begin_session(LPHLINEAPP handle, LINECALLBACK callback, LPCWSTR name, LPDWORD count) {
    Exchange& exchange = Exchange::instance();
    const auto session = std::make_shared<Session>();
    session->callback = callback;
    session->application = name != nullptr && *name != 0 ? name : program_name();
    session->thread = GetCurrentThreadId();
    // A service that does not answer has no lines to show.
    exchange.bring_up_to_date();
    session->window = make_session_window();
    if (session->window == nullptr) return LINEERR_NOMEM;
    struct WindowGuard {
        SessionRef session;
        ~WindowGuard() {
            if (session) end_session_window(session->window, session->thread);
        }
    } guard{session};
    const auto lock = exchange.enter();
    if (exchange.sessions.empty()) exchange.number_lines();
    session->handle = exchange.new_handle();
    exchange.add_session(session);
    guard.session.reset();
    *handle = session->handle;
    *count = static_cast<DWORD>(exchange.lines.size());
    return 0;
}

LONG end_session(HLINEAPP handle) {
    Exchange& exchange = Exchange::instance();
    SessionRef session;
    {
        auto lock = exchange.enter();
        if (exchange.find_session(handle) == nullptr) return LINEERR_INVALAPPHANDLE;
        exchange.wait_for_requests(lock, handle);
        if (exchange.find_session(handle) == nullptr) return LINEERR_INVALAPPHANDLE;
    }
    {
        const auto rights = exchange.change_rights();
        end_owner(handle);
        const auto lock = exchange.enter();
        session = exchange.remove_session(handle);
        if (!session) return LINEERR_INVALAPPHANDLE;
        for (auto each = exchange.open_lines.begin(); each != exchange.open_lines.end();) {
            const OpenLineRef open = (each++)->second;
            if (open->session == handle) exchange.remove_open_line(open->handle);
        }
        exchange.end_worker_if_idle();
    }
    end_session_window(session->window, session->thread);
    return 0;
}

LONG write_caps(const Line& line, LPLINEDEVCAPS caps) {
    StructureWriter writer(caps);
    LINEDEVCAPS& fixed = writer.fixed;
    fixed.dwPermanentLineID = static_cast<DWORD>(line.name.first);
    fixed.dwStringFormat = STRINGFORMAT_UNICODE;
    fixed.dwAddressModes = LINEADDRESSMODE_ADDRESSID;
    fixed.dwNumAddresses = 1;
    fixed.dwBearerModes = LINEBEARERMODE_VOICE;
    fixed.dwMediaModes = media_modes_of(line);
    fixed.dwMaxNumActiveCalls = line.facts.voice ? kMostLineCalls : 0;
    fixed.dwAnswerMode = LINEANSWERMODE_HOLD;
    fixed.dwRingModes = 1;
    fixed.dwLineFeatures = line.facts.voice ? LINELINEFEATURE_MAKECALL : 0;
    writer.put_text(names_of(line.facts.service).provider, &LINEDEVCAPS::dwProviderInfoSize,
                    &LINEDEVCAPS::dwProviderInfoOffset);
    writer.put_text(line.facts.name, &LINEDEVCAPS::dwLineNameSize, &LINEDEVCAPS::dwLineNameOffset);
    writer.put_text(line.facts.number, &LINEDEVCAPS::dwSwitchInfoSize, &LINEDEVCAPS::dwSwitchInfoOffset);
    return writer.finish();
}

// What may be asked of a line; 0 or why not.
LONG check_privileges(DWORD privileges, DWORD media_modes) {
    constexpr DWORD all = LINECALLPRIVILEGE_NONE | LINECALLPRIVILEGE_MONITOR | LINECALLPRIVILEGE_OWNER;
    const bool is_none = privileges == LINECALLPRIVILEGE_NONE;
    if (privileges == 0 || (privileges & ~all) != 0) return LINEERR_INVALPRIVSELECT;
    if (!is_none && (privileges & LINECALLPRIVILEGE_NONE) != 0) return LINEERR_INVALPRIVSELECT;
    return (privileges & LINECALLPRIVILEGE_OWNER) != 0 && media_modes == 0 ? LINEERR_INVALMEDIAMODE : 0;
}

// Runs it; without memory: LINEERR_NOMEM.
template <class Body>
LONG guarded_line_call(Body&& body) {
    cancellation_point();
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return LINEERR_NOMEM;
    }
}

LineRef choose_line(Exchange& exchange, DWORD device, DWORD media_modes, LONG& error) {
    if (device != LINEMAPPER) return find_device(exchange, device, error);
    error = LINEERR_LINEMAPPERFAILED;
    for (const LineRef& line : exchange.lines) {
        if (line->present && (media_modes_of(*line) & media_modes) == media_modes) return line;
    }
    return nullptr;
}

LONG open_line(const OpenLine& wanted, DWORD device, LPHLINE handle) {
    Exchange& exchange = Exchange::instance();
    const bool owner = (wanted.privileges & LINECALLPRIVILEGE_OWNER) != 0;
    const auto open = std::make_shared<OpenLine>(wanted);
    std::map<HLINE, OpenLineRef> made;
    CallTaker taker;
    const auto rights = exchange.change_rights();
    {
        const auto lock = exchange.enter();
        const Session* const found = exchange.find_session(wanted.session);
        if (found == nullptr) return LINEERR_INVALAPPHANDLE;
        LONG error = 0;
        open->line = choose_line(exchange, device, wanted.media_modes, error);
        if (!open->line) return error;
        if (owner && (media_modes_of(*open->line) & wanted.media_modes) == 0) return LINEERR_INVALMEDIAMODE;
        open->handle = exchange.new_handle();
        made.emplace(open->handle, open);
        taker = {wanted.session, open->handle, open->line->name, wanted.media_modes, found->application};
        if (owner && !exchange.listen_to_others()) return LINEERR_NOMEM;
    }
    LONG result = owner ? add_taker(taker) : 0;
    {
        const auto lock = exchange.enter();
        if (result == 0 && !open->line->present) result = LINEERR_NODEVICE;
        if (result == 0) exchange.open_lines.merge(made);
    }
    if (result != 0 && owner) end_line({open->handle, open->session, true, {}});
    if (result == 0) *handle = open->handle;
    return result;
}

LONG close_line(HLINE handle) {
    Exchange& exchange = Exchange::instance();
    const auto rights = exchange.change_rights();
    ClosedLine closed;
    {
        const auto lock = exchange.enter();
        const OpenLine* const open = exchange.find_line(handle);
        if (open == nullptr) return LINEERR_INVALLINEHANDLE;
        closed = exchange.left_of(*open);
        std::erase_if(closed.owned,
                      [&](const SharedName& call) { return exchange.owns_otherwise(closed.session, call, 0, handle); });
    }
    end_line(closed);
    const auto lock = exchange.enter();
    exchange.remove_open_line(handle);
    return 0;
}

}  // namespace

void Exchange::end_worker_if_idle() noexcept {
    const std::lock_guard touching(told_lock_);
    if (sessions.empty() && worker_.is_running()) SetEvent(wake_);
}

}  // namespace zr::platform

using namespace zr::platform;

LONG lineInitialize(LPHLINEAPP session, HINSTANCE, LINECALLBACK callback, LPCWSTR name, LPDWORD lines) {
    if (session == nullptr || callback == nullptr || lines == nullptr) return LINEERR_INVALPOINTER;
    return guarded_line_call([&] { return begin_session(session, callback, name, lines); });
}

LONG lineShutdown(HLINEAPP session) {
    return guarded_line_call([&] { return end_session(session); });
}

LONG lineNegotiateAPIVersion(HLINEAPP session, DWORD device, DWORD low, DWORD high, LPDWORD version,
                             LPLINEEXTENSIONID extension) {
    if (version == nullptr || extension == nullptr) return LINEERR_INVALPOINTER;
    return guarded_line_call([&]() -> LONG {
        Exchange& exchange = Exchange::instance();
        const auto lock = exchange.enter();
        if (exchange.find_session(session) == nullptr) return LINEERR_INVALAPPHANDLE;
        LONG error = 0;
        if (!find_device(exchange, device, error)) return error;
        if (low > high || high < kOldestVersion || low > TAPI_CURRENT_VERSION) return LINEERR_INCOMPATIBLEAPIVERSION;
        *version = std::min(high, TAPI_CURRENT_VERSION);
        *extension = {};
        return 0;
    });
}

LONG lineGetDevCaps(HLINEAPP session, DWORD device, DWORD version, DWORD extension_version, LPLINEDEVCAPS caps) {
    if (caps == nullptr) return LINEERR_INVALPOINTER;
    return guarded_line_call([&]() -> LONG {
        Exchange& exchange = Exchange::instance();
        const auto lock = exchange.enter();
        if (exchange.find_session(session) == nullptr) return LINEERR_INVALAPPHANDLE;
        LONG error = 0;
        const LineRef line = find_device(exchange, device, error);
        if (!line) return error;
        if (!is_version(version)) return LINEERR_INCOMPATIBLEAPIVERSION;
        if (extension_version != 0) return LINEERR_INCOMPATIBLEEXTVERSION;
        return write_caps(*line, caps);
    });
}

LONG lineOpen(HLINEAPP session, DWORD device, LPHLINE line, DWORD version, DWORD extension_version, DWORD_PTR instance,
              DWORD privileges, DWORD media_modes, LPLINECALLPARAMS) {
    if (line == nullptr) return LINEERR_INVALPOINTER;
    if (!is_version(version)) return LINEERR_INCOMPATIBLEAPIVERSION;
    if (extension_version != 0) return LINEERR_INCOMPATIBLEEXTVERSION;
    if (const LONG error = check_privileges(privileges, media_modes)) return error;
    const OpenLine wanted{0, session, nullptr, instance, privileges, media_modes};
    return guarded_line_call([&] { return open_line(wanted, device, line); });
}

LONG lineClose(HLINE line) {
    return guarded_line_call([&] { return close_line(line); });
}
