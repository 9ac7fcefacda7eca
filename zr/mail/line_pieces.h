#pragma once

// Bytes cut into lines, or, where a line is long, into pieces of one.

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "zr/base/line_reader.h"

namespace zr {

class LinePieces {
public:
    explicit LinePieces(const ReadFunction& read) : read_(read), buffer_(kSize) {}

    // The next piece with its line end, valid until the next call; false at the end or on a failing read.
    bool next(std::string_view& piece) {
        begins_line_ = ends_line_;
        for (;;) {
            const char* const from = buffer_.data() + begin_;
            const std::size_t size = end_ - begin_;
            const void* const newline = size > 0 ? std::memchr(from, '\n', size) : nullptr;
            if (newline != nullptr || size == buffer_.size() || (at_end_ && size > 0)) {
                const std::size_t length =
                    newline != nullptr ? static_cast<std::size_t>(static_cast<const char*>(newline) - from) + 1 : size;
                piece = {from, length};
                begin_ += length;
                ends_line_ = newline != nullptr;
                return true;
            }
            if (at_end_ || !fill()) return false;
        }
    }
    bool begins_line() const { return begins_line_; }  // the piece last returned
    int error() const { return error_; }

private:
    static constexpr std::size_t kSize = std::size_t{64} << 10;

    bool fill() {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        const ssize_t got = read_(buffer_.data() + end_, buffer_.size() - end_);
        if (got < 0) {
            error_ = errno;
            return false;
        }
        at_end_ = got == 0;
        end_ += static_cast<std::size_t>(got);
        return true;
    }

    const ReadFunction& read_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    bool begins_line_ = true;
    bool ends_line_ = true;
    bool at_end_ = false;
    int error_ = 0;
};

}  // namespace zr
