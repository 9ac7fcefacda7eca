#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "window_access.h"

using namespace zr::platform;

namespace {

// A request that the sender waits for. However the wait ends, by the answer, in time or by the end of the thread, the
// side that comes second disposes of the request.
class Pending : MessageQueue::Awaited {
public:
    Pending(MessageQueue& sender, SendRequest* what) : Awaited{what, sender.awaited()}, sender_(sender) {
        sender.awaited() = this;
    }
    ~Pending() {
        sender_.awaited() = outer;
        if (request->state.exchange(SendRequest::State::Abandoned, std::memory_order_acq_rel) ==
            SendRequest::State::Answered) {
            sender_.recycle(request);
        }
    }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

    bool answered() const { return request->state.load(std::memory_order_acquire) == SendRequest::State::Answered; }
    const SendRequest& outcome() const { return *request; }

private:
    MessageQueue& sender_;
};

// Hands the request to the window's thread; on failure it is disposed of.
bool deliver(MessageQueue& sender, SendRequest* request) {
    DWORD error = ERROR_INVALID_WINDOW_HANDLE;
    {
        Desktop& desktop = Desktop::get();
        const std::shared_lock guard(desktop.lock);
        const Window* window = desktop.table.find(request->window);
        if (window) error = window->queue->push_sent(*request);
    }
    if (error == ERROR_SUCCESS) return true;
    sender.recycle(request);
    SetLastError(error);
    return false;
}

SendRequest* make_request(MessageQueue& sender, HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    SendRequest* request = sender.new_request();
    if (!request) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    request->window = window;
    request->message = message;
    request->wparam = wparam;
    request->lparam = lparam;
    return request;
}

// False: not answered before the deadline.
bool wait_for_answer(MessageQueue& sender, const Pending& pending, bool serve, Deadline deadline) {
    for (;;) {
        if (sender.bits() & MessageQueue::kReply) sender.clear_bits(MessageQueue::kReply);
        if (pending.answered()) return true;
        if (serve && sender.serve_sent()) continue;
        sender.want(MessageQueue::kReply | (serve ? QS_SENDMESSAGE : 0));
        if (zr::platform::wait(sender, deadline).status == WaitResult::Status::TimedOut) return pending.answered();
    }
}

// False, with the error, when there is no result.
bool send(HWND window, UINT message, WPARAM wparam, LPARAM lparam, bool serve, Deadline deadline, LRESULT& result) {
    cancellation_point();
    if (const Window* own = own_window(window)) {
        result = call_procedure(own->procedure.load(std::memory_order_acquire), window, message, wparam, lparam);
        return true;
    }
    MessageQueue* sender = MessageQueue::current();
    if (!sender) return false;
    SendRequest* request = make_request(*sender, window, message, wparam, lparam);
    if (!request) return false;
    request->sender = Ref<MessageQueue>::retain(*sender);
    if (!deliver(*sender, request)) return false;
    const Pending pending(*sender, request);
    if (!wait_for_answer(*sender, pending, serve, deadline)) {
        SetLastError(ERROR_TIMEOUT);
        return false;
    }
    if (!pending.outcome().handled) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return false;
    }
    result = pending.outcome().result;
    return true;
}

}  // namespace

LRESULT SendMessageW(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    LRESULT result = 0;
    return send(window, message, wparam, lparam, true, Deadline::never(), result) ? result : 0;
}

LRESULT SendMessageTimeoutW(HWND window, UINT message, WPARAM wparam, LPARAM lparam, UINT flags, UINT timeout,
                            DWORD_PTR* result) {
    LRESULT value = 0;
    if (!send(window, message, wparam, lparam, !(flags & SMTO_BLOCK), Deadline::after(timeout), value)) return 0;
    if (result) *result = static_cast<DWORD_PTR>(value);
    return 1;
}

BOOL SendNotifyMessageW(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    cancellation_point();
    if (own_window(window)) {
        SendMessageW(window, message, wparam, lparam);
        return TRUE;
    }
    MessageQueue* sender = MessageQueue::current();
    SendRequest* request = sender ? make_request(*sender, window, message, wparam, lparam) : nullptr;
    return request && deliver(*sender, request) ? TRUE : FALSE;
}

BOOL SendMessageCallbackW(HWND window, UINT message, WPARAM wparam, LPARAM lparam, SENDASYNCPROC callback,
                          ULONG_PTR data) {
    cancellation_point();
    if (!callback) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (own_window(window)) {
        callback(window, message, data, SendMessageW(window, message, wparam, lparam));
        return TRUE;
    }
    MessageQueue* sender = MessageQueue::current();
    SendRequest* request = sender ? make_request(*sender, window, message, wparam, lparam) : nullptr;
    if (!request) return FALSE;
    request->sender = Ref<MessageQueue>::retain(*sender);
    request->callback = callback;
    request->data = data;
    return deliver(*sender, request) ? TRUE : FALSE;
}

BOOL InSendMessage() {
    const MessageQueue* queue = MessageQueue::existing();
    return queue && queue->serving() ? TRUE : FALSE;
}

BOOL ReplyMessage(LRESULT result) {
    const MessageQueue* queue = MessageQueue::existing();
    MessageQueue::Serving* serving = queue ? queue->serving() : nullptr;
    if (!serving || !serving->request || !serving->request->sender) return FALSE;
    answer(std::exchange(serving->request, nullptr), result, true);
    return TRUE;
}
