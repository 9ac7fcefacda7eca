#include "zr/mail/text_decoder.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
// No character set has longer characters or switches; what is longer and not complete is damage.
constexpr std::size_t kLongestCharacter = 16;

bool is_guessed(std::string_view charset) {
    static constexpr std::string_view names[] = {"",      "utf-8",      "utf8",         "us-ascii",
                                                 "ascii", "iso-8859-1", "windows-1252", "unknown-8bit"};
    return std::find(std::begin(names), std::end(names), charset) != std::end(names);
}

// How many bytes at the end begin a character of UTF-8 that goes on.
std::size_t unfinished(std::string_view text) {
    for (std::size_t back = 1; back <= std::min<std::size_t>(3, text.size()); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if (byte < 0x80) return 0;
        if (byte < 0xC0) continue;
        const std::size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
        return length > back ? back : 0;
    }
    return 0;
}

}  // namespace

struct TextDecoder::Converter {
    explicit Converter(GIConv conversion) : handle(conversion) {}
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    ~Converter() { g_iconv_close(handle); }

    GIConv handle;
};

TextDecoder::TextDecoder(const std::string& charset) {
    if (is_guessed(charset)) return;
    const GIConv handle = g_iconv_open("UTF-8", charset.c_str());
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    if (handle != reinterpret_cast<GIConv>(-1)) converter_ = std::make_unique<Converter>(handle);
}

TextDecoder::~TextDecoder() = default;

void TextDecoder::decode(std::string_view bytes, std::string& out) {
    waiting_ += bytes;
    if (converter_) {
        convert(out);
    } else {
        guess(out, false);
    }
}

void TextDecoder::finish(std::string& out) {
    if (!converter_) {
        guess(out, true);
    } else if (!waiting_.empty()) {
        out += kReplacement;
    }
    waiting_.clear();
}

void TextDecoder::convert(std::string& out) {
    char* in = waiting_.data();
    gsize left = waiting_.size();
    char buffer[4096];
    while (left > 0) {
        char* to = buffer;
        gsize room = sizeof buffer;
        const gsize result = g_iconv(converter_->handle, &in, &left, &to, &room);
        const int error = errno;
        out.append(buffer, static_cast<std::size_t>(to - buffer));
        if (result != static_cast<gsize>(-1) || error == E2BIG) continue;
        if (error == EINVAL && left < kLongestCharacter) break;
        out += kReplacement;
        ++in;
        --left;
    }
    waiting_.erase(0, waiting_.size() - left);
}

// Line by line where the text is not all UTF-8, so that one wrong byte does not change the others.
void TextDecoder::guess(std::string& out, bool at_end) {
    const std::size_t kept = at_end ? 0 : unfinished(waiting_);
    std::string_view text = std::string_view(waiting_).substr(0, waiting_.size() - kept);
    if (is_utf8(text)) {
        out += text;
    } else {
        while (!text.empty()) {
            const std::string_view line = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
            if (is_utf8(line)) {
                out += line;
            } else {
                out += decode_windows_1252(line);
            }
            text.remove_prefix(line.size());
        }
    }
    waiting_.erase(0, waiting_.size() - kept);
}

}  // namespace zr
