#include "ZrUtility/Helpers/KeywordTable.h"

#include <gtest/gtest.h>

#include <iterator>
#include <limits>
#include <string>

namespace {

TEST(KeywordTable, EndsAt106) {
    EXPECT_STREQ(GetKeyword(106), "Out of Office");
    EXPECT_EQ(GetKeyword(107), nullptr);
    EXPECT_EQ(GetKeyword(108), nullptr);
    EXPECT_EQ(GetKeyword(0x80000000u), nullptr);
    EXPECT_EQ(GetKeyword(std::numeric_limits<unsigned int>::max()), nullptr);
}

TEST(KeywordTable, HasNoHoles) {
    for (unsigned int id = 0; id <= 106; ++id) {
        ASSERT_NE(GetKeyword(id), nullptr) << id;
        EXPECT_STRNE(GetKeyword(id), "") << id;
    }
}

TEST(KeywordTable, SomeIdentifiersShareAKeyword) {
    EXPECT_STREQ(GetKeyword(0), GetKeyword(3));
    EXPECT_STREQ(GetKeyword(48), GetKeyword(104));
    EXPECT_STREQ(GetKeyword(79), GetKeyword(91));
}

TEST(KeywordTable, VersionIsInTwoParts) {
    EXPECT_EQ(std::string(GetKeyword(55)) + GetKeyword(56), "HTTP/1.1");
}

TEST(KeywordTable, CalendarWordsStandAtTheirOffsets) {
    const char* const months[] = {"January", "February", "March",     "April",   "May",      "June",
                                  "July",    "August",   "September", "October", "November", "December"};
    const char* const days[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
    for (unsigned int month = 1; month <= std::size(months); ++month) {
        const std::string name = months[month - 1];
        EXPECT_EQ(GetKeyword(74 + month), name);
        EXPECT_EQ(GetKeyword(86 + month), name.substr(0, 3));
    }
    for (unsigned int day = 0; day < std::size(days); ++day) {
        const std::string name = days[day];
        EXPECT_EQ(GetKeyword(68 + day), name);
        EXPECT_EQ(GetKeyword(61 + day), name.substr(0, 2));
    }
}

// The first word of each group, and those that are easily written wrongly.
TEST(KeywordTable, GroupsStandAtTheirIdentifiers) {
    const struct {
        unsigned int id;
        const char* keyword;
    } expected[] = {{0, "NORMAL"},
                    {1, "HIGH"},
                    {2, "LOW"},
                    {4, "PERSONAL"},
                    {6, "CONFIDENTIAL"},
                    {7, "Recipient"},
                    {8, "To-List=Truncated"},
                    {9, "Cc-List=Truncated"},
                    {10, "True"},
                    {11, "False"},
                    {12, "Insecure"},
                    {14, "Read"},
                    {15, "multipart"},
                    {19, "octet-stream"},
                    {20, "postscript"},
                    {21, "X-keldevicecalendar"},
                    {23, "delivery-status"},
                    {24, "rfc822"},
                    {30, "mpeg"},
                    {31, "/"},
                    {32, "attachment"},
                    {36, "modification-date"},
                    {38, "size"},
                    {39, "; "},
                    {40, "="},
                    {41, " "},
                    {42, "<"},
                    {43, ">"},
                    {44, "Text"},
                    {45, "Attachments"},
                    {46, "Accepted"},
                    {47, "Declined"},
                    {49, "Updated"},
                    {50, "Canceled"},
                    {51, "GET"},
                    {53, "POST"},
                    {54, "\r\n"},
                    {57, "http://"},
                    {58, "https://"},
                    {59, "host"},
                    {60, "content-length"},
                    {99, "Daily"},
                    {102, "Yearly"},
                    {103, "Free"},
                    {104, "Tentative"},
                    {105, "Busy"}};
    for (const auto& [id, keyword] : expected) {
        EXPECT_STREQ(GetKeyword(id), keyword) << id;
    }
}

}  // namespace
