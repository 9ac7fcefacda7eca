#pragma once

// WinPR's message queue behind plain functions: its headers declare the names that ours declare.

namespace winpr_peer {

// A queue of one thread's own, for posting and peeking.
void* make_queue();
void free_queue(void* queue);
bool post(void* queue, unsigned message, long wparam);
bool peek(void* queue, long& wparam);

// A thread with a queue that answers: a message goes there, an event comes back.
class Receiver {
public:
    Receiver();
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    long send(unsigned message, long wparam);

private:
    struct State;
    State* state_;
};

}  // namespace winpr_peer
