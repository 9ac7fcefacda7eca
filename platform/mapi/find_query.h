#pragma once

#include <string>
#include <string_view>

namespace zr::platform::mapi {

// What somebody typed as a query of the full-text index, in which no character of it means anything: every word, and
// every text in double quotes, is a phrase; a * behind one makes it a beginning. Empty when there is no word.
std::string find_query(std::u16string_view words);

}  // namespace zr::platform::mapi
