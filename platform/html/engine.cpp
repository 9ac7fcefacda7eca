#include "engine.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <set>
#include <vector>

#include "base/fail.h"
#include "base/forks.h"
#include "base/host_error.h"
#include "base/loaded_module.h"
#include "names.h"
#include "platform/base.h"

namespace zr::platform {

// All that there are: a forked child closes its copies of their sockets.
struct Engines {
    static std::mutex lock;
    static std::set<Engine*> all;

    static void before_fork() noexcept {
        lock.lock();
        names_lock.lock();
        trouble_lock.lock();
    }
    static void in_parent() noexcept {
        trouble_lock.unlock();
        names_lock.unlock();
        lock.unlock();
    }
    static void in_child() noexcept {
        for (Engine* const engine : all) {
            if (engine->socket_) engine->socket_.close();
        }
        in_parent();
    }

    static std::mutex trouble_lock;
};
std::mutex Engines::lock;
std::mutex Engines::trouble_lock;
std::set<Engine*> Engines::all;

namespace {

const AtFork html_at_fork{ForkRank::Html, {Engines::before_fork, Engines::in_parent, Engines::in_child}};

// That wait to be told.
constexpr std::size_t kMostEvents = 10'000;
constexpr std::size_t kMostEventBytes = std::size_t{64} << 20;

std::string trouble_text;

void say_trouble(const char* text) {
    const std::lock_guard guard(Engines::trouble_lock);
    trouble_text = text;
}

int milliseconds_until(Deadline deadline) noexcept {
    if (deadline == Deadline::never()) return -1;
    const std::int64_t left = deadline.ns - (deadline == Deadline::at_once() ? deadline.ns : Deadline::now());
    if (left <= 0) return 0;
    return static_cast<int>(std::min<std::int64_t>((left + 999'999) / 1'000'000, INT_MAX));
}

std::string make_folder() {
    const char* place = std::getenv("XDG_RUNTIME_DIR");
    if (place == nullptr || *place != '/') place = "/tmp";
    std::string folder = std::string(place) + "/zr-html-XXXXXX";
    return mkdtemp(folder.data()) != nullptr ? folder : std::string();
}

// What was killed just now may be about to make one file more.
void remove_folder(const std::string& folder) noexcept {
    try {
        for (int i = 0; i < 50; ++i) {
            std::error_code error;
            std::filesystem::remove_all(folder, error);
            if (!std::filesystem::exists(folder, error)) return;
            usleep(10'000);
        }
    } catch (const std::bad_alloc&) {
    }
}

// Nothing of the program's own surroundings but what shows text and finds programs.
std::vector<std::string> make_environment(const std::string& folder) {
    std::vector<std::string> variables;
    for (const char* const name : {"PATH", "LANG", "LC_ALL", "LC_CTYPE", "LANGUAGE", "TZ", "DISPLAY", "XAUTHORITY",
                                   "FONTCONFIG_FILE", "FONTCONFIG_PATH", "http_proxy", "https_proxy", "no_proxy"}) {
        if (const char* const value = std::getenv(name)) variables.push_back(std::string(name) + "=" + value);
    }
    for (const char* const name : {"HOME", "TMPDIR", "XDG_RUNTIME_DIR", "XDG_CACHE_HOME", "XDG_CONFIG_HOME",
                                   "XDG_DATA_HOME", "XDG_STATE_HOME"}) {
        variables.push_back(std::string(name) + "=" + folder);
    }
    for (const char* const fixed :
         {"GDK_BACKEND=x11", "GDK_SCALE=1", "GDK_DPI_SCALE=1", "GTK_THEME=Adwaita", "NO_AT_BRIDGE=1", "GTK_A11Y=none",
          "GIO_USE_VFS=local", "GIO_USE_VOLUME_MONITOR=unix", "GSETTINGS_BACKEND=memory", "GTK_USE_PORTAL=0",
          "DBUS_SESSION_BUS_ADDRESS=disabled:", "LIBGL_ALWAYS_SOFTWARE=1", "WEBKIT_DISABLE_COMPOSITING_MODE=1"}) {
        variables.emplace_back(fixed);
    }
    return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> all;
    all.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        all.push_back(text.data());
    }
    all.push_back(nullptr);
    return all;
}

// How the process is started: alone in its group, with nothing of ours but the socket.
class SpawnPlan {
public:
    explicit SpawnPlan(int socket) {
        if (posix_spawn_file_actions_init(&actions_) != 0) throw std::bad_alloc();
        if (posix_spawnattr_init(&attributes_) != 0) {
            posix_spawn_file_actions_destroy(&actions_);
            throw std::bad_alloc();
        }
        posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDWR, 0);
        posix_spawn_file_actions_adddup2(&actions_, 0, 1);
        posix_spawn_file_actions_adddup2(&actions_, 0, 2);
        posix_spawn_file_actions_adddup2(&actions_, socket, 3);
        posix_spawn_file_actions_addclosefrom_np(&actions_, 4);
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnPlan() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    // 0, or an error of the host.
    int run(const char* program, std::vector<std::string>& words, std::vector<std::string>& variables, pid_t& process) {
        return posix_spawn(&process, program, &actions_, &attributes_, pointers(words).data(),
                           pointers(variables).data());
    }

private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

}  // namespace

std::string engine_trouble() {
    const std::lock_guard guard(Engines::trouble_lock);
    return trouble_text;
}

EnginePatience& engine_patience() noexcept {
    static EnginePatience patience;
    return patience;
}

std::shared_ptr<Engine> Engine::start(bool remote) {
    auto engine = std::make_shared<Engine>();
    if (!engine->spawn(remote) || !engine->greet()) return nullptr;
    return engine;
}

bool Engine::spawn(bool remote) {
    generation_ = fork_generation();
    char program[PATH_MAX];
    char gate[PATH_MAX];
    if (!module_path("zr-html-engine", program, sizeof program) || !module_path("html", gate, sizeof gate) ||
        access(program, X_OK) != 0) {
        say_trouble("the HTML engine is not installed: zr-html-engine, which is built where libwebkit2gtk-4.1 is");
        return fail(ERROR_MOD_NOT_FOUND, false);
    }
    // No fork between the socket's beginning and the list that a child closes it by.
    const std::lock_guard guard(Engines::lock);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return fail(error_from_errno(errno), false);
    }
    HostFd ours(above_standard(ends[0]));
    const HostFd theirs(above_standard(ends[1]));
    if (!ours || !theirs) return fail(ERROR_TOO_MANY_OPEN_FILES, false);
    folder_ = make_folder();
    if (folder_.empty()) return fail(error_from_errno(errno), false);
    std::vector<std::string> words{program, std::to_string(getpid()), remote ? "remote" : "none", gate};
    std::vector<std::string> variables = make_environment(folder_);
    pid_t process = -1;
    if (const int error = SpawnPlan(theirs.get()).run(program, words, variables, process); error != 0) {
        remove_folder(folder_);
        return fail(error_from_errno(error), false);
    }
    socket_ = std::move(ours);
    process_ = process;
    Engines::all.insert(this);
    return true;
}

// Its first word, or why there is none.
bool Engine::greet() {
    const DWORD error = rounds_until(Deadline::after(engine_patience().start), [this] { return greeted_ || refused_; });
    if (greeted_) return true;
    end();
    if (refused_) return fail(ERROR_MOD_NOT_FOUND, false);
    if (error == ERROR_TIMEOUT || error == ERROR_NOT_ENOUGH_MEMORY) return fail(error, false);
    say_trouble(
        "the HTML engine ends as soon as it is started: a library may be missing (package libwebkit2gtk-4.1-0)");
    return fail(ERROR_MOD_NOT_FOUND, false);
}

Engine::~Engine() {
    end();
}

bool Engine::is_alive() const noexcept {
    return process_ >= 0 && generation_ == fork_generation();
}

// In another process than the one that started it there is nothing to end, and the socket is closed.
void Engine::end() noexcept {
    if (process_ < 0) return;
    const pid_t process = std::exchange(process_, -1);
    if (generation_ != fork_generation()) return forget();
    kill(-process, SIGKILL);
    while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
    // Those that its processes were about to start.
    kill(-process, SIGKILL);
    {
        const std::lock_guard guard(lock_);
        socket_ = HostFd();
    }
    forget();
    remove_folder(folder_);
}

void Engine::forget() noexcept {
    const std::lock_guard guard(Engines::lock);
    Engines::all.erase(this);
}

DWORD Engine::died() noexcept {
    end();
    return ERROR_PROCESS_ABORTED;
}

DWORD Engine::send(FrameWriter& frame, Deadline deadline) {
    if (!is_alive()) return ERROR_PROCESS_ABORTED;
    {
        const std::lock_guard guard(lock_);
        to_send_.add(frame.finish());
        push();
    }
    bool broken = false;
    DWORD error = rounds_until(deadline, [&] {
        const std::lock_guard guard(lock_);
        broken = is_broken_;
        return broken || to_send_.empty();
    });
    if (error == ERROR_SUCCESS && broken) error = last_words(deadline);
    if (error == ERROR_TIMEOUT) end();
    return error;
}

void Engine::send_later(FrameWriter& frame) noexcept {
    if (generation_ != fork_generation()) return;
    try {
        const std::lock_guard guard(lock_);
        if (!socket_) return;
        to_send_.add(frame.finish());
        push();
    } catch (const std::bad_alloc&) {
        // It keeps an object longer than it need.
    }
}

// What there is room for. The lock is held.
void Engine::push() noexcept {
    while (!to_send_.empty() && !is_broken_) {
        const std::string_view rest = to_send_.rest();
        const ssize_t size = ::send(socket_.get(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (size >= 0) {
            to_send_.sent(static_cast<std::size_t>(size));
        } else if (errno != EINTR) {
            is_broken_ = errno != EAGAIN;
            break;
        }
    }
}

// Reads what it said before its end.
DWORD Engine::last_words(Deadline deadline) {
    DWORD error = ERROR_SUCCESS;
    while (error == ERROR_SUCCESS) {
        error = round(deadline);
    }
    return error;
}

// However much it tells beside what is waited for, the time ends; what has arrived by then is looked at.
template <class Done>
DWORD Engine::rounds_until(Deadline deadline, Done is_done) {
    DWORD error = ERROR_SUCCESS;
    for (bool is_late = false; error == ERROR_SUCCESS && !is_done();) {
        if (is_late) return ERROR_TIMEOUT;
        is_late = Deadline::now() >= deadline.ns;
        error = round(deadline);
    }
    return error;
}

// Sends and reads what can be, and waits for that.
DWORD Engine::round(Deadline deadline) {
    if (!is_alive()) return ERROR_PROCESS_ABORTED;
    pollfd socket{socket_.get(), POLLIN, 0};
    {
        const std::lock_guard guard(lock_);
        if (!to_send_.empty() && !is_broken_) socket.events |= POLLOUT;
    }
    const int ready = poll(&socket, 1, milliseconds_until(deadline));
    if (ready == 0) return ERROR_TIMEOUT;
    if (ready < 0) return errno == EINTR ? ERROR_SUCCESS : died();
    if ((socket.revents & POLLOUT) != 0) {
        const std::lock_guard guard(lock_);
        push();
    }
    return (socket.revents & (POLLIN | POLLHUP | POLLERR)) != 0 ? receive() : ERROR_SUCCESS;
}

DWORD Engine::receive() {
    std::array<char, 1 << 16> room;
    const ssize_t size = recv(socket_.get(), room.data(), room.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return ERROR_SUCCESS;
    if (size <= 0) return died();
    try {
        arrived_.add(room.data(), static_cast<std::size_t>(size));
        std::string_view frame;
        while (arrived_.next(frame)) {
            sort(frame);
        }
    } catch (const std::bad_alloc&) {
        end();  // what comes next would not be understood
        throw;
    }
    return arrived_.is_bad() ? died() : ERROR_SUCCESS;
}

void Engine::sort(std::string_view bytes) {
    FrameReader frame(bytes);
    switch (frame.kind()) {
        case EngineFrame::Answer: {
            const std::uint32_t number = frame.number();
            if (number != awaited_) return;
            answer_ = static_cast<EngineAnswer>(frame.number());
            what_ = frame.text();
            is_answered_ = !frame.is_bad();
            return;
        }
        case EngineFrame::Hello: {
            greeted_ = frame.number() == kEngineVersion;
            refused_ = !greeted_;
            say_trouble(greeted_ ? std::string(frame.text()).c_str() : "the HTML engine is of another version");
            return;
        }
        case EngineFrame::Trouble:
            refused_ = true;
            say_trouble(std::string(frame.text()).c_str());
            return;
        case EngineFrame::Ready:
            ready_ = frame.number();
            return;
        case EngineFrame::Complete:
            complete_ = frame.number();
            break;
        case EngineFrame::Title:
        case EngineFrame::Link:
        case EngineFrame::Wanted:
            break;
        default:
            return;
    }
    // A document may make any number of these, of any length.
    if (events_.size() >= kMostEvents || event_bytes_ + bytes.size() > kMostEventBytes) return;
    events_.emplace_back(bytes);
    event_bytes_ += bytes.size();
    if (kept_ != nullptr) kept_(context_);
}

DWORD Engine::ask(FrameWriter& frame, std::uint32_t number, Deadline deadline, EngineAnswer& answer,
                  std::string& what) {
    awaited_ = number;
    is_answered_ = false;
    DWORD error = send(frame, deadline);
    if (error == ERROR_SUCCESS) error = rounds_until(deadline, [this] { return is_answered_; });
    awaited_ = 0;
    if (error == ERROR_TIMEOUT) end();
    if (error != ERROR_SUCCESS) return error;
    answer = answer_;
    what = std::move(what_);
    return ERROR_SUCCESS;
}

DWORD Engine::read(Deadline deadline) {
    return round(deadline);
}

DWORD Engine::wait_until_ready(std::uint32_t document, Deadline deadline) {
    if (!is_alive()) return ERROR_PROCESS_ABORTED;
    const DWORD error = rounds_until(deadline, [&] { return is_ready(document) || is_complete(document); });
    if (error == ERROR_TIMEOUT) end();
    // It could not be loaded.
    if (error == ERROR_SUCCESS && !is_ready(document)) return ERROR_FILE_NOT_FOUND;
    return error;
}

bool Engine::take_event(std::string& frame) {
    if (events_.empty()) return false;
    frame = std::move(events_.front());
    events_.pop_front();
    event_bytes_ -= frame.size();
    return true;
}

}  // namespace zr::platform
