#include "change_source.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "base/forks.h"
#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/live_count.h"
#include "files/file_watch.h"
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
constexpr std::size_t kMostAhead = 16;        // batches
constexpr std::size_t kReadAheadEvery = 128;  // events
constexpr std::size_t kMany = 4;              // events of a batch, when more have come by its end, are no single change
constexpr unsigned kGatherMicroseconds = 100;
constexpr int kRetryMilliseconds = 100;  // until a scan that lacked memory or descriptors is tried again

bool has_input(int file) {
    pollfd poll{file, POLLIN, 0};
    return ::poll(&poll, 1, 0) > 0 && (poll.revents & POLLIN) != 0;
}

void wait_for_rename(const std::string& folder) {
    Listing listing;
    int error = 0;
    if (listing.open(folder.c_str()) == 0) listing.next(error);
}

// Never destroyed: the host's thread may run as long as the process.
alignas(ChangeSource) unsigned char source_storage[sizeof(ChangeSource)];
ChangeSource& the_source = *new (source_storage) ChangeSource;

}  // namespace

ChangeSource& ChangeSource::instance() noexcept {
    return the_source;
}

// --- The descriptor

DWORD ChangeSource::begin() {
    resume_after_fork();
    const std::lock_guard alive(life_);
    const DWORD error = open();
    if (error == ERROR_SUCCESS) stays_ = true;
    return error;
}

DWORD ChangeSource::open() noexcept {
    if (inotify_ >= 0) return ERROR_SUCCESS;
    inotify_ = above_standard(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify_ < 0) return error_from_errno(errno);
    const DWORD error = watch_host(*this, inotify_);
    if (error != ERROR_SUCCESS) close();
    return error;
}

void ChangeSource::close() noexcept {
    unwatch_host(*this);
    ::close(inotify_.exchange(-1));
    ahead_.clear();  // its numbers mean nothing to the next one
}

void ChangeSource::remove(FolderWatch& watch) noexcept {
    const std::lock_guard guard(mutex_);
    watch.stop();
    watches_.erase(&watch);
}

DWORD ChangeSource::add(FileWatch& watch) {
    resume_after_fork();
    const std::lock_guard alive(life_);
    DWORD error = open();
    if (error != ERROR_SUCCESS) return error;
    {
        const std::lock_guard guard(mutex_);
        try {
            files_.push_back(&watch);
            error = watch.follow();
        } catch (const std::bad_alloc&) {
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    if (error != ERROR_SUCCESS) {
        const std::lock_guard guard(mutex_);
        std::erase(files_, &watch);
    }
    if (files_.empty() && !stays_) close();
    return error;
}

void ChangeSource::remove(FileWatch& watch) noexcept {
    const std::lock_guard alive(life_);
    {
        const std::lock_guard guard(mutex_);
        std::erase(files_, &watch);
        for (const FileWatch::Place& place : watch.places_) {
            stop_watching(place.watch);
        }
        watch.places_.clear();
    }
    if (files_.empty() && !stays_ && inotify_ >= 0) close();
}

// A folder has one number, whoever watches it, and all that any of them wants is reported.
int ChangeSource::watch_folder(const std::string& folder, std::uint32_t events) noexcept {
    return inotify_add_watch(inotify_, folder.c_str(), events | IN_ONLYDIR | IN_MASK_ADD);
}

void ChangeSource::stop_watching(int watch) noexcept {
    if (!targets_.contains(watch) && !has_place(watch)) inotify_rm_watch(inotify_, watch);
}

bool ChangeSource::has_place(int watch) const noexcept {
    return std::any_of(files_.begin(), files_.end(), [watch](const FileWatch* file) { return file->has_place(watch); });
}

DWORD ChangeSource::report(const std::string& path, FolderWatch& watch, FolderNode& node) {
    const std::uint32_t follow = node.parent ? std::uint32_t{IN_DONT_FOLLOW} : 0;
    const int number = inotify_add_watch(inotify_, path.c_str(), kReported | IN_ONLYDIR | IN_MASK_ADD | follow);
    if (number < 0) return errno == ENOSPC ? ERROR_NO_SYSTEM_RESOURCES : error_from_errno(errno);
    try {
        targets_[number].push_back({&watch, &node});
    } catch (...) {
        if (targets_.contains(number) && targets_[number].empty()) targets_.erase(number);
        stop_watching(number);
        throw;
    }
    node.watch = number;
    return ERROR_SUCCESS;
}

void ChangeSource::stop_reporting(FolderWatch&, FolderNode& node) noexcept {
    const auto at = targets_.find(node.watch);
    const int watch = std::exchange(node.watch, -1);
    if (at == targets_.end()) return;
    std::erase_if(at->second, [&node](const Target& each) { return each.node == &node; });
    if (!at->second.empty()) return;
    targets_.erase(at);
    stop_watching(watch);
}

// --- What the host reports

void ChangeSource::ready() noexcept {
    try {
        if (!ahead_.empty() || has_input(inotify_)) {
            read_batch();
            dispatch();
            gather();
        } else {
            const std::lock_guard guard(mutex_);
            scan_all();
        }
    } catch (const std::bad_alloc&) {
        const std::lock_guard guard(mutex_);
        scan_again_ = true;
    }
    if (!ahead_.empty()) return call_host_source(*this, Deadline::at_once());
    retry_later();
}

// Where changes come faster than they are told, each costs several wake-ups: of this thread, of the folder's, of who
// listens. Told together they cost as many in all, and who makes them is not held up.
void ChangeSource::gather() const noexcept {
    if (events_.size() >= kMany && ahead_.empty() && has_input(inotify_)) usleep(kGatherMicroseconds);
}

void ChangeSource::retry_later() noexcept {
    const std::lock_guard guard(mutex_);
    if (scan_again_) call_host_source(*this, Deadline::after(kRetryMilliseconds));
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

// Appends what was read ahead, or what the kernel has. True when there may be more at once, and there is room for it.
bool ChangeSource::read_events() {
    buffer_.resize(filled_);
    bool more = false;
    if (!ahead_.empty()) {
        buffer_.insert(buffer_.end(), ahead_.front().begin(), ahead_.front().end());
        ahead_.pop_front();
        more = true;
    } else {
        more = append_events(buffer_);
    }
    filled_ = buffer_.size();
    return more && filled_ < kBatch;
}

bool ChangeSource::append_events(std::vector<char>& bytes) {
    const std::size_t before = bytes.size();
    bytes.resize(before + kRead);
    const ssize_t got = ::read(inotify_, bytes.data() + before, kRead);
    bytes.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return got > static_cast<ssize_t>(kRead / 2);
}

// The kernel keeps only so many events: while those of a long batch are told, the next ones are taken from it.
void ChangeSource::read_ahead() {
    for (bool more = true; more;) {
        if (ahead_.empty() || ahead_.back().size() + kRead > kBatch) {
            if (ahead_.size() == kMostAhead) return;
            ahead_.emplace_back();
        }
        more = append_events(ahead_.back());
    }
    if (ahead_.back().empty()) ahead_.pop_back();
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
    std::size_t told = 0;
    for (const HostEvent& event : events_) {
        if (++told % kReadAheadEvery == 0) read_ahead();
        tell_files(event);
        if (event.mask & IN_Q_OVERFLOW) {
            count_lost_file_changes();
            discard_queue();
            for (FileWatch* file : files_) {
                file->tell();
            }
            scan_all();
            return;
        }
        if (!event.partner)
            dispatch(event);
        else if (event.mask & IN_MOVED_FROM)
            move(event, *event.partner);
    }
}

void ChangeSource::tell_files(const HostEvent& event) noexcept {
    for (FileWatch* file : files_) {
        if (file->concerns(event.watch, event.mask, event.name)) file->tell();
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
    ahead_.clear();
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

// --- Forks

void ChangeSource::lock_all() noexcept {
    life_.lock();
    mutex_.lock();
    for (FolderWatch* watch : watches_) {
        watch->records_lock().lock();
    }
}

void ChangeSource::unlock_all() noexcept {
    for (FolderWatch* watch : watches_) {
        watch->records_lock().unlock();
    }
    mutex_.unlock();
    life_.unlock();
}

void ChangeSource::begin_child() noexcept {
    inherited_ = inherited_ || inotify_ >= 0;
    if (inotify_ >= 0) ::close(inotify_.exchange(-1));
    unlock_all();
}

void ChangeSource::resume() noexcept {
    const std::lock_guard alive(life_);
    {
        const std::lock_guard guard(mutex_);
        if (!std::exchange(inherited_, false)) return;
    }
    // What the parent's thread was about to do with them it does in the parent.
    new (&buffer_) std::vector<char>;
    new (&ahead_) std::list<std::vector<char>>;
    new (&events_) std::vector<HostEvent>;
    filled_ = 0;
    const DWORD error = open();
    const std::lock_guard guard(mutex_);
    targets_.clear();
    for (FolderWatch* watch : watches_) {
        watch->begin_again(error);
    }
    for (FileWatch* file : files_) {
        file->begin_again();
    }
    scan_all();
    if (scan_again_) call_host_source(*this, Deadline::after(kRetryMilliseconds));
}

}  // namespace zr::platform
