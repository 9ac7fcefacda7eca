#pragma once

// The parts of a message, as they go by: nothing of a message is held but its header and a line.
//
// Whatever the bytes are, every one of them is looked at once and the walk ends. Multiparts in each other are followed
// to a depth of kDeepest, of headers the first kLongestHeader bytes are kept. A multipart in which no boundary ever
// comes is text. Messages in messages are one part.

#include <string>
#include <string_view>

#include "zr/base/line_reader.h"

namespace zr {

inline constexpr int kDeepest = 64;
inline constexpr std::size_t kLongestHeader = std::size_t{1} << 20;

// A part that is no multipart. All text is valid UTF-8.
struct PartHeader {
    std::string type;        // "text/plain", in lower case
    std::string charset;     // as declared, in lower case; may be empty
    std::string name;        // of the file, decoded, as somebody wrote it: no path to be followed; may be empty
    std::string content_id;  // without angle brackets
    std::string method;      // of a calendar, in upper case
    bool is_attachment = false;
    bool is_alternative = false;  // one of several forms of the same
    int depth = 0;                // how many multiparts it is in
};

class MimeSink {
public:
    virtual ~MimeSink() = default;

    // The message's header without the blank line, once, first. False: it is of no interest, nothing else follows.
    virtual bool header(std::string_view header) = 0;
    virtual void begin_part(const PartHeader& part) = 0;
    // The next bytes of the part, decoded from their transfer encoding.
    virtual void part_bytes(std::string_view bytes) = 0;
    virtual void end_part() = 0;

protected:
    MimeSink() = default;
    MimeSink(const MimeSink&) = default;
    MimeSink& operator=(const MimeSink&) = default;
};

// errno of a failing read, else 0. What the sink throws goes on to the caller.
int read_mime(const ReadFunction& read, MimeSink& sink);

}  // namespace zr
