#include "zr/base/line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::size_t kChunk = std::size_t{64} << 10;

bool is_surrogate(char16_t c, char16_t kind) {
    return (c & 0xFC00) == kind;
}

}  // namespace

ReadFunction read_from_descriptor(int fd) {
    return [fd](char* buffer, std::size_t size) {
        ssize_t n;
        do {
            n = ::read(fd, buffer, size);
        } while (n < 0 && errno == EINTR);
        return n;
    };
}

ReadFunction read_from_memory(std::string_view bytes) {
    return [bytes](char* buffer, std::size_t size) mutable {
        const std::size_t n = std::min(size, bytes.size());
        if (n > 0) std::memcpy(buffer, bytes.data(), n);
        bytes.remove_prefix(n);
        return static_cast<ssize_t>(n);
    };
}

LineReader::LineReader(ReadFunction read) : read_(std::move(read)) {}

bool LineReader::next(std::string_view& line) {
    was_cut_ = false;
    for (;;) {
        const std::size_t end = text_.find(line_end_, searched_);
        if (end != std::string::npos) {
            if (!std::exchange(skipping_, false)) return take(end - start_, 1, line);
            start_ = searched_ = end + 1;
            continue;
        }
        if (skipping_) start_ = text_.size();
        searched_ = text_.size();
        if (searched_ - start_ > kLongestLine) {
            skipping_ = was_cut_ = true;
            return take(kLongestLine, 0, line);
        }
        if (fill()) continue;
        if (start_ == text_.size()) return false;
        return take(text_.size() - start_, 0, line);
    }
}

bool LineReader::take(std::size_t length, std::size_t terminator, std::string_view& line) {
    line = std::string_view(text_).substr(start_, length);
    ending_ = std::string_view(text_).substr(start_ + length, terminator);
    start_ += length + terminator;
    searched_ = start_;
    ++number_;
    while (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
        ending_ = {line.end(), ending_.end()};
    }
    return true;
}

// More decoded text behind text_; false when there is none.
bool LineReader::fill() {
    if (at_end_) return false;
    text_.erase(0, start_);
    searched_ -= start_;
    start_ = 0;
    const std::size_t had = chunk_.size();
    chunk_.resize(had + kChunk);
    const ssize_t n = read_(chunk_.data() + had, kChunk);
    if (n < 0) error_ = errno;
    at_end_ = n <= 0;
    chunk_.resize(had + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    bytes_read_ += chunk_.size() - had;
    if (encoding_ == Encoding::Unknown) {
        // The marks take up to three bytes, and a CR at the end of the chunk would hide the LF behind it.
        if (!at_end_ && (chunk_.size() < 4 || chunk_.back() == '\r')) return true;
        detect();
    }
    if (encoding_ == Encoding::Bytes) {
        text_ += chunk_;
        chunk_.clear();
    } else {
        const std::size_t whole = chunk_.size() / 2 * 2;
        append_utf16(std::string_view(chunk_).substr(0, whole));
        chunk_.erase(0, whole);
        if (at_end_ && (high_ != 0 || !chunk_.empty())) {
            append_unit(0);  // half a character at the end is no text, and says so
            text_.pop_back();
            if (!chunk_.empty()) text_ += '\xFF';
            chunk_.clear();
        }
    }
    return !at_end_ || start_ < text_.size();
}

void LineReader::detect() {
    const auto byte = [&](std::size_t i) { return i < chunk_.size() ? static_cast<unsigned char>(chunk_[i]) : 0x100; };
    std::size_t mark = 0;
    encoding_ = Encoding::Bytes;
    if (byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF) {
        mark = 3;
    } else if (byte(0) == 0xFF && byte(1) == 0xFE) {
        encoding_ = Encoding::Utf16Le;
        mark = 2;
    } else if (byte(0) == 0xFE && byte(1) == 0xFF) {
        encoding_ = Encoding::Utf16Be;
        mark = 2;
    } else if (byte(0) != 0 && byte(1) == 0) {
        encoding_ = Encoding::Utf16Le;
    } else if (byte(0) == 0 && byte(1) != 0) {
        encoding_ = Encoding::Utf16Be;
    }
    has_mark_ = mark > 0;
    chunk_.erase(0, mark);
    if (encoding_ == Encoding::Bytes && chunk_.find('\n') == std::string::npos &&
        chunk_.find('\r') != std::string::npos) {
        line_end_ = '\r';
    }
}

void LineReader::append_utf16(std::string_view bytes) {
    const bool little = encoding_ == Encoding::Utf16Le;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto first = static_cast<unsigned char>(bytes[i]);
        const auto second = static_cast<unsigned char>(bytes[i + 1]);
        append_unit(static_cast<char16_t>(little ? first | second << 8 : second | first << 8));
    }
}

void LineReader::append_unit(char16_t unit) {
    if (high_ != 0) {
        const char16_t high = std::exchange(high_, u'\0');
        if (is_surrogate(unit, 0xDC00)) {
            append_utf8(text_, 0x10000 + (static_cast<char32_t>(high - 0xD800) << 10) + (unit - 0xDC00));
            return;
        }
        append_utf8(text_, high);
    }
    if (is_surrogate(unit, 0xD800)) {
        high_ = unit;
    } else {
        append_utf8(text_, unit);
    }
}

}  // namespace zr
