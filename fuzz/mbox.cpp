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

std::string mailbox_of(std::string_view message, zr::Mbox dialect) {
    std::string mbox;
    zr::MboxWriter writer([&](std::string_view piece) { mbox += piece; }, dialect);
    writer.add("From x Mon Jan  1 10:00:00 2024", [&](const zr::MboxWriter::Write& take) {
        for (std::size_t at = 0; at < message.size(); at += 11) {
            take(message.substr(at, 11));
        }
    });
    return mbox;
}

// False when it comes back as several.
bool written_and_read(std::string_view message, zr::Mbox dialect, std::string& bytes) {
    const std::string mbox = mailbox_of(message, dialect);
    const zr::ReadAtFunction read = zr::read_at_memory(mbox);
    zr::MboxReader reader(read, dialect);
    zr::MboxMessage first;
    check(reader.next(first));
    bytes = bytes_of(zr::message_bytes(read, first));
    return reader.position() == mbox.size();
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
        const auto begin = static_cast<std::size_t>(message.begin);
        const std::string_view raw = mbox.substr(begin, static_cast<std::size_t>(message.end) - begin);
        const std::string bytes = bytes_of(zr::message_bytes(read, message));
        check(message.quoted != zr::MboxMessage::Quoted::None ? bytes.size() <= raw.size() : bytes == raw);

        // Written again it stands alone, and comes back; its end may have been mended, and its length then.
        for (const zr::Mbox dialect : {zr::Mbox::Rd, zr::Mbox::Cl, zr::Mbox::Cl2}) {
            std::string once;
            std::string twice;
            std::string thrice;
            // What is no header at all may look like separators where nothing is quoted.
            if (!written_and_read(bytes, dialect, once) || !written_and_read(once, dialect, twice) ||
                !written_and_read(twice, dialect, thrice)) {
                check(dialect == zr::Mbox::Cl2);
                continue;
            }
            check(thrice == twice);
            if (dialect == zr::Mbox::Rd) check(once == bytes || once == bytes + "\n");
        }
    }
    check(reader.error() == 0 && before == size);
    return 0;
}
