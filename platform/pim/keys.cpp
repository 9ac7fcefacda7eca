#include "keys.h"

#include "fields.h"
#include "platform/base.h"

namespace zr::platform::pim {

std::u16string text_key(std::u16string_view text) {
    std::u16string key(text.substr(0, text.find(u'\0')));
    CharLowerBuffW(key.data(), static_cast<DWORD>(key.size()));
    return key;
}

std::u16string number_key(LONGLONG number) {
    const ULONGLONG even = static_cast<ULONGLONG>(number) ^ 1ull << 63;  // negative ones first
    std::u16string key(4, u'\0');
    for (unsigned i = 0; i < 4; ++i) {
        key[i] = static_cast<WCHAR>(even >> (48 - 16 * i) & 0xFFFF);
    }
    return key;
}

std::u16string date_key(Moment moment) {
    return number_key(seconds_between({0, 0}, moment));
}

std::u16string key_of(CEPROPID field, const Value* value) {
    switch (type_of(field)) {
        case CEVT_LPWSTR: {
            const auto* text = value != nullptr ? std::get_if<std::u16string>(value) : nullptr;
            return text != nullptr ? text_key(*text) : std::u16string();
        }
        case CEVT_R8: {
            const auto* date = value != nullptr ? std::get_if<double>(value) : nullptr;
            return date != nullptr ? date_key(moment_of(*date)) : std::u16string();
        }
        default: {
            const auto* number = value != nullptr ? std::get_if<LONGLONG>(value) : nullptr;
            return number_key(number != nullptr ? *number : 0);
        }
    }
}

}  // namespace zr::platform::pim
