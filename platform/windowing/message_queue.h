#pragma once

// A thread's message queue, which is also what the wait engine waits for.
//
// One word of bits says what is in the queue (low half, QS_* kinds) and what has arrived since the thread last looked
// (high half). It is written under the queue's lock or by the owning thread, and read by anyone: by the owner to see
// that there is nothing to do, by the engine to see whether a wait is over.
//
// Locks are taken in this order: the desktop's, then a queue's, then that of who waits for room, then the wait
// engine's.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "kernel/thread.h"
#include "kernel/waitable.h"
#include "message_ring.h"
#include "queue_descriptor.h"
#include "send_request.h"
#include "timer_set.h"

namespace zr::platform {

class RoomWaiter;
struct Window;

inline constexpr std::size_t kQueueLimit = 10'000;

class MessageQueue final : public Waitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::MessageQueue;

    static constexpr std::uint32_t kReply = 0x8000;  // an answer has come for this thread
    static constexpr std::uint32_t kNews = 0x4000;   // input that a message wait has found, and keeps in mind
    static constexpr std::uint32_t arrived(DWORD kinds) { return kinds << 16; }
    static constexpr DWORD kKinds = QS_ALLINPUT | QS_ALLPOSTMESSAGE;
    static constexpr DWORD kPosted = QS_POSTMESSAGE | QS_ALLPOSTMESSAGE;

    // The calling thread's queue. current() makes it on first use; NULL, with the last error, when that is impossible:
    // memory is short or the thread is past its end.
    static MessageQueue* current();
    static MessageQueue* existing() noexcept;

    DWORD thread_id() const noexcept { return thread_id_; }

    // ---- From any thread ----
    DWORD post(const MSG& message, RoomWaiter* waiter = nullptr);  // 0 or the error; who is to be told of room
    DWORD push_sent(SendRequest& request);                         // likewise
    void reply_arrived();
    SendList take_sent(HWND window);  // what was sent to a window that goes away
    void drop_posted(HWND window);

    static DWORD post_to_thread(DWORD thread, const MSG& message);

    // Tells those who wait for room in the queue, if there is. With no lock held.
    void tell_room();
    RoomWaiter* room_waiters() const noexcept { return room_waiters_.load(std::memory_order_relaxed); }
    void set_room_waiters(RoomWaiter* first) noexcept { room_waiters_.store(first, std::memory_order_relaxed); }

    // ---- At a fork: the desktop's lock is taken before, and given back behind these ----
    static void lock_all() noexcept;
    static void unlock_all() noexcept;
    // In the child: only the calling thread's queue is left, which gets a descriptor of its own.
    static void survive_fork() noexcept;
    static void sync_descriptors() noexcept;

    // ---- On the owning thread only ----
    std::uint32_t bits() const noexcept { return bits_.load(std::memory_order_acquire); }
    // Returns what there was before: what arrives meanwhile is either in that or not cleared.
    std::uint32_t clear_bits(std::uint32_t bits) noexcept { return bits_.fetch_and(~bits, std::memory_order_acq_rel); }
    // These kinds in the queue have been looked at.
    void looked(DWORD kinds) noexcept {
        const std::uint32_t fresh = bits() & arrived(kinds);
        looked_at_ |= fresh;
        if (fresh) clear_bits(fresh);
    }
    // What looked() took since the last exchange. A message wait asks for it, so that a procedure which looks into the
    // queue during the wait does not take away what the wait is for.
    std::uint32_t exchange_looked_at(std::uint32_t bits) noexcept { return std::exchange(looked_at_, bits); }
    void set_news() noexcept { bits_.fetch_or(kNews, std::memory_order_acq_rel); }
    // Which bits satisfy the next wait for this queue, and which ones interrupt a wait for all.
    void want(std::uint32_t bits, std::uint32_t interrupting = 0) noexcept {
        wanted_.store(bits, std::memory_order_release);
        interrupting_.store(interrupting, std::memory_order_release);
    }

    bool serve_sent();  // handles all that was sent; true if there was anything
    void quit(int exit_code);

    struct Filter {
        HWND window;
        UINT first;
        UINT last;
    };
    // The first message that passes, of the kinds `among`: posted, then WM_QUIT, then WM_TIMER.
    bool find(const Filter& filter, DWORD among, bool remove, MSG& message);
    void expire_timers();
    TimerSet& timers() noexcept { return timers_; }
    void timers_changed() noexcept;
    // Before a timer goes or starts anew: a message of it that was shown and left is in the queue, and stays there.
    void leave_shown_message(HWND window, UINT_PTR timer);
    int descriptor();

    SendRequest* new_request() noexcept;  // NULL when memory is short
    void recycle(SendRequest* request) noexcept;

    // A message from another thread that this thread handles.
    struct Serving {
        SendRequest* request;  // NULL once it is answered
        Serving* outer;
    };
    Serving* serving() const noexcept { return serving_; }
    // A request that this thread waits for.
    struct Awaited {
        SendRequest* request;
        Awaited* outer;
    };
    Awaited*& awaited() noexcept { return awaited_; }

    Window*& first_window() noexcept { return first_window_; }

private:
    friend struct QueueTable;

    explicit MessageQueue(DWORD thread_id) noexcept : Waitable(kKind), thread_id_(thread_id) {}
    ~MessageQueue() override;

    static MessageQueue* attach();
    static void thread_ends(Thread& self);
    void close();

    bool is_signalled(const Thread& waiter) const noexcept override;
    bool interrupts(const Thread& waiter) const noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;

    void go_on_alone() noexcept;
    void handle(SendRequest* request);
    bool find_posted(const Filter& filter, bool remove, MSG& message);
    bool find_timer(const Filter& filter, bool remove, MSG& message);
    void add_bits_locked(DWORD kind);
    void clear_kind_locked(DWORD kind);
    void sync_locked();

    DWORD thread_id_;
    MessageQueue* next_ = nullptr;  // in the table
    std::atomic<std::uint32_t> bits_{0};
    std::atomic<std::uint32_t> wanted_{0};
    std::atomic<std::uint32_t> interrupting_{0};

    std::mutex lock_;  // of what follows
    MessageRing posted_;
    SendList sent_;
    bool quitting_ = false;
    int exit_code_ = 0;
    bool closed_ = false;
    std::unique_ptr<QueueDescriptor> descriptor_;

    std::atomic<RoomWaiter*> room_waiters_{nullptr};  // guarded by their lock

    // The owner's alone.
    TimerSet timers_;
    std::uint32_t looked_at_ = 0;
    Serving* serving_ = nullptr;
    Awaited* awaited_ = nullptr;
    SendRequest* spare_ = nullptr;
    std::size_t spares_ = 0;
    Window* first_window_ = nullptr;  // under the desktop's lock
};

// The answer to a request, or that there will be none. Disposes of requests that nobody waits for.
void answer(SendRequest* request, LRESULT result, bool handled);
void refuse_all(SendList requests);

}  // namespace zr::platform
