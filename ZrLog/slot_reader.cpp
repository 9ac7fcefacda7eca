// Reads a log of version 1, whose records lie in slots.

#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_map>

#include "ZrLog/file_reader.h"
#include "ZrLog/slot_format.h"

namespace zr::log {
namespace slots {
namespace {

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

class SlotReader : public FileReader {
public:
    SlotReader(int file, int milliseconds) : fd(file), wait(milliseconds) {}

    bool read_header();
    bool next(ZrLogEntry& entry, ZrLogStatistics& total) override;

private:
    static constexpr std::size_t kWindow = 1024;  // slots

    const int fd;
    const int wait;
    std::uint64_t place = kFirstSlot;
    std::uint64_t tail = kFirstSlot;
    ZrLogStatistics statistics;
    ZrLogStatistics told;  // of these, what was added to the caller's
    std::vector<Slot> window = std::vector<Slot>(kWindow);
    std::uint64_t window_first = 0;
    std::uint64_t window_count = 0;
    std::unordered_map<std::uint32_t, std::string> tags;
    bool in_gap = false;  // the slot before was passed over as unfinished

    bool fetch(Slot& slot, std::uint64_t at);
    bool await(Slot& slot, std::uint64_t at);
    bool read_run(const Slot& head, std::uint64_t at, std::size_t limit, std::string& data, std::uint64_t& slots);
    bool take(const Slot& slot, std::uint8_t kind, ZrLogEntry& entry);
    bool step(ZrLogEntry& entry);
    const std::string& tag(std::uint32_t at);
    void pass_over(const Slot& slot);
};

// Takes the end of the log from the header. Slots beyond the file's end are not walked, only counted.
bool SlotReader::read_header() {
    alignas(Header) char bytes[sizeof(Header)];
    struct stat state;
    if (!read_bytes(fd, bytes, sizeof bytes, 0) || fstat(fd, &state) != 0) return false;
    const auto& header = *reinterpret_cast<const Header*>(bytes);
    if (header.magic != kMagic || header.version != kVersion || header.slot_size != kSlotSize) return false;
    const std::uint64_t end = header.tail;
    const std::uint64_t there = static_cast<std::uint64_t>(state.st_size) / kSlotSize;
    tail = std::min(end, there);
    statistics.missing = end - tail;
    statistics.lost = header.lost;
    return true;
}

bool SlotReader::fetch(Slot& slot, std::uint64_t at) {
    if (at < kFirstSlot || at >= tail) return false;
    if (at < window_first || at >= window_first + window_count) {
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kWindow, tail - at));
        window_count = 0;
        if (!read_bytes(fd, window.data(), count * kSlotSize, at * kSlotSize)) return false;
        window_first = at;
        window_count = count;
    }
    slot = window[static_cast<std::size_t>(at - window_first)];
    return true;
}

// A slot without a mark may just be being filled.
bool SlotReader::await(Slot& slot, std::uint64_t at) {
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

bool SlotReader::read_run(const Slot& head, std::uint64_t at, std::size_t limit, std::string& data,
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

const std::string& SlotReader::tag(std::uint32_t at) {
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
bool SlotReader::take(const Slot& slot, std::uint8_t kind, ZrLogEntry& entry) {
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
void SlotReader::pass_over(const Slot& slot) {
    ++place;
    if (slot.mark == 0 || is_blank(slot)) {
        if (!in_gap) ++statistics.unfinished;
        in_gap = true;
    } else {
        ++statistics.damaged;
        in_gap = false;
    }
}

bool SlotReader::step(ZrLogEntry& entry) {
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

bool SlotReader::next(ZrLogEntry& entry, ZrLogStatistics& total) {
    bool found = false;
    for (bool fresh = false;;) {
        while (!found && place < tail) {
            found = step(entry);
        }
        // Asked again for what was written meanwhile; what was read before may be stale at its end.
        if (found || fresh || !read_header()) break;
        window_count = 0;
        fresh = true;
    }
    total.records += statistics.records - told.records;
    total.unfinished += statistics.unfinished - told.unfinished;
    total.damaged += statistics.damaged - told.damaged;
    total.missing += statistics.missing - told.missing;
    total.lost += statistics.lost - told.lost;
    told = statistics;
    return found;
}

}  // namespace
}  // namespace slots

std::unique_ptr<FileReader> read_slots(int fd, int wait) {
    auto reader = std::make_unique<slots::SlotReader>(fd, wait);
    if (!reader->read_header()) return nullptr;
    return reader;
}

}  // namespace zr::log
