#include "winpr_message_peer.h"

#include <winpr/collections.h>
#include <winpr/synch.h>

#include <cstdint>
#include <thread>

namespace winpr_peer {

namespace {

constexpr UINT32 kSend = 0x8001;

wMessageQueue* as_queue(void* queue) {
    return static_cast<wMessageQueue*>(queue);
}

struct Request {
    long wparam;
    long result;
    HANDLE answered;
};

}  // namespace

void* make_queue() {
    return MessageQueue_New(nullptr);
}

void free_queue(void* queue) {
    MessageQueue_Free(as_queue(queue));
}

bool post(void* queue, unsigned message, long wparam) {
    return MessageQueue_Post(as_queue(queue), nullptr, message, reinterpret_cast<void*>(wparam), nullptr);
}

bool peek(void* queue, long& wparam) {
    wMessage message{};
    if (MessageQueue_Peek(as_queue(queue), &message, TRUE) <= 0) return false;
    wparam = reinterpret_cast<long>(message.wParam);
    return true;
}

struct Receiver::State {
    wMessageQueue* queue = MessageQueue_New(nullptr);
    HANDLE answered = CreateEventA(nullptr, TRUE, FALSE, nullptr);  // it has no events that reset themselves
    std::thread thread;

    void run() const {
        wMessage message{};
        while (MessageQueue_Get(queue, &message) > 0) {
            if (message.id != kSend) continue;
            auto* request = static_cast<Request*>(message.wParam);
            request->result = request->wparam + 1;
            SetEvent(request->answered);
        }
    }
};

Receiver::Receiver() : state_(new State) {
    state_->thread = std::thread([this] { state_->run(); });
}

Receiver::~Receiver() {
    MessageQueue_PostQuit(state_->queue, 0);
    state_->thread.join();
    MessageQueue_Free(state_->queue);
    CloseHandle(state_->answered);
    delete state_;
}

long Receiver::send(unsigned, long wparam) {
    Request request{wparam, 0, state_->answered};
    MessageQueue_Post(state_->queue, nullptr, kSend, &request, nullptr);
    WaitForSingleObject(state_->answered, INFINITE);
    ResetEvent(state_->answered);
    return request.result;
}

}  // namespace winpr_peer
