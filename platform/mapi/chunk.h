#pragma once

// The pieces that long values are kept in.
//
// Text of which each unit is below 256 is kept as a byte a unit, piece by piece: that is most text, and half of what is
// written. A piece that is half as long as its value's size makes it is one of these.

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/types.h"
#include "schema.h"

namespace zr::platform::mapi {

constexpr std::size_t chunk_size(ULONGLONG value_size, ULONGLONG number) {
    const ULONGLONG begin = number * kChunkSize;
    return begin < value_size ? static_cast<std::size_t>(std::min<ULONGLONG>(kChunkSize, value_size - begin)) : 0;
}

// What is kept of a piece of text: `room`, or the piece itself.
inline std::string_view narrowed(std::string_view units, std::array<char, kChunkSize / 2>& room) {
    unsigned char high = 0;
    for (std::size_t i = 1; i < units.size(); i += 2) {
        high |= static_cast<unsigned char>(units[i]);
    }
    if (high != 0 || units.size() % 2 != 0) return units;
    for (std::size_t i = 0; i < units.size() / 2; ++i) {
        room[i] = units[2 * i];
    }
    return {room.data(), units.size() / 2};
}

// A piece as it is read.
class Chunk {
public:
    // `size`: what it should have.
    Chunk(std::string_view kept, std::size_t size) : kept_(kept), narrow_(kept.size() * 2 == size) {}

    std::size_t size() const { return narrow_ ? kept_.size() * 2 : kept_.size(); }
    // Bytes from a place on; there must be as many.
    void copy(std::size_t from, std::span<BYTE> to) const {
        if (!narrow_) {
            std::memcpy(to.data(), kept_.data() + from, to.size());
            return;
        }
        std::fill(to.begin(), to.end(), BYTE{0});
        for (std::size_t i = from % 2; i < to.size(); i += 2) {
            to[i] = static_cast<BYTE>(kept_[(from + i) / 2]);
        }
    }

private:
    std::string_view kept_;
    bool narrow_;
};

}  // namespace zr::platform::mapi
