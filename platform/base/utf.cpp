#include "base/utf.h"

#include "utf_core.h"

namespace zr::platform {

namespace {

constexpr char32_t kEscape = 0xDC00;  // plus the byte, which is 0x80 or more

bool is_escape(char32_t unit) {
    return unit >= kEscape + 0x80 && unit <= kEscape + 0xFF;
}

bool is_spelled_high(const Utf8Part& part) {
    return part.kind == Utf8Part::Surrogate && is_high_surrogate(part.value);
}

// Whether a part is written as itself; otherwise each of its bytes is escaped. A spelled escape must be: unescaped it
// would come back as a byte.
bool stands_for_itself(const Utf8Part& part) {
    if (part.kind == Utf8Part::Damaged) return false;
    return part.kind == Utf8Part::Character || !is_escape(part.value);
}

bool yields_low_surrogate(std::string_view text) {
    if (text.empty()) return false;
    const Utf8Part part = decode_utf8(text);
    return !stands_for_itself(part) || part.kind == Utf8Part::Surrogate;
}

void escape(UnitSink<WCHAR>& sink, std::string_view bytes) {
    for (const char byte : bytes) {
        sink.put(static_cast<WCHAR>(kEscape + static_cast<unsigned char>(byte)));
    }
}

// A run of high surrogates that are spelled in three bytes. A low one behind it would join the last into a pair, which
// comes back as four bytes; then that one is escaped, which puts a low one behind the one before, and so on.
std::size_t put_spelled_highs(UnitSink<WCHAR>& sink, std::string_view text) {
    std::size_t length = 3;
    while (length < text.size() && is_spelled_high(decode_utf8(text.substr(length)))) {
        length += 3;
    }
    if (yields_low_surrogate(text.substr(length))) {
        escape(sink, text.substr(0, length));
        return length;
    }
    for (std::size_t at = 0; at < length; at += 3) {
        sink.put(static_cast<WCHAR>(decode_utf8(text.substr(at)).value));
    }
    return length;
}

void to_wide(UnitSink<WCHAR>& sink, std::string_view host) {
    while (!host.empty()) {
        if (is_ascii(host.front())) {
            const std::size_t ascii = ascii_run(host);
            sink.put_ascii(host.substr(0, ascii));
            host.remove_prefix(ascii);
            continue;
        }
        const Utf8Part part = decode_utf8(host);
        if (is_spelled_high(part)) {
            host.remove_prefix(put_spelled_highs(sink, host));
            continue;
        }
        if (stands_for_itself(part)) {
            put_utf16(sink, part.value);
        } else {
            escape(sink, host.substr(0, part.length));
        }
        host.remove_prefix(part.length);
    }
}

void to_host(UnitSink<char>& sink, std::u16string_view wide) {
    while (!wide.empty()) {
        if (is_ascii(wide.front())) {
            const std::size_t ascii = ascii_run(wide);
            sink.put_ascii(wide.substr(0, ascii));
            wide.remove_prefix(ascii);
            continue;
        }
        const Utf16Part part = decode_utf16(wide);
        if (is_escape(part.value)) {
            sink.put(static_cast<char>(part.value - kEscape));
        } else {
            put_utf8(sink, part.value);
        }
        wide.remove_prefix(part.length);
    }
}

}  // namespace

std::u16string host_to_wide(std::string_view host) {
    std::u16string wide(host.size(), u'\0');  // no unit takes less than a byte
    UnitSink<WCHAR> sink(wide.data(), wide.size());
    to_wide(sink, host);
    wide.resize(sink.count());
    return wide;
}

std::string wide_to_host(std::u16string_view wide) {
    UnitSink<char> counting(nullptr, 0);
    to_host(counting, wide);
    std::string host(counting.count(), '\0');
    UnitSink<char> sink(host.data(), host.size());
    to_host(sink, wide);
    return host;
}

std::size_t host_to_wide(std::string_view host, std::span<WCHAR> out) noexcept {
    UnitSink<WCHAR> sink(out.data(), out.size());
    to_wide(sink, host);
    return sink.count();
}

std::size_t wide_to_host(std::u16string_view wide, std::span<char> out) noexcept {
    UnitSink<char> sink(out.data(), out.size());
    to_host(sink, wide);
    return sink.count();
}

std::optional<std::u16string> utf8_to_wide(std::string_view utf8) {
    if (!is_valid_utf8(utf8)) return std::nullopt;
    return host_to_wide(utf8);
}

std::optional<std::string> wide_to_utf8(std::u16string_view wide) {
    if (!is_valid_utf16(wide)) return std::nullopt;
    return wide_to_host(wide);
}

bool is_valid_utf8(std::string_view utf8) noexcept {
    for (;;) {
        utf8.remove_prefix(ascii_run(utf8));
        if (utf8.empty()) return true;
        const Utf8Part part = decode_utf8(utf8);
        if (part.kind != Utf8Part::Character) return false;
        utf8.remove_prefix(part.length);
    }
}

bool is_valid_utf16(std::u16string_view wide) noexcept {
    for (;;) {
        wide.remove_prefix(ascii_run(wide));
        if (wide.empty()) return true;
        const Utf16Part part = decode_utf16(wide);
        if (is_surrogate(part.value)) return false;
        wide.remove_prefix(part.length);
    }
}

}  // namespace zr::platform
