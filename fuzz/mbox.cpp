// A mailbox cut into messages: every byte belongs to one message, a separator or a blank line, and quoting is undone by
// what was quoted.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zr/mail/mbox.h"

namespace {

void check(bool holds) {
    if (!holds) std::abort();
}

std::string bytes_of(const zr::ReadFunction& read) {
    std::string bytes;
    char buffer[13];
    for (ssize_t got = 0; (got = read(buffer, sizeof buffer)) > 0;) {
        bytes.append(buffer, static_cast<std::size_t>(got));
    }
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view mbox(reinterpret_cast<const char*>(data), size);
    const zr::ReadAtFunction read = zr::read_at_memory(mbox);
    zr::MboxReader reader(read);
    std::uint64_t before = 0;
    for (zr::MboxMessage message; reader.next(message); before = reader.position()) {
        check(message.begin >= before && message.begin <= message.end && message.end <= size);
        check(reader.position() > before && reader.position() >= message.end);
        const std::string_view raw = mbox.substr(message.begin, message.end - message.begin);
        const std::string bytes = bytes_of(zr::message_bytes(read, message));
        check(message.quoted ? bytes.size() <= raw.size() : bytes == raw);

        // Quoted again it stands alone, and comes back.
        std::string written;
        zr::MboxWriter writer([&](std::string_view piece) { written += piece; });
        writer.begin("From x Mon Jan  1 10:00:00 2024");
        writer.write(bytes);
        writer.end();
        zr::MboxMessage again;
        again.begin = written.find('\n') + 1;
        again.end = written.size();
        again.quoted = true;
        check(bytes_of(zr::message_bytes(zr::read_at_memory(written), again)).starts_with(bytes));
    }
    check(reader.error() == 0 && before == size);
    return 0;
}
