// Message texts.

#include <string.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/host_error.h"
#include "base/utf.h"
#include "entry.h"
#include "files/host_path.h"
#include "platform/files.h"

namespace zr::platform {
namespace {

constexpr std::size_t kLongestInsert = 65535;

// What one insert is replaced with, from the argument's place in a list or an array.
class Arguments {
public:
    Arguments(DWORD flags, va_list* arguments) : array_((flags & FORMAT_MESSAGE_ARGUMENT_ARRAY) != 0) {
        if (!arguments) return;
        present_ = true;
        if (array_)
            values_ = reinterpret_cast<const DWORD_PTR*>(arguments);
        else
            va_copy(list_, *arguments);
    }
    ~Arguments() {
        if (present_ && !array_) va_end(list_);
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    bool present() const { return present_; }

    // Arguments of a list come one by one, so the ones before are read and kept.
    DWORD_PTR at(std::size_t index) {
        if (array_) return values_[index];
        while (read_ <= index)
            kept_[read_++] = va_arg(list_, DWORD_PTR);
        return kept_[index];
    }

private:
    const bool array_;
    bool present_ = false;
    const DWORD_PTR* values_ = nullptr;
    va_list list_;
    DWORD_PTR kept_[99];
    std::size_t read_ = 0;
};

// One argument in a printf format, such as "08X" or "s".
bool append_formatted(std::u16string& text, std::u16string_view format, DWORD_PTR value) {
    if (format.empty() || format.find(u'*') != format.npos || format.find(u'%') != format.npos) return false;
    if (format.back() == u'n') return false;
    const std::u16string whole = u"%" + std::u16string(format);
    for (std::size_t capacity = 256;; capacity *= 4) {
        std::u16string out(capacity, u'\0');
        const int length = _snwprintf(out.data(), capacity, whole.c_str(), value);
        if (length >= 0 && static_cast<std::size_t>(length) < capacity) {
            text.append(out, 0, static_cast<std::size_t>(length));
            return true;
        }
        if (capacity > kLongestInsert) return false;
    }
}

// The number after '%' and its format; moves past both. False when it is malformed.
bool append_insert(std::u16string& text, std::u16string_view& rest, Arguments& arguments) {
    std::size_t number = static_cast<std::size_t>(rest[0] - u'0');
    rest.remove_prefix(1);
    if (!rest.empty() && rest[0] >= u'0' && rest[0] <= u'9') {
        number = number * 10 + static_cast<std::size_t>(rest[0] - u'0');
        rest.remove_prefix(1);
    }
    std::u16string_view format = u"s";
    if (rest.starts_with(u'!')) {
        const std::size_t end = rest.find(u'!', 1);
        if (end == rest.npos) return false;
        format = rest.substr(1, end - 1);
        rest.remove_prefix(end + 1);
    }
    if (!arguments.present()) return false;
    const DWORD_PTR value = arguments.at(number - 1);
    if (format != u"s") return append_formatted(text, format, value);
    const auto* insert = reinterpret_cast<const WCHAR*>(value);
    text += insert ? insert : u"(null)";
    return true;
}

std::optional<std::u16string> with_inserts(std::u16string_view rest, Arguments& arguments) {
    std::u16string text;
    while (!rest.empty()) {
        const std::size_t percent = std::min(rest.find(u'%'), rest.size());
        text += rest.substr(0, percent);
        rest.remove_prefix(percent);
        if (rest.size() < 2) return text + std::u16string(rest);
        rest.remove_prefix(1);
        if (rest[0] == u'0') return text;
        if (rest[0] >= u'1' && rest[0] <= u'9') {
            if (!append_insert(text, rest, arguments)) return std::nullopt;
            continue;
        }
        text += rest[0] == u'n' ? std::u16string(u"\r\n") : std::u16string(1, rest[0]);
        rest.remove_prefix(1);
    }
    return text;
}

// The host's description of the error that the code stands for; empty when there is none.
std::u16string system_text(DWORD code) {
    constexpr DWORD kFacilityMask = 0xFFFF0000;
    if ((code & kFacilityMask) == static_cast<DWORD>(HRESULT_FROM_WIN32(1) & kFacilityMask)) code &= 0xFFFF;
    const char* text = code == ERROR_SUCCESS ? strerrordesc_np(0) : nullptr;
    if (const int host_error = errno_for_error(code)) text = strerrordesc_np(host_error);
    return text ? host_to_wide(text) + u"\r\n" : std::u16string();
}

void drop_line_breaks(std::u16string& text) {
    std::u16string line;
    for (const WCHAR c : text) {
        if (c == u'\r') continue;
        line += c == u'\n' ? u' ' : c;
    }
    text = std::move(line);
}

DWORD hand_out(const std::u16string& text, DWORD flags, LPWSTR buffer, DWORD size) {
    const auto length = static_cast<DWORD>(text.size());
    WCHAR* out = buffer;
    if (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) {
        const SIZE_T units = std::max<SIZE_T>(size, SIZE_T{length} + 1);
        out = static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, units * sizeof(WCHAR)));
        if (!out) return fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
        *reinterpret_cast<LPWSTR*>(buffer) = out;
    } else if (size <= length) {
        return fail(ERROR_INSUFFICIENT_BUFFER, DWORD{0});
    }
    text.copy(out, length);
    out[length] = 0;
    return length;
}

DWORD format_message(DWORD flags, LPCVOID source, DWORD code, LPWSTR buffer, DWORD size, va_list* list) {
    std::u16string text;
    if (flags & FORMAT_MESSAGE_FROM_STRING) {
        if (!source || (flags & (FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_FROM_HMODULE)))
            return fail(ERROR_INVALID_PARAMETER, DWORD{0});
        text = static_cast<const WCHAR*>(source);
        if (!(flags & FORMAT_MESSAGE_IGNORE_INSERTS)) {
            Arguments arguments(flags, list);
            std::optional<std::u16string> filled = with_inserts(text, arguments);
            if (!filled) return fail(ERROR_INVALID_PARAMETER, DWORD{0});
            text = std::move(*filled);
        }
    } else if (flags & FORMAT_MESSAGE_FROM_SYSTEM) {
        text = system_text(code);
        if (text.empty()) return fail(ERROR_MR_MID_NOT_FOUND, DWORD{0});
    } else {
        // No module has a table of messages here.
        return fail(flags & FORMAT_MESSAGE_FROM_HMODULE ? ERROR_MR_MID_NOT_FOUND : ERROR_INVALID_PARAMETER, DWORD{0});
    }
    if ((flags & FORMAT_MESSAGE_MAX_WIDTH_MASK) == FORMAT_MESSAGE_MAX_WIDTH_MASK) drop_line_breaks(text);
    return hand_out(text, flags, buffer, size);
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

DWORD FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD, LPWSTR buffer, DWORD size,
                     va_list* arguments) {
    return enter(DWORD{0}, [&] {
        if (!buffer) return fail(ERROR_INVALID_PARAMETER, DWORD{0});
        if (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) *reinterpret_cast<LPWSTR*>(buffer) = nullptr;
        return format_message(flags, source, messageId, buffer, size, arguments);
    });
}
