#pragma once

// Keys that compare, unit by unit, as the values behind them do.

#include <string>
#include <string_view>

#include "ole_date.h"
#include "values.h"

namespace zr::platform::pim {

// Compares as _wcsicmp compares the texts.
std::u16string text_key(std::u16string_view text);
std::u16string number_key(LONGLONG number);
std::u16string date_key(Moment moment);

// Of a field's value. A text or date that is not there has an empty key, a number that is not there is 0.
std::u16string key_of(CEPROPID field, const Value* value);

}  // namespace zr::platform::pim
