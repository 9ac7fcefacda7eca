// The string functions over any text. The first two bytes say how the rest is cut into arguments.

#include <algorithm>
#include <vector>

#include "ZrUtility/Helpers/StringUtilities.h"
#include "support/input.h"

namespace {

using namespace zr::fuzz;
using Utilities = StringUtilities;

std::u16string take(WCHAR* owned) {
    require(owned != nullptr);
    std::u16string text = owned;
    Utilities::DeleteString(owned);
    return text;
}

void tokenise(const std::u16string& text, const std::u16string& delimiters, int outSize) {
    const Block s = copy(text);
    const Block list = copy(delimiters);
    const Block out = block(outSize);
    WCHAR* const end = s.get() + text.size();
    WCHAR* cur = s.get();
    while (WCHAR* next = Utilities::NextToken(cur, end, out.get(), outSize, list.get())) {
        const std::u16string_view token = out.get();
        require(next >= cur && next <= end && token.size() < static_cast<std::size_t>(outSize));
        require(text.compare(cur - s.get(), token.size(), token) == 0);
        if (next == cur) return;  // no room for a single character
        cur = next;
    }
    require(cur == end && text == s.get());
}

void decode(const std::u16string& text) {
    const Block s = copy(text);
    WCHAR* address = nullptr;
    WCHAR* name = nullptr;
    Utilities::DecodeAddress(s.get(), &address, &name);
    require(address >= s.get() && address <= s.get() + text.size());
    require(name == nullptr || name == s.get());
    require(name == nullptr || std::u16string_view(name).find(u'"') == std::u16string::npos);

    const Block attachment = copy(text);
    WCHAR* out = nullptr;
    Utilities::BypassKelAttachmentPrefix(attachment.get(), &out);
    require(out >= attachment.get() && out <= attachment.get() + text.size());
    Utilities::DecodeInteger(attachment.get(), static_cast<int>(text.size()));
}

void trim(const std::u16string& text) {
    const Block s = copy(text);
    Utilities::TrimTrailingWhitespace(s.get());
    require(text.starts_with(s.get()));
    const WCHAR* p = s.get();
    Utilities::TrimLeadingWhitespace(&p);
    require(*p == 0 || !Utilities::IsWhitespace(*p));
    Utilities::SkipPreceedingSpaces(p);
}

void compare(const std::u16string& a, const std::u16string& b) {
    const Block left = copy(a);
    const Block right = copy(b);
    for (const auto mode : {Utilities::COMPARE_EXACT, Utilities::COMPARE_PREFIX, Utilities::COMPARE_WORD_PREFIX}) {
        const int matches = Utilities::CompareFunctionWithNulls(left.get(), right.get(), mode);
        require(matches == 0 || matches == 1);
        require(Utilities::CompareFunction(left.get(), left.get(), mode) == 1 || a.starts_with(u' '));
    }
    require(Utilities::StartsWithIgnoreCase(right.get(), left.get()) ==
            Utilities::CompareFunction(left.get(), right.get(), Utilities::COMPARE_PREFIX));
    Utilities::EndsWithIgnoreCase(right.get(), left.get());
    const int order = Utilities::CompareStringIgnoreCRAndLF(left.get(), right.get());
    require(a != b || order == 0);
}

void breakLines(const std::u16string& text) {
    const Block s = copy(text);
    const std::u16string fixed = take(Utilities::FixNewLine(s.get()));
    const Block again = copy(fixed);
    require(take(Utilities::FixNewLine(again.get())) == fixed);
    const Block returned = block(2 * text.size());
    require(Utilities::FixUnicodeReturnChar(s.get(), returned.get(), static_cast<int>(text.size())) == 1);
    require(Utilities::removeLFFromCRLF(again.get()) == 1);
    require(std::u16string_view(again.get()).find(u'\n') == std::u16string::npos);
}

void convert(const std::u16string& text) {
    const int count = static_cast<int>(text.size());
    const Block s = copy(text);
    std::vector<unsigned char> bytes(text.size() + 1);
    Utilities::ToASCII(bytes.data(), s.get(), count, 0);
    const Block back = block(text.size() + 1);
    Utilities::ToWCHAR(back.get(), bytes.data(), count, 0);
    for (int i = 0; i < count; ++i) {
        require(back[i] == s[i] || bytes[i] == 0x9D || (s[i] >= 0x80 && s[i] < 0xA0));
    }
    const Block hex = block(2 * text.size() + 1);
    Utilities::HexFromBin(bytes.data(), count, hex.get());
    require(std::u16string_view(hex.get()).size() == 2 * text.size());
}

void format(const std::u16string& text) {
    const Block s = copy(text);
    require(take(Utilities::SafeFormatString(u"%s%d", s.get(), 1)) == text + u"1");
    // As a format, without anything that would take an argument.
    std::u16string pattern = text;
    std::replace(pattern.begin(), pattern.end(), u'%', u'$');
    require(take(Utilities::SafeFormatString(pattern.c_str())) == pattern);
}

void searchBytes(const std::uint8_t* data, std::size_t size, std::size_t cut) {
    const std::vector<char> hay(data + cut, data + size);
    const std::string needle(data, data + cut);
    const auto count = static_cast<unsigned int>(hay.size());
    const char* found = Utilities::strnistr(hay.data(), count, needle.c_str());
    const std::size_t length = std::string_view(needle.c_str()).size();
    require(found == nullptr || (found >= hay.data() && found + length <= hay.data() + count));
    require(Utilities::strncspn(hay.data(), count, needle.c_str()) <= count);
    std::string digits(hay.begin(), hay.end());
    Utilities::StripNonDigitsFromString(digits.data());
    for (const char* at = digits.c_str(); *at != 0; ++at) {
        require(*at >= '0' && *at <= '9');
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const int room = 1 + data[0] % 32;
    const std::size_t cut = std::min<std::size_t>(data[1] % 16, size - 2);
    data += 2;
    size -= 2;
    const std::u16string first = zr::fuzz::text(data, cut);
    const std::u16string rest = zr::fuzz::text(data + cut, size - cut);
    tokenise(rest, first, room);
    decode(rest);
    trim(rest);
    compare(rest, first);
    compare(first, rest);
    breakLines(rest);
    convert(rest);
    format(rest);
    searchBytes(data, size, cut);
    return 0;
}
