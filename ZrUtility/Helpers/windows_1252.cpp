#include "ZrUtility/Helpers/windows_1252.h"

#include <array>
#include <cstdint>
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

// Blocks whose characters all keep their value only change width, at once; they are most of any mail.
constexpr std::size_t kBlock = 16;
using Bytes = std::uint8_t __attribute__((vector_size(kBlock)));
using Characters = std::uint16_t __attribute__((vector_size(kBlock * sizeof(WCHAR))));

// Whether a bit of `bits`, which is repeated over all of a block, is set in it.
template <class Block>
bool hasAny(const Block& block, std::uint64_t bits) {
    std::uint64_t words[sizeof block / sizeof(std::uint64_t)];
    std::memcpy(words, &block, sizeof block);
    std::uint64_t all = 0;
    for (const std::uint64_t word : words) {
        all |= word;
    }
    return (all & bits) != 0;
}

void encodeBlock(unsigned char* to, const WCHAR* from) {
    Characters in;
    std::memcpy(&in, from, sizeof in);
    if (!hasAny(in, 0xFF00FF00FF00FF00)) {
        const Bytes out = __builtin_convertvector(in, Bytes);
        std::memcpy(to, &out, sizeof out);
        return;
    }
    unsigned char out[kBlock];
    for (std::size_t i = 0; i < kBlock; ++i) {
        out[i] = kEncode[from[i]];
    }
    std::memcpy(to, out, sizeof out);
}

void decodeBlock(WCHAR* to, const unsigned char* from) {
    Bytes in;
    std::memcpy(&in, from, sizeof in);
    if (!hasAny((in & 0xE0) == kFirstSpecial, ~std::uint64_t{0})) {
        const Characters out = __builtin_convertvector(in, Characters);
        std::memcpy(to, &out, sizeof out);
        return;
    }
    for (std::size_t i = 0; i < kBlock; ++i) {
        to[i] = kDecode[from[i]];
    }
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
