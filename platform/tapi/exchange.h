#pragma once

// The process's picture of lines and calls, and the sessions that look at it.
//
// The picture is read anew when the services have said that something changed (or always, where they cannot be listened
// to). Reading asks the bus, with no lock held but the reader's own; what it finds is compared with the picture under
// the lock, and the differences become messages of the sessions. A worker (zr-calls) reads when nobody asks, carries
// requests out and takes calls that other processes hand over; it is there while it has something to do.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kernel/worker.h"
#include "ownership.h"
#include "platform/tapi.h"
#include "tapi/voice_facts.h"
#include "windowing/post_room.h"

namespace zr::platform {

struct Call {
    DWORD number = 0;  // among those of this process
    CallFacts facts;
    SharedName name;
    std::uint64_t since = 0;  // what was read before need not have it
    std::uint64_t heard = 0;  // the order of the answer that told it last
    SYSTEMTIME entered{};     // its state
    std::vector<std::pair<HLINE, HCALL>> handles;
};
using CallRef = std::shared_ptr<Call>;

struct Line {
    DWORD device = 0;
    bool present = true;
    LineFacts facts;  // without the calls
    SharedName name;
    std::map<std::string, CallRef> calls;
};
using LineRef = std::shared_ptr<Line>;

struct CallMessage {
    DWORD message = 0;
    DWORD device = 0;
    DWORD_PTR instance = 0;
    DWORD_PTR params[3] = {};
    // Of a call: it goes to the handle that there is when it is delivered. LINE_APPNEWCALL makes one.
    HLINE line = 0;
    CallRef call;
};

// A list, so that what is made beforehand is put there without needing memory.
using CallMessages = std::list<CallMessage>;

struct Session final : RoomWaiter {
    HLINEAPP handle = 0;
    LINECALLBACK callback = nullptr;
    HWND window = nullptr;
    DWORD thread = 0;
    std::u16string application;
    CallMessages messages;
    bool posted = false;   // the window has been told to look
    bool blocked = false;  // its queue had no room
    int requests = 0;      // under way

    ~Session() override { forget_room(*this); }
    void room() noexcept override;
};
using SessionRef = std::shared_ptr<Session>;

struct OpenLine {
    HLINE handle = 0;
    HLINEAPP session = 0;
    LineRef line;
    DWORD_PTR instance = 0;
    DWORD privileges = 0;
    DWORD media_modes = 0;
};
using OpenLineRef = std::shared_ptr<OpenLine>;

struct CallHandle {
    HCALL handle = 0;
    HLINE line = 0;
    CallRef call;  // NULL: it is being made
    DWORD privilege = 0;
    bool dropped = false;  // its owner has asked for that
};

// A handle that a message of a new call made, or found.
struct NewHandle {
    HCALL handle = 0;  // 0: nobody is told
    bool is_new = false;
    DWORD privilege = 0;
};

// What a service made of a number.
struct MadeCall {
    std::string path;
    std::uint64_t heard = 0;
};

struct CallRequest {
    enum class Kind { Make, Answer, Drop } kind = Kind::Make;
    LONG id = 0;
    HLINEAPP session = 0;
    HLINE line = 0;
    HCALL handle = 0;
    LineRef on;
    CallRef call;
    bool waiting = false;  // answering: another call is to be held
    std::string number;
};

// Messages that are made first, and sent when everything else has succeeded, too.
class Outbox {
public:
    void add(Session& session, CallMessage message);
    void send() noexcept;

private:
    std::vector<std::pair<Session*, CallMessages>> letters_;
};

class Exchange final : public BusListener {
public:
    static Exchange& instance() noexcept;

    // The right to change what the other processes know of this one's owners and takers, and what this one knows of
    // them itself: both change in one go. Taken before the lock of enter(), and not while a callback or the bus is
    // called.
    std::unique_lock<std::mutex> change_rights() { return std::unique_lock(rights_); }

    // The right to look at everything below. In a child made by fork the first one clears what was the parent's.
    std::unique_lock<std::mutex> enter();

    // Brings the picture up to date, unless it is. 0, or the failure of that service; both for NULL. Nothing is locked.
    LONG bring_up_to_date(const VoiceService* service = nullptr);

    std::vector<LineRef> lines;
    std::map<HLINEAPP, SessionRef> sessions;
    std::map<HLINE, OpenLineRef> open_lines;
    std::map<HCALL, CallHandle> call_handles;

    // All of these with the lock held.
    void add_session(const SessionRef& session);
    SessionRef remove_session(HLINEAPP handle) noexcept;
    DWORD new_handle() noexcept;
    Session* find_session(HLINEAPP handle) noexcept;
    OpenLine* find_line(HLINE handle) noexcept;
    CallHandle* find_call(HCALL handle) noexcept;
    CallHandle* handle_of(HLINE line, const CallRef& call) noexcept;
    bool is_making_call(HLINE line) const noexcept;
    HCALL make_call_handle(HLINE line, const CallRef& call, DWORD privilege);
    // One for each of them, or none.
    std::vector<HCALL> make_call_handles(HLINE line, const std::vector<CallRef>& calls);
    void remove_call_handle(HCALL handle) noexcept;
    void remove_open_line(HLINE handle) noexcept;
    ClosedLine left_of(const OpenLine& open) const;  // when it is closed
    // Whether the session is an owner of a call of this name by a handle, but this one and those of `line`. Services
    // give a new call the name of one that is over.
    bool owns_otherwise(HLINEAPP session, const SharedName& call, HCALL handle, HLINE line = 0) noexcept;
    void number_lines();  // before the first session: those that are there, from 0
    // Puts it there; the list has that one.
    void request(std::list<CallRequest>& request) noexcept;
    LONG new_request() noexcept;
    void wake() noexcept;
    void end_worker_if_idle() noexcept;
    // Until the session has no request under way, or for two seconds.
    void wait_for_requests(std::unique_lock<std::mutex>& lock, HLINEAPP session);
    // Calls that are handed over reach this process from now on. False: no memory, or no events.
    bool listen_to_others();

    // For the window of a session.
    static void deliver(HLINEAPP handle);
    // Has its window look for messages.
    static void post(Session& session) noexcept;

    void signal(const BusSignal& signal) noexcept override;
    void lost() noexcept override;
    bool is_needed() noexcept override;

    void lock() noexcept {
        rights_.lock();
        mutex_.lock();
    }
    void unlock() noexcept {
        mutex_.unlock();
        rights_.unlock();
    }
    void begin_child() noexcept;

private:
    BusResult listen() noexcept;
    void note() noexcept;
    using KeptCalls = std::map<std::pair<std::string, std::string>, CallFacts>;  // by owner and path
    void read(std::uint64_t told);
    KeptCalls untouched_calls();
    void forget_touched(std::uint64_t told) noexcept;
    void give_up_gone();
    void end_reading() noexcept;
    LONG result_of(const VoiceService* service) const noexcept;
    bool is_up_to_date() const noexcept;
    void take(VoiceService service, std::vector<LineFacts>& facts, std::uint64_t told);
    void take_calls(const LineRef& line, std::vector<CallFacts>& facts, std::uint64_t told, std::uint64_t heard);
    void take_call(const LineRef& line, CallFacts& facts, std::uint64_t heard);
    void take_new_call(const LineRef& line, CallFacts& facts, std::uint64_t heard);
    // Whether the path is another call's by the time of `heard`.
    bool is_of_before(const Call& call, std::uint64_t heard);
    void end_call(const LineRef& line, const CallRef& call);
    void enter_state(const LineRef& line, const CallRef& call, DWORD state, DWORD mode);
    void remove_line(const LineRef& line);
    void tell_new_call(Outbox& box, const LineRef& line, const CallRef& call);
    void tell_call(Outbox& box, const LineRef& line, const CallRef& call, DWORD message, DWORD first, DWORD second);
    void tell_sessions(Outbox& box, DWORD message, DWORD device);
    bool deliver_one(const SessionRef& session, const CallMessage& message);
    void deliver_new_call(const SessionRef& session, const CallMessage& message, const NewHandle& made);
    NewHandle take_new_handle(const SessionRef& session, const CallMessage& message);

    void work();
    bool work_once();
    void carry_out(const CallRequest& request);
    LONG ask(const CallRequest& request, MadeCall& made);
    void finish(const CallRequest& request, LONG result, const MadeCall& made);
    void tell_finished(const CallRequest& request, LONG result, const MadeCall& made);
    CallRef take_made_call(const CallRequest& request, const MadeCall& made);
    void take_handed();
    bool hand_over(const HandedCall& handed);
    void refuse(const HandedCall& handed);

    std::mutex rights_;  // before mutex_
    std::mutex mutex_;
    bool is_reading_ = false;       // one reads at a time, without the lock
    std::vector<ClosedLine> gone_;  // lines of modems that have gone
    std::condition_variable read_;
    std::uint32_t generation_ = 0;  // of the process that the sessions are in
    DWORD last_handle_ = 0x1000;
    DWORD last_call_ = 0;
    LONG last_request_ = 0;

    std::atomic<bool> listening_{false};
    std::atomic<bool> is_lost_{false};  // the bus that the picture is of
    std::atomic<bool> missed_{false};   // what a signal said, without memory
    std::atomic<std::size_t> session_count_{0};
    std::atomic<std::uint64_t> told_{1};
    std::uint64_t read_at_ = 0;  // told_, before the picture was read
    BusResult results_[kVoiceServices] = {BusResult::Answered, BusResult::Answered};
    std::chrono::steady_clock::time_point quiet_until_;
    std::uint64_t quiet_at_ = 0;
    std::vector<HandedCall> handed_calls_;  // the worker's: those that are not known yet
    // What the bus's thread needs, too. It is taken by that thread, or with the other lock held: so nobody has it while
    // the process forks.
    std::mutex told_lock_;
    std::map<std::string, std::uint64_t> touched_;  // calls by their paths, and told_
    // oFono's paths that a call has left, and the order of the signal.
    std::map<std::string, std::uint64_t, std::less<>> left_;
    Worker worker_{"zr-calls"};
    HANDLE wake_ = nullptr;
    HANDLE handed_ = nullptr;
    std::list<CallRequest> requests_;
    std::condition_variable finished_;
};

// What a failed request of the bus is to a caller.
LONG line_error(const BusAnswer& answer) noexcept;

}  // namespace zr::platform
