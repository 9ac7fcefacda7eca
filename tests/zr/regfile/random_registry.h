#pragma once

#include <platform/registry.h>

#include <iterator>
#include <random>
#include <string>
#include <string_view>

#include "zr/regfile/path.h"
#include "zr/regfile/value.h"

namespace zr::test {

// Names and texts out of everything that is troublesome.
class RandomRegistry {
public:
    explicit RandomRegistry(unsigned seed) : random_(seed) {}

    std::size_t below(std::size_t limit) { return random_() % limit; }

    char16_t unit() {
        static constexpr std::u16string_view pieces =
            u"aZ09 \t\"\\;=@[]-,#\r\n\x01\x1A\x7F\x80\x85\xA0\xC3\xBC\xE9\u20AC\u0178\u2028\u5C71\uFEFF\uFFFE\uFFFF";
        static constexpr char16_t surrogates[] = {0xD800, 0xDBFF, 0xDC00, 0xDFFF};
        if (below(8) == 0) return surrogates[below(4)];
        return below(4) == 0 ? static_cast<char16_t>(1 + below(0xFFFF)) : pieces[below(pieces.size())];
    }

    std::u16string text(std::size_t longest, std::u16string_view without) {
        std::u16string text;
        for (std::size_t n = below(longest + 1); n > 0; --n) {
            const char16_t c = unit();
            if (without.find(c) == std::u16string_view::npos) text += c;
        }
        return text;
    }

    RegPath path() {
        RegPath path{kRegRoots[below(4)], u""};
        for (std::size_t n = below(4); n > 0; --n) {
            const std::u16string name = text(12, u"\\\r\n");
            if (!name.empty()) path = reg_child(path, name);
        }
        return path;
    }

    RegValue value() {
        static constexpr DWORD types[] = {0, 1, 1, 1, 2, 3, 4, 4, 5, 7, 7, 11, 21, 0xFFFFFFFF, 0x12345678};
        RegValue value{types[below(std::size(types))], {}};
        if (below(3) == 0) {
            for (std::size_t n = below(200); n > 0; --n) {
                value.data += static_cast<char>(below(256));
            }
        } else if (value.type == REG_DWORD) {
            value.data = std::string(4, static_cast<char>(below(256)));
        } else {
            std::u16string units = text(60, u"");
            if (below(8) > 0) units += u'\0';
            if (below(2) > 0 && value.type == REG_MULTI_SZ) units += u'\0';
            value.data = reg_bytes(units);
        }
        return value;
    }

private:
    std::mt19937 random_;
};

}  // namespace zr::test
