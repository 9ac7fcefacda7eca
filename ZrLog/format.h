#pragma once

// The layout of a log file, shared by the writer and the reader; docs/log-format.md describes it. All numbers are in
// the machine's byte order, which the mark of each record tells.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zr::log {

inline constexpr std::uint32_t kMark = 0x02525AA5;  // A5 5A 52 02 where the low byte comes first

inline constexpr std::size_t kBufferLimit = 1 << 20;
inline constexpr std::size_t kTagLimit = 1024;

enum Kind : std::uint8_t {
    kArguments = 0x10,  // plus the number of arguments
    kBuffer = 0x20,
    kLost = 0x31,  // what became of the log; these are nobody's records
    kCut = 0x32,
    kRemoved = 0x33,
};

// A record is this, its body (arguments of 8 bytes each, or the bytes of a buffer) and its source tag.
struct Head {
    std::uint32_t mark;
    std::uint32_t check;   // of all that follows
    std::uint32_t length;  // of the whole record
    std::uint8_t kind;
    std::uint8_t reserved;
    std::uint16_t source_length;
    std::uint64_t time;  // nanoseconds since 1970 UTC
    std::uint32_t process;
    std::uint32_t thread;
    std::uint32_t category;
    std::int32_t line;
    std::uint64_t number;  // kBuffer: the size that the caller gave; kLost: how many records; else 0
};
static_assert(sizeof(Head) == 48);

inline constexpr std::size_t kMostLength = sizeof(Head) + kBufferLimit + kTagLimit;

// The check of a record: added in pieces, the head behind `check`, the body and the source. Any change of a bit, and
// any other division into pieces, gives another one.
class Check {
public:
    void add(const void* data, std::size_t size) noexcept {
        const char* bytes = static_cast<const char*>(data);
        mix(size, size);
        std::uint64_t words[2];
        for (; size >= sizeof words; bytes += sizeof words, size -= sizeof words) {
            std::memcpy(words, bytes, sizeof words);
            mix(words[0], words[1]);
        }
        if (size == 0) return;
        words[0] = words[1] = 0;
        std::memcpy(words, bytes, size);
        mix(words[0], words[1]);
    }
    void add_head(const Head& head) noexcept {
        constexpr std::size_t kFrom = offsetof(Head, length);
        add(reinterpret_cast<const char*>(&head) + kFrom, sizeof head - kFrom);
    }
    std::uint32_t value() const noexcept {
        const std::uint64_t both = (even_ ^ (odd_ >> 7) ^ (odd_ << 3)) * kMultiplier;
        return static_cast<std::uint32_t>(both >> 32);
    }

private:
    static constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;

    void mix(std::uint64_t one, std::uint64_t other) noexcept {
        even_ = (even_ ^ one) * kMultiplier;
        even_ ^= even_ >> 29;
        odd_ = (odd_ ^ other) * kMultiplier;
        odd_ ^= odd_ >> 29;
    }

    std::uint64_t even_ = 0x243F6A8885A308D3;
    std::uint64_t odd_ = 0x13198A2E03707344;
};

}  // namespace zr::log
