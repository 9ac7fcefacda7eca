#pragma once

// Mailboxes in one file: messages behind lines that begin with "From ".
//
// The dialects differ in what protects such lines inside of messages, see Mbox. A line is a separator when it is the
// first one, or stands behind a blank line, has a month and a time, and a header field or nothing follows; and when it
// is not within the length that a message's Content-Length rightly says.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zr/base/line_reader.h"

namespace zr {

// What is done to lines that begin with "From ", or with some '>' and then that.
enum class Mbox {
    Guess,  // one of the others, as its messages show. Where Cl and Cl2 look alike it is Cl
    Rd,     // one '>' more in front of all of them
    O,      // a '>' in front of "From " alone; others are left as they are, so that reading may give one back too few
    Cl,     // as Rd, and a Content-Length in the header
    Cl2,    // nothing, but the Content-Length
};

// "mboxrd" and so on; "mbox" is mboxrd. Nothing when it is no dialect's name.
std::optional<Mbox> mbox_of(std::string_view name);

// Bytes that can be read anywhere: as pread; -1 with errno set on failure.
using ReadAtFunction = std::function<ssize_t(char* buffer, std::size_t size, std::uint64_t at)>;
ReadAtFunction read_at_descriptor(int fd);
ReadAtFunction read_at_memory(std::string_view bytes);  // `bytes` must outlive the function

struct MboxMessage {
    std::string separator;  // the line without its end
    std::uint64_t begin = 0;
    std::uint64_t end = 0;  // behind the message, without the blank line that ends it
    // Which lines have one '>' too many: none; ">From "; ">From ", ">>From " and so on.
    enum class Quoted { None, Once, All };
    Quoted quoted = Quoted::None;
};

// Whether bytes begin like a mailbox.
bool begins_mbox(std::string_view bytes);

class MboxReader {
public:
    explicit MboxReader(ReadAtFunction read, Mbox dialect = Mbox::Guess);
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
    // Whether any message of a declared length has a bare "From " line in it. Reads all of the mailbox, once.
    bool any_spans_bare_line();
    // What the header says of the message's end, if that is right.
    std::optional<std::uint64_t> declared_end(std::uint64_t begin);
    std::uint64_t without_blank_line(std::uint64_t begin, std::uint64_t end);
    std::string text_at(std::uint64_t at, std::size_t size);
    std::string_view bytes_from(std::uint64_t at);

    ReadAtFunction read_;
    const Mbox dialect_;
    std::unique_ptr<Window> window_;
    std::uint64_t position_ = 0;
    bool spans_bare_line_ = false;  // the message last returned
    std::optional<bool> any_spans_;
    int error_ = 0;
};

// A message's own bytes. `read` is what the reader reads by.
ReadFunction message_bytes(ReadAtFunction read, const MboxMessage& message);

// Messages as they stand in a mailbox, of any dialect but Guess.
class MboxWriter {
public:
    using Write = std::function<void(std::string_view)>;
    explicit MboxWriter(Write write, Mbox dialect = Mbox::Rd);
    ~MboxWriter();
    MboxWriter(const MboxWriter&) = delete;
    MboxWriter& operator=(const MboxWriter&) = delete;

    // The separator without its end: "From ..." `read` hands the message's bytes over, piece by piece; in dialects with
    // a length it is called twice. A message whose header says another length, or none, gets a right one. One without a
    // body, or with a header of more than 60 KiB, is written as Rd has it.
    void add(std::string_view separator, const std::function<void(const Write&)>& read);

private:
    struct Line;

    void write(std::string_view bytes);
    void write_start(bool quoted);
    void end();

    Write write_;
    const Mbox dialect_;
    bool quotes_ = true;
    std::unique_ptr<Line> line_;
};

}  // namespace zr
