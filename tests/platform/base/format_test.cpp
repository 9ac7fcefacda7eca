#include <gtest/gtest.h>

#include <cctype>
#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>

#include "guard_page.h"
#include "platform/base.h"
#include "support/text.h"

namespace {

template <class... Arguments>
std::u16string format(const WCHAR* text, Arguments... arguments) {
    WCHAR buffer[4096];
    const int length = _snwprintf(buffer, std::size(buffer), text, arguments...);
    if (length < 0) return u"<did not fit>";
    EXPECT_EQ(wcslen(buffer), static_cast<std::size_t>(length));
    return {buffer, static_cast<std::size_t>(length)};
}

using zr::test::widen;

std::string narrow(const std::u16string& text) {
    return {text.begin(), text.end()};
}

template <class... Arguments>
std::u16string reference(const std::string& text, Arguments... arguments) {
    char buffer[4096];
    std::snprintf(buffer, sizeof buffer, text.c_str(), arguments...);
    return widen(buffer);
}

TEST(Format, TextAndPercent) {
    EXPECT_EQ(format(u""), u"");
    EXPECT_EQ(format(u"plain \x416"), u"plain \x416");
    EXPECT_EQ(format(u"100%%"), u"100%");
}

TEST(Format, Integers) {
    EXPECT_EQ(format(u"%d %i", -5, 7), u"-5 7");
    EXPECT_EQ(format(u"%u", -1), u"4294967295");
    EXPECT_EQ(format(u"%x %X %#x %#X", 0xBEEF, 0xBEEF, 0xBEEF, 0xBEEF), u"beef BEEF 0xbeef 0XBEEF");
    EXPECT_EQ(format(u"%o %#o %#o", 8, 8, 0), u"10 010 0");
    EXPECT_EQ(format(u"%#x", 0), u"0");
    EXPECT_EQ(format(u"%d", std::numeric_limits<int>::min()), u"-2147483648");
}

TEST(Format, IntegerSizes) {
    EXPECT_EQ(format(u"%I64d", std::numeric_limits<LONGLONG>::min()), u"-9223372036854775808");
    EXPECT_EQ(format(u"%I64u", std::numeric_limits<ULONGLONG>::max()), u"18446744073709551615");
    EXPECT_EQ(format(u"%I64x", 0x123456789ABCDEFULL), u"123456789abcdef");
    EXPECT_EQ(format(u"%lld", 1LL << 40), u"1099511627776");
    EXPECT_EQ(format(u"%I32d %I32u", -1, -1), u"-1 4294967295");
    EXPECT_EQ(format(u"%ld|%lu|%lx", LONG{-2}, ULONG{4000000000u}, ULONG{0xFFFFFFFF}), u"-2|4000000000|ffffffff");
    EXPECT_EQ(format(u"%hd %hu %hx", 65537, 65535, 0x12345), u"1 65535 2345");
    EXPECT_EQ(format(u"%hhd %hhu", 257, 511), u"1 255");
    EXPECT_EQ(format(u"%Id", INT_PTR{-3}), u"-3");
    // What follows a 32-bit long is read from its own place.
    EXPECT_EQ(format(u"%ld %d %ld %s", LONG{1}, 2, LONG{3}, u"x"), u"1 2 3 x");
}

TEST(Format, FlagsWidthPrecision) {
    EXPECT_EQ(format(u"[%5d] [%-5d] [%05d] [%+d] [% d]", 42, 42, 42, 42, 42), u"[   42] [42   ] [00042] [+42] [ 42]");
    EXPECT_EQ(format(u"[%.3d] [%8.3d] [%-8.3d] [%08.3d]", 7, 7, 7, 7), u"[007] [     007] [007     ] [     007]");
    EXPECT_EQ(format(u"[%.0d] [%5.0d]", 0, 0), u"[] [     ]");
    EXPECT_EQ(format(u"[%*d] [%-*d] [%*d]", 4, 1, 4, 1, -4, 1), u"[   1] [1   ] [1   ]");
    EXPECT_EQ(format(u"[%.*d] [%.*d]", 3, 1, -3, 1), u"[001] [1]");
    EXPECT_EQ(format(u"[%-05d]", 3), u"[3    ]");
    EXPECT_EQ(format(u"[%#06x]", 0xA), u"[0x000a]");
}

TEST(Format, Strings) {
    EXPECT_EQ(format(u"%s", u"wide \x4E2D"), u"wide \x4E2D");
    EXPECT_EQ(format(u"%S %hs %hS", "n1", "n2", "n3"), u"n1 n2 n3");
    EXPECT_EQ(format(u"%ls %ws %lS %wS", u"a", u"b", u"c", u"d"), u"a b c d");
    EXPECT_EQ(format(u"%hs", "\x80\xE9\x81"), u"\x20AC\xE9\x81") << "narrow text is Windows-1252";
    EXPECT_EQ(format(u"[%6s] [%-6s] [%.2s] [%6.2s]", u"abc", u"abc", u"abc", u"abc"),
              u"[   abc] [abc   ] [ab] [    ab]");
    EXPECT_EQ(format(u"[%6S] [%-6S] [%.2S] [%.*S]", "abc", "abc", "abc", 1, "abc"), u"[   abc] [abc   ] [ab] [a]");
    EXPECT_EQ(format(u"[%.0s]", u"abc"), u"[]");
    EXPECT_EQ(format(u"[%06s]", u"abc"), u"[000abc]");
}

TEST(Format, NullStrings) {
    const WCHAR* const wide = nullptr;
    const char* const narrow_text = nullptr;
    EXPECT_EQ(format(u"%s|%S|%hs", wide, narrow_text, narrow_text), u"(null)|(null)|(null)");
    EXPECT_EQ(format(u"[%.3s] [%8s] [%.3S]", wide, wide, narrow_text), u"[(nu] [  (null)] [(nu]");
}

TEST(Format, AStringIsNotReadBeyondItsPrecision) {
    const zr::test::GuardedText wide(u"abcd");
    EXPECT_EQ(format(u"%.4s", wide.wide()), u"abcd");
    EXPECT_EQ(format(u"%.*s", 3, wide.wide()), u"abc");
    const zr::test::GuardedText bytes("wxyz");
    EXPECT_EQ(format(u"%.4S", bytes.narrow()), u"wxyz");
    const zr::test::GuardedText empty(u"");
    EXPECT_EQ(format(u"%.0s", empty.wide()), u"");
}

TEST(Format, Characters) {
    EXPECT_EQ(format(u"%c%c", u'\x416', u'b'),
              u"\x416"
              u"b");
    EXPECT_EQ(format(u"%C%hc", '\x80', 'x'), u"\x20ACx");
    EXPECT_EQ(format(u"%lc%wc%lC", u'\x4E2D', u'y', u'\x4E2D'), u"\x4E2Dy\x4E2D");
    EXPECT_EQ(format(u"[%3c] [%-3c]", u'a', u'b'), u"[  a] [b  ]");
    WCHAR buffer[4] = {9, 9, 9, 9};
    EXPECT_EQ(_snwprintf(buffer, 4, u"a%cb", 0), 3);
    EXPECT_EQ(std::u16string(buffer, 4), std::u16string(u"a\0b\0", 4));
}

TEST(Format, Floats) {
    EXPECT_EQ(format(u"%f %.2f %.0f %#.0f", 1.5, 2.675, 2.5, 3.0), u"1.500000 2.67 3 3.");
    EXPECT_EQ(format(u"%.0f %.0f %.0f %.2f %.1f", 0.5, 1.5, -2.5, 0.125, 0.25), u"1 2 -3 0.13 0.3");
    EXPECT_EQ(format(u"%.0f %.0f %.1f %.2f", 9.5, 99.5, 9.95, 999.125), u"10 100 9.9 999.13");
    EXPECT_EQ(format(u"%.0e %.0e %.1e %.0e", 2.5, 9.5, 1.25, 25e300), u"3e+000 1e+001 1.3e+000 3e+301");
    EXPECT_EQ(format(u"%.1g %.2g %.1g %.3g %g", 0.5, 0.125, 9.5, 1234.5, 1234565.0),
              u"0.5 0.13 1e+001 1.23e+003 1.23457e+006");
    EXPECT_EQ(format(u"%.0f %.0f", 2251799813685248.5, 2251799813685249.5), u"2251799813685249 2251799813685250");
    EXPECT_EQ(format(u"%e %E %.0e", 12345.678, 0.00012, 5.0), u"1.234568e+004 1.200000E-004 5e+000");
    EXPECT_EQ(format(u"%e %e", 1e100, 1e-300), u"1.000000e+100 1.000000e-300");
    EXPECT_EQ(format(u"%g %g %g %G", 100000.0, 1000000.0, 0.0001, 0.00001), u"100000 1e+006 0.0001 1E-005");
    EXPECT_EQ(format(u"%#g %.3g %.0g", 1.0, 1234.0, 7.7), u"1.00000 1.23e+003 8");
    EXPECT_EQ(format(u"[%8.2f] [%-8.2f] [%08.2f] [%+.1f] [% .1f]", -1.5, -1.5, -1.5, 1.5, 1.5),
              u"[   -1.50] [-1.50   ] [-0001.50] [+1.5] [ 1.5]");
    EXPECT_EQ(format(u"%f %g %d", -0.0, 0.0, 1), u"-0.000000 0 1");
    EXPECT_EQ(format(u"%Lf %d", static_cast<long double>(2.25), 1), u"2.250000 1");
}

TEST(Format, InfinitiesAndNoNumbers) {
    const double infinity = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(format(u"%f %e %G", infinity, -infinity, nan), u"1.#INF00 -1.#INF00e+000 1.#QNAN");
    EXPECT_EQ(format(u"[%10f] [%-10f] [%+f]", infinity, infinity, infinity), u"[  1.#INF00] [1.#INF00  ] [+1.#INF00]");
    EXPECT_EQ(format(u"%g", std::copysign(nan, -1.0)), u"-1.#QNAN");
    EXPECT_EQ(format(u"%.0f %#.0f %.1f %.2f %.3f %.4f %.5f", infinity, infinity, infinity, infinity, infinity, infinity,
                     infinity),
              u"1 1. 1.$ 1.#J 1.#IO 1.#INF 1.#INF0");
    EXPECT_EQ(format(u"%.2e %.1g %.3g %g %.9g %.2f %f", infinity, infinity, infinity, infinity, infinity, nan, nan),
              u"1.#Je+000 1 1.#J 1.#INF 1.#INF 1.#R 1.#QNAN0");
}

TEST(Format, FloatsOfAnyPrecisionAreExact) {
    const double smallest = std::numeric_limits<double>::denorm_min();
    EXPECT_EQ(format(u"%.1074f", smallest), reference("%.1074f", smallest));
    EXPECT_EQ(format(u"%.3000f", smallest), reference("%.3000f", smallest));
    EXPECT_EQ(format(u"%f", std::numeric_limits<double>::max()), reference("%f", std::numeric_limits<double>::max()));
    EXPECT_EQ(format(u"%.1200f", std::numeric_limits<double>::max()),
              reference("%.1200f", std::numeric_limits<double>::max()));
    EXPECT_EQ(format(u"%.2000g", 0.1), reference("%.2000g", 0.1));
    EXPECT_EQ(format(u"%#.2000g", 0.1), reference("%#.2000g", 0.1));
}

TEST(Format, Pointers) {
    const std::u16string text = format(u"%p", reinterpret_cast<void*>(static_cast<ULONG_PTR>(0xBEEF)));
    EXPECT_EQ(text, std::u16string(sizeof(void*) * 2 - 4, u'0') + u"BEEF");
    EXPECT_EQ(format(u"%p", static_cast<void*>(nullptr)), std::u16string(sizeof(void*) * 2, u'0'));
}

TEST(Format, WritingThroughAnArgumentIsRefused) {
    int target = 77;
    EXPECT_EQ(format(u"ab%nc%d", &target, 5), u"abc5");
    EXPECT_EQ(target, 77);
}

TEST(Format, DamagedFormats) {
    EXPECT_EQ(format(u"a%"), u"a");
    EXPECT_EQ(format(u"a%-5"), u"a");
    EXPECT_EQ(format(u"a%.", 1), u"a");
    EXPECT_EQ(format(u"a%I6", 1), u"a6");
    EXPECT_EQ(format(u"a%l"), u"a");
    EXPECT_EQ(format(u"%y%5z %d", 3), u"yz 3") << "an unknown type takes no argument";
    EXPECT_EQ(format(u"%.-5d", 3), u"-5d");
    EXPECT_EQ(format(u"%5%"), u"%");
    EXPECT_EQ(format(u"%\x4E2D%d", 1),
              u"\x4E2D"
              u"1");
}

TEST(Format, GiantWidthsEndWithTheBuffer) {
    WCHAR buffer[8];
    EXPECT_EQ(_snwprintf(buffer, 8, u"%999999999999999999999d", 1), -1);
    EXPECT_EQ(std::u16string(buffer, 8), u"        ");
    EXPECT_EQ(_snwprintf(buffer, 8, u"%.*d", std::numeric_limits<int>::max(), 1), -1);
    EXPECT_EQ(std::u16string(buffer, 8), u"00000000");
    EXPECT_EQ(_snwprintf(buffer, 8, u"%*d", std::numeric_limits<int>::min(), 1), -1);
    EXPECT_EQ(std::u16string(buffer, 8), u"1       ");
    EXPECT_EQ(_snwprintf(buffer, 8, u"%.2147483647f", 1.0), -1);
    EXPECT_EQ(std::u16string(buffer, 8), u"1.000000");
}

TEST(Snwprintf, LengthAndTermination) {
    WCHAR buffer[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(_snwprintf(buffer, 5, u"%s", u"abc"), 3);
    EXPECT_EQ(std::u16string(buffer, 5), std::u16string(u"abc\0\t", 5));
    EXPECT_EQ(_snwprintf(buffer, 3, u"%s", u"xyz"), 3) << "fills the buffer: no terminator";
    EXPECT_EQ(std::u16string(buffer, 5), std::u16string(u"xyz\0\t", 5));
    buffer[3] = 9;
    EXPECT_EQ(_snwprintf(buffer, 3, u"%s", u"uvw1"), -1);
    EXPECT_EQ(std::u16string(buffer, 5), u"uvw\t\t");
    EXPECT_EQ(_snwprintf(nullptr, 0, u""), 0);
    EXPECT_EQ(_snwprintf(nullptr, 0, u"a"), -1);
    EXPECT_EQ(_snwprintf(nullptr, 3, u"a"), -1);
    EXPECT_EQ(_snwprintf(buffer, 3, nullptr), -1);
}

TEST(Swprintf, Formats) {
    WCHAR buffer[16];
    EXPECT_EQ(swprintf(buffer, u"%s=%d", u"n", 5), 3);
    EXPECT_EQ(std::u16string(buffer), u"n=5");
}

TEST(Wsprintf, StopsAt1023) {
    WCHAR buffer[1024];
    EXPECT_EQ(wsprintfW(buffer, u"%s-%d", u"ab", 5), 4);
    EXPECT_EQ(std::u16string(buffer), u"ab-5");
    EXPECT_EQ(wsprintfW(buffer, u"%2000d", 5), 1023);
    EXPECT_EQ(std::u16string(buffer), std::u16string(1023, u' '));
    EXPECT_EQ(wsprintfW(nullptr, u"a"), 0);
    EXPECT_EQ(wsprintfW(buffer, nullptr), 0);
    EXPECT_EQ(buffer[0], 0);
}

std::string random_flags(std::mt19937_64& random, const std::string& known) {
    std::string flags;
    for (const char flag : known) {
        if (random() % 4 == 0) flags.push_back(flag);
    }
    if (random() % 2 == 0) flags += std::to_string(1 + random() % 30);
    if (random() % 2 == 0) flags += "." + std::to_string(random() % 25);
    return flags;
}

TEST(Format, IntegersAgreeWithTheCLibrary) {
    std::mt19937_64 random(5);
    for (int i = 0; i < 50000; ++i) {
        const char type = "diuxXo"[random() % 6];
        const bool is_signed = type == 'd' || type == 'i';
        const std::string flags = random_flags(random, is_signed ? "-+ 0" : "-#0");
        const auto value = static_cast<LONGLONG>(random() >> (random() % 64));
        const std::string whole = "%" + flags;
        EXPECT_EQ(format(widen(whole + type).c_str(), static_cast<int>(value)),
                  reference(whole + type, static_cast<int>(value)))
            << whole << type << " " << value;
        EXPECT_EQ(format(widen(whole + "I64" + type).c_str(), value), reference(whole + "ll" + type, value))
            << whole << "I64" << type << " " << value;
    }
}

// The C library's text with the exponent made three digits wide.
std::u16string wide_exponent(std::u16string text) {
    const std::size_t at = text.find_first_of(u"eE");
    if (at != std::u16string::npos && text.size() - at == 4) text.insert(at + 2, 1, u'0');
    return text;
}

// Whether a value lies exactly between two texts of a conversion: all its digits are looked at.
bool is_half(const std::string& whole, double value) {
    const char type = static_cast<char>(std::tolower(whole.back()));
    const std::size_t dot = whole.find('.');
    std::size_t places = dot == whole.npos ? 6 : std::stoul(whole.substr(dot + 1));
    if (type == 'g') places = std::max<std::size_t>(places, 1) - 1;
    char digits[2000];
    snprintf(digits, sizeof digits, type == 'f' ? "%.1100f" : "%.1100e", std::fabs(value));
    const std::string_view text(digits);
    const std::string_view behind = text.substr(text.find('.') + 1 + places);
    return behind[0] == '5' && behind.substr(1, behind.find('e') - 1).find_first_not_of('0') == behind.npos;
}

// The C library's text, with such values rounded away from zero.
std::u16string reference_away(const std::string& whole, double value) {
    if (is_half(whole, value)) std::fesetround(value < 0 ? FE_DOWNWARD : FE_UPWARD);
    const std::u16string text = reference(whole, value);
    std::fesetround(FE_TONEAREST);
    return text;
}

// Few binary places, so that many are halves.
double random_half(std::mt19937_64& random) {
    const auto digits = static_cast<double>(random() >> (11 + random() % 50));
    return std::ldexp(random() % 2 == 0 ? digits : -digits, -static_cast<int>(random() % 30));
}

TEST(Format, FloatsInTheMiddleAreRoundedAwayFromZero) {
    std::mt19937_64 random(9);
    int halves = 0;
    for (int i = 0; i < 30000; ++i) {
        const double value = random_half(random);
        const std::string whole =
            "%" + std::string(random() % 4 == 0 ? "#" : "") + "." + std::to_string(random() % 12) + "feg"[random() % 3];
        halves += is_half(whole, value) ? 1 : 0;
        EXPECT_EQ(format(widen(whole).c_str(), value), wide_exponent(reference_away(whole, value))) << whole;
    }
    EXPECT_GT(halves, 500);
}

TEST(Format, FixedFloatsAgreeWithTheCLibrary) {
    std::mt19937_64 random(6);
    for (int i = 0; i < 30000; ++i) {
        const double value =
            std::ldexp(static_cast<double>(static_cast<LONGLONG>(random())), static_cast<int>(random() % 120) - 100);
        const std::string whole = "%" + random_flags(random, "-+ 0#") + "f";
        EXPECT_EQ(format(widen(whole).c_str(), value), reference_away(whole, value)) << whole;
    }
}

TEST(Format, FloatsWithExponentsAgreeWithTheCLibrary) {
    std::mt19937_64 random(7);
    for (int i = 0; i < 30000; ++i) {
        const double value =
            std::ldexp(static_cast<double>(static_cast<LONGLONG>(random())), static_cast<int>(random() % 2000) - 1060);
        std::string whole = "%";
        if (random() % 4 == 0) whole += "#";
        if (random() % 4 == 0) whole += "+";
        if (random() % 2 == 0) whole += "." + std::to_string(random() % 25);
        whole += "eEgG"[random() % 4];
        EXPECT_EQ(format(widen(whole).c_str(), value), wide_exponent(reference_away(whole, value))) << whole;
    }
}

TEST(Format, StringsAgreeWithTheCLibrary) {
    std::mt19937_64 random(8);
    for (int i = 0; i < 30000; ++i) {
        std::string text(static_cast<std::size_t>(random() % 40), 'a');
        for (char& character : text) {
            character = static_cast<char>(32 + random() % 95);
        }
        const std::string whole = "<%" + random_flags(random, "-");
        const std::u16string expected = reference(whole + "s>", text.c_str());
        EXPECT_EQ(format(widen(whole + "s>").c_str(), widen(text).c_str()), expected) << whole;
        EXPECT_EQ(format(widen(whole + "S>").c_str(), text.c_str()), expected) << whole;
    }
}

TEST(Format, ManyArgumentsOfEveryKindKeepTheirPlaces) {
    const std::u16string text =
        format(u"%d %f %s %I64d %c %f %S %ld %g %hd %u %f %f %f %f %f %f %f %d", 1, 2.0, u"three", 4LL, u'5', 6.0,
               "seven", LONG{8}, 9.5, 10, 11u, 12.0, 13.0, 14.0, 15.0, 16.0, 17.0, 18.0, 19);
    EXPECT_EQ(narrow(text),
              "1 2.000000 three 4 5 6.000000 seven 8 9.5 10 11 12.000000 13.000000 14.000000 15.000000 16.000000 "
              "17.000000 18.000000 19");
}

}  // namespace
