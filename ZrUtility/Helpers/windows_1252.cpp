#include "ZrUtility/Helpers/windows_1252.h"

#include <array>
#include <cstring>

namespace zr::windows1252 {
namespace {

// The characters of 0x80 to 0x9F; an undefined byte stands for the character of its value.
constexpr unsigned char kFirstSpecial = 0x80;
constexpr std::array<WCHAR, 32> kSpecial = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                            0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                            0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                            0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

constexpr std::array<WCHAR, 256> makeDecodeTable() {
    std::array<WCHAR, 256> table{};
    for (std::size_t byte = 0; byte < table.size(); ++byte) {
        table[byte] = static_cast<WCHAR>(byte);
    }
    for (std::size_t i = 0; i < kSpecial.size(); ++i) {
        table[kFirstSpecial + i] = kSpecial[i];
    }
    return table;
}

// Bytes by character, in pages of 256 characters: one for the characters below 256, one that all pages without a
// character of the code page share, and one each for the four that have some.
struct EncodeTable {
    std::array<unsigned char, 256> page{};
    std::array<std::array<unsigned char, 256>, 6> byte{};

    constexpr unsigned char operator[](WCHAR c) const { return byte[page[c >> 8]][c & 0xFF]; }
};

constexpr EncodeTable makeEncodeTable() {
    EncodeTable table;
    unsigned char pages = 2;
    for (auto& page : table.page) {
        page = 1;
    }
    table.page[0] = 0;
    for (auto& page : table.byte) {
        for (auto& byte : page) {
            byte = kUnrepresentable;
        }
    }
    for (std::size_t c = 0; c < 256; ++c) {
        table.byte[0][c] = static_cast<unsigned char>(c);
    }
    for (std::size_t i = 0; i < kSpecial.size(); ++i) {
        const WCHAR c = kSpecial[i];
        if (c < 256) continue;
        if (table.page[c >> 8] == 1) table.page[c >> 8] = pages++;
        table.byte[table.page[c >> 8]][c & 0xFF] = static_cast<unsigned char>(kFirstSpecial + i);
    }
    return table;
}

constexpr std::array<WCHAR, 256> kDecode = makeDecodeTable();
constexpr EncodeTable kEncode = makeEncodeTable();

// Blocks are read whole before they are written, through local arrays: that is what lets a compiler use wide registers.
constexpr std::size_t kBlock = 16;

void encodeBlock(unsigned char* to, const WCHAR* from) {
    WCHAR in[kBlock];
    unsigned char out[kBlock];
    std::memcpy(in, from, sizeof in);
    unsigned int all = 0;
    for (const WCHAR c : in) {
        all |= c;
    }
    if (all < 256) {
        for (std::size_t i = 0; i < kBlock; ++i) {
            out[i] = static_cast<unsigned char>(in[i]);
        }
    } else {
        for (std::size_t i = 0; i < kBlock; ++i) {
            out[i] = kEncode[in[i]];
        }
    }
    std::memcpy(to, out, sizeof out);
}

void decodeBlock(WCHAR* to, const unsigned char* from) {
    unsigned char in[kBlock];
    WCHAR out[kBlock];
    std::memcpy(in, from, sizeof in);
    unsigned char special = 0;
    for (const unsigned char byte : in) {
        special |= static_cast<unsigned char>((byte & 0xE0) == kFirstSpecial);
    }
    if (special == 0) {
        for (std::size_t i = 0; i < kBlock; ++i) {
            out[i] = in[i];
        }
    } else {
        for (std::size_t i = 0; i < kBlock; ++i) {
            out[i] = kDecode[in[i]];
        }
    }
    std::memcpy(to, out, sizeof out);
}

}  // namespace

void encode(unsigned char* to, const WCHAR* from, std::size_t count) noexcept {
    for (; count >= kBlock; count -= kBlock, to += kBlock, from += kBlock) {
        encodeBlock(to, from);
    }
    for (; count != 0; --count) {
        *to++ = kEncode[*from++];
    }
}

void decode(WCHAR* to, const unsigned char* from, std::size_t count) noexcept {
    for (; count >= kBlock; count -= kBlock, to += kBlock, from += kBlock) {
        decodeBlock(to, from);
    }
    for (; count != 0; --count) {
        *to++ = kDecode[*from++];
    }
}

}  // namespace zr::windows1252
