#pragma once

// The layout of the logs of version 1, which are read and no longer written; docs/log-format.md describes it. All
// numbers are in the machine's byte order, which the header's magic number tells.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ZrLog/format.h"

namespace zr::log::slots {

inline constexpr std::size_t kSlotSize = 64;
inline constexpr std::size_t kHeaderSize = 4096;
inline constexpr std::uint64_t kFirstSlot = kHeaderSize / kSlotSize;

inline constexpr std::uint64_t kMagic = 0x0A1A0D474F4C525A;  // "ZRLOG\r\x1A\n" where the low byte comes first
inline constexpr std::uint32_t kVersion = 1;

enum Kind : std::uint8_t {
    kArguments = 0x10,  // plus the number of arguments
    kBuffer = 0x20,
    kTag = 0x30,
    kContinuation = 0x40,
};

struct Header {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t slot_size;
    std::uint64_t created;   // nanoseconds since 1970 UTC
    std::uint64_t tail;      // the slot that the next record gets
    std::uint64_t capacity;  // slots that the disk has room set aside for, from the start of the file
    std::uint64_t lost;      // records that found no room
};
static_assert(sizeof(Header) == 48);

// The bytes of a buffer record.
struct Run {
    std::uint64_t size;  // of the caller's bytes, of which at most the limit is kept
    std::uint8_t bytes[24];
};

// What a record's first slot says.
struct Head {
    std::uint64_t time;  // nanoseconds since 1970 UTC
    std::uint32_t process;
    std::uint32_t thread;
    std::uint32_t category;
    std::int32_t line;
    union {
        std::uint64_t arguments[4];
        Run run;
    };
};

struct Slot {
    std::uint32_t mark;    // 0 until the slot is whole: 0xA5, the kind, and the check of the rest
    std::uint32_t source;  // the slot that holds the source tag, 0 for none; of a continuation: the record's first slot
    union {
        Head head;
        std::uint8_t more[56];
    };
};
static_assert(sizeof(Slot) == kSlotSize);

inline constexpr std::size_t kHeadBytes = 24;
inline constexpr std::size_t kMoreBytes = 56;

// How many slots a run of `kept` bytes takes.
constexpr std::uint64_t slots_for(std::size_t kept) {
    return kept <= kHeadBytes ? 1 : 1 + (kept - kHeadBytes + kMoreBytes - 1) / kMoreBytes;
}

// The mark of a slot at a place: any change of the slot's bytes, of its kind or of its place gives another one.
inline std::uint32_t mark_of(const Slot& slot, std::uint8_t kind, std::uint64_t place) {
    constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;
    std::uint64_t words[8];
    std::memcpy(words, &slot, sizeof words);
    std::uint32_t after_mark;
    std::memcpy(&after_mark, reinterpret_cast<const char*>(&slot) + sizeof slot.mark, sizeof after_mark);
    words[0] = (place << 32) ^ after_mark;
    std::uint64_t even = kind;
    std::uint64_t odd = place;
    for (int i = 0; i < 8; i += 2) {
        even = (even ^ words[i]) * kMultiplier;
        even ^= even >> 29;
        odd = (odd ^ words[i + 1]) * kMultiplier;
        odd ^= odd >> 29;
    }
    const std::uint64_t check = (even ^ (odd >> 7) ^ (odd << 3)) * kMultiplier;
    return 0xA5000000u | static_cast<std::uint32_t>(kind) << 16 | static_cast<std::uint32_t>(check >> 48);
}

}  // namespace zr::log::slots
