#include "notifier.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "base/host_fd.h"
#include "base/signal_block.h"
#include "last_error.h"
#include "platform/base.h"
#include "platform/windowing.h"
#include "store.h"

namespace zr::platform::pim {
namespace {

constexpr int kChunk = 512;
constexpr int kRetryMilliseconds = 20;
constexpr INT kFolders[] = {olFolderCalendar, olFolderContacts, olFolderTasks};

void drain(int file) {
    char buffer[4096];
    while (read(file, buffer, sizeof buffer) > 0) {
    }
}

}  // namespace

Notifier::~Notifier() {
    stop_worker();
}

HRESULT Notifier::add_window(const void* key, HWND window) {
    const std::lock_guard worker(worker_mutex_);
    if (!worker_.joinable()) {
        const HRESULT result = start_worker();
        if (FAILED(result)) return result;
    }
    const HRESULT result = add_place(key, window);
    if (FAILED(result) && window_count_.load() == 0) stop_worker();
    return result;
}

HRESULT Notifier::add_place(const void* key, HWND window) {
    const std::lock_guard lock(mutex_);
    LONGLONG seq = 0;
    {
        const auto reading = store_.lock();
        const HRESULT result = store_.refresh();
        if (FAILED(result)) return result;
        seq = store_.seq();
    }
    windows_.push_back({key, window, seq});
    if (windows_.size() == 1) store_.signal().set_position(seq);
    window_count_.store(static_cast<int>(windows_.size()));
    return S_OK;
}

void Notifier::remove_window(const void* key) {
    const std::lock_guard worker(worker_mutex_);
    bool last = false;
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(windows_, [key](const Window& each) { return each.key == key; });
        window_count_.store(static_cast<int>(windows_.size()));
        last = windows_.empty();
    }
    if (last) stop_worker();
}

void Notifier::session_began() {
    const std::lock_guard lock(mutex_);
    ++sessions_;
}

void Notifier::session_ended() {
    const std::lock_guard lock(mutex_);
    if (--sessions_ == 0) set_.clear();
}

HRESULT Notifier::load_saved() {
    if (saved_known_.load()) return S_OK;
    const auto reading = store_.lock();
    saved_known_.store(true);  // before the look: a change that comes after it clears this again
    for (const INT folder : kFolders) {
        Value value;
        const HRESULT result = store_.value(folder_oid(folder), PIMPR_FOLDERNOTIFICATIONS, value);
        if (FAILED(result)) {
            saved_known_.store(false);
            return result;
        }
        const auto* number = std::get_if<LONGLONG>(&value);
        saved_[folder] = number != nullptr ? static_cast<ULONG>(*number) : 0;
    }
    return S_OK;
}

ULONG Notifier::effective(INT folder) {
    const auto set = set_.find(folder);
    if (set != set_.end()) return set->second;
    const auto saved = saved_.find(folder);
    return saved != saved_.end() ? saved->second : 0;
}

HRESULT Notifier::flags(INT folder, ULONG& flags) {
    const std::lock_guard lock(mutex_);
    {
        const auto reading = store_.lock();
        const HRESULT result = store_.refresh();
        if (FAILED(result)) return result;
    }
    const HRESULT result = load_saved();
    if (SUCCEEDED(result)) flags = effective(folder);
    return result;
}

HRESULT Notifier::set_flags(INT folder, ULONG flags) {
    const std::lock_guard lock(mutex_);
    dispatch_locked();  // what came before goes by the old flags
    set_[folder] = flags;
    return S_OK;
}

void Notifier::dispatch() {
    if (window_count_.load() == 0) return;
    const std::lock_guard lock(mutex_);
    dispatch_locked();
}

// A window whose queue is full sits the rest of the round out; a failure to read ends it. Either way the worker tries
// again.
void Notifier::dispatch_locked() {
    behind_.store(false);
    std::vector<Window*> round;
    for (Window& window : windows_) {
        round.push_back(&window);
    }
    const auto by_place = [](const Window* a, const Window* b) { return a->seq < b->seq; };
    while (!round.empty()) {
        std::vector<Change> changes;
        if (!read_changes((*std::min_element(round.begin(), round.end(), by_place))->seq, changes)) {
            behind_.store(true);
            break;
        }
        std::erase_if(round, [&](Window* window) { return !post_all(*window, changes); });
        if (changes.size() < kChunk) break;
    }
    if (windows_.empty()) return;
    LONGLONG oldest = windows_.front().seq;
    for (const Window& window : windows_) {
        oldest = std::min(oldest, window.seq);
    }
    store_.signal().set_position(oldest);
}

bool Notifier::read_changes(LONGLONG seq, std::vector<Change>& changes) {
    {
        const auto reading = store_.lock();
        if (FAILED(store_.refresh())) return false;
        if (store_.seq() <= seq) return true;
        if (FAILED(store_.logged(seq, kChunk, changes))) return false;
    }
    return SUCCEEDED(load_saved());
}

// False: the window could not take all of them.
bool Notifier::post_all(Window& window, const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        if (change.seq <= window.seq) continue;
        if (!post(window, change)) {
            behind_.store(true);
            return false;
        }
        window.seq = change.seq;
    }
    return true;
}

// False: the queue is full, the change is to be posted later. A window that is gone needs nothing.
bool Notifier::post(Window& window, const Change& change) {
    if (change.kind == ChangeKind::Folder) return true;
    const bool local = change.origin == store_.origin();
    const INT folder = folder_of(change.oid);
    if ((effective(folder) & (local ? PIMFOLDERNOTIFICATION_LOCAL : PIMFOLDERNOTIFICATION_REMOTE)) == 0) return true;
    const UINT message = (local ? PIM_ITEM_CREATED_LOCAL : PIM_ITEM_CREATED_REMOTE) + static_cast<UINT>(change.kind);
    const DWORD error_before = GetLastError();
    const BOOL posted = PostMessageW(window.window, message, static_cast<WPARAM>(change.oid), folder);
    const bool full = posted == FALSE && GetLastError() == ERROR_NOT_ENOUGH_QUOTA;
    SetLastError(error_before);
    return !full;
}

HRESULT Notifier::start_worker() {
    const HRESULT claimed = store_.signal().claim();
    if (FAILED(claimed)) return claimed;
    const int watch = above_standard(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const int stop = above_standard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    int error = watch < 0 || stop < 0 ? errno : 0;
    if (error == 0 && inotify_add_watch(watch, store_.signal().path().c_str(), IN_MODIFY | IN_CLOSE_WRITE) < 0)
        error = errno;
    if (error == 0) {
        const SignalBlock no_signals;
        try {
            worker_ = std::thread(&Notifier::work, this, watch, stop);
        } catch (const std::system_error&) {
            error = EAGAIN;
        }
    }
    if (error == 0) {
        stop_ = stop;
        return S_OK;
    }
    if (watch >= 0) close(watch);
    if (stop >= 0) close(stop);
    store_.signal().give_up();
    return fail(HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES),
                std::string("The contact store cannot be watched: ") + strerror(error) + ".");
}

void Notifier::stop_worker() {
    if (!worker_.joinable()) return;
    const std::uint64_t one = 1;
    static_cast<void>(!write(stop_, &one, sizeof one));
    worker_.join();
    close(stop_);
    stop_ = -1;
    store_.signal().give_up();
}

void Notifier::work(int watch, int stop) {
    pollfd files[] = {{watch, POLLIN, 0}, {stop, POLLIN, 0}};
    for (;;) {
        const int ready = poll(files, 2, behind_.load() ? kRetryMilliseconds : -1);
        if (ready < 0 && errno != EINTR) break;
        if ((files[1].revents & POLLIN) != 0) break;
        drain(watch);
        try {
            dispatch();
        } catch (const std::bad_alloc&) {
            behind_.store(true);  // later, when there is memory
        }
    }
    close(watch);
}

}  // namespace zr::platform::pim
