#include "ZrUtility/Helpers/StringTokenizer.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "ZrUtility/Helpers/StringUtilities.h"
#include "platform/base.h"

namespace {

constexpr std::size_t kMostCharacters = std::numeric_limits<int>::max();

// Which characters a token may end at, by their lowest bits.
using Flags = std::uint8_t[128];
constexpr std::uint8_t kItself = 1;  // the character of this value ends a token
constexpr std::uint8_t kBeyond = 2;  // one with these lowest bits and more does
constexpr std::size_t kFlagCharacters = sizeof(Flags) / sizeof(WCHAR);

std::size_t lowBits(WCHAR c) {
    return c % sizeof(Flags);
}

Flags& flagsBefore(WCHAR* delimiters) {
    return reinterpret_cast<Flags&>(*(delimiters - kFlagCharacters));
}

void setFlags(Flags& flags, const WCHAR* ends, std::size_t count) {
    std::fill_n(flags, sizeof flags, std::uint8_t{0});
    flags[0] = kItself;
    for (std::size_t i = 0; i < count; ++i) {
        flags[lowBits(ends[i])] |= ends[i] < sizeof flags ? kItself : kBeyond;
    }
}

// The first character that is one of the ends, or the terminator.
WCHAR* findAny(WCHAR* text, const Flags& flags, const WCHAR* ends) {
    for (;; ++text) {
        while (flags[lowBits(*text)] == 0) {
            ++text;
        }
        if (*text < sizeof flags ? (flags[*text] & kItself) != 0 : wcschr(ends, *text) != nullptr) return text;
    }
}

// The first place that holds the whole delimiter, which is not empty, or the terminator.
WCHAR* findString(WCHAR* text, const Flags& flags, const WCHAR* delimiter, std::size_t length) {
    for (;; ++text) {
        text = findAny(text, flags, delimiter);
        if (*text == 0 || wcsncmp(text, delimiter, length) == 0) return text;
    }
}

}  // namespace

StringTokenizer::StringTokenizer(WCHAR* text, WCHAR* delimiters, int delimiterIsString)
    : m_pwzBuffer(nullptr),
      m_pwzSource(nullptr),
      m_pwzDelimiters(nullptr),
      m_pwzPosition(nullptr),
      m_nDelimiterIsString(delimiterIsString) {
    if (text == nullptr || delimiters == nullptr) return;
    // The three copies stand in one block, which the first of them owns, with the flags before the delimiters.
    const std::size_t count = wcslen(text) + 1;
    const std::size_t delimiterCount = wcslen(delimiters) + 1;
    const std::size_t all = 2 * count + delimiterCount + kFlagCharacters;
    if (all <= kMostCharacters) m_pwzBuffer = StringUtilities::NewString(static_cast<int>(all));
    if (m_pwzBuffer == nullptr) return;
    m_pwzSource = std::copy_n(text, count, m_pwzBuffer);
    m_pwzDelimiters = std::copy_n(text, count, m_pwzSource) + kFlagCharacters;
    std::copy_n(delimiters, delimiterCount, m_pwzDelimiters);
    // A delimiter string is looked for by its first character.
    const std::size_t ends = std::min<std::size_t>(delimiterCount - 1, delimiterIsString ? 1 : kMostCharacters);
    setFlags(flagsBefore(m_pwzDelimiters), m_pwzDelimiters, ends);
}

StringTokenizer::~StringTokenizer() {
    StringUtilities::DeleteString(m_pwzBuffer);
}

// The end of the token at the position, which moves behind it and its delimiter, though never past the text's end.
inline WCHAR* StringTokenizer::passToken() {
    const Flags& flags = flagsBefore(m_pwzDelimiters);
    WCHAR* end = nullptr;
    std::size_t skip = 1;
    if (m_nDelimiterIsString == 0) {
        end = findAny(m_pwzPosition, flags, m_pwzDelimiters);
    } else {
        skip = wcslen(m_pwzDelimiters);
        end = findString(m_pwzPosition, flags, m_pwzDelimiters, skip);
    }
    m_pwzPosition = *end != 0 ? end + skip : end;
    return end;
}

WCHAR* StringTokenizer::NextToken(int* offset) {
    if (m_pwzBuffer == nullptr) return nullptr;
    if (m_pwzPosition == nullptr) m_pwzPosition = m_pwzSource;
    while (*m_pwzPosition != 0) {
        const std::size_t start = m_pwzPosition - m_pwzSource;
        const std::size_t end = passToken() - m_pwzSource;
        if (offset != nullptr) *offset = static_cast<int>(start);
        m_pwzBuffer[end] = 0;
        if (end != start) return m_pwzBuffer + start;
    }
    return nullptr;
}

void StringTokenizer::Reset() {
    m_pwzPosition = nullptr;
    if (m_pwzBuffer != nullptr) wcscpy(m_pwzBuffer, m_pwzSource);
}
