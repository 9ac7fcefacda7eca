#include "ZrUtility/Helpers/ZrBasicStringFormatter.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "platform/base.h"

namespace {

constexpr WCHAR kPercent = u'%';
constexpr std::size_t kFieldLength = 2;
constexpr unsigned int kLargestSize = std::numeric_limits<unsigned int>::max();

// The first ten texts of a multi-string.
class Arguments {
public:
    explicit Arguments(const WCHAR* args) {
        if (args == nullptr) return;
        for (; *args != 0 && count_ < kMost; ++count_) {
            text_[count_] = args;
            length_[count_] = wcslen(args);
            args += length_[count_] + 1;
        }
    }

    // The number of the argument that the two characters at `at` ask for, or -1 when they are no field.
    int named(const WCHAR* at) const {
        if (at[0] != kPercent || at[1] < u'0' || at[1] > u'9') return -1;
        const int number = at[1] - u'0';
        return number < count_ ? number : -1;
    }
    const WCHAR* text(int number) const { return text_[number]; }
    std::size_t length(int number) const { return length_[number]; }

private:
    static constexpr int kMost = 10;

    const WCHAR* text_[kMost];
    std::size_t length_[kMost];
    int count_ = 0;
};

// Wider than any size there is in memory, as a long argument may be asked for many times.
ULONGLONG requiredSize(const WCHAR* format, const Arguments& arguments) {
    ULONGLONG size = wcslen(format) + 1;
    for (const WCHAR* at = format; *at != 0; ++at) {
        const int number = at == format || at[-1] != kPercent ? arguments.named(at) : -1;
        if (number >= 0) size = size + arguments.length(number) - kFieldLength;
    }
    return size;
}

// `out` has the required size.
void fill(const WCHAR* format, const Arguments& arguments, WCHAR* out) {
    const WCHAR* run = format;  // what is not written yet begins here
    for (const WCHAR* at = format; *at != 0; ++at) {
        if (*at != kPercent) continue;
        if (at != run && at[-1] == kPercent) {
            out = std::copy(run, at - 1, out);
            run = at;
        } else if (const int number = arguments.named(at); number >= 0) {
            out = std::copy(run, at, out);
            out = std::copy_n(arguments.text(number), arguments.length(number), out);
            ++at;
            run = at + 1;
        }
    }
    wcscpy(out, run);
}

int fail(DWORD error) {
    SetLastError(error);
    return 0;
}

}  // namespace

int ZrBasicStringFormatter::Format(const WCHAR* format, const WCHAR* args, WCHAR* out, unsigned int& size) {
    if (format == nullptr || args == nullptr) return fail(ERROR_INVALID_PARAMETER);
    const Arguments arguments(args);
    const ULONGLONG required = requiredSize(format, arguments);
    if (required > (out != nullptr ? size : kLargestSize)) return fail(ERROR_NOT_ENOUGH_MEMORY);
    if (out == nullptr) {
        size = static_cast<unsigned int>(required);
        return 1;
    }
    std::fill_n(out, size, u'\0');
    fill(format, arguments, out);
    return 1;
}

unsigned int ZrBasicStringFormatter::CalculateRequiredBufferSize(const WCHAR* format, const WCHAR* args) {
    if (format == nullptr) return 0;
    return static_cast<unsigned int>(std::min<ULONGLONG>(requiredSize(format, Arguments(args)), kLargestSize));
}
