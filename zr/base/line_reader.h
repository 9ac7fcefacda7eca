#pragma once

// The lines of a text file that any program may have written: UTF-8 with or without a byte-order mark, UTF-16 of
// either order, or bytes of an unknown set; ended by LF, CR LF or CR. Memory is bound by the longest line.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace zr {

// Fills up to `size` bytes and returns how many; 0 at the end, -1 with errno set on failure.
using ReadFunction = std::function<ssize_t(char* buffer, std::size_t size)>;

ReadFunction read_from_descriptor(int fd);
ReadFunction read_from_memory(std::string_view bytes);  // `bytes` must outlive the function

class LineReader {
public:
    static constexpr std::size_t kLongestLine = std::size_t{64} << 20;

    explicit LineReader(ReadFunction read);

    // The next line without its end, valid until the next call; false at the end of the text or on a failing read.
    // UTF-16 comes as UTF-8, a lone surrogate in it as three bytes that are not valid UTF-8.
    // A line longer than kLongestLine is cut there and the rest of it skipped.
    bool next(std::string_view& line);

    long number() const { return number_; }    // of the line last returned, counted from 1
    bool was_cut() const { return was_cut_; }  // whether that line was longer than kLongestLine
    // What ended that line, as it stands in the file: LF, CR LF, CR, or nothing. Valid as long as the line.
    std::string_view ending() const { return ending_; }
    bool has_mark() const { return has_mark_; }  // whether the text begins with a byte-order mark
    bool is_utf16() const { return encoding_ == Encoding::Utf16Le || encoding_ == Encoding::Utf16Be; }
    int error() const { return error_; }  // errno of a failed read, else 0
    std::uint64_t bytes_read() const { return bytes_read_; }

private:
    enum class Encoding { Unknown, Bytes, Utf16Le, Utf16Be };

    bool fill();
    void detect();
    void append_utf16(std::string_view bytes);
    void append_unit(char16_t unit);
    bool take(std::size_t length, std::size_t terminator, std::string_view& line);

    ReadFunction read_;
    Encoding encoding_ = Encoding::Unknown;
    std::string chunk_;  // bytes as read, not yet known to be of an encoding
    std::string text_;   // decoded, not yet handed out from start_ on
    std::size_t start_ = 0;
    std::size_t searched_ = 0;  // text_ holds no line end before this
    char line_end_ = '\n';
    char16_t high_ = 0;  // a high surrogate that waits for its other half
    bool at_end_ = false;
    std::string_view ending_;
    bool has_mark_ = false;
    bool was_cut_ = false;
    bool skipping_ = false;
    long number_ = 0;
    int error_ = 0;
    std::uint64_t bytes_read_ = 0;
};

}  // namespace zr
