#pragma once

// A message written from what it says, for one that has no bytes of its own: RFC 5322, with MIME where it has more than
// a text, by GMime. The same message gives the same bytes each time.
//
// No part is held in memory: parts wait in a temporary file until the message is written.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zr/mail/header.h"
#include "zr/mail/mime_reader.h"

namespace zr {

using TakeBytes = std::function<void(std::string_view)>;

class MessageWriter {
public:
    // Of the header: who it is from and to, subject, dates, identifiers, importance. Without somebody that it is from,
    // it is from an empty group.
    explicit MessageWriter(const Header& header);
    ~MessageWriter();
    MessageWriter(const MessageWriter&) = delete;
    MessageWriter& operator=(const MessageWriter&) = delete;

    // Plain text and HTML, as UTF-8 of whole characters, which are no attachments are forms of the same text. All other
    // parts are attachments; type, name, content identifier count. `read` hands the bytes over, piece by piece.
    void add(const PartHeader& part, const std::function<void(const TakeBytes&)>& read);

    // Throws Failure when the temporary file fails. Once.
    void write(const TakeBytes& take);

private:
    struct Part {
        PartHeader header;
        std::int64_t begin = 0;
        std::int64_t end = 0;
    };
    struct Digest;
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    using File = std::unique_ptr<std::FILE, CloseFile>;

    static File temporary_file();
    void keep(std::string_view bytes);
    std::string boundary(const char* what) const;

    const Header header_;
    File parts_file_;
    std::int64_t size_ = 0;
    std::vector<Part> texts_;
    std::vector<Part> attachments_;
    std::unique_ptr<Digest> digest_;
};

}  // namespace zr
