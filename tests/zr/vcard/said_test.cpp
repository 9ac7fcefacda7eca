// An export says what the card said, in the syntax of the version that is written.

#include "zr/vcard/said.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "support/instrumented.h"
#include "zr/vcard/cards.h"
#include "zr/vcard/syntax.h"
#include "zr/vcard/writer.h"

namespace {

using zr::Card;
using zr::CardVersion;
using zr::Field;
using zr::test::card_text;
using zr::test::read_card;

// The lines of the written card, unfolded, without those that every card has.
std::vector<std::string> written(const Card& card, CardVersion version) {
    std::string text;
    EXPECT_TRUE(zr::write_card(card, version, text));
    for (std::size_t at; (at = text.find("\r\n ")) != text.npos;) {
        text.erase(at, 3);
    }
    std::vector<std::string> lines;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);) {
        line.pop_back();
        if (line != "BEGIN:VCARD" && line != "END:VCARD" && line.substr(0, 8) != "VERSION:") lines.push_back(line);
    }
    return lines;
}

std::string in(CardVersion version, const std::string& line) {
    zr::PropertySyntax property;
    EXPECT_TRUE(zr::in_version(line, version, property)) << line;
    return property.header + ":" + property.value;
}

bool has(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(CardSyntax, WritesKindsAsTheVersionDoes) {
    EXPECT_EQ(in(CardVersion::V30, "KEY;X509;ENCODING=b:AAAA"), "KEY;TYPE=X509;ENCODING=b:AAAA");
    EXPECT_EQ(in(CardVersion::V30, "LABEL;WORK;PREF:x"), "LABEL;TYPE=WORK;TYPE=PREF:x");
    EXPECT_EQ(in(CardVersion::V40, "LABEL;WORK;PREF:x"), "LABEL;TYPE=WORK;PREF=1:x");
    EXPECT_EQ(in(CardVersion::V21, "LABEL;TYPE=\"work,pref\":x"), "LABEL;work;PREF:x");
    EXPECT_EQ(in(CardVersion::V30, "item2.X-A;PREF=1:x"), "item2.X-A;TYPE=PREF:x");
    EXPECT_EQ(in(CardVersion::V30, "EMAIL;PREF=7:x"), "EMAIL;PREF=7:x");
    EXPECT_EQ(in(CardVersion::V21, "URL;VALUE=uri:x"), "URL;VALUE=URL:x");
    EXPECT_EQ(in(CardVersion::V40, "X-A;TYPE=a;LANGUAGE=de:x"), "X-A;TYPE=a;LANGUAGE=de:x");
    // What only quotes keep together stays in quotes.
    EXPECT_EQ(in(CardVersion::V30, "TEL;TYPE=\"cell,voi;ce\":1"), "TEL;TYPE=cell,\"voi;ce\":1");
    EXPECT_EQ(in(CardVersion::V40, "TEL;TYPE=\"a:b\":1"), "TEL;TYPE=\"a:b\":1");
    EXPECT_EQ(in(CardVersion::V21, "TEL;TYPE=cell,\"voi;ce\":1"), "TEL;cell;TYPE=\"voi;ce\":1");
    EXPECT_EQ(in(CardVersion::V21, "TEL;cell;TYPE=\"voi;ce\":1"), "TEL;cell;TYPE=\"voi;ce\":1");
    EXPECT_EQ(in(CardVersion::V21, "TEL;TYPE=\"cell,voi;ce\"x:1"), "TEL;TYPE=\"cell,voi;ce\"x:1");
    // A kind that would be read as an encoding keeps its name.
    EXPECT_EQ(in(CardVersion::V21, "X-A;TYPE=BASE64:x"), "X-A;TYPE=BASE64:x");
}

TEST(CardSyntax, WritesDataAsTheVersionDoes) {
    const std::string photo = "PHOTO;ENCODING=b;TYPE=JPEG:AAAA";
    EXPECT_EQ(in(CardVersion::V40, photo), "PHOTO:data:image/jpeg;base64,AAAA");
    EXPECT_EQ(in(CardVersion::V21, photo), "PHOTO;ENCODING=BASE64;JPEG:AAAA");
    EXPECT_EQ(in(CardVersion::V30, "PHOTO:data:image/jpeg;base64,AAAA"), photo);
    EXPECT_EQ(in(CardVersion::V40, "KEY;X509;ENCODING=b:AAAA"), "KEY:data:application/pkix-cert;base64,AAAA");
    EXPECT_EQ(in(CardVersion::V30, "KEY:data:application/pkix-cert;base64,AAAA"), "KEY;ENCODING=b;TYPE=X509:AAAA");
    EXPECT_EQ(in(CardVersion::V40, "SOUND;TYPE=WAVE;ENCODING=b:AAAA"), "SOUND:data:audio/wav;base64,AAAA");
    EXPECT_EQ(in(CardVersion::V40, "LOGO;ENCODING=b:AAAA"), "LOGO:data:application/octet-stream;base64,AAAA");
    EXPECT_EQ(in(CardVersion::V40, "X-A;ENCODING=b:AAAA"), "X-A;VALUE=uri:data:application/octet-stream;base64,AAAA");
    EXPECT_EQ(in(CardVersion::V30, "X-A;VALUE=uri:data:application/octet-stream;base64,AAAA"), "X-A;ENCODING=b:AAAA");
    // What is not such data is an address like any other.
    EXPECT_EQ(in(CardVersion::V30, "PHOTO:data:image/jpeg,%FF"), "PHOTO:data:image/jpeg,%FF");
    EXPECT_EQ(in(CardVersion::V30, "PHOTO;VALUE=uri:http://x.y/"), "PHOTO;VALUE=uri:http://x.y/");
}

TEST(CardSyntax, WritesDaysAsTheVersionDoes) {
    EXPECT_EQ(in(CardVersion::V40, "BDAY;VALUE=date:1970-02-03"), "BDAY;VALUE=date:19700203");
    EXPECT_EQ(in(CardVersion::V40, "REV:2008-04-24T19:52:43Z"), "REV:20080424T195243Z");
    EXPECT_EQ(in(CardVersion::V40, "BDAY:--0415"), "BDAY:--0415");
    EXPECT_EQ(in(CardVersion::V40, "X-ANNIVERSARY:2000-06-01"), "ANNIVERSARY:20000601");
    EXPECT_EQ(in(CardVersion::V30, "ANNIVERSARY:20000601"), "X-EVOLUTION-ANNIVERSARY:20000601");
    EXPECT_EQ(in(CardVersion::V30, "ANNIVERSARY:20000601T10"), "ANNIVERSARY:20000601T10");
}

TEST(CardSyntax, ReadsTheTextsOfAValue) {
    EXPECT_EQ(zr::value_parts("a\\;b;c\\n,\\\\;;d"), (std::vector<std::string>{"a;b", "c\n,\\", "", "d"}));
    EXPECT_EQ(zr::value_parts(""), (std::vector<std::string>{""}));
    EXPECT_EQ(zr::value_parts("a\\"), (std::vector<std::string>{"a\\"}));
}

const std::string kBody =
    "N:Doe;Jo;;;\r\nFN:Jo Doe\r\nX-EVOLUTION-FILE-AS:The Does\r\nORG:A;B;C\r\n"
    "item1.TEL;TYPE=home,msg,pref:1\r\nTEL;TYPE=cell;LANGUAGE=de:2\r\n"
    "ADR;TYPE=home,parcel:Box;Apt;Street;City;;1;\r\n"
    "EMAIL;TYPE=work;PREF=1:a@x.y\r\nEMAIL;PREF=2:b@x.y\r\nEMAIL;PREF=3:c@x.y\r\nEMAIL;PREF=4;TYPE=home:d@x.y\r\n";

TEST(CardWords, StayAsTheCardHadThem) {
    const auto lines = written(read_card(card_text(kBody)), CardVersion::V30);
    for (const char* line : {"N:Doe;Jo;;;", "FN:Jo Doe", "X-EVOLUTION-FILE-AS:The Does", "ORG:A;B;C",
                             "item1.TEL;TYPE=home,msg;TYPE=PREF:1", "TEL;TYPE=cell;LANGUAGE=de:2",
                             "ADR;TYPE=home,parcel:Box;Apt;Street;City;;1;", "EMAIL;TYPE=work;TYPE=PREF:a@x.y",
                             "EMAIL;PREF=2:b@x.y", "EMAIL;PREF=3:c@x.y", "EMAIL;TYPE=home;PREF=4:d@x.y"}) {
        EXPECT_TRUE(has(lines, line)) << line;
    }
    EXPECT_EQ(lines.size(), 11u);
}

TEST(CardWords, HoldForWhatDidNotChange) {
    Card card = read_card(card_text(kBody));
    card[Field::HomePhone] = "9";
    card[Field::MobilePhone] = "";
    card[Field::HomeCity] = "Town";
    card[Field::Department] = "";
    card[Field::Email2] = "e@x.y";
    card[Field::Pager] = "7";
    const auto lines = written(card, CardVersion::V30);
    for (const char* line :
         {"N:Doe;Jo;;;", "FN:Jo Doe", "ORG:A", "item1.TEL;TYPE=home,msg;TYPE=PREF:9", "TEL;TYPE=PAGER:7",
          "ADR;TYPE=home,parcel:;;Box\\nApt\\nStreet;Town;;1;", "EMAIL;TYPE=work;TYPE=PREF:a@x.y", "EMAIL;PREF=2:e@x.y",
          "EMAIL;PREF=3:c@x.y", "EMAIL;TYPE=home;PREF=4:d@x.y"}) {
        EXPECT_TRUE(has(lines, line)) << line << "\n" << ::testing::PrintToString(lines);
    }
    EXPECT_EQ(lines.size(), 11u) << ::testing::PrintToString(lines);
}

TEST(CardWords, GiveWayToAnotherName) {
    Card card = read_card(card_text("N:Doe;Jo;;;\r\nFN:Jo Doe\r\nX-EVOLUTION-FILE-AS:The Does\r\n"));
    card[Field::LastName] = "Smith";
    const auto lines = written(card, CardVersion::V30);
    EXPECT_TRUE(has(lines, "N:Smith;Jo;;;"));
    EXPECT_TRUE(has(lines, "FN:Jo Smith"));
    EXPECT_TRUE(has(lines, "X-EVOLUTION-FILE-AS:The Does"));
}

TEST(CardWords, InventNothing) {
    const std::string body = "N:Doe;Jo\r\nTEL;CELL:1\r\nEMAIL:a@x.y\r\nEMAIL:b@x.y\r\n";
    Card card = read_card(card_text(body, "2.1"));
    card[Field::FileAs] = zr::filed_name(card);  // as the store does
    EXPECT_EQ(written(card, CardVersion::V21),
              (std::vector<std::string>{"N:Doe;Jo", "TEL;CELL:1", "EMAIL:a@x.y", "EMAIL:b@x.y"}));
    const Card four = read_card(card_text("FN:A\r\nEMAIL:a@x.y\r\nTEL:1\r\n", "4.0"));
    EXPECT_EQ(written(four, CardVersion::V40), (std::vector<std::string>{"FN:A", "EMAIL:a@x.y", "TEL:1"}));
}

TEST(CardWords, AreThoseOfVersion21There) {
    const Card card = read_card(
        card_text("FN:A\r\nX-MOTTO;ENCODING=QUOTED-PRINTABLE:a=3Bb=2C=0Ac\r\nX-TWO:one\\;two\r\nX-LIST:a,b\r\n"
                  "AGENT:\r\nBEGIN:VCARD\r\nN:Al\r\nEND:VCARD\r\n",
                  "2.1"));
    const auto lines = written(card, CardVersion::V21);
    EXPECT_TRUE(has(lines, "X-MOTTO;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:="));
    EXPECT_TRUE(has(lines, "a=3Bb,=0Ac")) << ::testing::PrintToString(lines);
    EXPECT_TRUE(has(lines, "one=3Btwo"));
    EXPECT_TRUE(has(lines, "X-LIST:a,b"));
    EXPECT_TRUE(has(lines, "AGENT:"));
    EXPECT_TRUE(has(lines, "N:Al"));
    EXPECT_EQ(read_card(card_text("FN:A\r\nAGENT:\r\nBEGIN:VCARD\r\nN:Al\r\nEND:VCARD\r\n", "2.1")).extras,
              "AGENT:BEGIN:VCARD\\nN:Al\\nEND:VCARD\\n\n");
}

TEST(CardWords, OfManyLinesTakeTheTimeThatTheirLengthTakes) {
    constexpr int kLines = 50000 / zr::test::kStride;
    std::string body = "FN:A\r\n";
    for (int i = 0; i < kLines; ++i) {
        body += "EMAIL;PREF=2;TYPE=home:" + std::to_string(i) + "@x.y\r\n";
    }
    const Card card = read_card(card_text(body));
    EXPECT_EQ(written(card, CardVersion::V40).size(), kLines + 1u);  // each, and FN
}

// What looks broken to people is still said once, and alike every time.
TEST(CardWords, AreTheSameWhenTheyAreReadAndWrittenAgain) {
    for (const char* body : {
             "N:A;B;;;\r\nX-A;ENCODING=b;ENCODING=QUOTED-PRINTABLE:a=20b\r\n",
             "N:A;B;;;\r\nEMAIL;TYPE=INTERNET;ENCODING=b:AAAA\r\nEMAIL;TYPE=\xC3\xA9:a@x.y\r\n",
             "N:A;B;;;\r\nEMAIL;TYPE=home:a@x.y\x10z\r\n",
             "N:A;B;;;\r\nNOTE:c\r\nNOTE:\r\nNOTE:c\r\n",
             "N:;;;;Jr.\r\n",
             "N:A;B;;;\r\nTEL;VALUE=uri;TYPE=\"cell,voi;ce\"x:tel:1\r\n",
         }) {
        Card first = read_card(card_text(body));
        first[Field::FileAs] = zr::filed_name(first);
        for (const CardVersion version : {CardVersion::V21, CardVersion::V30, CardVersion::V40}) {
            std::string text;
            ASSERT_TRUE(zr::write_card(first, version, text));
            Card again = read_card(text);
            again[Field::FileAs] = zr::filed_name(again);
            EXPECT_EQ(again.text, first.text) << text;
            std::vector<std::string> once = written(first, version);
            std::vector<std::string> twice = written(again, version);
            std::sort(once.begin(), once.end());
            std::sort(twice.begin(), twice.end());
            EXPECT_EQ(twice, once);
        }
    }
}

TEST(CardWords, LoseOneKindOfProperty) {
    EXPECT_EQ(zr::without_property("EMAIL:a\nitem1.email;TYPE=x:b\nTEL:1\nX-EMAIL:c\n", zr::Property::Email),
              "TEL:1\nX-EMAIL:c\n");
}

}  // namespace
