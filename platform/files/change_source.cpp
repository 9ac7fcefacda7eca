#include "change_source.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <system_error>
#include <thread>

#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/signal_block.h"
#include "folder_watch.h"
#include "listing.h"

namespace zr::platform {
namespace {

constexpr std::uint32_t kReported = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB |
                                    IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK;
constexpr std::uint32_t kNames = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::size_t kRead = 64 * 1024;
constexpr std::size_t kBatch = 1024 * 1024;
constexpr std::size_t kLargestBatch = 4 * kBatch;
constexpr int kRetryMilliseconds = 100;  // until a scan that lacked memory or descriptors is tried again

bool wait_for_input(int file, int milliseconds) {
    pollfd poll{file, POLLIN, 0};
    return ::poll(&poll, 1, milliseconds) > 0;
}

void wait_for_rename(const std::string& folder) {
    Listing listing;
    int error = 0;
    if (listing.open(folder.c_str()) == 0) listing.next(error);
}

template <class Body>
bool start_thread(Body body) {
    const SignalBlock no_signals;
    try {
        std::thread(body).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

}  // namespace

ChangeSource* ChangeSource::get(DWORD& error) {
    static std::mutex making;
    static ChangeSource* source = nullptr;
    const std::lock_guard guard(making);
    if (source) return source;
    const int inotify = above_standard(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify < 0) {
        error = error_from_errno(errno);
        return nullptr;
    }
    auto* made = new (std::nothrow) ChangeSource(inotify);
    if (made && start_thread([made] { made->run(); })) return source = made;
    error = ERROR_NOT_ENOUGH_MEMORY;
    delete made;
    close(inotify);
    return nullptr;
}

void ChangeSource::remove(FolderWatch& watch) noexcept {
    const std::lock_guard guard(mutex_);
    watch.stop();
    watches_.erase(&watch);
}

DWORD ChangeSource::report(const std::string& path, FolderWatch& watch, FolderNode& node) {
    const std::uint32_t follow = node.parent ? std::uint32_t{IN_DONT_FOLLOW} : 0;
    const int number = inotify_add_watch(inotify_, path.c_str(), kReported | IN_ONLYDIR | follow);
    if (number < 0) return errno == ENOSPC ? ERROR_NO_SYSTEM_RESOURCES : error_from_errno(errno);
    try {
        targets_[number].push_back({&watch, &node});
    } catch (...) {
        if (targets_.contains(number) && targets_[number].empty()) targets_.erase(number);
        if (!targets_.contains(number)) inotify_rm_watch(inotify_, number);
        throw;
    }
    node.watch = number;
    return ERROR_SUCCESS;
}

void ChangeSource::stop_reporting(FolderWatch&, FolderNode& node) noexcept {
    const auto at = targets_.find(node.watch);
    node.watch = -1;
    if (at == targets_.end()) return;
    std::erase_if(at->second, [&node](const Target& each) { return each.node == &node; });
    if (!at->second.empty()) return;
    inotify_rm_watch(inotify_, at->first);
    targets_.erase(at);
}

void ChangeSource::run() noexcept {
    while (true) {
        bool waits_for_retry = false;
        {
            const std::lock_guard guard(mutex_);
            waits_for_retry = scan_again_;
        }
        if (!wait_for_input(inotify_, waits_for_retry ? kRetryMilliseconds : -1)) {
            const std::lock_guard guard(mutex_);
            scan_all();
            continue;
        }
        try {
            read_batch();
            dispatch();
        } catch (const std::bad_alloc&) {
            const std::lock_guard guard(mutex_);
            scan_again_ = true;
        }
    }
}

void ChangeSource::read_batch() {
    filled_ = 0;
    while (read_events()) {
    }
    parse();
    std::unordered_set<std::uint32_t> settled;
    while (settle(settled) && filled_ < kLargestBatch) {
        read_events();
        parse();
    }
}

// Appends what the kernel has. True when there may be more at once, and there is room for it.
bool ChangeSource::read_events() {
    buffer_.resize(filled_ + kRead);
    const ssize_t got = ::read(inotify_, buffer_.data() + filled_, kRead);
    if (got > 0) filled_ += static_cast<std::size_t>(got);
    return got > static_cast<ssize_t>(kRead / 2) && filled_ < kBatch;
}

void ChangeSource::parse() {
    events_.clear();
    for (std::size_t at = 0; at < filled_;) {
        inotify_event raw;
        std::memcpy(&raw, buffer_.data() + at, sizeof raw);
        const char* name = buffer_.data() + at + sizeof raw;
        events_.push_back({raw.wd, raw.mask, raw.cookie, {name, raw.len ? strnlen(name, raw.len) : 0}});
        at += sizeof raw + raw.len;
    }
    pair_renames();
}

void ChangeSource::pair_renames() {
    std::unordered_map<std::uint32_t, HostEvent*> halves;
    for (HostEvent& event : events_) {
        if (event.mask & IN_MOVED_FROM) {
            halves[event.cookie] = &event;
        } else if (event.mask & IN_MOVED_TO) {
            const auto from = halves.find(event.cookie);
            if (from == halves.end()) continue;
            from->second->partner = &event;
            event.partner = from->second;
            halves.erase(from);
        }
    }
}

// The halves of a rename come one right after the other, but not at one instant. The kernel holds the folder that the
// first half came from until both are queued, so listing that folder waits for the second. It can only be on its way
// while nothing else has happened to the folder's names. True when there were such halves, which may have come now.
bool ChangeSource::settle(std::unordered_set<std::uint32_t>& settled) {
    std::vector<int> folders;
    std::unordered_set<int> later;
    for (auto event = events_.rbegin(); event != events_.rend(); ++event) {
        if (!(event->mask & kNames)) continue;
        const bool last = later.insert(event->watch).second;
        if (last && (event->mask & IN_MOVED_FROM) && !event->partner && settled.insert(event->cookie).second)
            folders.push_back(event->watch);
    }
    for (const int each : folders) {
        wait_for_rename(path_of(each));
    }
    return !folders.empty();
}

std::string ChangeSource::path_of(int watch) {
    const std::lock_guard guard(mutex_);
    const auto at = targets_.find(watch);
    if (at == targets_.end() || at->second.empty()) return {};
    return at->second.front().watch->path_of(*at->second.front().node);
}

void ChangeSource::dispatch() {
    const std::lock_guard guard(mutex_);
    for (const HostEvent& event : events_) {
        if (event.mask & IN_Q_OVERFLOW) {
            discard_queue();
            scan_all();
            return;
        }
        if (!event.partner)
            dispatch(event);
        else if (event.mask & IN_MOVED_FROM)
            move(event, *event.partner);
    }
}

void ChangeSource::dispatch(const HostEvent& event) {
    // What is told may take targets away.
    for (std::size_t i = 0;;) {
        const Target target = target_at(event.watch, i);
        if (!target.watch) break;
        if (!target.watch->ended()) tell(target, event);
        if (target_at(event.watch, i).node == target.node) ++i;
    }
    // The kernel has given up the number.
    if (event.mask & IN_IGNORED) targets_.erase(event.watch);
}

void ChangeSource::tell(const Target& target, const HostEvent& event) {
    const auto [watch, node] = target;
    const bool is_folder = (event.mask & IN_ISDIR) != 0;
    if (event.mask & IN_UNMOUNT) {
        watch->unmounted(*node);
    } else if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
        const bool moved_below = (event.mask & IN_MOVE_SELF) && node->parent;
        if (!moved_below) watch->lost(*node);
    } else if (event.name.empty()) {
        if (event.mask & IN_ATTRIB) watch->may_be_unreadable(*node);
    } else if (event.mask & (IN_CREATE | IN_MOVED_TO)) {
        watch->created(*node, event.name, is_folder);
    } else if (event.mask & (IN_DELETE | IN_MOVED_FROM)) {
        watch->removed(*node, event.name);
    } else if (event.mask & IN_MODIFY) {
        watch->written(*node, event.name);
    } else if (event.mask & IN_ATTRIB) {
        watch->attributes_changed(*node, event.name);
    }
}

void ChangeSource::move(const HostEvent& from, const HostEvent& to) {
    const bool is_folder = (from.mask & IN_ISDIR) != 0;
    const auto copy = [this](int number) {
        const auto at = targets_.find(number);
        return at == targets_.end() ? std::vector<Target>() : at->second;
    };
    for (const auto& [watch, node] : copy(from.watch)) {
        if (watch->ended()) continue;
        if (FolderNode* const there = node_of(to.watch, *watch))
            watch->renamed(*node, from.name, *there, to.name, is_folder);
        else
            watch->removed(*node, from.name);
    }
    for (const auto& [watch, node] : copy(to.watch)) {
        if (!watch->ended() && !node_of(from.watch, *watch)) watch->created(*node, to.name, is_folder);
    }
}

// What was queued before the loss was noticed is not the whole of what happened: told after a listing it could undo
// what the listing showed. What comes later is whole, or ends in another notice of loss.
void ChangeSource::discard_queue() {
    int left = 0;
    if (ioctl(inotify_, FIONREAD, &left) != 0) return;
    while (left > 0) {
        const ssize_t got = ::read(inotify_, buffer_.data(), buffer_.size());
        if (got <= 0) return;
        left -= static_cast<int>(got);
    }
}

void ChangeSource::scan_all() noexcept {
    scan_again_ = false;
    for (FolderWatch* watch : watches_) {
        try {
            if (!watch->scan()) scan_again_ = true;
        } catch (const std::bad_alloc&) {
            scan_again_ = true;
        }
    }
}

ChangeSource::Target ChangeSource::target_at(int watch, std::size_t place) const {
    const auto at = targets_.find(watch);
    return at == targets_.end() || place >= at->second.size() ? Target{nullptr, nullptr} : at->second[place];
}

FolderNode* ChangeSource::node_of(int watch, const FolderWatch& owner) const {
    const auto at = targets_.find(watch);
    if (at == targets_.end()) return nullptr;
    for (const Target& each : at->second) {
        if (each.watch == &owner) return each.node;
    }
    return nullptr;
}

}  // namespace zr::platform
