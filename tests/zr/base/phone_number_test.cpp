#include "zr/base/phone_number.h"

#include <gtest/gtest.h>

#include <utility>

using zr::same_digits;
using zr::same_number;
using zr::significant_digits;
using zr::without_scheme;

TEST(PhoneNumber, HasSignificantDigits) {
    EXPECT_EQ(significant_digits("+49 (0)30 / 12-34"), "490301234");
    EXPECT_EQ(significant_digits("00 49 30"), "4930");
    EXPECT_EQ(significant_digits("0030"), "30");
    EXPECT_EQ(significant_digits("anonymous"), "");
    EXPECT_EQ(significant_digits(""), "");
}

TEST(PhoneNumber, LosesItsSchemeHoweverOftenThatStands) {
    EXPECT_EQ(without_scheme("tel:+49"), "+49");
    EXPECT_EQ(without_scheme("TEL:tel:+49"), "+49");
    EXPECT_EQ(without_scheme("tel"), "tel");
    EXPECT_EQ(without_scheme("+49tel:"), "+49tel:");
    EXPECT_EQ(without_scheme("tel:"), "");
    EXPECT_EQ(without_scheme(""), "");
}

TEST(PhoneNumber, IsTheSameByItsDigits) {
    constexpr std::pair<const char*, const char*> same[] = {
        {"+49 30 1234567", "030 1234567"},
        {"030/123 45 67", "(030) 1234567"},
        {"0049301234567", "+49301234567"},
        {"1234567", "+49 30 1234567"},
        {"110", "110"},
        {"*100#", "*100#"},
    };
    for (const auto& [a, b] : same) {
        EXPECT_TRUE(same_digits(a, b)) << a << " " << b;
        EXPECT_TRUE(same_digits(b, a)) << a << " " << b;
    }
    constexpr std::pair<const char*, const char*> others[] = {
        {"030 1234567", "040 1234567"},
        {"110", "+49 30 110"},
        {"*100#", "100"},
        {"", ""},
        {"", "1234567"},
        {"anonymous", "x"},
        {"0", "00"},
    };
    for (const auto& [a, b] : others) {
        EXPECT_FALSE(same_digits(a, b)) << a << " " << b;
        EXPECT_FALSE(same_digits(b, a)) << a << " " << b;
    }
}

TEST(PhoneNumber, IsTheSameHoweverItIsWritten) {
    EXPECT_TRUE(same_number("+49 30 1234567", "030 1234567"));
    EXPECT_TRUE(same_number("030 1234567", "+49301234567"));
    EXPECT_TRUE(same_number("+1 (650) 253-0000", "650 253 0000"));
    EXPECT_TRUE(same_number("*100#", "*100#"));
    EXPECT_FALSE(same_number("+49 30 1234567", "+1 30 1234567"));
    EXPECT_FALSE(same_number("030 1234567", "030 1234568"));
    EXPECT_FALSE(same_number("", ""));
}

TEST(PhoneNumber, IsComparedByTheLibraryThatKnowsCountries) {
    const zr::CompareNumbers compare = zr::number_library();
    if (compare == nullptr) GTEST_SKIP() << "there is no libphonenumber";
    // A prefix of the country's that is no zero: by the digits alone they differ.
    EXPECT_EQ(compare("8 495 1234567", "+7 495 1234567"), 1);
    EXPECT_FALSE(same_digits("8 495 1234567", "+7 495 1234567"));
    EXPECT_TRUE(same_number("8 495 1234567", "+7 495 1234567"));
    EXPECT_EQ(compare("+49 30 1234567", "+49 30 1234568"), 0);
    EXPECT_EQ(compare("*100#", "*100#"), -1);
    EXPECT_EQ(compare("", "\xFF"), -1);
}
