#include "zr/mail/message_reader.h"

#include <algorithm>
#include <cerrno>
#include <optional>

namespace zr {
namespace {

constexpr std::size_t kLongestBlock = std::size_t{4} << 20;

// The position behind the blank line that ends the header, or npos.
std::size_t header_end(std::string_view text, std::size_t from) {
    for (std::size_t at = text.find('\n', from); at != std::string_view::npos; at = text.find('\n', at + 1)) {
        std::size_t next = at + 1;
        if (next < text.size() && text[next] == '\r') ++next;
        if (next < text.size() && text[next] == '\n') return next + 1;
    }
    return std::string_view::npos;
}

// The header block, ended by its blank line; false with errno on a failing read.
bool read_header_block(const ReadFunction& read, std::string& header) {
    char buffer[16384];
    bool begun = false;
    for (;;) {
        const ssize_t n = read(buffer, sizeof buffer);
        if (n < 0) return false;
        if (n == 0) break;
        const std::size_t from = header.size() < 2 ? 0 : header.size() - 2;
        header.append(buffer, static_cast<std::size_t>(n));
        if (!begun) {
            if (header.starts_with("\xEF\xBB\xBF")) header.erase(0, 3);
            header.erase(0, std::min(header.find_first_not_of("\r\n"), header.size()));
            begun = !header.empty();
        }
        if (const std::size_t end = header_end(header, begun ? from : 0); end != std::string::npos) {
            header.resize(end);
            break;
        }
        if (header.size() > kLongestBlock) break;
    }
    if (header.starts_with("From ") || header.starts_with(">From ")) {
        header.erase(0, std::min(header.find('\n'), header.size() - 1) + 1);
    }
    header += "\r\n\r\n";
    return true;
}

}  // namespace

Message read_message(const ReadFunction& read) {
    Message result;
    std::string text;
    if (!read_header_block(read, text)) {
        result.status = MessageStatus::Unreadable;
        result.error = errno;
        return result;
    }
    result.status = MessageStatus::NotAMessage;
    std::optional<Header> header = read_header(text);
    if (!header) return result;
    result.senders = std::move(header->from);
    result.subject = std::move(header->subject);
    result.status = result.senders.empty() ? MessageStatus::NoSender : MessageStatus::Ok;
    return result;
}

}  // namespace zr
