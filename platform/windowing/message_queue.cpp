#include "message_queue.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "desktop.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "room_waiters.h"

namespace zr::platform {

namespace {

constinit thread_local MessageQueue* own_queue = nullptr;
constinit thread_local bool thread_over = false;

constexpr std::size_t kMostSpares = 32;

bool in_range(const MessageQueue::Filter& filter, UINT message) {
    return (filter.first == 0 && filter.last == 0) || message == WM_QUIT ||
           (message >= filter.first && message <= filter.last);
}

// Under the desktop's lock if the filter names a window.
bool for_window(const MessageQueue::Filter& filter, HWND window) {
    if (!filter.window) return true;
    if (reinterpret_cast<LONG_PTR>(filter.window) == -1) return window == nullptr;
    if (window == filter.window) return true;
    const WindowTable& table = Desktop::get().table;
    const Window* wanted = table.find(filter.window);
    const Window* candidate = table.find(window);
    return wanted && candidate && is_below(wanted, candidate);
}

MSG message_of(const TimerSet::Timer& timer) {
    return {timer.window, WM_TIMER, timer.id, reinterpret_cast<LPARAM>(timer.procedure), GetTickCount(), {0, 0}};
}

}  // namespace

// The queues of the running threads, by thread identifier.
struct QueueTable {
    static constexpr std::size_t kBuckets = 64;

    std::mutex lock;
    bool hooked = false;  // to the end of threads
    MessageQueue* buckets[kBuckets] = {};

    // All of these with the lock held.
    void add(MessageQueue& queue) noexcept {
        if (!std::exchange(hooked, true)) add_thread_exit_hook(&MessageQueue::thread_ends);
        MessageQueue*& first = buckets[queue.thread_id_ % kBuckets];
        queue.next_ = first;
        first = &queue;
    }
    void remove(const MessageQueue& queue) noexcept {
        MessageQueue** link = &buckets[queue.thread_id_ % kBuckets];
        while (*link != &queue) {
            link = &(*link)->next_;
        }
        *link = queue.next_;
    }
    MessageQueue* find(DWORD thread) const noexcept {
        MessageQueue* queue = buckets[thread % kBuckets];
        while (queue && queue->thread_id_ != thread) {
            queue = queue->next_;
        }
        return queue;
    }
    template <class Use>
    void for_each(Use use) noexcept {
        for (MessageQueue* queue : buckets) {
            for (MessageQueue* next = nullptr; queue; queue = next) {
                next = queue->next_;
                use(*queue);
            }
        }
    }
};

namespace {

// Threads may end after static objects have: it has no destructor that does anything.
constinit QueueTable queues;

}  // namespace

MessageQueue* MessageQueue::existing() noexcept {
    return own_queue;
}

MessageQueue* MessageQueue::current() {
    return own_queue ? own_queue : attach();
}

MessageQueue* MessageQueue::attach() {
    const DWORD id = Thread::current().id();
    auto* const queue = thread_over ? nullptr : new (std::nothrow) MessageQueue(id);
    if (!queue) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const std::lock_guard guard(queues.lock);
    queues.add(*queue);
    return own_queue = queue;
}

void MessageQueue::thread_ends(Thread&) {
    thread_over = true;
    if (MessageQueue* queue = own_queue) queue->close();
}

void MessageQueue::close() {
    remove_windows_of(*this);
    {
        const std::lock_guard guard(queues.lock);
        queues.remove(*this);
    }
    SendList unanswered;
    std::unique_ptr<QueueDescriptor> descriptor;
    {
        const std::lock_guard guard(lock_);
        closed_ = true;
        unanswered = sent_.take_all();
        posted_.clear();
        descriptor = std::move(descriptor_);
    }
    RoomWaiters::tell(*this);
    refuse_all(unanswered);
    for (; serving_; serving_ = serving_->outer) {
        if (serving_->request) answer(std::exchange(serving_->request, nullptr), 0, false);
    }
    timers_.clear();
    own_queue = nullptr;
    release();
}

MessageQueue::~MessageQueue() {
    while (spare_)
        delete std::exchange(spare_, spare_->next);
}

// ---- What others do to the queue ----

void MessageQueue::sync_locked() {
    if (descriptor_) descriptor_->set_ready((bits() & (QS_POSTMESSAGE | QS_SENDMESSAGE)) != 0);
}

void MessageQueue::add_bits_locked(DWORD kind) {
    bits_.fetch_or(kind | arrived(kind), std::memory_order_acq_rel);
    sync_locked();
}

// Nothing of the kind is left.
void MessageQueue::clear_kind_locked(DWORD kind) {
    clear_bits(kind | arrived(kind));
    sync_locked();
}

DWORD MessageQueue::post(const MSG& message, RoomWaiter* waiter) {
    {
        const std::lock_guard guard(lock_);
        if (closed_) return ERROR_INVALID_THREAD_ID;
        if (posted_.size() >= kQueueLimit) {
            if (waiter) RoomWaiters::add(*this, *waiter);
            return ERROR_NOT_ENOUGH_QUOTA;
        }
        if (!posted_.push(message)) return ERROR_NOT_ENOUGH_MEMORY;
        add_bits_locked(kPosted);
    }
    if (this != own_queue) state_changed();
    return 0;
}

DWORD MessageQueue::post_to_thread(DWORD thread, const MSG& message) {
    const std::lock_guard guard(queues.lock);
    MessageQueue* const found = queues.find(thread);
    return found ? found->post(message) : ERROR_INVALID_THREAD_ID;
}

DWORD MessageQueue::push_sent(SendRequest& request) {
    {
        const std::lock_guard guard(lock_);
        if (closed_) return ERROR_INVALID_WINDOW_HANDLE;
        if (request.is_notice() && sent_.notices() >= kQueueLimit) {
            return ERROR_NOT_ENOUGH_QUOTA;
        }
        sent_.push(&request);
        add_bits_locked(QS_SENDMESSAGE);
    }
    state_changed();
    return ERROR_SUCCESS;
}

// Not for each message that is taken out of a full queue, but when there is room for a good many.
void MessageQueue::tell_room() {
    if (!room_waiters()) return;
    {
        const std::lock_guard guard(lock_);
        if (posted_.size() > kQueueLimit - kQueueLimit / 4) return;
    }
    RoomWaiters::tell(*this);
}

void MessageQueue::reply_arrived() {
    bits_.fetch_or(kReply, std::memory_order_acq_rel);
    state_changed();
}

SendList MessageQueue::take_sent(HWND window) {
    const std::lock_guard guard(lock_);
    const SendList taken = sent_.take_window(window);
    if (sent_.empty()) clear_kind_locked(QS_SENDMESSAGE);
    return taken;
}

void MessageQueue::drop_posted(HWND window) {
    const std::lock_guard guard(lock_);
    posted_.erase_window(window);
    if (posted_.empty() && !quitting_) clear_kind_locked(kPosted);
}

// ---- What the wait engine asks ----

bool MessageQueue::is_signalled(const Thread&) const noexcept {
    return (bits_.load(std::memory_order_acquire) & wanted_.load(std::memory_order_acquire)) != 0;
}

bool MessageQueue::interrupts(const Thread&) const noexcept {
    return (bits_.load(std::memory_order_acquire) & interrupting_.load(std::memory_order_acquire)) != 0;
}

Waitable::Attempt MessageQueue::try_acquire(Thread& self) noexcept {
    return is_signalled(self) ? Attempt::Taken : Attempt::No;
}

// ---- Sent messages ----

SendRequest* MessageQueue::new_request() noexcept {
    if (!spare_) return new (std::nothrow) SendRequest;
    --spares_;
    SendRequest* request = std::exchange(spare_, spare_->next);
    request->kind = SendRequest::Kind::Message;
    request->callback = nullptr;
    request->state.store(SendRequest::State::Waiting, std::memory_order_relaxed);
    return request;
}

void MessageQueue::recycle(SendRequest* request) noexcept {
    if (spares_ == kMostSpares) {
        delete request;
        return;
    }
    request->sender = {};
    request->next = spare_;
    spare_ = request;
    ++spares_;
}

namespace {

void dispose(SendRequest* request) {
    if (own_queue) {
        own_queue->recycle(request);
    } else {
        delete request;
    }
}

}  // namespace

void answer(SendRequest* request, LRESULT result, bool handled) {
    if (request->kind == SendRequest::Kind::Destroy) return;
    if (request->kind == SendRequest::Kind::Callback) return dispose(request);
    const Ref<MessageQueue> sender = std::move(request->sender);
    if (sender) {
        request->result = result;
        request->handled = handled;
        if (request->callback) {
            request->kind = SendRequest::Kind::Callback;
            if (sender->push_sent(*request) == ERROR_SUCCESS) return;
            return dispose(request);
        }
        // From here on the request is the sender's, unless it has gone away.
        if (request->state.exchange(SendRequest::State::Answered, std::memory_order_acq_rel) !=
            SendRequest::State::Abandoned) {
            sender->reply_arrived();
            return;
        }
    }
    dispose(request);
}

void refuse_all(SendList requests) {
    while (SendRequest* request = requests.pop())
        answer(request, 0, false);
}

bool MessageQueue::serve_sent() {
    if (!(bits() & QS_SENDMESSAGE)) return false;
    bool any = false;
    for (;;) {
        SendRequest* request = nullptr;
        {
            const std::lock_guard guard(lock_);
            request = sent_.pop();
            if (sent_.empty()) clear_kind_locked(QS_SENDMESSAGE);
        }
        if (!request) return any;
        any = true;
        handle(request);
    }
}

void MessageQueue::handle(SendRequest* request) {
    if (request->kind == SendRequest::Kind::Destroy) {
        DestroyWindow(request->window);  // the request goes with the window
        return;
    }
    if (request->kind == SendRequest::Kind::Callback) {
        const SENDASYNCPROC callback = request->callback;
        const HWND window = request->window;
        const UINT message = request->message;
        const ULONG_PTR data = request->data;
        const LRESULT result = request->result;
        recycle(request);
        callback(window, message, data, result);
        return;
    }
    // Answers as well when the thread is ended within the procedure.
    struct Frame : Serving {
        explicit Frame(MessageQueue& on, SendRequest* what) : Serving{what, on.serving_}, queue(on) {
            queue.serving_ = this;
        }
        ~Frame() {
            queue.serving_ = outer;
            if (this->request) answer(this->request, result, handled);
        }
        Frame(const Frame&) = delete;
        Frame& operator=(const Frame&) = delete;
        MessageQueue& queue;
        LRESULT result = 0;
        bool handled = false;
    } frame(*this, request);
    const Window* window = Desktop::get().table.find_own(request->window, this);
    if (!window) return;
    frame.result = call_procedure(window->procedure.load(std::memory_order_acquire), request->window, request->message,
                                  request->wparam, request->lparam);
    frame.handled = true;
}

// ---- Taking messages out ----

void MessageQueue::quit(int exit_code) {
    const std::lock_guard guard(lock_);
    quitting_ = true;
    exit_code_ = exit_code;
    add_bits_locked(kPosted);
}

bool MessageQueue::find(const Filter& filter, DWORD among, bool remove, MSG& message) {
    const std::uint32_t kinds = bits() & among;
    if (!(kinds & (QS_POSTMESSAGE | QS_TIMER))) return false;
    bool found = false;
    {
        std::shared_lock<std::shared_mutex> tree;
        if (filter.window) tree = std::shared_lock(Desktop::get().lock);
        found = (kinds & QS_POSTMESSAGE && find_posted(filter, remove, message)) ||
                (kinds & QS_TIMER && find_timer(filter, remove, message));
    }
    if (found && remove) tell_room();
    return found;
}

bool MessageQueue::find_posted(const Filter& filter, bool remove, MSG& message) {
    const std::lock_guard guard(lock_);
    const std::size_t count = posted_.size();
    const bool one = filter.first == filter.last && filter.first != 0;
    const bool absent = one && !posted_.may_hold(filter.first) && !posted_.may_hold(WM_QUIT);
    std::size_t at = absent ? count : 0;
    while (at < count && !(in_range(filter, posted_[at].message) && for_window(filter, posted_[at].hwnd)))
        ++at;
    if (at < count) {
        message = posted_[at];
        if (remove) posted_.erase(at);
    } else if (quitting_) {  // whatever the filter: who pumps for one window must learn that it is over
        message = MSG{nullptr, WM_QUIT, static_cast<WPARAM>(exit_code_), 0, GetTickCount(), {0, 0}};
        if (remove) quitting_ = false;
    } else {
        return false;
    }
    if (posted_.empty() && !quitting_) clear_kind_locked(kPosted);
    return true;
}

bool MessageQueue::find_timer(const Filter& filter, bool remove, MSG& message) {
    if (!in_range(filter, WM_TIMER)) return false;
    for (const auto& [due, timer] : timers_.ready()) {
        if (!for_window(filter, timer->window)) continue;
        message = message_of(*timer);
        timer->shown = !remove;
        if (remove) {
            timers_.take(*timer, Deadline::now());
            timers_changed();
        }
        return true;
    }
    return false;
}

// ---- Timers and the descriptor ----

void MessageQueue::leave_shown_message(HWND window, UINT_PTR timer) {
    if (timers_.ready().empty()) return;
    const TimerSet::Timer* const found = timers_.find(window, timer);
    if (found && found->shown) post(message_of(*found));
}

void MessageQueue::expire_timers() {
    if (timers_.next_due() == TimerSet::kNever) return;
    if (timers_.expire(Deadline::now())) bits_.fetch_or(QS_TIMER | arrived(QS_TIMER), std::memory_order_acq_rel);
}

void MessageQueue::timers_changed() noexcept {
    if (timers_.ready().empty() && bits() & QS_TIMER) clear_bits(QS_TIMER | arrived(QS_TIMER));
    if (descriptor_) descriptor_->set_timer(timers_.first_due());
}

int MessageQueue::descriptor() {
    if (!descriptor_) {
        std::unique_ptr<QueueDescriptor> made = QueueDescriptor::create();
        if (!made) return -1;
        const std::lock_guard guard(lock_);
        descriptor_ = std::move(made);
        sync_locked();
        descriptor_->set_timer(timers_.first_due());
    }
    return descriptor_->pollable();
}

// ---- Forks ----

void MessageQueue::lock_all() noexcept {
    queues.lock.lock();
    queues.for_each([](MessageQueue& queue) { queue.lock_.lock(); });
    RoomWaiters::lock();
}

void MessageQueue::unlock_all() noexcept {
    RoomWaiters::unlock();
    queues.for_each([](MessageQueue& queue) { queue.lock_.unlock(); });
    queues.lock.unlock();
}

void MessageQueue::survive_fork() noexcept {
    RoomWaiters::unlock_in_child();
    queues.for_each([](MessageQueue& queue) {
        if (&queue != own_queue) {
            queue.closed_ = true;
            queue.sent_.take_all();
        }
        queue.lock_.unlock();
    });
    std::fill(std::begin(queues.buckets), std::end(queues.buckets), nullptr);
    if (own_queue) own_queue->go_on_alone();
    queues.lock.unlock();
}

// What the others sent to this thread, and wait for, is answered in the parent; what this thread waits for, nobody will
// answer here.
void MessageQueue::go_on_alone() noexcept {
    thread_id_ = Thread::current().id();
    queues.add(*this);
    sent_.take_if([](const SendRequest& request) { return static_cast<bool>(request.sender); });
    if (sent_.empty()) clear_kind_locked(QS_SENDMESSAGE);
    for (const Awaited* awaited = awaited_; awaited; awaited = awaited->outer) {
        SendRequest::State waiting = SendRequest::State::Waiting;
        awaited->request->state.compare_exchange_strong(waiting, SendRequest::State::Answered);
    }
    bits_.fetch_or(kReply, std::memory_order_acq_rel);
    // Readable until the program has looked into the queue: that is when the child goes on by itself.
    if (descriptor_) descriptor_->make_own();
}

void MessageQueue::sync_descriptors() noexcept {
    const std::lock_guard guard(queues.lock);
    queues.for_each([](MessageQueue& queue) {
        const std::lock_guard held(queue.lock_);
        queue.sync_locked();
    });
}

}  // namespace zr::platform
