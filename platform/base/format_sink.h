#pragma once

// Where formatted characters go: a buffer that remembers whether something did not fit.

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "platform/types.h"

namespace zr::platform {

class FormatSink {
public:
    FormatSink(WCHAR* buffer, std::size_t capacity) : begin_(buffer), at_(buffer), room_(capacity) {}

    void put(WCHAR character) {
        if (room_ == 0) {
            full_ = true;
            return;
        }
        --room_;
        *at_++ = character;
    }

    void put(const WCHAR* text, std::size_t count) {
        count = take(count);
        if (count < kShort) {
            for (std::size_t i = 0; i < count; ++i) {
                at_[i] = text[i];
            }
        } else {
            copy(text, count);
        }
        at_ += count;
    }

    void fill(WCHAR character, std::size_t count) {
        count = take(count);
        std::fill_n(at_, count, character);
        at_ += count;
    }

    bool full() const { return full_; }
    std::size_t length() const { return static_cast<std::size_t>(at_ - begin_); }

private:
    static constexpr std::size_t kShort = 16;  // below it a loop beats a call

    // Out of line: GCC 12 takes the constant texts that callers give for ones this could read past.
    __attribute__((noinline)) void copy(const WCHAR* text, std::size_t count) {
        std::memcpy(at_, text, count * sizeof(WCHAR));
    }

    std::size_t take(std::size_t count) {
        if (count > room_) {
            full_ = true;
            count = room_;
        }
        room_ -= count;
        return count;
    }

    WCHAR* begin_;
    WCHAR* at_;
    std::size_t room_;
    bool full_ = false;
};

}  // namespace zr::platform
