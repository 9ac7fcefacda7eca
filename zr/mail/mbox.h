#pragma once

// Mailboxes in one file: messages behind lines that begin with "From ".
//
// The dialects differ in what protects such lines inside of messages. Understood are all of them: quoted by a '>' in
// front (and, where they have some already, by one more), or not at all and a Content-Length in the header. A line is
// a separator when it is the first one, or stands behind a blank line, has a month and a time, and a header field or
// nothing follows.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zr/base/line_reader.h"

namespace zr {

// Bytes that can be read anywhere: as pread; -1 with errno set on failure.
using ReadAtFunction = std::function<ssize_t(char* buffer, std::size_t size, std::uint64_t at)>;
ReadAtFunction read_at_descriptor(int fd);
ReadAtFunction read_at_memory(std::string_view bytes);  // `bytes` must outlive the function

struct MboxMessage {
    std::string separator;  // the line without its end
    std::uint64_t begin = 0;
    std::uint64_t end = 0;  // behind the message, without the blank line that ends it
    bool quoted = false;    // lines that begin with ">From ", ">>From " ... have one '>' too many
};

// Whether bytes begin like a mailbox.
bool begins_mbox(std::string_view bytes);

class MboxReader {
public:
    explicit MboxReader(ReadAtFunction read);
    ~MboxReader();
    MboxReader(const MboxReader&) = delete;
    MboxReader& operator=(const MboxReader&) = delete;

    // False at the end or on a failing read.
    bool next(MboxMessage& message);
    int error() const { return error_; }  // errno of a failed read, else 0
    std::uint64_t position() const { return position_; }

private:
    struct Window;

    // Where the next separator begins behind `from`, and how long it is; the end of the file when there is none.
    std::uint64_t find_separator(std::uint64_t from, bool& any_quoted, bool& any_bare);
    bool is_separator(std::uint64_t at);
    // What the header says of the message's end, if that is right.
    std::optional<std::uint64_t> declared_end(std::uint64_t begin);
    std::uint64_t without_blank_line(std::uint64_t begin, std::uint64_t end);
    std::string text_at(std::uint64_t at, std::size_t size);
    std::string_view bytes_from(std::uint64_t at);

    ReadAtFunction read_;
    std::unique_ptr<Window> window_;
    std::uint64_t position_ = 0;
    int error_ = 0;
};

// A message's own bytes. `read` is what the reader reads by.
ReadFunction message_bytes(ReadAtFunction read, const MboxMessage& message);

// A message as it stands in a mailbox, piece by piece: "From " lines get a '>' in front.
class MboxWriter {
public:
    using Write = std::function<void(std::string_view)>;
    explicit MboxWriter(Write write);
    ~MboxWriter();
    MboxWriter(const MboxWriter&) = delete;
    MboxWriter& operator=(const MboxWriter&) = delete;

    void begin(std::string_view separator);  // without its end; "From ..."
    void write(std::string_view bytes);
    void end();

private:
    struct Line;

    void write_start(bool quoted);

    Write write_;
    std::unique_ptr<Line> line_;
};

}  // namespace zr
