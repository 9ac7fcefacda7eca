#pragma once

// The header of a message, as the fields that people ask for, read by GMime.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

struct Sender {
    std::string name;     // decoded, may be empty
    std::string address;  // as the header has it, without angle brackets
};

// All text is valid UTF-8.
struct Header {
    std::vector<Sender> from;  // the mailboxes, those inside of groups too
    std::vector<Sender> to;
    std::vector<Sender> cc;
    std::vector<Sender> bcc;
    std::string subject;
    std::string message_id;  // without angle brackets
    std::string in_reply_to;
    std::string references;
    std::optional<std::int64_t> sent;      // Date, in seconds since 1970 UTC; nothing when there is none to understand
    std::optional<std::int64_t> received;  // of the first Received
    std::string status;                    // Status and X-Status in one: letters of mail programs that keep an mbox
    int importance = 1;                    // 0 low, 1 normal, 2 high
};

// The length of the field that the text begins with: a line and those behind it that begin with a blank.
std::size_t field_length(std::string_view text);

// The value of the first field of that name (ignoring case), unfolded, as it stands; nothing when there is none.
std::optional<std::string> raw_field(std::string_view header, std::string_view name);

// `header` is what stands before the blank line. Nothing when it is no message's. Addresses of a field in which more
// groups could stand in each other than anybody writes are left out, since the parser goes into each.
std::optional<Header> read_header(std::string_view header);

}  // namespace zr
