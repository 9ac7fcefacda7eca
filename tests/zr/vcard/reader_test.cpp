#include "zr/vcard/reader.h"

#include <gtest/gtest.h>

#include <random>

#include "support/instrumented.h"
#include "zr/base/text.h"
#include "zr/vcard/cards.h"
#include "zr/vcard/writer.h"

namespace {

using zr::Card;
using zr::Field;
using zr::test::card_text;
using zr::test::read_card;
using zr::test::read_cards;

TEST(CardReader, MapsTheUsualProperties) {
    const Card card = read_card(card_text(
        "N:Doe;Jo;Ann;Dr.;Jr.\r\nFN:Dr. Jo Ann Doe Jr.\r\nORG:Example Ltd;Research;Lab 2\r\nTITLE:Engineer\r\n"
        "EMAIL;TYPE=INTERNET:jo@example.com\r\nTEL;TYPE=WORK,VOICE:+1 1\r\nTEL;TYPE=work:+1 2\r\n"
        "TEL;TYPE=HOME:+1 3\r\nTEL;TYPE=CELL:+1 4\r\nTEL;TYPE=WORK,FAX:+1 5\r\nTEL;TYPE=HOME,FAX:+1 6\r\n"
        "TEL;TYPE=PAGER:+1 7\r\nTEL;TYPE=CAR:+1 8\r\n"
        "ADR;TYPE=WORK:PO 1;Floor 2;High St 3;Town;County;12345;Land\r\nADR;TYPE=HOME:;;Low St;Ville;;;\r\n"
        "BDAY:1990-01-31\r\nURL:https://example.com/\r\nNOTE:one\\ntwo\\, three\r\nCATEGORIES:a,b\r\n"
        "X-EVOLUTION-SPOUSE:Al\r\nX-EVOLUTION-ANNIVERSARY:2010-06-05\r\n"));
    EXPECT_EQ(card[Field::LastName], "Doe");
    EXPECT_EQ(card[Field::FirstName], "Jo");
    EXPECT_EQ(card[Field::MiddleName], "Ann");
    EXPECT_EQ(card[Field::Title], "Dr.");
    EXPECT_EQ(card[Field::Suffix], "Jr.");
    EXPECT_EQ(card[Field::FileAs], "Dr. Jo Ann Doe Jr.");
    EXPECT_EQ(card[Field::Company], "Example Ltd");
    EXPECT_EQ(card[Field::Department], "Research;Lab 2");
    EXPECT_EQ(card[Field::JobTitle], "Engineer");
    EXPECT_EQ(card[Field::Email1], "jo@example.com");
    EXPECT_EQ(card[Field::BusinessPhone], "+1 1");
    EXPECT_EQ(card[Field::Business2Phone], "+1 2");
    EXPECT_EQ(card[Field::HomePhone], "+1 3");
    EXPECT_EQ(card[Field::MobilePhone], "+1 4");
    EXPECT_EQ(card[Field::BusinessFax], "+1 5");
    EXPECT_EQ(card[Field::HomeFax], "+1 6");
    EXPECT_EQ(card[Field::Pager], "+1 7");
    EXPECT_EQ(card[Field::CarPhone], "+1 8");
    EXPECT_EQ(card[Field::BusinessStreet], "PO 1\nFloor 2\nHigh St 3");
    EXPECT_EQ(card[Field::BusinessCity], "Town");
    EXPECT_EQ(card[Field::BusinessState], "County");
    EXPECT_EQ(card[Field::BusinessPostalCode], "12345");
    EXPECT_EQ(card[Field::BusinessCountry], "Land");
    EXPECT_EQ(card[Field::HomeStreet], "Low St");
    EXPECT_EQ(card[Field::HomeCity], "Ville");
    EXPECT_EQ(card.birthday, (zr::Day{1990, 1, 31}));
    EXPECT_EQ(card.anniversary, (zr::Day{2010, 6, 5}));
    EXPECT_EQ(card[Field::WebPage], "https://example.com/");
    EXPECT_EQ(card[Field::Note], "one\ntwo, three");
    EXPECT_EQ(card[Field::Categories], "a, b");
    EXPECT_EQ(card[Field::Spouse], "Al");
    EXPECT_EQ(card.extras, "");
}

TEST(CardReader, OrdersAddressesByPreference) {
    const Card v4 =
        read_card(card_text("FN:A\r\nEMAIL;PREF=50:b@x.y\r\nEMAIL:d@x.y\r\nEMAIL;PREF=1:a@x.y\r\n"
                            "EMAIL;PREF=90;TYPE=home:c@x.y\r\n",
                            "4.0"));
    EXPECT_EQ(v4[Field::Email1], "a@x.y");
    EXPECT_EQ(v4[Field::Email2], "b@x.y");
    EXPECT_EQ(v4[Field::Email3], "c@x.y");
    EXPECT_EQ(v4.extras, "EMAIL:d@x.y\n");
    const Card v3 =
        read_card(card_text("FN:A\r\nEMAIL;TYPE=INTERNET:b@x.y\r\nEMAIL;TYPE=INTERNET,PREF:a@x.y\r\n"
                            "EMAIL;type=INTERNET;type=HOME:c@x.y\r\n"));
    EXPECT_EQ(v3[Field::Email1], "a@x.y");
    EXPECT_EQ(v3[Field::Email2], "b@x.y");
    EXPECT_EQ(v3[Field::Email3], "c@x.y");
    const Card v2 = read_card(card_text("FN:A\r\nEMAIL;INTERNET:b@x.y\r\nEMAIL;PREF;INTERNET:a@x.y\r\n", "2.1"));
    EXPECT_EQ(v2[Field::Email1], "a@x.y");
    EXPECT_EQ(v2[Field::Email2], "b@x.y");
}

TEST(CardReader, KeepsOneOfEqualAddresses) {
    const Card card = read_card(card_text("FN:A\r\nEMAIL:a@x.y\r\nEMAIL:A@X.y\r\nEMAIL:b@x.y\r\n"));
    EXPECT_EQ(card[Field::Email2], "b@x.y");
    EXPECT_EQ(card[Field::Email3], "");
}

TEST(CardReader, ReadsAPhonesQuotedPrintable) {
    // As handsets write version 2.1.
    const Card card = read_card(
        "BEGIN:VCARD\r\nVERSION:2.1\r\n"
        "N;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:=D0=9F=D0=B5=D1=82=D1=80=D0=BE=D0=B2;=D0=98=D0=B2=\r\n"
        "=D0=B0=D0=BD;;;\r\n"
        "FN;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:=D0=98=D0=B2=D0=B0=D0=BD\r\n"
        "TEL;CELL:+7 900\r\nTEL;HOME;VOICE:+7 495\r\n"
        "NOTE;ENCODING=QUOTED-PRINTABLE:line=0D=0Aa=3Bb\\;c=3D=2C\r\n"
        "ADR;HOME;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:;;=C3=84 1;M=C3=BCnchen;;80331;\r\n"
        "END:VCARD\r\n");
    EXPECT_EQ(card[Field::LastName], "Петров");
    EXPECT_EQ(card[Field::FirstName], "Иван");
    EXPECT_EQ(card[Field::FileAs], "Иван");
    EXPECT_EQ(card[Field::MobilePhone], "+7 900");
    EXPECT_EQ(card[Field::HomePhone], "+7 495");
    EXPECT_EQ(card[Field::Note], "line\na;b;c=,");
    EXPECT_EQ(card[Field::HomeStreet], "Ä 1");
    EXPECT_EQ(card[Field::HomeCity], "München");
    EXPECT_EQ(card[Field::HomePostalCode], "80331");
}

TEST(CardReader, ReadsDeclaredCharsets) {
    EXPECT_EQ(read_card(card_text("FN;CHARSET=ISO-8859-1:J\xF6rg\r\n", "2.1"))[Field::FileAs], "Jörg");
    EXPECT_EQ(read_card(card_text("FN;CHARSET=windows-1251:\xC8\xE2\xE0\xED\r\n", "2.1"))[Field::FileAs], "Иван");
    EXPECT_EQ(read_card(card_text("FN;ENCODING=QUOTED-PRINTABLE;CHARSET=ISO-8859-15:=A4\r\n", "2.1"))[Field::FileAs],
              "€");
    EXPECT_EQ(read_card(card_text("FN;CHARSET=SHIFT_JIS:\x8E\x52\x93\x63\r\n", "2.1"))[Field::FileAs], "山田");
    EXPECT_EQ(read_card(card_text("FN;CHARSET=ISO-2022-JP:\x1B$B;3ED\x1B(B\r\n", "2.1"))[Field::FileAs], "山田");
}

TEST(CardReader, FallsBackToWindows1252AndSaysSo) {
    const auto result = read_cards(card_text("N:M\xFCller;Jo\r\nFN:Jo M\xFCller\x80\r\n"));
    ASSERT_EQ(result.cards.size(), 1u);
    EXPECT_EQ(result.cards[0][Field::LastName], "Müller");
    EXPECT_EQ(result.cards[0][Field::FileAs], "Jo Müller€");
    ASSERT_EQ(result.problems.size(), 2u);
    EXPECT_EQ(result.problems[0].line, 3);
    EXPECT_EQ(result.problems[1].line, 4);
    EXPECT_FALSE(result.problems[0].lost);
    EXPECT_EQ(result.problems[0].reason, "not valid UTF-8; read as Windows-1252");
    const auto declared = read_cards(card_text("FN;CHARSET=UTF-8:M\xFCller\r\n"));
    EXPECT_EQ(declared.cards.at(0)[Field::FileAs], "Müller");
    EXPECT_EQ(declared.problems.at(0).reason, "not UTF-8 as declared; read as Windows-1252");
    const auto unknown = read_cards(card_text("FN;CHARSET=NO-SUCH:Mü\r\n"));
    EXPECT_EQ(unknown.cards.at(0)[Field::FileAs], "Mü");
    EXPECT_EQ(unknown.problems.at(0).reason, "not NO-SUCH as declared; read as UTF-8");
}

std::string utf16(std::string_view text, bool little, bool mark) {
    std::u16string units = (mark ? u"\xFEFF" : u"") + zr::to_utf16(text);
    std::string bytes;
    for (const char16_t c : units) {
        const char low = static_cast<char>(c & 0xFF);
        const char high = static_cast<char>(c >> 8);
        bytes += little ? low : high;
        bytes += little ? high : low;
    }
    return bytes;
}

TEST(CardReader, ReadsUtf16OfEitherOrder) {
    const std::string text = card_text("FN:Zoë 😀\r\nEMAIL:zoe@x.y\r\n");
    for (const bool little : {true, false}) {
        for (const bool mark : {true, false}) {
            const Card card = read_card(utf16(text, little, mark));
            EXPECT_EQ(card[Field::FileAs], "Zoë 😀");
            EXPECT_EQ(card[Field::Email1], "zoe@x.y");
        }
    }
}

TEST(CardReader, MarksALoneSurrogate) {
    std::string bytes = utf16(card_text("FN:A_B\r\n"), true, true);
    bytes[bytes.find('_') + 1] = '\xD8';
    const auto result = read_cards(bytes);
    ASSERT_EQ(result.cards.size(), 1u);
    EXPECT_EQ(zr::to_utf16(result.cards[0][Field::FileAs]).front(), u'A');
    EXPECT_NE(result.cards[0][Field::FileAs].find("\xEF\xBF\xBD"), std::string::npos);
    ASSERT_EQ(result.problems.size(), 1u);
    EXPECT_EQ(result.problems[0].line, 3);
}

TEST(CardReader, ReadsEveryLineEnd) {
    const std::string crlf = "\xEF\xBB\xBF" + card_text("N:Doe;Jo\r\nFN:Jo\r\n  Doe\r\nEMAIL:a@x.y\r\n");
    std::string lf = crlf;
    std::erase(lf, '\r');
    std::string cr = crlf;
    std::erase(cr, '\n');
    for (const std::string& text : {crlf, lf, cr}) {
        const Card card = read_card(text);
        EXPECT_EQ(card[Field::FileAs], "Jo Doe");
        EXPECT_EQ(card[Field::Email1], "a@x.y");
    }
}

TEST(CardReader, ReadsGroupsAndKeepsWhatItDoesNotKnow) {
    // As phones with grouped labels write version 3.0.
    const Card card =
        read_card(card_text("PRODID:-//Maker//Phone//EN\r\nN:Doe;Jo;;;\r\nFN:Jo Doe\r\n"
                            "item1.EMAIL;type=INTERNET;type=pref:jo@example.com\r\nitem1.X-ABLabel:_$!<Other>!$_\r\n"
                            "TEL;type=MAIN:+1 99\r\nX-SOCIALPROFILE;type=a;x-user=jo:https://s.example/jo\r\n"
                            "IMPP;X-SERVICE-TYPE=J:xmpp:jo@j.example\r\nUID:1-2-3\r\n"));
    EXPECT_EQ(card[Field::Email1], "jo@example.com");
    EXPECT_EQ(card.extras,
              "item1.X-ABLabel:_$!<Other>!$_\nX-SOCIALPROFILE;type=a;x-user=jo:https://s.example/jo\n"
              "IMPP;X-SERVICE-TYPE=J:xmpp:jo@j.example\nUID:1-2-3\nTEL;type=MAIN:+1 99\n");
}

TEST(CardReader, KeepsPhotos) {
    const Card folded =
        read_card(card_text("FN:A\r\nPHOTO;ENCODING=b;TYPE=JPEG:AAAA\r\n BBBB\r\n CC==\r\nEMAIL:a@x.y\r\n"));
    EXPECT_EQ(folded.extras, "PHOTO;ENCODING=b;TYPE=JPEG:AAAABBBBCC==\n");
    EXPECT_EQ(folded[Field::Email1], "a@x.y");
    const Card bare =
        read_card(card_text("FN:A\r\nPHOTO;JPEG;ENCODING=BASE64:\r\nAAAA\r\nBB==\r\n\r\nEMAIL:a@x.y\r\n", "2.1"));
    EXPECT_EQ(bare.extras, "PHOTO;JPEG;ENCODING=b:AAAABB==\n");
    EXPECT_EQ(bare[Field::Email1], "a@x.y");
}

TEST(CardReader, ReadsVersion4Uris) {
    const Card card =
        read_card(card_text("FN:A\r\nTEL;VALUE=uri;TYPE=\"cell,voice\":tel:+1-555\r\n"
                            "EMAIL:mailto:a@x.y\r\nBDAY:19850412\r\nANNIVERSARY:20090808T1430-0500\r\n",
                            "4.0"));
    EXPECT_EQ(card[Field::MobilePhone], "+1-555");
    EXPECT_EQ(card[Field::Email1], "a@x.y");
    EXPECT_EQ(card.birthday, (zr::Day{1985, 4, 12}));
    EXPECT_EQ(card.anniversary, (zr::Day{2009, 8, 8}));
}

TEST(CardReader, KeepsDaysThatAreNone) {
    for (const char* day : {"--0412", "1990-02-30", "0001-01-01", "soon", "1990"}) {
        const Card card = read_card(card_text("FN:A\r\nBDAY:" + std::string(day) + "\r\n", "4.0"));
        EXPECT_FALSE(card.birthday);
        EXPECT_EQ(card.extras, "BDAY:" + std::string(day) + "\n");
    }
}

TEST(CardReader, KeepsTheCardOfAnAgent) {
    const std::string nested = "BEGIN:VCARD\r\nVERSION:2.1\r\nFN:Al\r\nEND:VCARD\r\n";
    const Card card = read_card(card_text("FN:Jo\r\nAGENT:\r\n" + nested + "EMAIL:jo@x.y\r\n", "2.1"));
    EXPECT_EQ(card[Field::FileAs], "Jo");
    EXPECT_EQ(card[Field::Email1], "jo@x.y");
    EXPECT_EQ(card.extras, "AGENT:BEGIN:VCARD\\nVERSION:2.1\\nFN:Al\\nEND:VCARD\\n\n");
}

TEST(CardReader, TakesTheFileAsNameOfOtherPrograms) {
    const Card sorted = read_card(card_text("N:Doe;Jo\r\nFN:Jo Doe\r\nX-EVOLUTION-FILE-AS:Doe\\, Jo\r\n"));
    EXPECT_EQ(sorted[Field::FileAs], "Doe, Jo");
    EXPECT_EQ(sorted.extras, "");
    const Card called = read_card(card_text("N:Doe;Jo\r\nFN:JD\r\nX-EVOLUTION-FILE-AS:Doe\\, Jo\r\n"));
    EXPECT_EQ(called[Field::FileAs], "JD");
    EXPECT_EQ(called.extras, "X-EVOLUTION-FILE-AS:Doe\\, Jo\n");
}

TEST(CardReader, NamesDamagedCardsAndReadsTheRest) {
    const auto result = read_cards(
        "garbage\r\n"                                              // 1
        "BEGIN:VCARD\r\nFN:One\r\nEND:VCARD\r\n"                   // 2-4
        "BEGIN:VCARD\r\nFN:Cut off\r\n"                            // 5-6
        "BEGIN:VCARD\r\nFN:Two\r\nno colon here\r\nEND:VCARD\r\n"  // 7-10
        "BEGIN:VCARD\r\nVERSION:3.0\r\nEND:VCARD\r\n"              // 11-13
        "begin:vcard\nfn:Three\nend:vcard\n"                       // 14-16
        "BEGIN:VCARD\r\nFN:Last\r\n");                             // 17-18
    ASSERT_EQ(result.cards.size(), 3u);
    EXPECT_EQ(result.cards[0][Field::FileAs], "One");
    EXPECT_EQ(result.cards[1][Field::FileAs], "Two");
    EXPECT_EQ(result.cards[2][Field::FileAs], "Three");
    EXPECT_EQ(result.damaged, 4);
    ASSERT_EQ(result.problems.size(), 5u);
    const std::pair<long, std::string> expected[] = {{1, "text outside of BEGIN:VCARD and END:VCARD"},
                                                     {5, "no END:VCARD before the next card begins"},
                                                     {9, "a line without a colon"},
                                                     {11, "a card with nothing in it"},
                                                     {17, "the file ends inside this card"}};
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(result.problems[i].line, expected[i].first);
        EXPECT_EQ(result.problems[i].reason, expected[i].second);
        EXPECT_TRUE(result.problems[i].lost);
    }
}

TEST(CardReader, TakesControlCharactersAndSqlAsData) {
    const Card card = read_card(card_text("FN:x'); DROP TABLE contacts;-- \x1B[31m\x07\r\n"));
    EXPECT_EQ(card[Field::FileAs], "x'); DROP TABLE contacts;-- \x1B[31m\x07");
    using namespace std::string_literals;
    const auto zero = read_cards(card_text("FN:a\0b\r\n"s));
    EXPECT_EQ(zero.cards.at(0)[Field::FileAs],
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(zero.problems.at(0).line, 3);
}

TEST(CardReader, ReadsBackslashesThatEscapeNothing) {
    EXPECT_EQ(read_card(card_text("NOTE:C:\\dir\\: \\\\ \\; \\, \\N\r\n"))[Field::Note], "C:\\dir: \\ ; , \n");
}

TEST(CardReader, RepairsOrNamesParameters) {
    const Card quote = read_card(card_text("FN:A\r\nEMAIL;TYPE=\"home:a@x.y\r\nTEL;TYPE=CELL:1\r\n"));
    EXPECT_EQ(quote[Field::Email1], "a@x.y");
    EXPECT_EQ(quote[Field::MobilePhone], "1");
    const auto bad =
        read_cards(card_text("FN:A\r\nEMAIL;\x01=2:a@x.y\r\nNOTE;ENCODING=ROT13:n\r\nTEL;TYPE=CELL:1\r\n"));
    ASSERT_EQ(bad.problems.size(), 2u);
    EXPECT_EQ(bad.problems[0].line, 4);
    EXPECT_EQ(bad.problems[0].reason, "a parameter that cannot be read");
    EXPECT_EQ(bad.problems[1].line, 5);
    EXPECT_EQ(bad.problems[1].reason, "an unknown encoding");
    EXPECT_EQ(bad.cards.at(0)[Field::MobilePhone], "1");
}

TEST(CardReader, SkipsALineThatIsTooLong) {
    std::string text = "BEGIN:VCARD\nFN:Huge\nNOTE:" + std::string(zr::LineReader::kLongestLine + 10, 'x') +
                       "\nEND:VCARD\n" + "BEGIN:VCARD\nFN:Next\nEND:VCARD\n";
    const auto result = read_cards(text);
    ASSERT_EQ(result.cards.size(), 1u);
    EXPECT_EQ(result.cards[0][Field::FileAs], "Next");
    EXPECT_EQ(result.problems.at(0).reason, "larger than 64 MiB");
    EXPECT_EQ(result.problems.at(0).line, 3);
}

// A card whose every field is random text, written and read again.
Card random_card(std::mt19937& random) {
    static const std::vector<std::string> pieces = {"a",  "B",  " x",   ";",   ",", "\\",  "\n",
                                                    "\"", ":",  "=",    "=41", "é", "山",  "😀",
                                                    "'",  "\t", "\x1B", "%",   "N", "\\n", "long enough to fold "};
    const auto text = [&](std::size_t most) {
        std::string out = "t";
        for (std::size_t i = random() % most; i > 0; --i) {
            out += pieces[random() % pieces.size()];
        }
        return out + "t";
    };
    Card card;
    for (std::string& value : card.text) {
        if (random() % 2) value = text(30);
    }
    // Of these the order or the form is not free.
    card[Field::Categories] = "a, b c";
    card[Field::Department] = card[Field::Company].empty() ? "" : "Dep";
    for (const Field first : {Field::Email1, Field::BusinessPhone, Field::HomePhone}) {
        card[first] = text(5) + "1";
    }
    card[Field::Email2] = text(5) + "2";
    if (card[Field::FileAs].empty()) card[Field::FileAs] = "filed";
    if (random() % 2) card.birthday = {1990, 2, 28};
    if (random() % 2) card.anniversary = {2000, 2, 29};
    if (random() % 2) card.extras = "X-ONE:1\nitem2.X-TWO;TYPE=a:" + std::string(200, 'y') + "\n";
    return card;
}

TEST(CardReader, ReadsWhatTheWriterWrites) {
    std::mt19937 random(7);
    for (int i = 0; i < 500 / zr::test::kStride; ++i) {
        const Card card = random_card(random);
        for (const auto version : {zr::CardVersion::V21, zr::CardVersion::V30, zr::CardVersion::V40}) {
            std::string text;
            zr::write_card(card, version, text);
            const auto result = read_cards(text);
            ASSERT_EQ(result.cards.size(), 1u) << text;
            ASSERT_TRUE(result.problems.empty()) << result.problems[0].reason << "\n" << text;
            for (std::size_t f = 0; f < card.text.size(); ++f) {
                ASSERT_EQ(result.cards[0].text[f], card.text[f]) << zr::field_key(static_cast<Field>(f)) << "\n"
                                                                 << text;
            }
            ASSERT_EQ(result.cards[0], card) << text;
        }
    }
}

TEST(CardReader, SurvivesCutsAndNoise) {
    const std::string text =
        card_text("N:Doe;Jo\r\nNOTE;ENCODING=QUOTED-PRINTABLE:a=\r\nb=3D\r\nEMAIL;TYPE=\"x:@x.y\r\n", "2.1") +
        card_text("FN:\\\\\\;\r\nitem1.EMAIL:a@x.y\r\nPHOTO;ENCODING=b:AA\r\n BB\r\n");
    std::mt19937 random(3);
    int cards = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string noisy = text.substr(0, 1 + random() % text.size());
        for (int n = static_cast<int>(random() % 4); n > 0; --n) {
            noisy[random() % noisy.size()] = static_cast<char>(random());
        }
        cards += static_cast<int>(read_cards(noisy).cards.size());
    }
    EXPECT_GT(cards, 0);
}

}  // namespace
