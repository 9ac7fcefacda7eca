#include "arm_frames.h"

#if defined(__ARM_EABI_UNWINDER__)

#include <cstring>

namespace zr::platform {
namespace {

constexpr std::uint8_t kAbsent = 0xFF;
constexpr std::uint8_t kAsNumber = 0x01;
constexpr std::uint8_t kAsWord = 0x03;
constexpr std::uint32_t kCompact = 0x80000000;  // of a table's first word: no table of C++'s form follows

// Reads a table from its beginning on.
class Bytes {
public:
    explicit Bytes(const void* at) noexcept : at_(static_cast<const std::uint8_t*>(at)) {}

    const std::uint8_t* at() const noexcept { return at_; }
    std::uint8_t byte() noexcept { return *at_++; }
    std::uintptr_t number() noexcept {
        int bits = 0;
        std::uint8_t last = 0;
        return read(bits, last);
    }
    std::intptr_t signed_number() noexcept {
        int bits = 0;
        std::uint8_t last = 0;
        const std::uintptr_t value = read(bits, last);
        const bool is_negative = (last & 0x40) != 0 && bits < 32;
        return static_cast<std::intptr_t>(is_negative ? value | ~std::uintptr_t{0} << bits : value);
    }
    std::uintptr_t encoded(std::uint8_t how) noexcept {
        if (how == kAsNumber) return number();
        std::uint32_t word = 0;
        std::memcpy(&word, at_, sizeof word);
        at_ += sizeof word;
        return word;
    }

private:
    std::uintptr_t read(int& bits, std::uint8_t& last) noexcept {
        std::uintptr_t value = 0;
        do {
            last = byte();
            if (bits < 32) value |= static_cast<std::uintptr_t>(last & 0x7F) << bits;
            bits += 7;
        } while ((last & 0x80) != 0);
        return value;
    }

    const std::uint8_t* at_;
};

}  // namespace

bool FrameTable::stops(std::uintptr_t place) const noexcept {
    if (words_ == nullptr || (*words_ & kCompact) != 0) return false;
    // Behind the function that reads it and the instructions that unwind the frame.
    Bytes table(words_ + 2 + (words_[1] >> 24));
    if (table.byte() != kAbsent) return true;  // a beginning of its own, which is not written for ARM
    const std::uint32_t* types = nullptr;
    if (table.byte() != kAbsent) {
        const std::uintptr_t size = table.number();
        types = reinterpret_cast<const std::uint32_t*>(table.at() + size);
    }
    const std::uint8_t how = table.byte();
    if (how != kAsNumber && how != kAsWord) return true;
    const std::uintptr_t size = table.number();
    const std::uint8_t* const actions = table.at() + size;
    while (table.at() < actions) {
        const std::uintptr_t begin = function_ + table.encoded(how);
        const std::uintptr_t length = table.encoded(how);
        const std::uintptr_t handler = table.encoded(how);
        const std::uintptr_t first = table.number();
        if (place < begin) return false;
        if (place < begin + length) return handler != 0 && first != 0 && actions_stop(actions, first, types);
    }
    return false;
}

bool FrameTable::actions_stop(const std::uint8_t* actions, std::uintptr_t first,
                              const std::uint32_t* types) const noexcept {
    for (const std::uint8_t* at = actions + first - 1;;) {
        Bytes action(at);
        const std::intptr_t filter = action.signed_number();
        // A handler of a type is for exceptions of C++; one without takes everything.
        if (filter < 0 || (filter > 0 && (types == nullptr || *(types - filter) == 0))) return true;
        const std::uint8_t* const from = action.at();
        const std::intptr_t next = action.signed_number();
        if (next == 0) return false;
        at = from + next;
    }
}

}  // namespace zr::platform

#endif
