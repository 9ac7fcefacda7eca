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
constexpr std::size_t kMostLeft = 10'000;  // of a service that tells nonsense

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
constexpr std::string_view kOfonoVoiceInterface = "org.ofono.VoiceCallManager";
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

// What was said, until it has been dealt with.
struct Pending {
    explicit Pending(std::atomic<bool>& flag) : said(flag), was(flag.exchange(false)) {}
    ~Pending() {
        if (was) said = true;
    }
    std::atomic<bool>& said;
    bool was;
};

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
        left_.clear();
    }
    handed_calls_.clear();
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
    if (signal.interface == kOfonoVoiceInterface && signal.member == "CallRemoved" && !signal.values.empty()) {
        const std::lock_guard touching(told_lock_);
        if (left_.size() == kMostLeft) left_.clear();
        left_[std::string(text_of(signal.values.data()))] = signal.order;
    }
    note();
} catch (const std::bad_alloc&) {
    missed_ = true;
    note();
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

BusResult Exchange::listen() noexcept {
    if (listening_.exchange(true)) return BusResult::Answered;
    const BusResult result = listen_to_bus(*this, kVoiceSignals, voice_patience);
    if (result != BusResult::Answered) listening_ = false;
    return result;
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
    // What a reading without memory could not give up is given up by the next.
    return (read_at_ == told_ || is_quiet) && gone_.empty() && may_have_system_bus();
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
    for (;;) {
        const auto rights = change_rights();
        ClosedLine line;
        {
            const auto lock = enter();
            if (gone_.empty()) return;
            line = gone_.back();
            std::erase_if(line.owned, [&](const SharedName& call) { return owns_otherwise(line.session, call, 0); });
        }
        end_line(line);
        const auto lock = enter();
        std::erase_if(gone_, [&](const ClosedLine& each) { return each.handle == line.handle; });
    }
}

void Exchange::read(std::uint64_t told) {
    BusResult results[kVoiceServices] = {BusResult::NoBus, BusResult::NoBus};
    std::vector<LineFacts> facts[kVoiceServices];
    // First listened, then read: nothing falls in between.
    Pending missed(missed_);
    const bool listened = listening_ && !missed.was;
    const bool has_bus = may_have_system_bus();
    const BusResult listening = has_bus ? listen() : BusResult::NoBus;
    const bool listens = listening == BusResult::Answered;
    // A bus that does not answer has nobody's answer.
    const bool is_silent = listening == BusResult::TimedOut;
    const auto kept = listened && listens ? untouched_calls() : KeptCalls();
    const KnownCall known = [&](const std::string& owner, const std::string& path) -> const CallFacts* {
        const auto found = kept.find({owner, path});
        return found == kept.end() ? nullptr : &found->second;
    };
    for (int i = 0; has_bus && i < kVoiceServices; ++i) {
        const auto service = static_cast<VoiceService>(i);
        results[i] = is_silent ? listening : ask_service(service, known, voice_patience, facts[i]);
        if (results[i] != BusResult::Answered && !is_none(results[i])) log_failure(service, results[i]);
    }
    const auto lock = enter();
    bool all = true;
    Pending lost(is_lost_);
    const bool was_lost = lost.was;
    for (int i = 0; i < kVoiceServices; ++i) {
        results_[i] = results[i];
        // What was not told stays as it was, unless it was another bus's.
        const bool known_now = results[i] == BusResult::Answered || is_none(results[i]);
        if (!known_now && was_lost) facts[i].clear();
        if (known_now || was_lost) take(static_cast<VoiceService>(i), facts[i], told);
        all = all && known_now;
        if (results[i] != BusResult::TimedOut) continue;
        quiet_at_ = is_silent ? told_.load() : told;
        quiet_until_ = std::chrono::steady_clock::now() + kQuietTime;
    }
    lost.was = false;
    missed.was = missed.was && !all;
    if (all && listens) {
        read_at_ = told;
        forget_touched(told);
    }
}

Exchange::KeptCalls Exchange::untouched_calls() {
    KeptCalls kept;
    const auto lock = enter();
    const std::lock_guard touching(told_lock_);
    for (const LineRef& line : lines) {
        for (const auto& [path, call] : line->calls) {
            if (!touched_.contains(path)) kept.emplace(std::pair(line->facts.owner, path), call->facts);
        }
    }
    return kept;
}

// What the picture has taken in.
void Exchange::forget_touched(std::uint64_t told) noexcept {
    std::uint64_t heard = UINT64_MAX;
    for (const LineRef& line : lines) {
        const bool tells = line->present && line->facts.service == VoiceService::Ofono && line->facts.voice;
        if (tells) heard = std::min(heard, line->facts.heard);
    }
    const std::lock_guard touching(told_lock_);
    std::erase_if(touched_, [told](const auto& each) { return each.second <= told; });
    std::erase_if(left_, [heard](const auto& each) { return each.second <= heard; });
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
            Outbox box;
            tell_sessions(box, LINE_CREATE, line->device);
            lines.push_back(line);
            box.send();
        } else {
            line->facts = std::move(fact);
        }
        take_calls(line, calls, told, line->facts.heard);
    }
}

void Exchange::take_calls(const LineRef& line, std::vector<CallFacts>& facts, std::uint64_t told, std::uint64_t heard) {
    std::map<std::string, CallRef> gone = line->calls;
    for (CallFacts& each : facts) {
        gone.erase(each.path);
        take_call(line, each, heard);
    }
    for (const auto& [path, call] : gone) {
        if (call->since > told) continue;
        end_call(line, call);
        line->calls.erase(path);
    }
}

bool Exchange::is_of_before(const Call& call, std::uint64_t heard) {
    const std::lock_guard touching(told_lock_);
    const auto found = left_.find(call.facts.path);
    return found != left_.end() && call.heard < found->second && found->second < heard;
}

void Exchange::end_call(const LineRef& line, const CallRef& call) {
    if (!is_live(call->facts.state)) return;
    if (call->facts.state != LINECALLSTATE_DISCONNECTED) {
        enter_state(line, call, LINECALLSTATE_DISCONNECTED, LINEDISCONNECTMODE_UNKNOWN);
    }
    enter_state(line, call, LINECALLSTATE_IDLE, 0);
}

void Exchange::take_new_call(const LineRef& line, CallFacts& facts, std::uint64_t heard) {
    const auto call = std::make_shared<Call>();
    call->name = shared_name(line->facts.owner, facts.path);
    call->facts = facts;
    call->heard = heard;
    GetSystemTime(&call->entered);
    if (facts.state == LINECALLSTATE_DISCONNECTED) call->facts.state = LINECALLSTATE_IDLE;
    Outbox box;
    if (is_live(call->facts.state)) tell_new_call(box, line, call);
    line->calls.insert_or_assign(facts.path, call);
    call->number = ++last_call_;
    box.send();
}

void Exchange::take_call(const LineRef& line, CallFacts& facts, std::uint64_t heard) {
    const auto found = line->calls.find(facts.path);
    if (found == line->calls.end()) return take_new_call(line, facts, heard);
    const CallRef call = found->second;
    if (is_of_before(*call, heard)) end_call(line, call);
    // One that was over, or not begun, and rings: another call.
    if (!is_live(call->facts.state) && is_live(facts.state) && facts.state != LINECALLSTATE_DISCONNECTED) {
        return take_new_call(line, facts, heard);
    }
    if (!is_live(call->facts.state) || facts.state == 0) return;
    const DWORD state = facts.state;
    const DWORD mode = facts.mode;
    const DWORD old_state = call->facts.state;
    Outbox box;
    if (call->facts.number != facts.number || call->facts.name != facts.name) {
        tell_call(box, line, call, LINE_CALLINFO, LINECALLINFOSTATE_CALLERID, 0);
    }
    facts.incoming |= call->facts.incoming;  // not said of a call that is answered
    facts.state = old_state;
    call->facts = std::move(facts);
    call->heard = std::max(call->heard, heard);
    box.send();
    if (state != old_state) enter_state(line, call, state, mode);
    if (state == LINECALLSTATE_DISCONNECTED) enter_state(line, call, LINECALLSTATE_IDLE, 0);
}

void Exchange::enter_state(const LineRef& line, const CallRef& call, DWORD state, DWORD mode) {
    Outbox box;
    tell_call(box, line, call, LINE_CALLSTATE, state, mode);
    call->facts.state = state;
    call->facts.mode = mode;
    GetSystemTime(&call->entered);
    box.send();
}

void Exchange::remove_line(const LineRef& line) {
    std::vector<CallFacts> none;
    take_calls(line, none, UINT64_MAX, 0);
    Outbox box;
    std::vector<ClosedLine> closed;
    for (const auto& [handle, open] : open_lines) {
        if (open->line != line) continue;
        closed.push_back(left_of(*open));
        Session* const session = find_session(open->session);
        if (session == nullptr) continue;
        CallMessage message;
        message.message = LINE_CLOSE;
        message.device = open->handle;
        message.instance = open->instance;
        box.add(*session, std::move(message));
    }
    tell_sessions(box, LINE_REMOVE, line->device);
    gone_.reserve(gone_.size() + closed.size());
    line->present = false;
    for (ClosedLine& each : closed) {
        remove_open_line(each.handle);
        gone_.push_back(std::move(each));
    }
    box.send();
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
    const auto found = std::ranges::find(call->handles, line, &std::pair<HLINE, HCALL>::first);
    return found == call->handles.end() ? nullptr : find_call(found->second);
}

bool Exchange::is_making_call(HLINE line) const noexcept {
    return std::ranges::any_of(call_handles,
                               [line](const auto& each) { return each.second.line == line && !each.second.call; });
}

HCALL Exchange::make_call_handle(HLINE line, const CallRef& call, DWORD privilege) {
    if (call) call->handles.reserve(call->handles.size() + 1);
    const HCALL handle = new_handle();
    call_handles.emplace(handle, CallHandle{handle, line, call, privilege, false});
    if (call) call->handles.emplace_back(line, handle);
    return handle;
}

std::vector<HCALL> Exchange::make_call_handles(HLINE line, const std::vector<CallRef>& calls) {
    std::vector<HCALL> handles;
    std::map<HCALL, CallHandle> made;
    handles.reserve(calls.size());
    for (const CallRef& call : calls) {
        const HCALL handle = new_handle();
        call->handles.reserve(call->handles.size() + 1);
        made.emplace(handle, CallHandle{handle, line, call, LINECALLPRIVILEGE_MONITOR, false});
        handles.push_back(handle);
    }
    call_handles.merge(made);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        calls[i]->handles.emplace_back(line, handles[i]);
    }
    return handles;
}

void Exchange::remove_call_handle(HCALL handle) noexcept {
    const auto found = call_handles.find(handle);
    if (found == call_handles.end()) return;
    if (const CallRef& call = found->second.call) {
        std::erase_if(call->handles, [handle](const auto& each) { return each.second == handle; });
    }
    call_handles.erase(found);
}

void Exchange::remove_open_line(HLINE handle) noexcept {
    for (auto each = call_handles.begin(); each != call_handles.end();) {
        const auto [call, known] = *each++;
        if (known.line == handle) remove_call_handle(call);
    }
    open_lines.erase(handle);
}

ClosedLine Exchange::left_of(const OpenLine& open) const {
    ClosedLine closed{open.handle, open.session, (open.privileges & LINECALLPRIVILEGE_OWNER) != 0, {}};
    for (const auto& [call, known] : call_handles) {
        const bool is_its = known.line == open.handle && known.call && known.privilege == LINECALLPRIVILEGE_OWNER;
        if (is_its) closed.owned.push_back(known.call->name);
    }
    return closed;
}

bool Exchange::owns_otherwise(HLINEAPP session, const SharedName& call, HCALL handle, HLINE closing) noexcept {
    return std::ranges::any_of(call_handles, [&](const auto& each) {
        const CallHandle& other = each.second;
        if (other.handle == handle || other.line == closing || !other.call ||
            other.privilege != LINECALLPRIVILEGE_OWNER)
            return false;
        const OpenLine* const line = find_line(other.line);
        return line != nullptr && line->session == session && other.call->name == call;
    });
}

}  // namespace zr::platform
