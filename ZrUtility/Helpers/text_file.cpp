#include "ZrUtility/Helpers/text_file.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "platform/base.h"
#include "platform/files.h"
#include "platform/kernel.h"

namespace {

constexpr WCHAR kCR = u'\r';
constexpr WCHAR kLF = u'\n';
constexpr WCHAR kReplacement = u'\xFFFD';
constexpr std::size_t kLongestMark = 3;

// How many bytes the UTF-8 sequence has that `lead` begins; what cannot begin one stands alone.
std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0xC0) return 1;
    if (lead < 0xE0) return 2;
    return lead < 0xF0 ? 3 : 4;
}

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

}  // namespace

TextFile::TextFile(const WCHAR* path)
    : m_hFile(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                          FILE_FLAG_SEQUENTIAL_SCAN, nullptr)),
      m_encoding(Encoding::UNKNOWN),
      m_bFailed(false),
      m_bEnd(false),
      m_nBytes(0),
      m_nText(0),
      m_nTaken(0) {}

TextFile::~TextFile() {
    if (isOpen()) CloseHandle(m_hFile);
}

bool TextFile::isOpen() const {
    return m_hFile != INVALID_HANDLE_VALUE;
}

bool TextFile::readLine(WCHAR* line, std::size_t size) {
    std::fill_n(line, size, u'\0');
    std::size_t count = 0;
    while (count + 1 < size && next(line[count])) {
        if (line[count++] == kLF) break;
    }
    return count != 0 && !m_bFailed;
}

bool TextFile::next(WCHAR& character) {
    if (!hasText()) return false;
    character = m_text[m_nTaken++];
    if (character == kCR && hasText() && m_text[m_nTaken] == kLF) character = m_text[m_nTaken++];
    return true;
}

// Decodes more of the file when all characters are taken.
bool TextFile::hasText() {
    while (m_nTaken == m_nText) {
        if (!readBytes()) return false;
        if (m_encoding == Encoding::UNKNOWN) {
            if (m_nBytes < kLongestMark && !m_bEnd) continue;
            detectEncoding();
        }
        decode(completeBytes());
        if (m_bEnd && m_nText == 0) return false;
    }
    return true;
}

bool TextFile::readBytes() {
    if (m_bEnd || m_bFailed) return m_nBytes != 0 && !m_bFailed;
    DWORD read = 0;
    m_bFailed = !ReadFile(m_hFile, m_bytes + m_nBytes, static_cast<DWORD>(CHUNK - m_nBytes), &read, nullptr);
    m_bEnd = read == 0;
    m_nBytes += read;
    return !m_bFailed;
}

void TextFile::detectEncoding() {
    const auto beginsWith = [this](std::initializer_list<unsigned char> mark) {
        return m_nBytes >= mark.size() && std::equal(mark.begin(), mark.end(), m_bytes);
    };
    m_encoding = Encoding::UTF8;
    if (beginsWith({0xFF, 0xFE})) {
        m_encoding = Encoding::UTF16_LITTLE;
        dropBytes(2);
    } else if (beginsWith({0xFE, 0xFF})) {
        m_encoding = Encoding::UTF16_BIG;
        dropBytes(2);
    } else if (beginsWith({0xEF, 0xBB, 0xBF})) {
        dropBytes(3);
    }
}

// The bytes without a sequence at their end that the next ones may complete.
std::size_t TextFile::completeBytes() const {
    if (m_bEnd) return m_nBytes;
    if (m_encoding != Encoding::UTF8) return m_nBytes - m_nBytes % sizeof(WCHAR);
    for (std::size_t back = 1; back <= std::min<std::size_t>(m_nBytes, 3); ++back) {
        const unsigned char byte = m_bytes[m_nBytes - back];
        if (!isContinuation(byte)) return sequenceLength(byte) > back ? m_nBytes - back : m_nBytes;
    }
    return m_nBytes;
}

void TextFile::decode(std::size_t count) {
    m_nTaken = 0;
    m_nText = 0;
    if (count == 0) return;
    if (m_encoding == Encoding::UTF8) {
        m_nText = MultiByteToWideChar(CP_UTF8, 0, reinterpret_cast<const char*>(m_bytes), static_cast<int>(count),
                                      m_text, static_cast<int>(CHUNK));
    } else {
        const std::size_t low = m_encoding == Encoding::UTF16_BIG ? 1 : 0;
        for (std::size_t at = 0; at + 1 < count; at += sizeof(WCHAR)) {
            m_text[m_nText++] = static_cast<WCHAR>(m_bytes[at + low] | m_bytes[at + 1 - low] << 8);
        }
        if (count % sizeof(WCHAR) != 0) m_text[m_nText++] = kReplacement;
    }
    dropBytes(count);
}

void TextFile::dropBytes(std::size_t count) {
    m_nBytes -= count;
    std::memmove(m_bytes, m_bytes + count, m_nBytes);
}
