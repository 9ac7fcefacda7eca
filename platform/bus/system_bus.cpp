#include "bus/system_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "base/forks.h"
#include "base/host_fd.h"
#include "base/loaded_module.h"
#include "base/standard_streams.h"
#include "kernel/worker.h"

namespace zr::platform {

std::atomic<int> bus_idle_milliseconds{30'000};

namespace {

using Clock = std::chrono::steady_clock;

// How long a fork waits for a connection that is being made.
constexpr std::chrono::seconds kForkPatience{1};

LoadedModule bus_module(kBusModule);

// What a caller waits for. He may have gone when it is done.
struct Job {
    BusRequest request;
    BusListener* listener = nullptr;  // or: a call
    std::vector<std::string> rules;
    Clock::time_point deadline;
    bool done = false;
    BusAnswer answer;
};
using JobRef = std::shared_ptr<Job>;

struct Match {
    std::uint64_t id;
    BusListener* listener;
};

std::chrono::milliseconds idle_time() {
    return std::chrono::milliseconds(bus_idle_milliseconds.load(std::memory_order_relaxed));
}

class Bus {
public:
    explicit Bus(BusKind kind) : kind_(kind) {}

    // Waits until it is done, or for as long as it may take.
    BusAnswer run(const JobRef& job);
    void prepare() noexcept;
    void stop_listening(BusListener& listener) noexcept;

    void lock() noexcept;
    void unlock() noexcept;
    void begin_child() noexcept;
    void resume() noexcept;

private:
    bool load() noexcept;
    bool start(BusAnswer& answer);
    void body() noexcept;
    bool open() noexcept;
    bool turn(std::unique_lock<std::mutex>& busy) noexcept;
    bool wait(std::unique_lock<std::mutex>& busy) noexcept;
    void begin_connecting() noexcept { connecting_ = true, stuck_ = false, fork_waited_ = false; }
    bool begin_jobs() noexcept;
    bool begin(const JobRef& job);
    bool begin_listening(const JobRef& job);
    bool put_back(const JobRef& job);
    template <class Which>
    void forget_matches(Which&& which) noexcept;
    void finish(Job& job, BusResult result) noexcept;
    bool end() noexcept;
    bool is_idle() noexcept;
    void wake() noexcept { eventfd_write(wake_.get(), 1); }

    void answered(std::uint64_t call, BusAnswer& answer) noexcept;
    void told(std::uint64_t match, BusSignal& signal) noexcept;

    const BusKind kind_;

    // Whoever uses the connection, or calls listeners: the thread, but while it waits or connects.
    std::mutex busy_;
    std::mutex mutex_;  // what callers and the thread share; taken behind the other one
    std::condition_variable done_;
    std::condition_variable connected_;  // or it is known that there is no bus
    std::vector<JobRef> queue_;
    Worker worker_{"zr-bus"};
    HostFd wake_;
    bool connecting_ = false;
    bool stuck_ = false;        // somebody has waited for the connection in vain
    bool fork_waited_ = false;  // likewise

    const BusFunctions* module_ = nullptr;
    void* connection_ = nullptr;
    int descriptor_ = -1;  // its
    std::uint64_t last_id_ = 0;
    std::uint64_t order_ = 0;  // of what came, on all connections
    std::map<std::uint64_t, JobRef> calls_;
    std::vector<Match> matches_;
    Clock::time_point used_;
    BusEvents events_{this,
                      [](void* self, std::uint64_t call, BusAnswer& answer) noexcept {
                          static_cast<Bus*>(self)->answered(call, answer);
                      },
                      [](void* self, std::uint64_t match, BusSignal& signal) noexcept {
                          static_cast<Bus*>(self)->told(match, signal);
                      }};

    // A parent's, in its child, until it resumes.
    struct Inherited {
        void* connection = nullptr;
        std::vector<JobRef> queue;
        std::map<std::uint64_t, JobRef> calls;
    } inherited_;
};

// Never destroyed: the threads may run as long as the process.
Bus& bus_of(BusKind kind) noexcept {
    alignas(Bus) static unsigned char storage[2][sizeof(Bus)];
    static Bus* const all[] = {new (storage[0]) Bus(BusKind::System), new (storage[1]) Bus(BusKind::Session)};
    return *all[static_cast<int>(kind)];
}

template <void (Bus::*action)() noexcept>
void of_both() noexcept {
    (bus_of(BusKind::System).*action)();
    (bus_of(BusKind::Session).*action)();
}

const AtFork registered{
    ForkRank::Bus, {of_both<&Bus::lock>, of_both<&Bus::unlock>, of_both<&Bus::begin_child>, of_both<&Bus::resume>}};

// ---- For callers ----

BusAnswer Bus::run(const JobRef& job) {
    std::unique_lock lock(mutex_);
    const bool good = start(job->answer);
    // Those who come while it hangs do not wait for it all over again.
    if (good && !(connecting_ && stuck_)) {
        queue_.push_back(job);
        wake();
        const bool done = done_.wait_until(lock, job->deadline, [&] { return job->done; });
        if (!done) stuck_ = connecting_;
    }
    return std::move(job->answer);
}

void Bus::prepare() noexcept {
    const std::lock_guard lock(mutex_);
    load();
}

bool Bus::load() noexcept {
    if (module_) return true;
    const auto functions = reinterpret_cast<BusFunctionsOf>(bus_module.function(kBusFunctions));
    module_ = functions ? functions() : nullptr;
    return module_ != nullptr;
}

bool Bus::start(BusAnswer& answer) {
    if (worker_.is_running()) return true;
    if (!load()) {
        char reason[300];
        bus_module.why_missing(reason, sizeof reason);
        answer.result = BusResult::NoModule;
        answer.error = "services cannot be asked without sdbus-c++ (package libsdbus-c++1): " + std::string(reason);
        return false;
    }
    wake_ = HostFd(above_standard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    answer.result = BusResult::NoMemory;
    if (!wake_ || !worker_.start([](void* self) { static_cast<Bus*>(self)->body(); }, this)) return false;
    begin_connecting();
    answer.result = BusResult::TimedOut;
    return true;
}

void Bus::stop_listening(BusListener& listener) noexcept {
    const std::lock_guard busy(busy_);
    forget_matches([&](const Match& each) { return each.listener == &listener; });
}

// With busy_ held. The module has a lock of its own, under which it tells: it is called without ours.
template <class Which>
void Bus::forget_matches(Which&& which) noexcept {
    for (;;) {
        std::uint64_t id = 0;
        {
            const std::lock_guard lock(mutex_);
            const auto found = std::ranges::find_if(matches_, which);
            if (found == matches_.end()) return;
            id = found->id;
            matches_.erase(found);
        }
        if (connection_) module_->unmatch(connection_, id);
    }
}

// ---- The thread ----

void Bus::body() noexcept {
    for (bool ended = false; !ended;) {
        const bool good = open();
        std::unique_lock busy(busy_);
        while (good && turn(busy)) {
        }
        ended = end();
    }
}

// Not while anything is locked: it may take minutes.
bool Bus::open() noexcept {
    std::string why;
    void* connection = nullptr;
    {
        const StandardStreams taken;
        connection = module_->connect(&events_, kind_, why);
    }
    const std::lock_guard busy(busy_);
    const int descriptor = connection ? module_->poll(connection).descriptor : -1;
    const std::lock_guard lock(mutex_);
    connecting_ = false;
    connected_.notify_all();
    connection_ = connection;
    descriptor_ = descriptor;
    used_ = Clock::now();
    if (connection) return true;
    for (const JobRef& job : queue_) {
        finish(*job, BusResult::NoBus);
        job->answer.error.swap(why);
    }
    queue_.clear();
    return false;
}

// False when the connection is to end. What is not begun before it is known to be lost is the next one's.
bool Bus::turn(std::unique_lock<std::mutex>& busy) noexcept {
    return module_->process(connection_) && begin_jobs() && module_->process(connection_) && wait(busy);
}

bool Bus::begin_jobs() noexcept {
    std::vector<JobRef> jobs;
    {
        const std::lock_guard lock(mutex_);
        jobs.swap(queue_);
    }
    if (!jobs.empty()) used_ = Clock::now();
    bool good = true;
    for (const JobRef& job : jobs) {
        try {
            good = (job->listener ? begin_listening(job) : begin(job)) && good;
        } catch (const std::bad_alloc&) {
            const std::lock_guard lock(mutex_);
            finish(*job, BusResult::NoMemory);
        }
    }
    return good;
}

bool Bus::begin(const JobRef& job) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(job->deadline - Clock::now()).count();
    if (left <= 0) return true;
    const std::uint64_t id = ++last_id_;
    calls_.emplace(id, job);
    std::string error;
    const BusResult result = module_->call(connection_, id, job->request, static_cast<std::uint64_t>(left), error);
    if (result == BusResult::Answered) return true;
    calls_.erase(id);
    if (result == BusResult::Lost) return put_back(job);
    const std::lock_guard lock(mutex_);
    finish(*job, result);
    job->answer.error.swap(error);
    return true;
}

bool Bus::begin_listening(const JobRef& job) {
    const std::uint64_t first = last_id_ + 1;
    BusResult result = BusResult::Answered;
    {
        const std::lock_guard lock(mutex_);
        if (job->deadline < Clock::now()) return true;  // nobody waits for it: nobody would take it back
        matches_.reserve(matches_.size() + job->rules.size());
    }
    for (std::size_t i = 0; i < job->rules.size() && result == BusResult::Answered; ++i) {
        result = module_->match(connection_, ++last_id_, job->rules[i]);
        const std::lock_guard lock(mutex_);
        if (result == BusResult::Answered) matches_.push_back({last_id_, job->listener});
    }
    bool good = result == BusResult::Answered;
    if (good) {
        const std::lock_guard lock(mutex_);
        good = job->deadline > Clock::now();
        if (good) finish(*job, BusResult::Answered);
    }
    if (good) return true;
    forget_matches([&](const Match& each) { return each.id >= first; });
    if (result == BusResult::Lost) return put_back(job);
    const std::lock_guard lock(mutex_);
    finish(*job, result == BusResult::Answered ? BusResult::TimedOut : result);
    return true;
}

// For the next connection, as this one turned out to be lost before anything was sent.
bool Bus::put_back(const JobRef& job) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(job);
    return false;
}

// Under the lock.
void Bus::finish(Job& job, BusResult result) noexcept {
    job.answer.result = result;
    job.done = true;
    done_.notify_all();
}

bool Bus::wait(std::unique_lock<std::mutex>& busy) noexcept {
    if (is_idle()) return false;
    const BusPoll wanted = module_->poll(connection_);
    if (wanted.descriptor < 0) return false;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(used_ + idle_time() - Clock::now()).count();
    const int idle = static_cast<int>(std::max<std::int64_t>(left, 0)) + 1;
    pollfd files[2] = {{wanted.descriptor, wanted.events, 0}, {wake_.get(), POLLIN, 0}};
    busy.unlock();
    ::poll(files, 2, wanted.milliseconds < 0 ? idle : std::min(idle, wanted.milliseconds));
    busy.lock();
    eventfd_t count = 0;
    if ((files[1].revents & POLLIN) != 0) eventfd_read(wake_.get(), &count);
    // The program closed them: the numbers may be its own by now.
    if ((files[1].revents & POLLNVAL) != 0) static_cast<void>(wake_.detach());
    if ((files[0].revents & POLLNVAL) != 0) connection_ = nullptr;
    return ((files[0].revents | files[1].revents) & POLLNVAL) == 0;
}

// Whether nobody has called for a while, and no listener needs it.
bool Bus::is_idle() noexcept {
    const auto now = Clock::now();
    if (now < used_ + idle_time()) return false;
    used_ = now;
    if (!calls_.empty()) return false;
    for (std::size_t i = 0;; ++i) {
        BusListener* listener = nullptr;
        {
            const std::lock_guard lock(mutex_);
            if (i >= matches_.size()) return queue_.empty();
            listener = matches_[i].listener;
        }
        if (listener->is_needed()) return false;
    }
}

void Bus::answered(std::uint64_t call, BusAnswer& answer) noexcept {
    const auto found = calls_.find(call);
    if (found == calls_.end()) return;
    const JobRef job = std::move(found->second);
    calls_.erase(found);
    const std::lock_guard lock(mutex_);
    const bool unanswered = answer.result == BusResult::Refused && answer.error == "org.freedesktop.DBus.Error.NoReply";
    // Before its time only where nobody is left to answer.
    const BusResult none = Clock::now() < job->deadline ? BusResult::Lost : BusResult::TimedOut;
    answer.order = ++order_;
    job->answer = std::move(answer);
    finish(*job, unanswered ? none : job->answer.result);
}

void Bus::told(std::uint64_t match, BusSignal& signal) noexcept {
    BusListener* listener = nullptr;
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::ranges::find(matches_, match, &Match::id);
        if (found == matches_.end()) return;
        listener = found->listener;
    }
    signal.order = ++order_;
    listener->signal(signal);
}

// What is under way is lost. False when there is more to do, on a new connection; else this is the thread's last act,
// and who comes now starts another one.
bool Bus::end() noexcept {
    if (connection_) module_->close(connection_);
    std::vector<Match> matches;
    {
        const std::lock_guard lock(mutex_);
        connection_ = nullptr;
        descriptor_ = -1;
        for (const auto& [id, job] : calls_) {
            finish(*job, BusResult::Lost);
        }
        matches.swap(matches_);
    }
    calls_.clear();
    std::ranges::sort(matches, {}, &Match::listener);
    const auto same = [](const Match& a, const Match& b) { return a.listener == b.listener; };
    const auto again = std::unique(matches.begin(), matches.end(), same);
    matches.erase(again, matches.end());
    for (const Match& each : matches) {
        each.listener->lost();
    }
    const std::lock_guard lock(mutex_);
    if (wake_ && !queue_.empty()) {
        begin_connecting();
        return false;
    }
    for (const JobRef& job : queue_) {
        finish(*job, BusResult::Lost);
    }
    queue_.clear();
    wake_ = HostFd();
    worker_.leave();
    return true;
}

// ---- Forks ----

// A connection that is half made would stay with the child for ever, which knows nothing of it. For one that hangs only
// one fork waits.
void Bus::lock() noexcept {
    for (;;) {
        busy_.lock();
        mutex_.lock();
        if (!connecting_ || fork_waited_) return;
        busy_.unlock();
        std::unique_lock lock(mutex_, std::adopt_lock);
        fork_waited_ = !connected_.wait_for(lock, kForkPatience, [&] { return !connecting_; });
    }
}

void Bus::unlock() noexcept {
    mutex_.unlock();
    busy_.unlock();
}

void Bus::begin_child() noexcept {
    // The connection's number stays taken until it is closed properly, but what it stood for is the parent's alone.
    if (descriptor_ >= 0) dup3(wake_.get(), descriptor_, O_CLOEXEC);
    wake_ = HostFd();
    descriptor_ = -1;
    // There are none while those of an earlier fork are kept. A connection that was being made is given up.
    if (connection_) inherited_.connection = std::exchange(connection_, nullptr);
    if (!queue_.empty()) inherited_.queue.swap(queue_);
    if (!calls_.empty()) inherited_.calls.swap(calls_);
    matches_.clear();
    connecting_ = false;
    stuck_ = false;
    new (&done_) std::condition_variable;  // those who waited are not here
    new (&connected_) std::condition_variable;
    unlock();
}

void Bus::resume() noexcept {
    const std::lock_guard busy(busy_);
    Inherited old;
    std::swap(old, inherited_);
    if (old.connection) module_->close(old.connection);
}

// ---- Addresses ----

// A socket that is looked for by its path, and whether it is there. What cannot be told is.
bool may_be_there(std::string_view address) noexcept {
    constexpr std::string_view key = "unix:path=";
    if (!address.starts_with(key)) return !address.empty();
    address.remove_prefix(key.size());
    address = address.substr(0, address.find(','));
    char path[PATH_MAX];
    if (address.find('%') != std::string_view::npos || address.size() >= sizeof path) return true;
    path[address.copy(path, address.size())] = '\0';
    return access(path, F_OK) == 0;
}

// The session bus's usual place.
bool has_user_bus() noexcept {
    const char* const folder = std::getenv("XDG_RUNTIME_DIR");
    char path[PATH_MAX];
    const int length = folder ? std::snprintf(path, sizeof path, "%s/bus", folder) : -1;
    return length > 0 && static_cast<std::size_t>(length) < sizeof path && access(path, F_OK) == 0;
}

BusAnswer run_job(const JobRef& job, int milliseconds, BusKind kind) {
    job->answer.result = BusResult::NoBus;
    if (!may_have_bus(kind)) return std::move(job->answer);
    job->answer.result = BusResult::TimedOut;
    resume_after_fork();
    job->deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    return bus_of(kind).run(job);
}

BusAnswer without_memory() noexcept {
    BusAnswer answer;
    answer.result = BusResult::NoMemory;
    return answer;
}

}  // namespace

bool may_have_bus(BusKind kind) noexcept {
    const bool is_system = kind == BusKind::System;
    const char* const said = std::getenv(is_system ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS");
    if (!said && !is_system) return has_user_bus();
    std::string_view rest = said ? said : "unix:path=/run/dbus/system_bus_socket";
    for (;;) {
        const std::size_t end = rest.find(';');
        if (may_be_there(rest.substr(0, end))) return true;
        if (end == std::string_view::npos) return false;
        rest.remove_prefix(end + 1);
    }
}

void prepare_system_bus() noexcept {
    if (may_have_system_bus()) bus_of(BusKind::System).prepare();
}

BusAnswer call_bus(const BusRequest& request, int milliseconds, BusKind kind) noexcept try {
    const auto job = std::make_shared<Job>();
    job->request = request;
    return run_job(job, milliseconds, kind);
} catch (const std::bad_alloc&) {
    return without_memory();
}

BusAnswer read_bus_properties(const std::string& destination, const std::string& path, const std::string& interface,
                              int milliseconds) noexcept try {
    return call_bus({destination, path, "org.freedesktop.DBus.Properties", "GetAll", {bus_text(interface)}},
                    milliseconds);
} catch (const std::bad_alloc&) {
    return without_memory();
}

BusAnswer find_bus_owner(const std::string& name, int milliseconds, BusKind kind) noexcept try {
    constexpr const char* bus = "org.freedesktop.DBus";
    return call_bus({bus, "/org/freedesktop/DBus", bus, "GetNameOwner", {bus_text(name)}}, milliseconds, kind);
} catch (const std::bad_alloc&) {
    return without_memory();
}

BusResult listen_to_bus(BusListener& listener, std::span<const char* const> rules, int milliseconds,
                        BusKind kind) noexcept try {
    const auto job = std::make_shared<Job>();
    job->listener = &listener;
    job->rules.assign(rules.begin(), rules.end());
    return run_job(job, milliseconds, kind).result;
} catch (const std::bad_alloc&) {
    return BusResult::NoMemory;
}

void stop_listening_to_bus(BusListener& listener) noexcept {
    bus_of(BusKind::System).stop_listening(listener);
    bus_of(BusKind::Session).stop_listening(listener);
}

}  // namespace zr::platform
