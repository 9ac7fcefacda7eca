#pragma once

// An engine: a process of its own that shows one control's documents, and the socket to it.

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "base/host_fd.h"
#include "html/engine_patience.h"
#include "html/engine_protocol.h"
#include "kernel/waitable.h"
#include "platform/types.h"

namespace zr::platform {

// Used on the thread that started it, but for send_later. Its process ends with that thread at the latest.
//
// Calls that can fail return an error code. After one of them but ERROR_NOT_ENOUGH_MEMORY the process is ended: it is
// not known what it still does.
class Engine {
public:
    // Starts one, and waits until it can be asked. NULL with the last error; engine_trouble() has more. May throw
    // std::bad_alloc.
    static std::shared_ptr<Engine> start(bool remote);
    Engine() = default;
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Whether there still is one, in this process.
    bool is_alive() const noexcept;
    int descriptor() const noexcept { return socket_.get(); }

    DWORD send(FrameWriter& frame, Deadline deadline);
    // The same without waiting, from any thread: it goes out with the next that is sent at the latest.
    void send_later(FrameWriter& frame) noexcept;
    // Sends what is request `number`, and gives its answer.
    DWORD ask(FrameWriter& frame, std::uint32_t number, Deadline deadline, EngineAnswer& answer, std::string& what);
    std::uint32_t next_request() noexcept { return ++last_request_; }

    // Reads what is there; waits until something is, or the document has come so far. ERROR_TIMEOUT ends nothing here.
    DWORD read(Deadline deadline);
    DWORD wait_until_ready(std::uint32_t document, Deadline deadline);
    bool is_ready(std::uint32_t document) const noexcept { return ready_ == document; }
    bool is_complete(std::uint32_t document) const noexcept { return complete_ == document; }

    // What it told of itself since, one frame at a time. `kept` is called when there is one more, on the engine's
    // thread.
    bool take_event(std::string& frame);
    void tell_of_events(void (*kept)(void* context), void* context) noexcept {
        kept_ = kept;
        context_ = context;
    }

    void end() noexcept;

private:
    friend struct Engines;

    bool spawn(bool remote);
    bool greet();
    template <class Done>
    DWORD rounds_until(Deadline deadline, Done is_done);
    DWORD round(Deadline deadline);
    void push() noexcept;
    DWORD last_words(Deadline deadline);
    DWORD receive();
    void sort(std::string_view frame);
    DWORD died() noexcept;
    void forget() noexcept;

    HostFd socket_;
    pid_t process_ = -1;
    std::string folder_;
    std::uint32_t generation_ = 0;

    std::mutex lock_;  // of what is to be sent
    SendQueue to_send_;
    bool is_broken_ = false;  // nothing can be sent any more

    FrameQueue arrived_;
    std::deque<std::string> events_;
    std::size_t event_bytes_ = 0;
    std::uint32_t last_request_ = 0;
    std::uint32_t ready_ = 0;
    std::uint32_t complete_ = 0;
    std::uint32_t awaited_ = 0;
    bool is_answered_ = false;
    EngineAnswer answer_ = EngineAnswer::Failed;
    std::string what_;
    void (*kept_)(void* context) = nullptr;
    void* context_ = nullptr;
    bool greeted_ = false;
    bool refused_ = false;
};

// Why the last one could not be started, or what it has to do without; UTF-8.
std::string engine_trouble();

}  // namespace zr::platform
