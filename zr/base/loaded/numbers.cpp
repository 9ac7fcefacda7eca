// What libphonenumber says of two numbers. A library of its own, so that zr starts without the large ones behind it.

#include <phonenumbers/logger.h>
#include <phonenumbers/phonenumberutil.h>

#include <algorithm>
#include <string>

namespace {

// A part of a number without its area is that number when it has as many digits as one.
constexpr std::size_t kWholeNumber = 7;

std::size_t count_digits(const std::string& text) {
    std::size_t count = 0;
    for (const char c : text) {
        count += c >= '0' && c <= '9' ? 1u : 0u;
    }
    return count;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int zr_compare_numbers(const char* a, const char* b) {
    using i18n::phonenumbers::PhoneNumberUtil;
    const std::string first = a;
    const std::string second = b;
    switch (PhoneNumberUtil::GetInstance()->IsNumberMatchWithTwoStrings(first, second)) {
        case PhoneNumberUtil::EXACT_MATCH:
        case PhoneNumberUtil::NSN_MATCH:
            return 1;
        case PhoneNumberUtil::SHORT_NSN_MATCH:
            return std::min(count_digits(first), count_digits(second)) >= kWholeNumber ? 1 : 0;
        case PhoneNumberUtil::NO_MATCH:
            return 0;
        default:
            return -1;
    }
}
