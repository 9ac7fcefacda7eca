#include "zr/vcard/attributes.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "support/instrumented.h"
#include "zr/vcard/cards.h"
#include "zr/vcard/reader.h"

namespace {

// A card is read the same, and the same is wrong with it, with the short way for plain lines and without.
void expect_both_ways_agree(const std::string& text) {
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CardSplitter splitter(lines);
    zr::RawCard raw;
    while (splitter.next(raw)) {
        if (!raw.damage.empty()) continue;
        zr::Card card[2];
        std::vector<zr::Problem> problems[2];
        const bool read = zr::parse_card(raw, card[0], problems[0], false);
        ASSERT_EQ(zr::parse_card(raw, card[1], problems[1], true), read) << text;
        ASSERT_EQ(problems[0].size(), problems[1].size()) << text;
        if (!read) continue;
        for (std::size_t i = 0; i < card[0].text.size(); ++i) {
            ASSERT_EQ(card[0].text[i], card[1].text[i]) << zr::field_key(static_cast<zr::Field>(i)) << "\n" << text;
        }
        ASSERT_EQ(card[0].extras, card[1].extras) << text;
        ASSERT_EQ(card[0], card[1]) << text;
    }
}

TEST(CardAttributes, SplitsPlainLinesAsEVCardDoes) {
    for (const char* body : {
             "NOTE:a\\nb\\, c\\; d\\\\ne\\\r\nTITLE:\\Nx\\:y\r\nN:a\\;b;c\\\\;d\\,;\\n\r\n",
             "N:Doe;Jo;Ann;Dr.;Jr.\r\nORG:a;;b;\r\nADR;TYPE=home:;;1 High St;Town;;12;\r\n",
             "item1.TEL;TYPE=a;TYPE=b,c;X-Y=z;type=d:1;2\r\nTEL;PREF=2:3\r\nTEL;PREF=1;TYPE=work:4\r\n",
             "item1.TITLE:a\r\nTITLE:b, c\r\nx.y.TITLE:d\r\nTITLE:  e \r\nTITLE:\r\nTITLE:;\r\nTITLE:f \r\n",
             "NOTE:a=b:c\"d\te'f\r\nNOTE:\xC3\xA9\xF0\x9F\x98\x80\r\nNOTE:^n\r\nURL:a:b\r\n",
             "EMAIL;TYPE=:a@x.y\r\nEMAIL;HOME:b@x.y\r\nEMAIL;TYPE=\"a,b\":c@x.y\r\nEMAIL;=:d@x.y\r\nEMAIL;:e@x.y\r\n",
             "BDAY;VALUE=date:19900131\r\nBDAY:1990-01-31\r\nANNIVERSARY:2000-01-01T00:00:00Z\r\nCATEGORIES:a,b;c\r\n",
         }) {
        expect_both_ways_agree(zr::test::card_text(body));
    }
}

TEST(CardAttributes, AgreeOnRandomLines) {
    static const std::vector<std::string> names = {"N",    "FN",   "ORG",   "TEL",        "EMAIL", "ADR",
                                                   "NOTE", "BDAY", "TITLE", "CATEGORIES", "URL",   "X-SPOUSE"};
    static const std::vector<std::string> pieces = {
        "a",   " ",       ";",     ",",     ":",          "=",           ".",          "\\n",  "\\N", "\\;",
        "\\,", "\\",      "\"",    "TYPE=", ";TYPE=home", ";type=HOME",  "-",          "\t",   "^n",  "é",
        "😀",   ";PREF=1", ",work", "x.y@z", "1990-01-31", ";ENCODING=b", ";X-A=b.c+d", "\r\n "};
    std::mt19937 random(11);
    for (int i = 0; i < 4000 / zr::test::kStride; ++i) {
        std::string body;
        for (auto lines = 1 + random() % 4; lines > 0; --lines) {
            if (random() % 6 == 0) body += "item1.";
            body += names[random() % names.size()];
            if (random() % 2) body += ";TYPE=work";
            for (auto n = random() % 3; n > 0; --n) {
                body += pieces[random() % pieces.size()];
            }
            body += ':';
            for (auto n = random() % 8; n > 0; --n) {
                body += pieces[random() % pieces.size()];
            }
            body += "\r\n";
        }
        expect_both_ways_agree(zr::test::card_text(body));
        if (HasFatalFailure()) return;
    }
}

// Reading took half a minute where each value cost the number of those before it. The test's time limit is far above
// what a line of any length takes.
TEST(CardAttributes, ManyValuesAndKindsCostTheirNumber) {
    constexpr int kValues = 200000 / zr::test::kStride;
    std::string words;
    for (int i = 0; i < kValues; ++i) {
        words += (i == 0 ? "" : ",") + std::to_string(i);
    }
    std::string types;
    for (int i = 0; i < kValues / 4; ++i) {
        types += ";TYPE=t" + std::to_string(i);
    }
    for (const std::string& body :
         {"FN:Jo\r\nCATEGORIES:" + words + "\r\n", "FN:Jo\r\nCATEGORIES: " + words + "\r\n",
          "FN:Jo\r\nTEL;TYPE=" + words + ":1\r\n", "FN:Jo\r\nTEL" + types + ":1\r\n",
          "FN:Jo\r\nEMAIL;X=\"" + words + "\":a@x.y\r\n", "FN:Jo\r\nORG: a" + std::string(200000, ';') + "\r\n"}) {
        const std::clock_t begin = std::clock();
        EXPECT_EQ(zr::test::read_cards(zr::test::card_text(body)).cards.size(), 1u);
        EXPECT_LT(std::clock() - begin, std::clock_t{10} * CLOCKS_PER_SEC) << body.substr(0, 40);
    }
    const zr::Card card = zr::test::read_card(zr::test::card_text("FN:Jo\r\nCATEGORIES:a," + words + "\r\n"));
    EXPECT_TRUE(card[zr::Field::Categories].starts_with("a, 0, 1, 2,"));
    EXPECT_TRUE(
        card[zr::Field::Categories].ends_with(", " + std::to_string(kValues - 2) + ", " + std::to_string(kValues - 1)));
}

}  // namespace
