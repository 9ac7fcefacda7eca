#include "ZrUtility/Helpers/StringTokenizer.h"

#include "ZrUtility/Helpers/StringUtilities.h"
#include "platform/base.h"

StringTokenizer::StringTokenizer(WCHAR* text, WCHAR* delimiters, int delimiterIsString)
    : m_pwzBuffer(StringUtilities::NewAndCopyString(text)),
      m_pwzSource(StringUtilities::NewAndCopyString(text)),
      m_pwzDelimiters(StringUtilities::NewAndCopyString(delimiters)),
      m_pwzPosition(nullptr),
      m_nDelimiterIsString(delimiterIsString) {}

StringTokenizer::~StringTokenizer() {
    StringUtilities::DeleteString(m_pwzBuffer);
    StringUtilities::DeleteString(m_pwzSource);
    StringUtilities::DeleteString(m_pwzDelimiters);
}

WCHAR* StringTokenizer::NextToken(int* offset) {
    if (m_pwzBuffer == nullptr || m_pwzSource == nullptr || m_pwzDelimiters == nullptr) return nullptr;
    if (m_pwzPosition == nullptr) m_pwzPosition = m_pwzSource;
    while (*m_pwzPosition != 0) {
        const std::size_t start = m_pwzPosition - m_pwzSource;
        const std::size_t length = cutToken();
        if (offset != nullptr) *offset = static_cast<int>(start);
        m_pwzBuffer[start + length] = 0;
        if (length != 0) return m_pwzBuffer + start;
    }
    return nullptr;
}

// The length of the token at the position, which moves behind it and its delimiter, though never past the text's end.
std::size_t StringTokenizer::cutToken() {
    WCHAR* const token = m_pwzPosition;
    if (m_nDelimiterIsString == 0) {
        const std::size_t length = wcscspn(token, m_pwzDelimiters);
        m_pwzPosition += token[length] != 0 ? length + 1 : length;
        return length;
    }
    // An empty delimiter would be found at once, over and over.
    WCHAR* const found = *m_pwzDelimiters != 0 ? wcsstr(token, m_pwzDelimiters) : nullptr;
    const std::size_t length = found != nullptr ? found - token : wcslen(token);
    m_pwzPosition += length + (found != nullptr ? wcslen(m_pwzDelimiters) : 0);
    return length;
}

void StringTokenizer::Reset() {
    m_pwzPosition = nullptr;
    if (m_pwzBuffer != nullptr && m_pwzSource != nullptr) wcscpy(m_pwzBuffer, m_pwzSource);
}
