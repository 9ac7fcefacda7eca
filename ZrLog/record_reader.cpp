// Reads a log of records that stand by themselves.

#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "ZrLog/file_reader.h"
#include "ZrLog/format.h"

namespace zr::log {
namespace {

// A run of bytes from a place, kept until other ones are asked for.
class Window {
public:
    explicit Window(int fd) : fd_(fd) {}

    std::uint64_t size() const {
        struct stat status;
        return fstat(fd_, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
    }

    // At most `size` bytes; fewer where the file, as long as it was when it was last asked, ends.
    std::span<const char> at(std::uint64_t place, std::size_t size) {
        size = static_cast<std::size_t>(std::min<std::uint64_t>(size, end_ > place ? end_ - place : 0));
        if (size == 0) return {};
        if (place < from_ || place + size > from_ + bytes_.size()) {
            bytes_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(std::max(size, kRead), end_ - place)));
            from_ = place;
            if (!read_bytes(fd_, bytes_.data(), bytes_.size(), place)) {
                bytes_.clear();
                return {};
            }
        }
        return {bytes_.data() + (place - from_), size};
    }

    std::uint64_t end() const { return end_; }
    void renew() {
        end_ = size();
        bytes_.clear();
        from_ = 0;
    }

private:
    static constexpr std::size_t kRead = 1 << 18;

    const int fd_;
    std::uint64_t end_ = 0;
    std::uint64_t from_ = 0;
    std::vector<char> bytes_;
};

enum class Found { Whole, Partly, Nothing };

class RecordReader : public FileReader {
public:
    RecordReader(int fd, int wait) : window_(fd), wait_(wait) { window_.renew(); }

    bool next(ZrLogEntry& entry, ZrLogStatistics& statistics) override {
        for (bool renewed = false;;) {
            const bool found = find();
            statistics.damaged += std::exchange(damaged_, 0);
            if (found) {
                take(entry, statistics);
                if (is_record()) return true;
            } else if (renewed) {
                return false;
            } else {
                window_.renew();
                renewed = true;
            }
        }
    }

    bool has_rest() override { return place_ < window_.end(); }

    bool is_log() { return window_.end() == 0 || find(); }

private:
    // What is not what was written may name a length that it never had: so many bytes are examined in vain, and then
    // only short ones of that kind.
    static constexpr std::uint64_t kMostInVain = 64ull << 20;
    static constexpr std::size_t kShort = 4096;

    Found look_at(std::uint64_t place);
    bool find();
    bool find_behind(std::uint64_t place, std::uint64_t& found);
    bool await();
    void take(ZrLogEntry& entry, ZrLogStatistics& statistics);
    bool is_record() const { return head_.kind < kLost; }

    Window window_;
    const int wait_;
    std::uint64_t place_ = 0;
    std::uint64_t waited_ = UINT64_MAX;  // where
    std::uint64_t in_vain_ = 0;
    std::uint64_t damaged_ = 0;  // not yet told
    Head head_{};
    std::span<const char> body_;
    std::span<const char> source_;
};

bool is_sensible(const Head& head) {
    if (head.source_length > kTagLimit || head.length < sizeof head + head.source_length) return false;
    const std::size_t body = head.length - sizeof head - head.source_length;
    if (head.kind >= kArguments && head.kind <= kArguments + 4) return body == (head.kind - kArguments) * 8u;
    if (head.kind == kBuffer) return body == std::min<std::uint64_t>(head.number, kBufferLimit);
    return body == 0 && (head.kind == kLost || head.kind == kCut || head.kind == kRemoved);
}

Found RecordReader::look_at(std::uint64_t place) {
    const std::span<const char> start = window_.at(place, sizeof(Head));
    if (start.empty()) return Found::Nothing;
    Head head{};
    std::memcpy(&head, start.data(), start.size());
    if (std::memcmp(&head, &kMark, std::min(start.size(), sizeof kMark)) != 0) return Found::Nothing;
    if (start.size() < sizeof head) return Found::Partly;
    if (!is_sensible(head)) return Found::Nothing;
    if (head.length > kShort && in_vain_ > kMostInVain) return Found::Nothing;
    if (head.length > window_.end() - place) return Found::Partly;
    const std::span<const char> whole = window_.at(place, head.length);
    if (whole.empty()) return Found::Nothing;
    body_ = whole.subspan(sizeof head, head.length - sizeof head - head.source_length);
    source_ = whole.last(head.source_length);
    Check check;
    check.add_head(head);
    check.add(body_.data(), body_.size());
    check.add(source_.data(), source_.size());
    if (check.value() != head.check) {
        in_vain_ += head.length;
        return Found::Nothing;
    }
    head_ = head;
    return Found::Whole;
}

// Puts `place_` on a whole record. What does not belong to one is passed over only when one stands behind it: at the
// end of the file it may still become one.
bool RecordReader::find() {
    if (place_ >= window_.end()) return false;
    Found found = look_at(place_);
    if (found == Found::Partly && await()) found = look_at(place_);
    if (found == Found::Whole) return true;
    std::uint64_t behind = 0;
    if (!find_behind(place_, behind)) return false;
    ++damaged_;
    place_ = behind;
    return true;
}

bool RecordReader::find_behind(std::uint64_t place, std::uint64_t& found) {
    constexpr std::size_t kStep = 1 << 16;
    const char first = *reinterpret_cast<const char*>(&kMark);
    for (++place; place < window_.end();) {
        const std::span<const char> bytes = window_.at(place, kStep);
        if (bytes.empty()) return false;
        const void* const mark = std::memchr(bytes.data(), first, bytes.size());
        if (mark == nullptr) {
            place += bytes.size();
            continue;
        }
        place += static_cast<std::uint64_t>(static_cast<const char*>(mark) - bytes.data());
        if (look_at(place) == Found::Whole) {
            found = place;
            return true;
        }
        ++place;
    }
    return false;
}

// A record that is longer than a page comes into view page by page.
bool RecordReader::await() {
    if (wait_ <= 0 || waited_ == place_) return false;
    waited_ = place_;
    const std::int64_t end = milliseconds() + wait_;
    do {
        poll(nullptr, 0, 1);
        window_.renew();
        if (look_at(place_) != Found::Partly) return true;
    } while (milliseconds() < end);
    return false;
}

void RecordReader::take(ZrLogEntry& entry, ZrLogStatistics& statistics) {
    place_ += head_.length;
    if (head_.kind == kLost) statistics.lost += head_.number;
    if (head_.kind == kCut || head_.kind == kRemoved) ++statistics.cuts;
    if (!is_record()) return;
    entry = {};
    entry.time = head_.time;
    entry.process = head_.process;
    entry.thread = head_.thread;
    entry.source.assign(source_.data(), source_.size());
    entry.line = head_.line;
    entry.category = head_.category;
    entry.isBuffer = head_.kind == kBuffer;
    if (entry.isBuffer) {
        entry.data.assign(body_.data(), body_.size());
        entry.size = head_.number;
    } else {
        entry.argumentCount = head_.kind - kArguments;
        if (!body_.empty()) std::memcpy(entry.arguments, body_.data(), body_.size());
    }
    ++statistics.records;
}

}  // namespace

std::unique_ptr<FileReader> read_records(int fd, int wait) {
    auto reader = std::make_unique<RecordReader>(fd, wait);
    if (!reader->is_log()) return nullptr;
    return reader;
}

}  // namespace zr::log
