// The tokenizer over any text. The first byte says how many characters of the rest are delimiters, and whether they are
// one string.

#include <algorithm>

#include "ZrUtility/Helpers/StringTokenizer.h"
#include "support/input.h"

namespace {

using namespace zr::fuzz;

// What lies between two tokens is made of delimiters and nothing else.
bool isGap(std::u16string_view gap, std::u16string_view delimiters, bool isString) {
    if (!isString) return gap.find_first_not_of(delimiters) == std::u16string_view::npos;
    for (; gap.starts_with(delimiters); gap.remove_prefix(delimiters.size())) {
    }
    return gap.empty();
}

bool isUncut(std::u16string_view token, std::u16string_view delimiters, bool isString) {
    const std::size_t found = isString ? token.find(delimiters) : token.find_first_of(delimiters);
    return found == std::u16string_view::npos;
}

// Returns how many tokens there are.
int walk(StringTokenizer& tokenizer, std::u16string_view text, std::u16string_view delimiters, bool isString) {
    std::size_t end = 0;
    int count = 0;
    int offset = -1;
    while (const WCHAR* token = tokenizer.NextToken(&offset)) {
        const std::u16string_view piece = token;
        const auto start = static_cast<std::size_t>(offset);
        require(start >= end && start < text.size() && !piece.empty());
        require(text.substr(start, piece.size()) == piece && isUncut(piece, delimiters, isString));
        require(isGap(text.substr(end, start - end), delimiters, isString));
        end = start + piece.size();
        ++count;
    }
    require(isGap(text.substr(end), delimiters, isString));
    require(tokenizer.NextToken(nullptr) == nullptr);
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const bool isString = (data[0] & 0x80) != 0;
    const std::size_t cut = std::min<std::size_t>(1 + data[0] % 20, size - 1);
    const std::u16string delimiters = text(data + 1, cut);
    const std::u16string whole = text(data + 1 + cut, size - 1 - cut);
    StringTokenizer tokenizer(copy(whole).get(), copy(delimiters).get(), isString ? 1 : 0);
    const int count = walk(tokenizer, whole, delimiters, isString);
    tokenizer.Reset();
    require(walk(tokenizer, whole, delimiters, isString) == count);
    return 0;
}
