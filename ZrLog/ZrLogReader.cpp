#include "ZrLog/ZrLogReader.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "ZrLog/descriptor.h"
#include "ZrLog/format.h"

namespace {

using namespace zr::log;

struct Mark {
    bool whole;
    std::uint8_t kind;
};

Mark check(const Slot& slot, std::uint64_t place) {
    const auto kind = static_cast<std::uint8_t>(slot.mark >> 16);
    return {slot.mark == mark_of(slot, kind, place), kind};
}

bool is_blank(const Slot& slot) {
    static constexpr char kZeros[kSlotSize] = {};
    return std::memcmp(&slot, kZeros, sizeof slot) == 0;
}

std::int64_t milliseconds() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

}  // namespace

struct __attribute__((visibility("hidden"))) ZrLogReader::State {
    static constexpr std::size_t kWindow = 1024;  // slots

    int fd = -1;
    int wait = 0;
    std::uint64_t place = kFirstSlot;
    std::uint64_t tail = kFirstSlot;
    ZrLogStatistics statistics;
    std::vector<Slot> window = std::vector<Slot>(kWindow);
    std::uint64_t window_first = 0;
    std::uint64_t window_count = 0;
    std::unordered_map<std::uint32_t, std::string> tags;
    bool in_gap = false;  // the slot before was passed over as unfinished

    ~State() {
        if (fd >= 0) close(fd);
    }

    bool read_bytes(void* to, std::size_t size, std::uint64_t from) const;
    bool read_header();
    bool fetch(Slot& slot, std::uint64_t at);
    bool await(Slot& slot, std::uint64_t at);
    bool read_run(const Slot& head, std::uint64_t at, std::size_t limit, std::string& data, std::uint64_t& slots);
    bool take(const Slot& slot, std::uint8_t kind, ZrLogEntry& entry);
    bool step(ZrLogEntry& entry);
    const std::string& tag(std::uint32_t at);
    void pass_over(const Slot& slot);
};

bool ZrLogReader::State::read_bytes(void* to, std::size_t size, std::uint64_t from) const {
    auto* bytes = static_cast<char*>(to);
    while (size > 0) {
        const ssize_t n = pread(fd, bytes, size, static_cast<off_t>(from));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        from += static_cast<std::uint64_t>(n);
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Takes the end of the log from the header. Slots beyond the file's end are not walked, only counted.
bool ZrLogReader::State::read_header() {
    alignas(Header) char bytes[sizeof(Header)];
    struct stat state;
    if (!read_bytes(bytes, sizeof bytes, 0) || fstat(fd, &state) != 0) return false;
    const auto& header = *reinterpret_cast<const Header*>(bytes);
    if (header.magic != kMagic || header.version != kVersion || header.slot_size != kSlotSize) return false;
    const std::uint64_t told = header.tail.load();
    const std::uint64_t there = static_cast<std::uint64_t>(state.st_size) / kSlotSize;
    tail = std::min(told, there);
    statistics.missing = told - tail;
    statistics.lost = header.lost.load();
    return true;
}

bool ZrLogReader::State::fetch(Slot& slot, std::uint64_t at) {
    if (at < kFirstSlot || at >= tail) return false;
    if (at < window_first || at >= window_first + window_count) {
        const std::uint64_t count = std::min<std::uint64_t>(kWindow, tail - at);
        window_count = 0;
        if (!read_bytes(window.data(), count * kSlotSize, at * kSlotSize)) return false;
        window_first = at;
        window_count = count;
    }
    slot = window[at - window_first];
    return true;
}

// A slot without a mark may just be being filled.
bool ZrLogReader::State::await(Slot& slot, std::uint64_t at) {
    if (wait <= 0 || in_gap) return false;
    const std::int64_t end = milliseconds() + wait;
    do {
        window_count = 0;
        if (!fetch(slot, at)) return false;
        if (slot.mark != 0) return true;
        poll(nullptr, 0, 1);
    } while (milliseconds() < end);
    return false;
}

bool ZrLogReader::State::read_run(const Slot& head, std::uint64_t at, std::size_t limit, std::string& data,
                                  std::uint64_t& slots) {
    const std::size_t kept = static_cast<std::size_t>(std::min<std::uint64_t>(head.head.run.size, limit));
    slots = slots_for(kept);
    if (at + slots > tail) return false;
    data.assign(reinterpret_cast<const char*>(head.head.run.bytes), std::min(kept, kHeadBytes));
    for (std::uint64_t i = 1; i < slots; ++i) {
        Slot more;
        if (!fetch(more, at + i)) return false;
        const Mark mark = check(more, at + i);
        if (!mark.whole || mark.kind != kContinuation || more.source != at) return false;
        data.append(reinterpret_cast<const char*>(more.more), std::min(kept - data.size(), kMoreBytes));
    }
    return true;
}

const std::string& ZrLogReader::State::tag(std::uint32_t at) {
    const auto known = tags.find(at);
    if (known != tags.end()) return known->second;
    std::string text;
    Slot slot;
    std::uint64_t slots = 0;
    if (at != 0 && fetch(slot, at)) {
        const Mark mark = check(slot, at);
        if (!mark.whole || mark.kind != kTag || !read_run(slot, at, kTagLimit, text, slots)) text.clear();
    }
    return tags.emplace(at, std::move(text)).first->second;
}

// Fills `entry` from the whole slot at `place` and moves past it; false for what is not a record of its own.
bool ZrLogReader::State::take(const Slot& slot, std::uint8_t kind, ZrLogEntry& entry) {
    const std::uint64_t at = place++;
    entry = {};
    std::uint64_t slots = 1;
    if (kind == kTag || kind == kBuffer) {
        if (!read_run(slot, at, kind == kTag ? kTagLimit : kBufferLimit, entry.data, slots)) {
            ++statistics.damaged;
            return false;
        }
        place = at + slots;
        if (kind == kTag) {
            tags.emplace(static_cast<std::uint32_t>(at), std::move(entry.data));
            return false;
        }
        entry.isBuffer = true;
        entry.size = slot.head.run.size;
    } else {
        entry.argumentCount = kind - kArguments;
        std::copy_n(slot.head.arguments, entry.argumentCount, entry.arguments);
    }
    entry.time = slot.head.time;
    entry.process = slot.head.process;
    entry.thread = slot.head.thread;
    entry.category = slot.head.category;
    entry.line = slot.head.line;
    entry.source = tag(slot.source);
    ++statistics.records;
    return true;
}

// Counts a gap once, however many slots it has. The rest of a record whose first slot never came is part of its gap.
void ZrLogReader::State::pass_over(const Slot& slot) {
    ++place;
    if (slot.mark == 0 || is_blank(slot)) {
        if (!in_gap) ++statistics.unfinished;
        in_gap = true;
    } else {
        ++statistics.damaged;
        in_gap = false;
    }
}

bool ZrLogReader::State::step(ZrLogEntry& entry) {
    Slot slot;
    if (!fetch(slot, place)) {
        ++place;
        ++statistics.missing;
        return false;
    }
    if (slot.mark == 0 && !await(slot, place)) {
        pass_over(slot);
        return false;
    }
    Mark mark = check(slot, place);
    if (!mark.whole) {
        // Read anew once: the bytes may have been copied while they were being written.
        window_count = 0;
        if (fetch(slot, place)) mark = check(slot, place);
    }
    if (mark.whole && mark.kind == kContinuation) {
        // Its record's first slot was passed over, as unfinished or damaged, and has been counted.
        ++place;
        in_gap = true;
        return false;
    }
    const bool known =
        (mark.kind >= kArguments && mark.kind <= kArguments + 4) || mark.kind == kBuffer || mark.kind == kTag;
    if (!mark.whole || !known) {
        pass_over(slot);
        return false;
    }
    in_gap = false;
    return take(slot, mark.kind, entry);
}

ZrLogReader::ZrLogReader(std::unique_ptr<State> state) : state_(std::move(state)) {}

ZrLogReader::~ZrLogReader() = default;

std::unique_ptr<ZrLogReader> ZrLogReader::open(const std::string& path, std::string& error, int waitMilliseconds) {
    auto state = std::make_unique<State>();
    state->fd = above_standard(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    state->wait = waitMilliseconds;
    struct stat facts;
    if (state->fd < 0) {
        error = path + ": " + strerror(errno);
    } else if (fstat(state->fd, &facts) != 0 || !S_ISREG(facts.st_mode)) {
        error = path + ": not a regular file";
    } else if (!state->read_header()) {
        error = path + ": not a log file of this version";
    } else {
        return std::unique_ptr<ZrLogReader>(new ZrLogReader(std::move(state)));
    }
    return nullptr;
}

bool ZrLogReader::next(ZrLogEntry& entry) {
    for (bool fresh = false;;) {
        while (state_->place < state_->tail) {
            if (state_->step(entry)) return true;
        }
        if (fresh) return false;
        // Asked again for what was written meanwhile; what was read before may be stale at its end.
        if (!state_->read_header()) return false;
        state_->window_count = 0;
        fresh = true;
    }
}

ZrLogStatistics ZrLogReader::statistics() const {
    return state_->statistics;
}
