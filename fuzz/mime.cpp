// A message walked part by part, its text decoded and read as HTML.

#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zr/base/text.h"
#include "zr/mail/header.h"
#include "zr/mail/html_text.h"
#include "zr/mail/mime_reader.h"
#include "zr/mail/text_decoder.h"

namespace {

void drop(const gchar*, GLogLevelFlags, const gchar*, gpointer) {}

void check(bool holds) {
    if (!holds) std::abort();
}

class Reader final : public zr::MimeSink {
public:
    bool header(std::string_view header) override {
        check(header.size() <= zr::kLongestHeader);
        if (const auto fields = zr::read_header(header)) {
            check(zr::is_utf8(fields->subject) && zr::is_utf8(fields->message_id));
            for (const auto* list : {&fields->from, &fields->to, &fields->cc, &fields->bcc}) {
                for (const zr::Sender& one : *list) {
                    check(zr::is_utf8(one.name) && zr::is_utf8(one.address));
                }
            }
        }
        return true;
    }
    void begin_part(const zr::PartHeader& part) override {
        check(!in_part_ && part.depth <= zr::kDeepest);
        check(zr::is_utf8(part.type) && zr::is_utf8(part.name) && zr::is_utf8(part.charset));
        in_part_ = true;
        charset_ = part.charset;
        bytes_.clear();
    }
    void part_bytes(std::string_view bytes) override {
        check(in_part_ && !bytes.empty());
        bytes_ += bytes;
    }
    void end_part() override {
        check(in_part_);
        in_part_ = false;
        zr::TextDecoder decoder(charset_);
        std::string text;
        decoder.decode(bytes_, text);
        decoder.finish(text);
        check(zr::is_utf8(text));
        zr::HtmlText html;
        std::string page;
        html.read(text, page);
        html.finish(page);
        check(zr::is_utf8(page));
    }
    bool in_part() const { return in_part_; }

private:
    bool in_part_ = false;
    std::string charset_;
    std::string bytes_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    g_log_set_default_handler(drop, nullptr);
    Reader reader;
    check(zr::read_mime(zr::read_from_memory({reinterpret_cast<const char*>(data), size}), reader) == 0);
    check(!reader.in_part());
    return 0;
}
