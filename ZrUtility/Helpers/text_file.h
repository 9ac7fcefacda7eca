#pragma once

// Text files, line by line.

#include <cstddef>

#include "platform/types.h"

// Reads UTF-8, or UTF-16 when the file begins with the byte-order mark of either order, in memory of one size whatever
// the file holds. Invalid UTF-8 and half a character at the end of UTF-16 become U+FFFD; a byte-order mark at the start
// is passed over.
class TextFile {
public:
    // isOpen() tells the result; the last error is CreateFileW's.
    explicit TextFile(const WCHAR* path);
    ~TextFile();
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    bool isOpen() const;
    // Fills `line` with zeros and then with the next line, its LF included, up to `size - 1` characters: what is longer
    // comes in pieces. A CR before an LF is left out. False at the end, and when reading failed.
    bool readLine(WCHAR* line, std::size_t size);
    // Whether reading failed; the last error is ReadFile's.
    bool failed() const { return m_bFailed; }

private:
    enum class Encoding { UNKNOWN, UTF8, UTF16_LITTLE, UTF16_BIG };

    static constexpr std::size_t CHUNK = 1024;

    bool next(WCHAR& character);
    bool hasText();
    bool readBytes();
    void detectEncoding();
    std::size_t completeBytes() const;
    void decode(std::size_t count);
    void dropBytes(std::size_t count);

    HANDLE m_hFile;
    Encoding m_encoding;
    bool m_bFailed;
    bool m_bEnd;           // no bytes come after those in m_bytes
    std::size_t m_nBytes;  // bytes that are not decoded yet
    std::size_t m_nText;   // characters in m_text ...
    std::size_t m_nTaken;  // ... of which so many are taken
    unsigned char m_bytes[CHUNK];
    WCHAR m_text[CHUNK];  // a byte gives one character at the most
};
