// Message texts.

#include <string.h>

#include <algorithm>
#include <optional>
#include <span>
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
constexpr std::size_t kLongestAllocated = 64 * 1024;  // with its NUL
constexpr std::size_t kMostStars = 2;                 // a width and a precision

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
    // What follows the widths from `index` on: of an array the next one, of a list what has not been read. The latter
    // has no number of its own.
    DWORD_PTR behind(std::size_t index, std::size_t widths) {
        return array_ || widths == 0 ? at(index + widths) : va_arg(list_, DWORD_PTR);
    }

private:
    const bool array_;
    bool present_ = false;
    const DWORD_PTR* values_ = nullptr;
    va_list list_;
    DWORD_PTR kept_[99 + kMostStars];
    std::size_t read_ = 0;
};

int print(std::u16string& out, const WCHAR* format, std::span<const int> widths, DWORD_PTR value) {
    switch (widths.size()) {
        case 0:
            return _snwprintf(out.data(), out.size(), format, value);
        case 1:
            return _snwprintf(out.data(), out.size(), format, widths[0], value);
        default:
            return _snwprintf(out.data(), out.size(), format, widths[0], widths[1], value);
    }
}

// One argument in a printf format, such as "08X" or "*.*s".
bool append_formatted(std::u16string& text, std::u16string_view format, std::size_t index, Arguments& arguments) {
    const auto stars = static_cast<std::size_t>(std::count(format.begin(), format.end(), u'*'));
    if (format.empty() || stars > kMostStars || format.find(u'%') != format.npos) return false;
    if (format.back() == u'n') return false;
    int widths[kMostStars] = {};
    for (std::size_t i = 0; i < stars; ++i)
        widths[i] = static_cast<int>(arguments.at(index + i));
    const DWORD_PTR value = arguments.behind(index, stars);
    const std::u16string whole = u"%" + std::u16string(format);
    for (std::size_t capacity = 256;; capacity *= 4) {
        std::u16string out(capacity, u'\0');
        const int length = print(out, whole.c_str(), {widths, stars}, value);
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
    if (format != u"s") return append_formatted(text, format, number - 1, arguments);
    const auto* insert = reinterpret_cast<const WCHAR*>(arguments.at(number - 1));
    text += insert ? insert : u"(null)";
    return true;
}

// Text as it stands in the definition: where the line's width is the caller's, its own breaks are only white space.
void append_plain(std::u16string& text, std::u16string_view part, bool breaks) {
    if (breaks) {
        text += part;
        return;
    }
    for (std::size_t i = 0; i < part.size(); ++i) {
        if (part[i] == u'\r' && i + 1 < part.size() && part[i + 1] == u'\n') continue;
        text += part[i] == u'\r' || part[i] == u'\n' ? u' ' : part[i];
    }
}

// The sequences that begin with a percent sign, but for inserts and the end. What is none stands for itself.
void append_escaped(std::u16string& text, WCHAR character) {
    switch (character) {
        case u'n':
            text += u"\r\n";
            break;
        case u'r':
            text += u'\r';
            break;
        case u't':
            text += u'\t';
            break;
        default:
            text += character;
    }
}

// Without arguments inserts are left as they are. Nothing for a definition that is malformed.
std::optional<std::u16string> expand(std::u16string_view rest, Arguments* arguments, bool breaks) {
    std::u16string text;
    while (!rest.empty()) {
        const std::size_t percent = std::min(rest.find(u'%'), rest.size());
        append_plain(text, rest.substr(0, percent), breaks);
        rest.remove_prefix(percent);
        if (rest.empty()) break;
        if (rest.size() == 1) return std::nullopt;
        rest.remove_prefix(1);
        if (rest[0] == u'0') break;
        const bool insert = rest[0] >= u'1' && rest[0] <= u'9';
        if (insert && arguments) {
            if (!append_insert(text, rest, *arguments)) return std::nullopt;
            continue;
        }
        if (insert) text += u'%';
        append_escaped(text, rest[0]);
        rest.remove_prefix(1);
    }
    return text;
}

bool is_break(WCHAR c) {
    return c == u'\r' || c == u'\n';
}

// Breaks lines before a word that would end behind the width, in place of the white space there. Words stay whole.
std::u16string wrap(std::u16string_view text, std::size_t width) {
    std::u16string wrapped;
    std::size_t column = 0;
    while (!text.empty()) {
        if (is_break(text[0])) {
            wrapped += text[0];
            column = 0;
            text.remove_prefix(1);
            continue;
        }
        const std::size_t space = std::min(text.find_first_not_of(u' '), text.size());
        const std::size_t end = std::min(text.find_first_of(u" \r\n", space), text.size());
        const bool fits = column + end <= width;
        const bool at_end = space == text.size() || is_break(text[space]);
        if (!fits && space > 0 && !at_end) {
            if (column > 0) wrapped += u"\r\n";
            wrapped += text.substr(space, end - space);
            column = end - space;
        } else if (fits || !at_end) {
            wrapped += text.substr(0, end);
            column += end;
        }
        text.remove_prefix(end);
    }
    return wrapped;
}

// The host's description of the error that the code stands for; empty when there is none.
std::u16string system_text(DWORD code) {
    constexpr DWORD kFacilityMask = 0xFFFF0000;
    if ((code & kFacilityMask) == static_cast<DWORD>(HRESULT_FROM_WIN32(1) & kFacilityMask)) code &= 0xFFFF;
    const char* text = code == ERROR_SUCCESS ? strerrordesc_np(0) : nullptr;
    if (const int host_error = errno_for_error(code)) text = strerrordesc_np(host_error);
    return text ? host_to_wide(text) + u"\r\n" : std::u16string();
}

DWORD hand_out(const std::u16string& text, DWORD flags, LPWSTR buffer, DWORD size) {
    const auto length = static_cast<DWORD>(text.size());
    WCHAR* out = buffer;
    if (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) {
        if (length == 0) return 0;  // the caller has nothing to free
        if (length >= kLongestAllocated) return fail(ERROR_MORE_DATA, DWORD{0});
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
    const DWORD width = flags & FORMAT_MESSAGE_MAX_WIDTH_MASK;
    std::u16string text;
    if (flags & FORMAT_MESSAGE_FROM_STRING) {
        if (!source || (flags & (FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_FROM_HMODULE)))
            return fail(ERROR_INVALID_PARAMETER, DWORD{0});
        const bool fill = !(flags & FORMAT_MESSAGE_IGNORE_INSERTS);
        Arguments arguments(flags, fill ? list : nullptr);
        std::optional<std::u16string> filled =
            expand(static_cast<const WCHAR*>(source), fill ? &arguments : nullptr, width == 0);
        if (!filled) return fail(ERROR_INVALID_PARAMETER, DWORD{0});
        text = std::move(*filled);
    } else if (flags & FORMAT_MESSAGE_FROM_SYSTEM) {
        append_plain(text, system_text(code), width == 0);
        if (text.empty()) return fail(ERROR_MR_MID_NOT_FOUND, DWORD{0});
    } else {
        // No module has a table of messages here.
        const bool module = (flags & FORMAT_MESSAGE_FROM_HMODULE) != 0;
        return fail(module ? ERROR_RESOURCE_TYPE_NOT_FOUND : ERROR_INVALID_PARAMETER, DWORD{0});
    }
    if (width != 0 && width != FORMAT_MESSAGE_MAX_WIDTH_MASK) text = wrap(text, width);
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
