#include "change_listener.h"

#include <poll.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/signal_block.h"

namespace zr::platform::registry {
namespace {

constexpr int kRetryMilliseconds = 100;  // until the store is read again that could not be

template <class Body>
bool start_thread(Body body) noexcept {
    const SignalBlock no_signals;
    try {
        std::thread(body).detach();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

std::atomic<ChangeListener*> ChangeListener::the_listener_{nullptr};

ChangeListener::ChangeListener(int inotify) noexcept : inotify_(inotify) {}

ChangeListener* ChangeListener::get(DWORD& error) noexcept {
    ChangeListener* known = the_listener_.load(std::memory_order_acquire);
    if (known != nullptr) return known;
    const int inotify = above_standard(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify < 0) {
        error = error_from_errno(errno);
        return nullptr;
    }
    auto* const made = new (std::nothrow) ChangeListener(inotify);
    if (made == nullptr) {
        close(inotify);
        error = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    static std::once_flag forks;
    std::call_once(forks, [] { pthread_atfork(&before_fork, &after_fork, &after_fork_in_child); });
    if (!the_listener_.compare_exchange_strong(known, made, std::memory_order_acq_rel)) {
        delete made;
        close(inotify);
        return known;
    }
    return made;
}

// A fork finds the lock free: the child may close handles of its parent's watches, which are told nothing there. The
// lock is taken before the store's, so this comes after the store's own preparation, and is run before it.
void ChangeListener::before_fork() noexcept {
    if (ChangeListener* const listener = the_listener_.load(std::memory_order_acquire)) listener->mutex_.lock();
}

void ChangeListener::after_fork() noexcept {
    if (ChangeListener* const listener = the_listener_.load(std::memory_order_acquire)) listener->mutex_.unlock();
}

void ChangeListener::after_fork_in_child() noexcept {
    after_fork();
    if (ChangeListener* const parents = the_listener_.exchange(nullptr)) close(parents->inotify_);
}

DWORD ChangeListener::add(KeyWatch& watch) noexcept {
    const std::lock_guard guard(mutex_);
    try {
        watches_.insert(&watch);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    DWORD error = listen();
    if (error == ERROR_SUCCESS) error = change_position(watch.from_);
    if (error == ERROR_SUCCESS) error = key_id(watch.key_, watch.id_);
    if (error == ERROR_SUCCESS) {
        watch.armed_ = true;
        if (watches_.size() == 1) position_ = watch.from_;
    } else {
        watches_.erase(&watch);
    }
    return error;
}

void ChangeListener::remove(KeyWatch& watch) noexcept {
    const std::lock_guard guard(mutex_);
    watches_.erase(&watch);
}

// Has the host report the bell, and the thread wait for it.
DWORD ChangeListener::listen() noexcept {
    if (listening_) return ERROR_SUCCESS;
    try {
        std::string bell;
        if (const DWORD error = bell_path(bell); error != ERROR_SUCCESS) return error;
        if (inotify_add_watch(inotify_, bell.c_str(), IN_CLOSE_WRITE) < 0)
            return errno == ENOSPC ? ERROR_NO_SYSTEM_RESOURCES : error_from_errno(errno);
        running_ = running_ || start_thread([this] { run(); });
        if (!running_) return ERROR_NOT_ENOUGH_MEMORY;
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    listening_ = true;
    return ERROR_SUCCESS;
}

void ChangeListener::run() noexcept {
    while (true) {
        bool again = false;
        {
            const std::lock_guard guard(mutex_);
            again = again_ && !watches_.empty();
        }
        pollfd poll{inotify_, POLLIN, 0};
        ::poll(&poll, 1, again ? kRetryMilliseconds : -1);
        const bool lost = take_rings();
        const std::lock_guard guard(mutex_);
        if (lost) listening_ = false;
        again_ = lost || again_;
        if (!watches_.empty()) catch_up();
    }
}

// Empties the host's queue: rings say nothing but that there was one. True when the bell is no longer reported.
bool ChangeListener::take_rings() noexcept {
    alignas(inotify_event) char buffer[4096];
    bool lost = false;
    for (ssize_t got = 0; (got = ::read(inotify_, buffer, sizeof buffer)) > 0;) {
        for (const char* at = buffer; at < buffer + got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            lost = lost || (event->mask & IN_IGNORED) != 0;
            at += sizeof *event + event->len;
        }
    }
    return lost;
}

void ChangeListener::catch_up() noexcept {
    bool complete = false;
    changes_.clear();
    const bool listens = listen() == ERROR_SUCCESS;
    const DWORD error = changes_since(position_, changes_, complete);
    again_ = !listens || error != ERROR_SUCCESS;
    if (error != ERROR_SUCCESS) return;
    if (!complete) {
        LONGLONG position = 0;
        again_ = again_ || change_position(position) != ERROR_SUCCESS;
        if (!again_) tell_all(position);
        return;
    }
    for (const Change& change : changes_) {
        for (KeyWatch* watch : watches_) {
            if (change.seq > watch->from_ && watch->concerned(change)) watch->tell();
        }
        position_ = change.seq;
    }
}

// What happened is not known, so it may have been anything.
void ChangeListener::tell_all(LONGLONG position) noexcept {
    for (KeyWatch* watch : watches_) {
        watch->from_ = position;
        watch->tell();
    }
    position_ = position;
}

KeyWatch::~KeyWatch() {
    RegCloseKey(key_);
}

void KeyWatch::last_handle_closed() noexcept {
    listener_.remove(*this);
}

bool KeyWatch::concerned(const Change& change) const noexcept {
    if (change.kind == ChangeKind::KeyRemoved && change.key == id_) return true;
    const bool of_key = change.kind == ChangeKind::KeyAdded || change.kind == ChangeKind::KeyRemoved;
    if ((filter_ & (of_key ? REG_NOTIFY_CHANGE_NAME : REG_NOTIFY_CHANGE_LAST_SET)) == 0) return false;
    if (!of_key && change.key == id_) return true;
    const std::vector<KeyId>& parents = change.parents;
    if (subtree_) return std::find(parents.begin(), parents.end(), id_) != parents.end();
    return of_key && !parents.empty() && parents.back() == id_;
}

void KeyWatch::tell() noexcept {
    changed_ = !armed_;
    if (!armed_) return;
    armed_ = false;
    set();
}

DWORD KeyWatch::next() noexcept {
    KeyId id = 0;
    if (const DWORD error = key_id(key_, id); error != ERROR_SUCCESS) return error;
    const std::lock_guard guard(listener_.lock());
    if (changed_) {
        changed_ = false;
        set();
    } else {
        reset();
        armed_ = true;
    }
    return ERROR_SUCCESS;
}

}  // namespace zr::platform::registry
