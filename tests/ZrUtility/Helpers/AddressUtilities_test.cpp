#include "ZrUtility/Helpers/AddressUtilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "split_address.h"
#include "support/text.h"

namespace {

using std::u16string;
using std::u16string_view;
using zr::test::randomText;
using zr::test::split_by;
using zr::test::Text;
using Split = zr::test::SplitAddress;

// Everything that some rule treats on its own, and characters that none does.
constexpr u16string_view kAlphabet =
    u"<<>>\"\";,, \t\r\n\\^`{|}()[]:@\x7F"
    u"ab\x01\x00E9\xD800\xFFFF";

TEST(IsValidRecipientNameOrAddress, NeedsAUsableCharacterBeforeAPrintableOne) {
    const struct {
        u16string text;
        int valid;
    } cases[] = {{u"", 0},    {u"a", 0},       {u"ab", 1},           {u"<>;", 0},
                 {u"a ", 1},  {u"a\t", 0},     {u" a", 0},           {u"a\x7F", 1},
                 {u";a;", 1}, {u"\x01", 0},    {u"\x01 ", 1},        {u"\x7F\x7F", 0},
                 {u"é;", 1},  {u"\xFFFF ", 1}, {u"\xD83D\xDE00", 1}, {u"\"()\\,:@[]^`{|} ", 0},
                 {u"!\"", 1}, {u"_<", 1},      {u"a\tb", 1}};
    for (const auto& [text, valid] : cases) {
        EXPECT_EQ(AddressUtilities::IsValidRecipientNameOrAddress(Text(text)), valid) << testing::PrintToString(text);
    }
    EXPECT_EQ(AddressUtilities::IsValidRecipientNameOrAddress(nullptr), 0);
}

// Each character below 0x100, followed by a space: usable unless it is one of the listed ones.
TEST(IsValidRecipientNameOrAddress, KnowsTheUnusableOnes) {
    const u16string_view unusable = u" \"(),:;<>@[\\]^`{|}\x7F";
    for (WCHAR c = 1; c < 0x100; ++c) {
        const int expected = unusable.find(c) == u16string_view::npos ? 1 : 0;
        EXPECT_EQ(AddressUtilities::IsValidRecipientNameOrAddress(Text(u16string{c, u' '})), expected) << int{c};
    }
}

TEST(TrimRecipientNameOrAddress, TakesTrailingJunkOnly) {
    const struct {
        u16string text;
        u16string trimmed;
    } cases[] = {{u"", u""},        {u"a", u"a"},   {u"a; ,\x7F\t\x01", u"a"}, {u" ;,a", u" ;,a"}, {u" ;,\x7F", u""},
                 {u"a;b,", u"a;b"}, {u"a:", u"a:"}, {u"a\xA0", u"a\xA0"}};
    for (const auto& [text, trimmed] : cases) {
        Text s(text);
        AddressUtilities::TrimRecipientNameOrAddress(s);
        EXPECT_EQ(s.string(), trimmed);
    }
    AddressUtilities::TrimRecipientNameOrAddress(nullptr);
}

TEST(TrimMAPIRecipient, CutsAtTheFirstControlCharacter) {
    const struct {
        u16string text;
        u16string trimmed;
    } cases[] = {{u"", u""},
                 {u"a b", u"a b"},
                 {u"a\tb", u"a"},
                 {u"ab\x7F"
                  u"cd\x01",
                  u"ab"},
                 {u"\ra", u""},
                 {u"é\x80\n", u"é\x80"}};
    for (const auto& [text, trimmed] : cases) {
        Text s(text);
        AddressUtilities::TrimMAPIRecipient(s);
        EXPECT_EQ(s.string(), trimmed);
    }
    AddressUtilities::TrimMAPIRecipient(nullptr);
    // What stands behind the cut stays as it was.
    WCHAR behind[] = u"a\tb\x01z";
    AddressUtilities::TrimMAPIRecipient(behind);
    EXPECT_EQ(u16string(behind, 5), u16string(u"a\0b\x01z", 5));
}

// One recipient: what it says, and where the next one begins.
struct Recipient {
    u16string name;
    u16string address;
    std::optional<std::size_t> next;

    bool operator==(const Recipient&) const = default;
};

void PrintTo(const Recipient& recipient, std::ostream* out) {
    *out << testing::PrintToString(recipient.name) << " <" << testing::PrintToString(recipient.address) << "> next "
         << testing::PrintToString(recipient.next);
}

Recipient nextRecipient(const u16string& text, bool commaSeparates) {
    Text s(text);
    const auto name = std::make_unique<WCHAR[]>(text.size() + 1);
    const auto address = std::make_unique<WCHAR[]>(text.size() + 1);
    WCHAR* next = s;
    unsigned int nameLength = 99;
    unsigned int addressLength = 99;
    AddressUtilities::NextRecipient(s, &next, name.get(), 0, &nameLength, address.get(), 0, &addressLength,
                                    commaSeparates ? 7 : 0);
    EXPECT_EQ(s.string(), text);
    Recipient recipient{name.get(), address.get(), {}};
    EXPECT_EQ(recipient.name.size(), nameLength);
    EXPECT_EQ(recipient.address.size(), addressLength);
    if (next != nullptr) recipient.next = next - static_cast<WCHAR*>(s);
    return recipient;
}

u16string filtered(u16string_view text, u16string_view dropped) {
    u16string kept;
    std::copy_if(text.begin(), text.end(), std::back_inserter(kept),
                 [&](WCHAR c) { return c >= u' ' && dropped.find(c) == u16string_view::npos; });
    return kept;
}

u16string withoutTrailingSpaces(u16string text) {
    while (!text.empty() && text.back() == u' ') {
        text.pop_back();
    }
    return text;
}

std::optional<std::size_t> after(std::size_t separator) {
    return separator == u16string::npos ? std::nullopt : std::optional(separator + 1);
}

// The rules once more, by cutting the text into pieces instead of reading it character by character.
Recipient expectedRecipient(const u16string& text, bool commaSeparates) {
    const std::size_t separator = text.find_first_of(commaSeparates ? u";," : u";");
    const u16string piece = text.substr(0, separator);
    Recipient recipient{{}, {}, after(separator)};
    const auto blank = [](WCHAR c) { return c <= u' '; };
    std::size_t start = std::find_if_not(piece.begin(), piece.end(), blank) - piece.begin();
    if (start == piece.size()) return recipient;
    if (piece[start] == u'"') ++start;
    const std::size_t open = piece.find(u'<', start);
    u16string name = piece.substr(start, open == u16string::npos ? open : open - start);
    std::replace(name.begin(), name.end(), u'"', u' ');
    recipient.name = withoutTrailingSpaces(filtered(name, u">"));
    if (open == u16string::npos) return recipient;
    const std::size_t close = piece.find(u'>', open);
    const u16string address = piece.substr(open + 1, close == u16string::npos ? close : close - open - 1);
    recipient.address = withoutTrailingSpaces(filtered(address, u"\"<\\^`{|}\x7F"));
    if (close == u16string::npos || std::all_of(piece.begin() + close + 1, piece.end(), blank)) return recipient;
    const std::size_t semicolon = text.find(u';');
    return {text.substr(0, semicolon), u"", after(semicolon)};
}

TEST(NextRecipient, TakesOneAfterAnother) {
    const u16string text = u"Jo Doe <jo.doe>; Al <al>";
    const Recipient first = nextRecipient(text, false);
    EXPECT_EQ(first, (Recipient{u"Jo Doe", u"jo.doe", 16}));
    EXPECT_EQ(text.substr(*first.next), u" Al <al>");
    EXPECT_EQ(nextRecipient(text.substr(*first.next), false), (Recipient{u"Al", u"al", {}}));
}

TEST(NextRecipient, CommaSeparatesWhenAsked) {
    const u16string text = u"\"Smith, Al\" <al>";
    EXPECT_EQ(nextRecipient(text, false), (Recipient{u"Smith, Al", u"al", {}}));
    EXPECT_EQ(nextRecipient(text, true), (Recipient{u"Smith", u"", 7}));
    EXPECT_EQ(nextRecipient(text.substr(7), true), (Recipient{u"Al", u"al", {}}));
}

TEST(NextRecipient, TextAfterTheBracketMakesItAllAName) {
    EXPECT_EQ(nextRecipient(u"<jo.doe> x; y", false), (Recipient{u"<jo.doe> x", u"", 11}));
    EXPECT_EQ(nextRecipient(u" \"A\" <a>\t<b> ", false), (Recipient{u" \"A\" <a>\t<b> ", u"", {}}));
    // The comma that comes first does not separate then; the one that ends the recipient before the text does.
    EXPECT_EQ(nextRecipient(u"<a> x, y; z", true), (Recipient{u"<a> x, y", u"", 9}));
    EXPECT_EQ(nextRecipient(u"<a> , y; z", true), (Recipient{u"", u"a", 5}));
}

TEST(NextRecipient, OddTexts) {
    const struct {
        u16string text;
        Recipient recipient;
    } cases[] = {{u"", {u"", u"", {}}},
                 {u";", {u"", u"", 1}},
                 {u"Jo;", {u"Jo", u"", 3}},
                 {u"\"Jo\" <j>", {u"Jo", u"j", {}}},
                 {u"\" Jo\" <j>", {u" Jo", u"j", {}}},
                 {u"Jo", {u"Jo", u"", {}}},
                 {u"<a;b>", {u"", u"a", 3}},
                 {u"\"a;b\" <c>", {u"a", u"", 3}},
                 {u"a>b", {u"ab", u"", {}}},
                 {u"> a", {u" a", u"", {}}},
                 {u"\x7F"
                  u"a",
                  {u"\x7F"
                   u"a",
                   u"",
                   {}}},
                 {u"a\tb <c d>", {u"ab", u"c d", {}}},
                 {u"a<b\"<\\^`{|}\x7F\tc([:])é>", {u"a", u"bc([:])é", {}}},
                 {u"\"\" <j>", {u"", u"j", {}}},
                 {u"<>", {u"", u"", {}}},
                 {u"<j", {u"", u"j", {}}},
                 {u"a <j> \t;b", {u"a", u"j", 8}}};
    for (const auto& [text, recipient] : cases) {
        EXPECT_EQ(nextRecipient(text, false), recipient) << testing::PrintToString(text);
        EXPECT_EQ(expectedRecipient(text, false), recipient) << testing::PrintToString(text);
    }
}

TEST(NextRecipient, AgreesWithTheRulesOverRandomTexts) {
    std::mt19937 random(4711);
    for (int i = 0; i < 60000; ++i) {
        const u16string text = randomText(random, kAlphabet, 16);
        for (const bool comma : {false, true}) {
            ASSERT_EQ(nextRecipient(text, comma), expectedRecipient(text, comma)) << testing::PrintToString(text);
        }
    }
}

TEST(NextRecipient, LongTextsComeBackWhole) {
    const u16string name(20000, u'n');
    const u16string address(20000, u'a');
    EXPECT_EQ(nextRecipient(name + u" <" + address + u">;", false), (Recipient{name, address, 40004}));
}

Split kelToMapi(const u16string& text) {
    return split_by(AddressUtilities::KelRecipientsToMAPIRecipients, text);
}

Split expectedMapi(const u16string& text) {
    const std::size_t open = text.find(u'<');
    if (open == u16string::npos) return {text, {}};
    if (open == 0) return {u"", u"<"};
    const std::size_t last = text.substr(0, open).find_last_not_of(u' ');
    const std::size_t start = text.find_first_not_of(u' ', open + 1);
    const u16string name = text.substr(0, last == u16string::npos ? 1 : last + 1);
    if (start == u16string::npos) return {u"", name};
    if (text[start] == u'>') return {u">", name};
    const std::size_t close = text.find(u'>', start);
    return {withoutTrailingSpaces(text.substr(start, close == u16string::npos ? close : close - start)), name};
}

TEST(KelRecipientsToMAPIRecipients, SplitsInPlace) {
    const struct {
        u16string text;
        Split split;
    } cases[] = {{u"Jo Doe <jo.doe>", {u"jo.doe", u"Jo Doe"}},
                 {u"\"Jo\" <jo>", {u"jo", u"\"Jo\""}},
                 {u"jo.doe", {u"jo.doe", {}}},
                 {u"", {u"", {}}},
                 {u"<ab>", {u"", u"<"}},
                 {u"<", {u"", u"<"}},
                 {u"< ab>", {u"", u"<"}},
                 {u" <ab>", {u"ab", u" "}},
                 {u"   <ab>", {u"ab", u" "}},
                 {u"a<  b c  > d", {u"b c", u"a"}},
                 {u"a <>", {u">", u"a"}},
                 {u"a <  >", {u">", u"a"}},
                 {u"a <", {u"", u"a"}},
                 {u"a <   ", {u"", u"a"}},
                 {u"a <b", {u"b", u"a"}}};
    for (const auto& [text, split] : cases) {
        EXPECT_EQ(kelToMapi(text), split) << testing::PrintToString(text);
    }
}

TEST(KelRecipientsToMAPIRecipients, AgreesWithTheRulesOverRandomTexts) {
    std::mt19937 random(4712);
    for (int i = 0; i < 60000; ++i) {
        const u16string text = randomText(random, u"<<>>   \"ab", 10);
        ASSERT_EQ(kelToMapi(text), expectedMapi(text)) << testing::PrintToString(text);
    }
}

// An address that never comes has nothing behind the terminator to cut.
TEST(KelRecipientsToMAPIRecipients, WritesNothingBehindTheText) {
    for (const u16string_view text : {u"a <", u"a <  ", u"<", u"<   "}) {
        u16string room(text);
        room += u'\0';
        room += u"xy";
        WCHAR* address = nullptr;
        WCHAR* name = nullptr;
        AddressUtilities::KelRecipientsToMAPIRecipients(room.data(), &address, &name);
        EXPECT_EQ(room.substr(text.size()), u16string_view(u"\0xy", 3));
    }
}

struct Parsed {
    u16string name;
    u16string address;

    bool operator==(const Parsed&) const = default;
};

void PrintTo(const Parsed& parsed, std::ostream* out) {
    *out << testing::PrintToString(parsed.name) << " and " << testing::PrintToString(parsed.address);
}

Parsed parse(const u16string& text, int nameRoom, int addressRoom) {
    Text s(text);
    const auto name = std::make_unique<WCHAR[]>(nameRoom + 1);
    const auto address = std::make_unique<WCHAR[]>(addressRoom + 1);
    int nameLength = nameRoom;
    int addressLength = addressRoom;
    AddressUtilities::ParseEmailAddress(s, name.get(), &nameLength, address.get(), &addressLength);
    EXPECT_EQ(s.string(), text);
    Parsed parsed{name.get(), address.get()};
    EXPECT_EQ(parsed.name.size(), static_cast<std::size_t>(nameLength));
    EXPECT_EQ(parsed.address.size(), static_cast<std::size_t>(addressLength));
    return parsed;
}

TEST(ParseEmailAddress, CopiesBoundedParts) {
    EXPECT_EQ(parse(u"\"Jo\" <jo.doe>", 50, 50), (Parsed{u"\"Jo\" ", u"jo.doe"}));
    EXPECT_EQ(parse(u"\"Jo\" <jo.doe>", 2, 3), (Parsed{u"\"J", u"jo."}));
    EXPECT_EQ(parse(u"\"Jo\" <jo.doe>", 0, 0), (Parsed{u"", u""}));
    EXPECT_EQ(parse(u"Jo <jo> <al>", 50, 50), (Parsed{u"Jo ", u"jo"}));
    EXPECT_EQ(parse(u"<j>", 50, 50), (Parsed{u"", u"j"}));
    EXPECT_EQ(parse(u"a <<b>", 50, 50), (Parsed{u"a ", u"<b"}));
}

TEST(ParseEmailAddress, WithoutAPairTheWholeTextIsTheAddress) {
    for (const u16string text : {u"", u"jo", u"Jo <jo", u"Jo jo>", u"Jo <>", u"a > b <c", u"a> <c>"}) {
        EXPECT_EQ(parse(text, 50, 50), (Parsed{u"", text}));
        EXPECT_EQ(parse(text, 0, 3), (Parsed{u"", text.substr(0, 3)}));
    }
}

TEST(ParseEmailAddress, NegativeRoomIsNoBuffer) {
    for (const u16string text : {u"a <b>", u"ab"}) {
        Text s(text);
        int nameLength = -1;
        int addressLength = -5;
        AddressUtilities::ParseEmailAddress(s, nullptr, &nameLength, nullptr, &addressLength);
        EXPECT_EQ(nameLength, 0);
        EXPECT_EQ(addressLength, 0);
    }
}

using Recipients = std::vector<std::vector<SPropValue>>;

// An address list with as many entries as it is given, each of them a list of properties.
class AddressList {
public:
    explicit AddressList(const Recipients& entries)
        : properties_(entries), bytes_(CbNewADRLIST(static_cast<ULONG>(entries.size()))) {
        auto* list = new (bytes_.data()) ADRLIST;
        list->cEntries = static_cast<ULONG>(entries.size());
        for (std::size_t i = 0; i < entries.size(); ++i) {
            ADRENTRY* entry = new (bytes_.data() + CbNewADRLIST(static_cast<ULONG>(i))) ADRENTRY;
            *entry = {0, static_cast<ULONG>(properties_[i].size()), properties_[i].data()};
        }
    }

    int memory() { return AddressUtilities::CalculateMemoryForRecipient(reinterpret_cast<ADRLIST*>(bytes_.data())); }

private:
    Recipients properties_;
    std::vector<unsigned char> bytes_;
};

SPropValue textProperty(ULONG tag, WCHAR* text) {
    SPropValue property{tag, 0, {}};
    property.Value.lpszW = text;
    return property;
}

SPropValue recipientType() {
    SPropValue property{PR_RECIPIENT_TYPE, 0, {}};
    property.Value.l = MAPI_TO;
    return property;
}

TEST(CalculateMemoryForRecipient, CountsMarkedEntries) {
    Text name(u"Al Jo");
    Text address(u"al@jo.com");
    const SPropValue named = textProperty(PR_DISPLAY_NAME_W, name);
    const SPropValue addressed = textProperty(PR_EMAIL_ADDRESS_W, address);
    EXPECT_EQ(AddressList(Recipients()).memory(), 0);
    EXPECT_EQ(AddressList({{recipientType(), named, addressed}}).memory(), 50);
    EXPECT_EQ(AddressList({{addressed, named, recipientType()}}).memory(), 50);
    EXPECT_EQ(AddressList({{named, addressed}}).memory(), 12);
    EXPECT_EQ(AddressList(Recipients(1)).memory(), 12);
    EXPECT_EQ(AddressList({{recipientType()}}).memory(), 18);
    EXPECT_EQ(AddressList({{recipientType(), named}, {addressed}, {recipientType(), addressed}}).memory(),
              12 + 2 * (6 + 3) + 2 * (10 + 3));
}

TEST(CalculateMemoryForRecipient, OtherTagsDoNotCount) {
    Text text(u"text");
    EXPECT_EQ(
        AddressList({{textProperty(PROP_TAG(PT_UNICODE, 0x3002), text), textProperty(0x3001001E, text)}}).memory(), 12);
}

TEST(CalculateMemoryForRecipient, TheLastOfTwoNamesCounts) {
    Text shorter(u"a");
    Text longer(u"abcdef");
    EXPECT_EQ(AddressList({{recipientType(), textProperty(PR_DISPLAY_NAME_W, longer),
                            textProperty(PR_DISPLAY_NAME_W, shorter)}})
                  .memory(),
              12 + 2 * (2 + 3));
}

TEST(CalculateMemoryForRecipient, CountsWrapAt16Bits) {
    Text name(u16string(32767, u'n'));
    EXPECT_EQ(AddressList({{recipientType(), textProperty(PR_DISPLAY_NAME_W, name)}}).memory(), 12 + 2 * (-32768 + 3));
    Text longer(u16string(65535, u'n'));
    EXPECT_EQ(AddressList({{recipientType(), textProperty(PR_DISPLAY_NAME_W, longer)}}).memory(), 12 + 2 * 3);
}

TEST(CalculateMemoryForRecipient, APropertyWithoutATextCountsNothing) {
    EXPECT_EQ(AddressList({{recipientType(), textProperty(PR_DISPLAY_NAME_W, nullptr)}}).memory(), 18);
}

TEST(AddressList, PropertyTagsAreThePlatforms) {
    EXPECT_EQ(PR_RECIPIENT_TYPE, 0x0C150003u);
    EXPECT_EQ(PR_DISPLAY_NAME_W, 0x3001001Fu);
    EXPECT_EQ(PR_EMAIL_ADDRESS_W, 0x3003001Fu);
}

}  // namespace
