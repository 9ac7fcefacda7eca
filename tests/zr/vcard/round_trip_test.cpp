// What was imported and is exported comes back as the same card, kept properties and all.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>

#include "support/instrumented.h"
#include "zr/base/text.h"
#include "zr/samples.h"
#include "zr/vcard/cards.h"
#include "zr/vcard/syntax.h"
#include "zr/vcard/writer.h"

namespace {

using zr::Card;
using zr::CardVersion;
using zr::Field;
using zr::test::broken;
using zr::test::card_text;
using zr::test::read_cards;
using zr::test::ReadCards;
using zr::test::samples;

// As the contact store keeps it: it files under something who was given no name to file by.
Card stored(Card card) {
    card[Field::FileAs] = zr::filed_name(card);
    return card;
}

// At what is not in quotes.
std::vector<std::string> split(const std::string& text, char at) {
    std::vector<std::string> parts(1);
    bool quoted = false;
    for (const char c : text) {
        if (c == '"') quoted = !quoted;
        if (c == at && !quoted) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

// Version 2.1 does not tell the commas of a list from those of a text, and the end of a line is written in two ways.
std::string alike_in_value(const std::string& value) {
    std::string all;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const bool escape = value[i] == '\\' && i + 1 < value.size();
        if (!escape) {
            all += value[i];
            continue;
        }
        const char escaped = value[++i];
        if (escaped != ',') all += '\\';
        all += escaped == 'N' ? 'n' : escaped;
    }
    return all;
}

// The lines, whatever the version calls what they say.
std::vector<std::string> alike(const std::string& lines) {
    std::vector<std::string> all;
    std::istringstream text(lines);
    for (std::string line; std::getline(text, line);) {
        zr::PropertySyntax property;
        if (!zr::in_version(line, CardVersion::V30, property)) continue;
        property.value = alike_in_value(property.value);
        std::set<std::string> parts;
        for (const std::string& part : split(zr::upper(property.header), ';')) {
            if (!part.starts_with("TYPE=")) {
                parts.insert(part);
                continue;
            }
            std::string kinds = part.substr(5);
            std::erase(kinds, '"');
            for (const std::string& kind : split(kinds, ',')) {
                parts.insert("TYPE=" + kind);
            }
        }
        all.emplace_back();
        for (const std::string& part : parts) {
            all.back() += part + ";";
        }
        all.back() += property.value;
        for (const char* day : {"REV", "BDAY", "ANNIVERSARY", "DEATHDATE"}) {
            if (zr::upper(line).find(day) != line.npos) std::erase(all.back(), '-');
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

bool same(Card a, Card b) {
    if (alike(a.extras) != alike(b.extras)) return false;
    a.extras.clear();
    b.extras.clear();
    return a == b;
}

std::string shown(const Card& card) {
    std::string text;
    for (std::size_t i = 0; i < card.text.size(); ++i) {
        if (!card.text[i].empty()) text += std::string(zr::field_key(Field(i))) + "=" + card.text[i] + "\n";
    }
    return text + card.extras;
}

::testing::AssertionResult comes_back(const Card& read) {
    const Card card = stored(read);
    for (const CardVersion version : {CardVersion::V30, CardVersion::V40, CardVersion::V21}) {
        std::string text;
        zr::write_card(card, version, text);
        const ReadCards again = read_cards(text);
        const std::string name = version == CardVersion::V21 ? "2.1" : version == CardVersion::V30 ? "3.0" : "4.0";
        if (again.cards.size() != 1)
            return ::testing::AssertionFailure() << again.cards.size() << " cards of one in " << name << ":\n" << text;
        if (!again.problems.empty())
            return ::testing::AssertionFailure() << again.problems[0].reason << " in " << name << ":\n" << text;
        if (!same(stored(again.cards[0]), card))
            return ::testing::AssertionFailure() << "written as " << name << ":\n"
                                                 << text << "read:\n"
                                                 << shown(again.cards[0]) << "was:\n"
                                                 << shown(card);
    }
    return ::testing::AssertionSuccess();
}

TEST(CardRoundTrip, EveryCardOfTheCorpusComesBack) {
    int cards = 0;
    for (const std::string& text : samples("vcard", ".vcf")) {
        for (const Card& card : read_cards(text).cards) {
            EXPECT_TRUE(comes_back(card)) << text;
            ++cards;
        }
    }
    EXPECT_GT(cards, 20);
}

// Bytes of cards that mean something, to be strewn about.
const char* const kPieces[] = {"\r\n ",
                               "\n\t",
                               "=\r\n",
                               "BEGIN:VCARD\r\n",
                               "END:VCARD\r\n",
                               "\\",
                               "\\n",
                               ";",
                               ",",
                               ":",
                               "\"",
                               "^n",
                               "ENCODING=b",
                               ";TYPE=",
                               ";CHARSET=UTF-8",
                               ";ENCODING=QUOTED-PRINTABLE:",
                               "=0D=0A",
                               "item1.",
                               "AGENT:\r\n",
                               "\xC3\xA4",
                               "\xE4",
                               "X-",
                               "\r",
                               "PREF",
                               " ",
                               "=",
                               "NOTE:",
                               "CATEGORIES:",
                               "N:",
                               "FN:",
                               "EMAIL:",
                               "X-EVOLUTION-FILE-AS:",
                               "PHOTO;ENCODING=b:AAAA\r\n"};

TEST(CardRoundTrip, ANumberIsNoAddressHoweverOftenItIsCalledOne) {
    for (const std::string type : {"cell", "dog"}) {  // a field's, and one that is kept as it stands
        const ReadCards read = read_cards(card_text("FN:Jo\r\nTEL;VALUE=uri;TYPE=" + type + ":tel:TEL:+1\r\n", "4.0"));
        ASSERT_EQ(read.cards.size(), 1u);
        EXPECT_EQ(read.cards[0][Field::MobilePhone], type == "cell" ? "+1" : "");
        EXPECT_TRUE(comes_back(read.cards[0]));
    }
}

TEST(CardRoundTrip, WhatIsKeptIsEncodedOnlyWhereItsCharactersAskForIt) {
    const ReadCards read = read_cards(card_text("FN:Jo\r\nX-ONE:mail\\, ls\r\nX-TWO:mail\\nls\r\n"));
    ASSERT_EQ(read.cards.size(), 1u);
    std::string text;
    ASSERT_TRUE(zr::write_card(read.cards[0], CardVersion::V21, text));
    EXPECT_NE(text.find("\r\nX-ONE:mail, ls\r\n"), text.npos) << text;
    EXPECT_NE(text.find("\r\nX-TWO;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:=\r\nmail=0Als\r\n"), text.npos) << text;
    std::string twice;
    ASSERT_TRUE(zr::write_card(read_cards(text).cards[0], CardVersion::V21, twice));
    EXPECT_EQ(twice, text);
}

std::size_t count_of(const std::string& text, std::string_view part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST(CardRoundTrip, OfSeveralNamesToFileByTheFirstCountsAndNoneIsLost) {
    for (const std::string name : {"FN:Ada Okafor\r\n", "FN:The Boss\r\n"}) {  // as the parts say, and not
        const ReadCards read = read_cards(card_text("N:Okafor;Ada;;;\r\n" + name +
                                                    "X-EVOLUTION-FILE-AS:one\\\r\n"
                                                    "X-EVOLUTION-FILE-AS:two\\\r\nX-EVOLUTION-FILE-AS:two\\\r\n"));
        ASSERT_EQ(read.cards.size(), 1u);
        EXPECT_EQ(read.cards[0][Field::FileAs], name == "FN:The Boss\r\n" ? "The Boss" : "one\\");
        for (const CardVersion version : {CardVersion::V30, CardVersion::V40, CardVersion::V21}) {
            std::string text;
            zr::write_card(read.cards[0], version, text);
            std::string twice;
            zr::write_card(read_cards(text).cards.at(0), version, twice);
            for (const std::string* each : {&text, &twice}) {
                EXPECT_EQ(count_of(*each, "X-EVOLUTION-FILE-AS"), 3u) << *each;
                EXPECT_EQ(count_of(*each, "two"), 2u) << *each;
            }
        }
        EXPECT_TRUE(comes_back(read.cards[0]));
    }
}

TEST(CardRoundTrip, APreferenceThatNoReaderTakesIsNotWritten) {
    const ReadCards read = read_cards(card_text(
        "FN:Jo\r\nEMAIL;PREF=3\xC3\xBF;PREF=2:one@x\r\nEMAIL;PREF=1 0,\"2\":two@x\r\nEMAIL;PREF=3\xC3\xBF:three@x\r\n"
        "EMAIL;PREF=3:four@x\r\n",
        "4.0"));
    ASSERT_EQ(read.cards.size(), 1u);
    EXPECT_EQ(read.cards[0][Field::Email1], "one@x");
    EXPECT_EQ(read.cards[0][Field::Email2], "two@x");
    EXPECT_EQ(read.cards[0][Field::Email3], "four@x");
    EXPECT_TRUE(comes_back(read.cards[0]));
}

TEST(CardRoundTrip, WhatIsNoDayStaysAsItIs) {
    const std::string lines =
        "DEATHDATE:1984-0:-29\r\nDEATHDATE:198x-01-29\r\nDEATHDATE:2020-01-02T1:2:3\r\nDEATHDATE:2020-01-02Tx:y\r\n";
    const ReadCards read = read_cards(card_text("FN:Jo\r\n" + lines + "DEATHDATE:2020-01-02T10:20:30Z\r\n"));
    ASSERT_EQ(read.cards.size(), 1u);
    std::string text;
    zr::write_card(read.cards[0], CardVersion::V40, text);
    EXPECT_NE(text.find(lines + "DEATHDATE:20200102T102030Z\r\n"), text.npos) << text;
}

TEST(CardRoundTrip, AndSoDoesWhatIsReadOfBrokenOnes) {
    std::mt19937 random(11);
    const std::vector<std::string> texts = samples("vcard", ".vcf");
    int cards = 0;
    constexpr int kRounds = 2000 / zr::test::kStride;
    for (int i = 0; i < kRounds; ++i) {
        const std::string text = broken(texts, kPieces, random);
        for (const Card& card : read_cards(text).cards) {
            ASSERT_TRUE(comes_back(card)) << i << "\n" << text;
            ++cards;
        }
    }
    EXPECT_GT(cards, kRounds / 2);
}

// ---- Folds

TEST(CardRoundTrip, AFoldedLineIsNoLineOfItsOwn) {
    for (const std::string evil : {"BEGIN:VCARD", "END:VCARD"}) {
        // As our own writer folds it, wherever the fold falls.
        for (std::size_t length = 0; length < 80; ++length) {
            Card card;
            card[Field::FileAs] = "Jo";
            card[Field::Note] = std::string(length, 'x') + evil + std::string(90 - length, 'y');
            EXPECT_TRUE(comes_back(card));
        }
        const ReadCards folded = read_cards(card_text("FN:Jo\r\nNOTE:abc\r\n " + evil + "\r\nTITLE:Chief\r\n"));
        ASSERT_EQ(folded.cards.size(), 1u);
        EXPECT_TRUE(folded.problems.empty());
        EXPECT_EQ(folded.cards[0][Field::Note], "abc" + evil);
        EXPECT_EQ(folded.cards[0][Field::JobTitle], "Chief");
        const ReadCards soft = read_cards(
            card_text("FN:Jo\r\nNOTE;ENCODING=QUOTED-PRINTABLE:abc=\r\n" + evil + "\r\nTITLE:Chief\r\n", "2.1"));
        ASSERT_EQ(soft.cards.size(), 1u);
        EXPECT_TRUE(soft.problems.empty());
        EXPECT_EQ(soft.cards[0][Field::Note], "abc" + evil);
        EXPECT_EQ(soft.cards[0][Field::JobTitle], "Chief");
    }
}

TEST(CardRoundTrip, ANoteSmugglesNoContact) {
    const std::string note = "END:VCARD\r\n BEGIN:VCARD\r\n FN:Eve\r\n EMAIL:eve@x.org\r\n END:VCARD";
    const ReadCards read = read_cards(card_text("FN:Jo\r\nNOTE:\r\n " + note + "\r\n"));
    ASSERT_EQ(read.cards.size(), 1u);
    EXPECT_EQ(read.cards[0][Field::FileAs], "Jo");
    EXPECT_EQ(read.cards[0][Field::Email1], "");
}

TEST(CardRoundTrip, AnEqualsSignOfPlainTextJoinsNothing) {
    const ReadCards read = read_cards(card_text("FN:Jo\r\nURL:http://x.org/?a=\r\n", "2.1") + card_text("FN:Al\r\n"));
    ASSERT_EQ(read.cards.size(), 2u);
    EXPECT_EQ(read.cards[0][Field::WebPage], "http://x.org/?a=");
}

}  // namespace
