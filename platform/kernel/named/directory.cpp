#include "named/directory.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>

#include "named/queue.h"

namespace zr::platform::named {
namespace {

std::uint32_t& bucket(const Region& region, std::uint32_t hash) noexcept {
    return region.header().buckets[hash % kBuckets];
}

bool is_vacant(const Object& object) noexcept {
    return object.state.load(std::memory_order_relaxed) == Object::Vacant;
}

bool has_name(const Region& region, const Object& object, std::u16string_view name) noexcept {
    if (object.name_length != name.size()) return false;
    const std::size_t here = std::min<std::size_t>(name.size(), kInlineName);
    if (name.substr(0, here) != std::u16string_view(object.name, here)) return false;
    name.remove_prefix(here);
    for (std::uint32_t next = object.name_rest; !name.empty();) {
        const NameCell& cell = region.at<NameCell>(next);
        const std::size_t piece = std::min(name.size(), std::size(cell.text));
        if (name.substr(0, piece) != std::u16string_view(cell.text, piece)) return false;
        name.remove_prefix(piece);
        next = cell.next;
    }
    return true;
}

void free_cells(Region& region, std::uint32_t first) noexcept {
    for (std::uint32_t next = first; next != kNone;) {
        NameCell& cell = region.at<NameCell>(next);
        cell.object.store(0, std::memory_order_relaxed);
        region.now_vacant<NameCell>(next);
        next = cell.next;
    }
}

// Writes the name into the object, which is vacant still. 0 or an error number.
int store_name(Region& region, std::uint32_t index, std::u16string_view name) noexcept {
    Object& object = region.at<Object>(index);
    object.name_length = static_cast<std::uint32_t>(name.size());
    object.name_rest = kNone;
    name.remove_prefix(name.copy(object.name, kInlineName));
    std::uint32_t* link = &object.name_rest;
    while (!name.empty()) {
        int error = 0;
        const std::uint32_t next = region.find_vacant<NameCell>(
            [](const NameCell& cell) { return cell.object.load(std::memory_order_relaxed) == 0; }, error);
        if (next == kNone) {
            free_cells(region, object.name_rest);
            return error;
        }
        NameCell& cell = region.at<NameCell>(next);
        cell.object.store(index + 1, std::memory_order_relaxed);
        cell.next = kNone;
        name.remove_prefix(name.copy(cell.text, std::size(cell.text)));
        *link = next;
        link = &cell.next;
    }
    return 0;
}

void hash_in(const Region& region, std::uint32_t index) noexcept {
    Object& object = region.at<Object>(index);
    object.next_in_bucket = bucket(region, object.hash);
    bucket(region, object.hash) = index;
}

void hash_out(const Region& region, std::uint32_t index) noexcept {
    const Object& object = region.at<Object>(index);
    for (std::uint32_t* link = &bucket(region, object.hash); *link != kNone;
         link = &region.at<Object>(*link).next_in_bucket) {
        if (*link != index) continue;
        *link = object.next_in_bucket;
        return;
    }
}

void remove_file(const std::string& folder, const char* name) noexcept {
    char path[PATH_MAX];
    const int length = std::snprintf(path, sizeof path, "%s/%s", folder.c_str(), name);
    if (length > 0 && static_cast<std::size_t>(length) < sizeof path) unlink(path);
}

// Memory ends by itself; a link to a file is deleted.
void delete_contents(const Region& region, const Object& object) noexcept {
    if (object.inode == 0) return;
    char name[sizeof kContentsPrefix + 20];
    std::snprintf(name, sizeof name, "%s%llu", kContentsPrefix, static_cast<unsigned long long>(object.contents));
    remove_file(region.folder(), name);
}

// Ends the name, or the whole object, when nobody has it any more.
void settle(Region& region, std::uint32_t index) noexcept {
    Object& object = region.at<Object>(index);
    if (object.state.load(std::memory_order_relaxed) == Object::Named && object.open.empty()) {
        if (object.kind == Kind::FileMapping) delete_contents(region, object);
        object.state.store(Object::Nameless, std::memory_order_relaxed);
        hash_out(region, index);
    }
    if (object.state.load(std::memory_order_relaxed) == Object::Nameless && object.used.empty()) {
        object.state.store(Object::Vacant, std::memory_order_relaxed);
        free_cells(region, object.name_rest);
        region.now_vacant<Object>(index);
    }
}

// The mutex is free now, and says that its owner ended.
void abandon(Region& region, std::uint32_t index) noexcept {
    Object& object = region.at<Object>(index);
    std::uint64_t word = object.word.load(std::memory_order_relaxed);
    while (!object.word.compare_exchange_weak(word, (word & ~kOwner) | kAbandoned, std::memory_order_acq_rel)) {
    }
    serve(region, index);
}

void clear_objects(Region& region, std::uint32_t place) noexcept {
    const std::uint32_t count = region.count<Object>();
    for (std::uint32_t i = 0; i < count; ++i) {
        Object& object = region.at<Object>(i);
        if (is_vacant(object)) continue;
        const std::uint64_t word = object.word.load(std::memory_order_relaxed);
        if (object.kind == Kind::Mutex && (word & kOwner) != 0 && owner_place(word) == place) abandon(region, i);
        if (!object.used.has(place)) continue;
        leave(region, i, place);
        // It may have been killed before it told the others that it had set the timer.
        if (object.kind == Kind::Timer && object.protection != kNotSet) call_timer_watches(region, object.open);
    }
}

void clear_sleepers(Region& region, std::uint32_t place) noexcept {
    const std::uint32_t count = region.count<Sleeper>();
    for (std::uint32_t i = 0; i < count; ++i) {
        Sleeper& sleeper = region.at<Sleeper>(i);
        const std::uint32_t state = sleeper.state.load(std::memory_order_relaxed);
        if (state == Sleeper::Vacant || sleeper.process != place) continue;
        if (state == Sleeper::Waiting) delist(region, i);
        sleeper.state.store(Sleeper::Vacant, std::memory_order_relaxed);
        region.now_vacant<Sleeper>(i);
    }
}

void clear_files(const Region& region, std::uint32_t place) noexcept {
    char prefix[sizeof kUnfinishedPrefix + 24];
    const std::uint32_t generation = region.process(place).generation.load(std::memory_order_relaxed);
    const int length = std::snprintf(prefix, sizeof prefix, "%s%u.%u.", kUnfinishedPrefix, place, generation);
    remove_files(region.folder(),
                 [&](const char* file) { return std::strncmp(file, prefix, static_cast<std::size_t>(length)) == 0; });
}

}  // namespace

// FNV-1a, by unit.
std::uint32_t hash_of(std::u16string_view name) noexcept {
    std::uint32_t hash = 2166136261u;
    for (const char16_t unit : name) {
        hash = (hash ^ unit) * 16777619u;
    }
    return hash ^ hash >> 15;
}

std::uint32_t find(const Region& region, std::u16string_view name, std::uint32_t hash) noexcept {
    for (std::uint32_t index = bucket(region, hash); index != kNone;) {
        const Object& object = region.at<Object>(index);
        if (object.hash == hash && has_name(region, object, name)) return index;
        index = object.next_in_bucket;
    }
    return kNone;
}

std::uint32_t make(Region& region, const NewObject& wanted, std::u16string_view name, std::uint32_t hash,
                   std::uint32_t place, int& error) noexcept {
    if (name.size() > kNone / 2) {
        error = ENOMEM;
        return kNone;
    }
    const std::uint32_t index = region.find_vacant<Object>(is_vacant, error);
    if (index == kNone) return kNone;
    error = store_name(region, index, name);
    if (error != 0) return kNone;
    Object& object = region.at<Object>(index);
    object.generation = (object.generation + 1) & kGenerationMask;
    object.word.store((std::uint64_t{object.generation} << kGenerationShift) | wanted.word, std::memory_order_relaxed);
    object.kind = wanted.kind;
    object.manual_reset = wanted.manual_reset ? 1 : 0;
    object.hash = hash;
    object.first_waiter = kNone;
    object.last_waiter = kNone;
    object.size = wanted.size;
    object.contents = wanted.contents;
    object.device = wanted.device;
    object.inode = wanted.inode;
    object.protection = wanted.protection;
    object.open = {};
    object.used = {};
    join(region, index, place);
    object.state.store(Object::Named, std::memory_order_release);
    hash_in(region, index);
    return index;
}

void join(Region& region, std::uint32_t index, std::uint32_t place) noexcept {
    Object& object = region.at<Object>(index);
    object.used.add(place);
    // In this order, should the process be killed in between: what only is open is not looked at.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    object.open.add(place);
}

void close_by(Region& region, std::uint32_t index, std::uint32_t place) noexcept {
    region.at<Object>(index).open.remove(place);
    settle(region, index);
}

void leave(Region& region, std::uint32_t index, std::uint32_t place) noexcept {
    Object& object = region.at<Object>(index);
    object.open.remove(place);
    settle(region, index);
    object.used.remove(place);
    settle(region, index);
}

void clear_place(Region& region, std::uint32_t place) noexcept {
    Process& process = region.process(place);
    if (process.state.load(std::memory_order_relaxed) != Process::Taken || region.lives(place)) return;
    clear_sleepers(region, place);
    clear_objects(region, place);
    wake_notified(region);
    // A thread that was killed before it passed on a call that the lock is free may have left sleepers on it.
    region.header().lock.wake_waiters();
    clear_files(region, place);
    process.generation.store((process.generation.load(std::memory_order_relaxed) + 1) & kProcessGenerationMask,
                             std::memory_order_relaxed);
    process.state.store(Process::Vacant, std::memory_order_release);
}

void clear_dead(Region& region) noexcept {
    for (std::uint32_t place = 0; place < kProcesses; ++place) {
        clear_place(region, place);
    }
}

std::uint32_t find_living(Region& region, std::u16string_view name, std::uint32_t hash) noexcept {
    const std::uint32_t index = find(region, name, hash);
    if (index == kNone) return kNone;
    const ProcessSet open = region.at<Object>(index).open;
    bool cleared = false;
    for (std::uint32_t place = 0; place < kProcesses; ++place) {
        if (!open.has(place) || region.lives(place)) continue;
        clear_place(region, place);
        cleared = true;
    }
    return cleared ? find(region, name, hash) : index;
}

std::uint32_t next_place(const Region& region, std::uint32_t place) noexcept {
    for (std::uint32_t step = 1; step < kProcesses; ++step) {
        const std::uint32_t next = (place + step) % kProcesses;
        if (region.process(next).state.load(std::memory_order_acquire) == Process::Taken) return next;
    }
    return place;
}

void call_timer_watch(Region& region, std::uint32_t place) noexcept {
    region.header().timers.fetch_add(1, std::memory_order_release);
    region.wake_watch_of(next_place(region, place));
}

void call_timer_watches(Region& region, const ProcessSet& open) noexcept {
    for (std::uint32_t place = 0; place < kProcesses; ++place) {
        if (open.has(place)) call_timer_watch(region, place);
    }
}

void repair(Region& region) noexcept {
    Header& header = region.header();
    std::uint32_t segments = kFirstSegment;
    for (const auto& table : header.chunks) {
        for (const auto& chunk : table) {
            segments = std::max(segments, chunk.load(std::memory_order_relaxed) + 1);
        }
    }
    header.segments.store(segments, std::memory_order_relaxed);
    std::fill(std::begin(header.hints), std::end(header.hints), 0u);
    std::fill(std::begin(header.buckets), std::end(header.buckets), kNone);
    const std::uint32_t objects = region.count<Object>();
    for (std::uint32_t i = 0; i < objects; ++i) {
        if (region.at<Object>(i).state.load(std::memory_order_relaxed) == Object::Named) hash_in(region, i);
    }
    for (std::uint32_t i = 0; i < objects; ++i) {
        settle(region, i);
    }
    const std::uint32_t cells = region.count<NameCell>();
    for (std::uint32_t i = 0; i < cells; ++i) {
        NameCell& cell = region.at<NameCell>(i);
        const std::uint32_t object = cell.object.load(std::memory_order_relaxed);
        if (object != 0 && is_vacant(region.at<Object>(object - 1))) cell.object.store(0, std::memory_order_relaxed);
    }
    remove_files(region.folder(), [&](const char* file) {
        if (!is_contents(file)) return false;
        for (std::uint32_t i = 0; i < objects; ++i) {
            const Object& object = region.at<Object>(i);
            if (object.state.load(std::memory_order_relaxed) == Object::Named && object.kind == Kind::FileMapping &&
                object.inode != 0 &&
                std::strtoull(file + std::strlen(kContentsPrefix), nullptr, 10) == object.contents) {
                return false;
            }
        }
        return true;
    });
    rebuild_queues(region);
}

void copy_name(const Region& region, const Object& object, char16_t* out) noexcept {
    std::size_t left = object.name_length;
    const auto put = [&](const char16_t* from, std::size_t room) {
        const std::size_t piece = std::min(left, room);
        out = std::copy_n(from, piece, out);
        left -= piece;
    };
    put(object.name, kInlineName);
    for (std::uint32_t next = object.name_rest; left > 0 && next != kNone;) {
        const NameCell& cell = region.at<NameCell>(next);
        put(cell.text, std::size(cell.text));
        next = cell.next;
    }
}

bool is_contents(const char* file_name) noexcept {
    return std::strncmp(file_name, kContentsPrefix, std::strlen(kContentsPrefix)) == 0;
}

bool is_unfinished(const char* file_name) noexcept {
    return std::strncmp(file_name, kUnfinishedPrefix, std::strlen(kUnfinishedPrefix)) == 0;
}

void remove_files_if(const std::string& folder, bool (*select)(const char*, void*), void* context) noexcept {
    DIR* const listing = opendir(folder.c_str());
    if (!listing) return;
    while (const dirent* entry = readdir(listing)) {
        if (select(entry->d_name, context)) unlinkat(dirfd(listing), entry->d_name, 0);
    }
    closedir(listing);
}

}  // namespace zr::platform::named
