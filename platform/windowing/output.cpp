#include "output.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>

#include "base/loaded_module.h"
#include "base/standard_streams.h"
#include "kernel/worker.h"
#include "windowing/screen_module.h"

namespace zr::platform {

std::atomic<int> output_kept_milliseconds{5'000};

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{1};

LoadedModule screen_module(kScreenModule);

std::chrono::milliseconds kept_time() {
    return std::chrono::milliseconds(output_kept_milliseconds.load(std::memory_order_relaxed));
}

struct Servers {
    std::string wayland;
    std::string x11;
    bool operator==(const Servers&) const = default;
};

Servers named_servers() {
    const char* const wayland = std::getenv("WAYLAND_DISPLAY");
    const char* const x11 = std::getenv("DISPLAY");
    return {wayland ? wayland : "", x11 ? x11 : ""};
}

// A server that says nothing keeps the thread that asks it, for as long as it lives: nobody asks again meanwhile.
class Output {
public:
    bool find(ScreenFacts& facts);
    void forget() noexcept;

    std::mutex lock;

private:
    void begin(const Servers& servers);
    void ask() noexcept;

    std::condition_variable answered_;
    Worker worker_{"zr-screen"};
    const ScreenFunctions* module_ = nullptr;
    Servers servers_;
    bool is_asking_ = false;
    bool has_waited_ = false;  // somebody, in vain
    bool is_there_ = false;
    ScreenFacts facts_{};
    Clock::time_point asked_{};
};

// Never destroyed: the thread may run as long as the process.
alignas(Output) unsigned char output_storage[sizeof(Output)];
Output& the_output = *new (output_storage) Output;

void Output::begin(const Servers& servers) {
    if (!module_) {
        const auto functions = reinterpret_cast<ScreenFunctionsOf>(screen_module.function(kScreenFunctions));
        module_ = functions ? functions() : nullptr;
    }
    if (servers != servers_) is_there_ = false;
    servers_ = servers;
    asked_ = Clock::now();
    has_waited_ = false;
    is_asking_ = module_ && worker_.start([](void* self) { static_cast<Output*>(self)->ask(); }, this);
    if (!is_asking_) is_there_ = false;
}

void Output::ask() noexcept {
    constexpr int kUsualDots = 96;
    ScreenFacts facts{0, 0, 0, kUsualDots, kUsualDots};
    bool good = false;
    {
        const StandardStreams taken;
        good = !servers_.wayland.empty() && module_->ask_wayland(servers_.wayland.c_str(), facts);
        if (!good) good = !servers_.x11.empty() && module_->ask_x11(servers_.x11.c_str(), facts);
    }
    const std::lock_guard guard(lock);
    is_there_ = good;
    facts_ = facts;
    is_asking_ = false;
    answered_.notify_all();
    worker_.leave();
}

bool Output::find(ScreenFacts& facts) {
    const Servers servers = named_servers();
    if (servers == Servers{}) return false;
    std::unique_lock guard(lock);
    const bool is_fresh = asked_ != Clock::time_point{} && servers == servers_ && Clock::now() < asked_ + kept_time();
    if (!is_asking_ && !is_fresh) begin(servers);
    if (is_asking_ && !has_waited_) {
        has_waited_ = !answered_.wait_until(guard, asked_ + kPatience, [&] { return !is_asking_; });
        if (has_waited_) is_there_ = false;
    }
    if (!is_there_ || servers != servers_) return false;
    facts = facts_;
    return true;
}

void Output::forget() noexcept {
    is_asking_ = false;
    asked_ = {};
    new (&answered_) std::condition_variable;  // those who waited are not here
}

}  // namespace

bool find_output(ScreenFacts& facts) noexcept try { return the_output.find(facts); } catch (const std::bad_alloc&) {
    return false;
}

void lock_output() noexcept {
    the_output.lock.lock();
}
void unlock_output() noexcept {
    the_output.lock.unlock();
}
void forget_output() noexcept {
    the_output.forget();
}

}  // namespace zr::platform
