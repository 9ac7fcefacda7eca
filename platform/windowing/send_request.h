#pragma once

// A message on its way from one thread to another, and the answer on its way back.

#include <atomic>
#include <cstddef>
#include <utility>

#include "kernel/handle_table.h"
#include "platform/windowing.h"

namespace zr::platform {

class MessageQueue;

struct SendRequest {
    enum class Kind {
        Message,
        Destroy,   // the window's parent is gone; lives in the window itself
        Callback,  // on its way back: the answer, for the sender's callback
    };
    // Sender and receiver each make one step from Waiting; who finds that the other was first disposes of the request.
    enum class State {
        Waiting,
        Answered,   // by the receiver: result and handled are set
        Abandoned,  // by the sender, which waits no more
    };

    HWND window = nullptr;
    UINT message = 0;
    WPARAM wparam = 0;
    LPARAM lparam = 0;
    Kind kind = Kind::Message;
    std::atomic<State> state{State::Waiting};
    LRESULT result = 0;
    bool handled = false;
    Ref<MessageQueue> sender;          // empty: nobody wants the answer
    SENDASYNCPROC callback = nullptr;  // the sender does not wait, but wants to be called
    ULONG_PTR data = 0;
    SendRequest* next = nullptr;

    // Nobody waits for the answer.
    bool is_notice() const noexcept { return kind == Kind::Message && (!sender || callback); }
};

// First in, first out, linked through the requests.
class SendList {
public:
    bool empty() const noexcept { return first_ == nullptr; }
    // How many nobody waits for: nothing but this bounds them.
    std::size_t notices() const noexcept { return notices_; }

    void push(SendRequest* request) noexcept {
        if (request->is_notice()) ++notices_;
        request->next = nullptr;
        *(first_ ? &last_->next : &first_) = request;
        last_ = request;
    }

    SendRequest* pop() noexcept {
        SendRequest* request = first_;
        if (!request) return nullptr;
        first_ = request->next;
        if (request->is_notice()) --notices_;
        return request;
    }

    // Takes out what `chosen` says yes to.
    template <class Chosen>
    SendList take_if(Chosen chosen) noexcept {
        SendList kept;
        SendList taken;
        while (SendRequest* request = pop())
            (chosen(*request) ? taken : kept).push(request);
        *this = kept;
        return taken;
    }
    SendList take_window(HWND window) noexcept {
        return take_if([window](const SendRequest& request) { return request.window == window; });
    }

    SendList take_all() noexcept { return std::exchange(*this, SendList()); }

private:
    SendRequest* first_ = nullptr;
    SendRequest* last_ = nullptr;
    std::size_t notices_ = 0;
};

}  // namespace zr::platform
