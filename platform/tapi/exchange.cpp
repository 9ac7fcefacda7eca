#include "exchange.h"

#include <algorithm>
#include <new>
#include <utility>

#include "ZrLog/ZrLog.h"
#include "base/forks.h"
#include "platform/kernel.h"
#include "platform/time.h"
#include "tapi/patience.h"

namespace zr::platform {

std::atomic<int> voice_patience{kBusPatience};

namespace {

constexpr std::chrono::seconds kQuietTime{30};

#define ZR_SIGNAL "type='signal',sender='"
#define ZR_MODEMS "org.freedesktop.ModemManager1"
#define ZR_CHANGED ",interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',arg0='" ZR_MODEMS
#define ZR_OWNER "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='"
constexpr const char* kVoiceSignals[] = {
    ZR_SIGNAL ZR_MODEMS "',interface='org.freedesktop.DBus.ObjectManager'",
    ZR_SIGNAL ZR_MODEMS "',interface='" ZR_MODEMS ".Modem.Voice'",
    ZR_SIGNAL ZR_MODEMS "',interface='" ZR_MODEMS ".Call'",
    ZR_SIGNAL ZR_MODEMS "'" ZR_CHANGED ".Modem.Voice'",
    ZR_SIGNAL ZR_MODEMS "'" ZR_CHANGED ".Call'",
    ZR_OWNER ZR_MODEMS "'",
    ZR_SIGNAL "org.ofono',interface='org.ofono.Manager'",
    ZR_SIGNAL "org.ofono',interface='org.ofono.Modem',arg0='Interfaces'",
    ZR_SIGNAL "org.ofono',interface='org.ofono.VoiceCallManager'",
    ZR_SIGNAL "org.ofono',interface='org.ofono.VoiceCall'",
    ZR_OWNER "org.ofono'",
};
constexpr std::string_view kCallInterface = ZR_MODEMS ".Call";
#undef ZR_OWNER
#undef ZR_CHANGED
#undef ZR_MODEMS
#undef ZR_SIGNAL

alignas(Exchange) unsigned char exchange_storage[sizeof(Exchange)];
Exchange& the_exchange = *new (exchange_storage) Exchange;

const AtFork tapi_at_fork{ForkRank::Tapi,
                          {[]() noexcept {
                               the_exchange.lock();
                               lock_ownership();
                           },
                           []() noexcept {
                               unlock_ownership();
                               the_exchange.unlock();
                           },
                           []() noexcept {
                               forget_ownership_in_child();
                               the_exchange.begin_child();
                           }}};

bool is_none(BusResult result) {
    return result == BusResult::NoBus || result == BusResult::NoModule;
}

bool is_live(DWORD state) {
    return state != 0 && state != LINECALLSTATE_IDLE;
}

void log_failure(VoiceService service, BusResult result) {
    zrKelDebugBinLog2(".\\platform\\tapi", __LINE__, zrLogCategory(0x68, kZrLogFailure),
                      static_cast<std::uintptr_t>(service), static_cast<std::uintptr_t>(result));
}

}  // namespace

Exchange& Exchange::instance() noexcept {
    return the_exchange;
}

std::unique_lock<std::mutex> Exchange::enter() {
    std::unique_lock lock(mutex_);
    if (generation_ == fork_generation()) return lock;
    generation_ = fork_generation();
    std::map<HLINEAPP, SessionRef> old;
    old.swap(sessions);
    session_count_ = 0;
    open_lines.clear();
    call_handles.clear();
    lines.clear();
    requests_.clear();
    gone_.clear();
    {
        const std::lock_guard touching(told_lock_);
        touched_.clear();
    }
    lock.unlock();
    old.clear();  // its waiters have locks of their own
    lock.lock();
    return lock;
}

void Exchange::begin_child() noexcept {
    listening_ = false;
    ++told_;
    handed_ = nullptr;  // no handle of the child's
    quiet_at_ = 0;
    is_reading_ = false;
    new (&read_) std::condition_variable;
    new (&finished_) std::condition_variable;
    unlock();
}

// ---- What the services tell ----

void Exchange::note() noexcept {
    ++told_;
    if (session_count_ != 0) wake();
}

void Exchange::signal(const BusSignal& signal) noexcept try {
    const bool is_call = signal.interface == kCallInterface ||
                         (!signal.values.empty() && text_of(signal.values.data()) == kCallInterface);
    if (is_call) {
        const std::lock_guard touching(told_lock_);
        touched_[signal.path] = told_ + 1;
    }
    note();
} catch (const std::bad_alloc&) {
    lost();  // everything is asked for again
}

void Exchange::lost() noexcept {
    listening_ = false;
    is_lost_ = true;
    note();
}

bool Exchange::is_needed() noexcept {
    return session_count_ != 0;
}

void Exchange::add_session(const SessionRef& session) {
    sessions.emplace(session->handle, session);
    session_count_ = sessions.size();
}

SessionRef Exchange::remove_session(HLINEAPP handle) noexcept {
    const auto found = sessions.find(handle);
    if (found == sessions.end()) return nullptr;
    SessionRef session = std::move(found->second);
    sessions.erase(found);
    session_count_ = sessions.size();
    return session;
}

bool Exchange::listen() noexcept {
    if (listening_.exchange(true)) return true;
    const bool good = listen_to_bus(*this, kVoiceSignals, voice_patience) == BusResult::Answered;
    if (!good) listening_ = false;
    return good;
}

// ---- Reading ----

LONG Exchange::result_of(const VoiceService* service) const noexcept {
    for (int i = 0; i < kVoiceServices; ++i) {
        const bool is_asked = service == nullptr || static_cast<int>(*service) == i;
        if (is_asked && results_[i] != BusResult::Answered && !is_none(results_[i])) return LINEERR_OPERATIONFAILED;
    }
    return 0;
}

// The end of a bus may not have been noticed yet.
bool Exchange::is_up_to_date() const noexcept {
    const bool is_quiet = quiet_at_ == told_ && std::chrono::steady_clock::now() < quiet_until_;
    return (read_at_ == told_ || is_quiet) && may_have_system_bus();
}

void Exchange::end_reading() noexcept {
    const std::lock_guard lock(mutex_);
    is_reading_ = false;
    read_.notify_all();
}

LONG Exchange::bring_up_to_date(const VoiceService* service) {
    std::uint64_t told = 0;
    {
        auto lock = enter();
        if (is_up_to_date()) return result_of(service);
        const auto patience = std::chrono::milliseconds(3 * voice_patience);
        if (!read_.wait_for(lock, patience, [this] { return !is_reading_; })) return LINEERR_OPERATIONFAILED;
        if (is_up_to_date()) return result_of(service);
        told = told_;
        is_reading_ = true;
    }
    struct Reading {
        Exchange& exchange;
        ~Reading() { exchange.end_reading(); }
    } const reading{*this};
    read(told);
    give_up_gone();
    const auto lock = enter();
    return result_of(service);
}

void Exchange::give_up_gone() {
    std::vector<ClosedLine> gone;
    {
        const auto lock = enter();
        gone.swap(gone_);
    }
    std::ranges::for_each(gone, give_up);
}

void Exchange::read(std::uint64_t told) {
    BusResult results[kVoiceServices] = {BusResult::NoBus, BusResult::NoBus};
    std::vector<LineFacts> facts[kVoiceServices];
    // First listened, then read: nothing falls in between.
    const bool listened = listening_;
    const bool has_bus = may_have_system_bus();
    const bool listens = has_bus && listen();
    std::map<std::pair<std::string, std::string>, CallFacts> kept;
    if (listened && listens) {
        const auto lock = enter();
        const std::lock_guard touching(told_lock_);
        for (const LineRef& line : lines) {
            for (const auto& [path, call] : line->calls) {
                if (!touched_.contains(path)) kept.emplace(std::pair(line->facts.owner, path), call->facts);
            }
        }
    }
    const KnownCall known = [&](const std::string& owner, const std::string& path) -> const CallFacts* {
        const auto found = kept.find({owner, path});
        return found == kept.end() ? nullptr : &found->second;
    };
    for (int i = 0; has_bus && i < kVoiceServices; ++i) {
        const auto service = static_cast<VoiceService>(i);
        results[i] = ask_service(service, known, voice_patience, facts[i]);
        if (results[i] != BusResult::Answered && !is_none(results[i])) log_failure(service, results[i]);
    }
    const auto lock = enter();
    bool all = true;
    const bool was_lost = is_lost_.exchange(false);
    for (int i = 0; i < kVoiceServices; ++i) {
        results_[i] = results[i];
        // What was not told stays as it was, unless it was another bus's.
        const bool known_now = results[i] == BusResult::Answered || is_none(results[i]);
        if (!known_now && was_lost) facts[i].clear();
        if (known_now || was_lost) take(static_cast<VoiceService>(i), facts[i], told);
        all = all && known_now;
        if (results[i] != BusResult::TimedOut) continue;
        quiet_at_ = told;
        quiet_until_ = std::chrono::steady_clock::now() + kQuietTime;
    }
    if (all && listens) {
        read_at_ = told;
        const std::lock_guard touching(told_lock_);
        std::erase_if(touched_, [told](const auto& each) { return each.second <= told; });
    }
}

void Exchange::take(VoiceService service, std::vector<LineFacts>& facts, std::uint64_t told) {
    const auto is_it = [](const LineRef& line, const LineFacts& fact) {
        return line->present && line->facts.service == fact.service && line->facts.owner == fact.owner &&
               line->facts.path == fact.path;
    };
    const std::vector<LineRef> before = lines;
    for (const LineRef& line : before) {
        if (!line->present || line->facts.service != service) continue;
        const bool there = std::ranges::any_of(facts, [&](const LineFacts& fact) { return is_it(line, fact); });
        if (!there) remove_line(line);
    }
    for (LineFacts& fact : facts) {
        std::vector<CallFacts> calls = std::move(fact.calls);
        fact.calls.clear();
        const auto found = std::ranges::find_if(lines, [&](const LineRef& line) { return is_it(line, fact); });
        LineRef line = found == lines.end() ? nullptr : *found;
        if (!line) {
            line = std::make_shared<Line>();
            line->device = static_cast<DWORD>(lines.size());
            line->name = shared_name(fact.owner, fact.path);
            line->facts = std::move(fact);
            lines.push_back(line);
            tell_sessions(LINE_CREATE, line->device);
        } else {
            line->facts = std::move(fact);
        }
        take_calls(line, calls, told);
    }
}

void Exchange::take_calls(const LineRef& line, std::vector<CallFacts>& facts, std::uint64_t told) {
    std::map<std::string, CallRef> gone = line->calls;
    for (CallFacts& each : facts) {
        gone.erase(each.path);
        take_call(line, each);
    }
    for (const auto& [path, call] : gone) {
        if (call->since > told) continue;
        if (is_live(call->facts.state)) {
            if (call->facts.state != LINECALLSTATE_DISCONNECTED) {
                enter_state(line, call, LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_UNKNOWN);
            }
            enter_state(line, call, LINECALLSTATE_IDLE, 0);
        }
        line->calls.erase(path);
    }
}

void Exchange::take_call(const LineRef& line, CallFacts& facts) {
    const auto found = line->calls.find(facts.path);
    CallRef call = found == line->calls.end() ? nullptr : found->second;
    // One that was over, or not begun, and rings: another call.
    const bool is_new =
        !call || (!is_live(call->facts.state) && is_live(facts.state) && facts.state != LINECALLSTATE_DISCONNECTED);
    if (is_new) {
        call = std::make_shared<Call>();
        call->number = ++last_call_;
        call->name = shared_name(line->facts.owner, facts.path);
        call->facts = facts;
        GetSystemTime(&call->entered);
        if (facts.state == LINECALLSTATE_DISCONNECTED) call->facts.state = LINECALLSTATE_IDLE;
        line->calls.insert_or_assign(facts.path, call);
        if (is_live(call->facts.state)) tell_new_call(line, call);
        return;
    }
    if (!is_live(call->facts.state) || facts.state == 0) return;
    const bool renamed = call->facts.number != facts.number || call->facts.name != facts.name;
    const DWORD state = facts.state;
    const DWORD mode = facts.mode;
    const DWORD old_state = call->facts.state;
    facts.incoming |= call->facts.incoming;  // not said of a call that is answered
    facts.state = old_state;
    call->facts = facts;
    if (renamed) tell_call(line, call, LINE_CALLINFO, LINECALLINFOSTATE_CALLERID, 0);
    if (state != old_state) enter_state(line, call, state, mode);
    if (state == LINECALLSTATE_DISCONNECTED) enter_state(line, call, LINECALLSTATE_IDLE, 0);
}

void Exchange::enter_state(const LineRef& line, const CallRef& call, DWORD state, DWORD mode) {
    call->facts.state = state;
    call->facts.mode = mode;
    GetSystemTime(&call->entered);
    tell_call(line, call, LINE_CALLSTATE, state, mode);
}

void Exchange::remove_line(const LineRef& line) {
    line->present = false;
    std::vector<CallFacts> none;
    take_calls(line, none, UINT64_MAX);
    std::vector<OpenLineRef> closed;
    for (const auto& [handle, open] : open_lines) {
        if (open->line == line) closed.push_back(open);
    }
    for (const OpenLineRef& open : closed) {
        if (Session* const session = find_session(open->session)) {
            CallMessage message;
            message.message = LINE_CLOSE;
            message.device = open->handle;
            message.instance = open->instance;
            send(*session, std::move(message));
        }
        gone_.push_back(close_line(open->handle));
    }
    tell_sessions(LINE_REMOVE, line->device);
}

void Exchange::number_lines() {
    std::erase_if(lines, [](const LineRef& line) { return !line->present; });
    std::stable_partition(lines.begin(), lines.end(), [](const LineRef& line) { return line->facts.voice; });
    for (std::size_t i = 0; i < lines.size(); ++i) {
        lines[i]->device = static_cast<DWORD>(i);
    }
}

// ---- Handles ----

DWORD Exchange::new_handle() noexcept {
    do {
        ++last_handle_;
    } while (last_handle_ == 0 || sessions.contains(last_handle_) || open_lines.contains(last_handle_) ||
             call_handles.contains(last_handle_));
    return last_handle_;
}

Session* Exchange::find_session(HLINEAPP handle) noexcept {
    const auto found = sessions.find(handle);
    return found == sessions.end() ? nullptr : found->second.get();
}

OpenLine* Exchange::find_line(HLINE handle) noexcept {
    const auto found = open_lines.find(handle);
    return found == open_lines.end() ? nullptr : found->second.get();
}

CallHandle* Exchange::find_call(HCALL handle) noexcept {
    const auto found = call_handles.find(handle);
    return found == call_handles.end() ? nullptr : &found->second;
}

CallHandle* Exchange::handle_of(HLINE line, const CallRef& call) noexcept {
    const auto found = std::ranges::find_if(
        call_handles, [&](const auto& each) { return each.second.line == line && each.second.call == call; });
    return found == call_handles.end() ? nullptr : &found->second;
}

CallHandle& Exchange::make_call_handle(HLINE line, const CallRef& call, DWORD privilege) {
    const HCALL handle = new_handle();
    return call_handles.emplace(handle, CallHandle{handle, line, call, privilege, false}).first->second;
}

void Exchange::remove_open_line(HLINE handle) noexcept {
    std::erase_if(call_handles, [handle](const auto& each) { return each.second.line == handle; });
    open_lines.erase(handle);
}

ClosedLine Exchange::close_line(HLINE handle) {
    const OpenLineRef open = open_lines.at(handle);
    ClosedLine closed{handle, open->session, (open->privileges & LINECALLPRIVILEGE_OWNER) != 0, {}};
    for (const auto& [call, known] : call_handles) {
        const bool is_its = known.line == handle && known.call && known.privilege == LINECALLPRIVILEGE_OWNER;
        if (is_its) closed.owned.push_back(known.call->name);
    }
    remove_open_line(handle);
    std::erase_if(closed.owned, [&](const SharedName& call) { return owns_otherwise(closed.session, call, 0); });
    return closed;
}

bool Exchange::owns_otherwise(HLINEAPP session, const SharedName& call, HCALL handle) noexcept {
    return std::ranges::any_of(call_handles, [&](const auto& each) {
        const CallHandle& other = each.second;
        if (other.handle == handle || !other.call || other.privilege != LINECALLPRIVILEGE_OWNER) return false;
        const OpenLine* const line = find_line(other.line);
        return line != nullptr && line->session == session && other.call->name == call;
    });
}

void give_up(const ClosedLine& line) {
    for (const SharedName& call : line.owned) {
        disown_call(call, line.session, false);
    }
    if (line.takes) remove_taker(line.handle);
}

}  // namespace zr::platform
