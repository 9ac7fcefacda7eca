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
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kernel/worker.h"
#include "ownership.h"
#include "platform/tapi.h"
#include "voice_facts.h"
#include "windowing/post_room.h"

namespace zr::platform {

struct Call {
    DWORD number = 0;  // among those of this process
    CallFacts facts;
    SharedName name;
    std::uint64_t since = 0;  // what was read before need not have it
    SYSTEMTIME entered{};     // its state
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

struct Session final : RoomWaiter {
    HLINEAPP handle = 0;
    LINECALLBACK callback = nullptr;
    HWND window = nullptr;
    DWORD thread = 0;
    std::u16string application;
    std::deque<CallMessage> messages;
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

// What is left of a line that was closed: what the other processes have been told of it.
struct ClosedLine {
    HLINE handle = 0;
    HLINEAPP session = 0;
    bool takes = false;
    std::vector<SharedName> owned;  // calls that its session owns no more
};

// Nothing of the exchange's may be locked.
void give_up(const ClosedLine& line);

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

class Exchange final : public BusListener {
public:
    static Exchange& instance() noexcept;

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
    CallHandle& make_call_handle(HLINE line, const CallRef& call, DWORD privilege);
    void remove_open_line(HLINE handle) noexcept;
    // The same, with what has to be given up.
    ClosedLine close_line(HLINE handle);
    // Whether the session is an owner of a call of this name by another handle than this one, too. Services give a new
    // call the name of one that is over.
    bool owns_otherwise(HLINEAPP session, const SharedName& call, HCALL handle) noexcept;
    void number_lines();  // before the first session: those that are there, from 0
    void send(Session& session, CallMessage message);
    void request(CallRequest request);
    LONG new_request() noexcept;
    void wake() noexcept;
    void end_worker_if_idle() noexcept;
    // Until the session has no request under way, or for two seconds.
    void wait_for_requests(std::unique_lock<std::mutex>& lock, HLINEAPP session);
    // Calls that are handed over reach this process from now on. False: no memory, or no events.
    bool listen_to_others();

    // For the window of a session.
    static void deliver(HLINEAPP handle);

    void signal(const BusSignal& signal) noexcept override;
    void lost() noexcept override;
    bool is_needed() noexcept override;

    void lock() noexcept { mutex_.lock(); }
    void unlock() noexcept { mutex_.unlock(); }
    void begin_child() noexcept;

private:
    bool listen() noexcept;
    void note() noexcept;
    void read(std::uint64_t told);
    void give_up_gone();
    void end_reading() noexcept;
    LONG result_of(const VoiceService* service) const noexcept;
    bool is_up_to_date() const noexcept;
    void take(VoiceService service, std::vector<LineFacts>& facts, std::uint64_t told);
    void take_calls(const LineRef& line, std::vector<CallFacts>& facts, std::uint64_t told);
    void take_call(const LineRef& line, CallFacts& facts);
    void enter_state(const LineRef& line, const CallRef& call, DWORD state, DWORD mode);
    void remove_line(const LineRef& line);
    void tell_new_call(const LineRef& line, const CallRef& call);
    void tell_call(const LineRef& line, const CallRef& call, DWORD message, DWORD first, DWORD second);
    void tell_sessions(DWORD message, DWORD device);
    void post(Session& session) noexcept;
    void deliver_one(const SessionRef& session, CallMessage& message);
    void deliver_new_call(const SessionRef& session, CallMessage& message);

    void work();
    bool work_once();
    void carry_out(const CallRequest& request);
    LONG ask(const CallRequest& request, std::string& made);
    void finish(const CallRequest& request, LONG result, const std::string& made);
    void tell_finished(const CallRequest& request, LONG result, const std::string& made, const SharedName& name);
    void take_handed();

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
    std::atomic<std::size_t> session_count_{0};
    std::atomic<std::uint64_t> told_{1};
    std::uint64_t read_at_ = 0;  // told_, before the picture was read
    BusResult results_[kVoiceServices] = {BusResult::Answered, BusResult::Answered};
    std::chrono::steady_clock::time_point quiet_until_;
    std::uint64_t quiet_at_ = 0;
    // What the bus's thread needs, too. It is taken by that thread, or with the other lock held: so nobody has it while
    // the process forks.
    std::mutex told_lock_;
    std::map<std::string, std::uint64_t> touched_;  // calls by their paths, and told_
    Worker worker_{"zr-calls"};
    HANDLE wake_ = nullptr;
    HANDLE handed_ = nullptr;
    std::deque<CallRequest> requests_;
    std::condition_variable finished_;
};

// What a failed request of the bus is to a caller.
LONG line_error(const BusAnswer& answer) noexcept;

}  // namespace zr::platform
