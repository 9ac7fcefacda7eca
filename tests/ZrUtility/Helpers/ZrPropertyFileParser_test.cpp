#include "ZrUtility/Helpers/ZrPropertyFileParser.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/files.h"
#include "support/failing_new.h"
#include "support/permissions.h"
#include "support/sandbox.h"
#include "support/text.h"

namespace {

using std::string;
using std::u16string;
using std::u16string_view;
using zr::test::FailingNew;
using zr::test::randomText;
using zr::test::TempFolder;
using zr::test::Text;
using Parser = ZrPropertyFileParser;

constexpr WCHAR kQuote = u'"';
constexpr WCHAR kEscape = u'\\';
constexpr const WCHAR* kHash = u"#\0";

u16string markers(const std::vector<u16string>& texts) {
    u16string joined;
    for (const u16string& text : texts) {
        joined += text + u'\0';
    }
    return joined;
}

// ---- In place

u16string stripWhiteSpace(const u16string& text, int trailing, int leading) {
    const Text s(text);
    return Parser::StripWhiteSpace(s, trailing, leading);
}

TEST(StripWhiteSpace, StripsTheEndsThatAreAskedFor) {
    EXPECT_EQ(stripWhiteSpace(u" \ta b\r\n", 1, 1), u"a b");
    EXPECT_EQ(stripWhiteSpace(u" \ta b\r\n", 1, 0), u" \ta b");
    EXPECT_EQ(stripWhiteSpace(u" \ta b\r\n", 0, 1), u"a b\r\n");
    EXPECT_EQ(stripWhiteSpace(u" \ta b\r\n", 0, 0), u" \ta b\r\n");
    EXPECT_EQ(stripWhiteSpace(u"\x2003\xA0x\x3000", -1, -1), u"x");
    EXPECT_EQ(Parser::StripWhiteSpace(nullptr, 1, 1), nullptr);
}

TEST(StripWhiteSpace, StopsAtTheFirstCharacter) {
    for (const int leading : {0, 1}) {
        EXPECT_EQ(stripWhiteSpace(u"", 1, leading), u"");
        EXPECT_EQ(stripWhiteSpace(u" ", 1, leading), u"");
        EXPECT_EQ(stripWhiteSpace(u" \t\n", 1, leading), u"");
    }
    const Text s(u" \t ");
    Parser::StripWhiteSpace(s, 1, 0);
    EXPECT_EQ(u16string_view(s, 4), u16string_view(u"\0\0\0\0", 4));
    EXPECT_EQ(stripWhiteSpace(u" \t ", 0, 1), u"");
}

u16string stripComments(const u16string& text, const u16string& list, WCHAR quote = kQuote, WCHAR escape = kEscape) {
    const Text s(text);
    EXPECT_EQ(Parser::StripComments(s, Text(list), quote, escape), static_cast<WCHAR*>(s));
    return s.string();
}

TEST(StripComments, CutsAtTheFirstMarkerOutsideQuotes) {
    const u16string hash = markers({u"#"});
    EXPECT_EQ(stripComments(u"a # b # c", hash), u"a ");
    EXPECT_EQ(stripComments(u"# b", hash), u"");
    EXPECT_EQ(stripComments(u"a#", hash), u"a");
    EXPECT_EQ(stripComments(u"a \"#\" b # c", hash), u"a \"#\" b ");
    EXPECT_EQ(stripComments(u"a \"# b", hash), u"a \"# b");
    EXPECT_EQ(stripComments(u"a b", hash), u"a b");
}

TEST(StripComments, KnowsSeveralMarkersOfAnyLength) {
    const u16string list = markers({u"//", u";", u"rem "});
    EXPECT_EQ(stripComments(u"a / b // c", list), u"a / b ");
    EXPECT_EQ(stripComments(u"a ; b // c", list), u"a ");
    EXPECT_EQ(stripComments(u"rem a", list), u"");
    EXPECT_EQ(stripComments(u"remove", list), u"remove");
    EXPECT_EQ(stripComments(u"/", list), u"/");
}

TEST(StripComments, EscapedQuoteDoesNotClose) {
    const u16string hash = markers({u"#"});
    EXPECT_EQ(stripComments(u"\"a\\\"#\"#", hash), u"\"a\\\"#\"");
    EXPECT_EQ(stripComments(u"\"a\\\"#\"#", hash, kQuote, 0), u"\"a\\\"");
    EXPECT_EQ(stripComments(u"\\\"#\"#", hash), u"\\\"#\"");
    EXPECT_EQ(stripComments(u"\"#\"", hash, 0, kEscape), u"\"");
    EXPECT_EQ(stripComments(u"'#' \"# ", hash, u'\'', kEscape), u"'#' \"");
}

TEST(StripComments, LeavesALineWithoutMarkersAlone) {
    EXPECT_EQ(stripComments(u"a # b", u"\0"), u"a # b");
    EXPECT_EQ(stripComments(u"", markers({u"#"})), u"");
    const Text line(u"a # b");
    EXPECT_EQ(Parser::StripComments(line, nullptr, kQuote, kEscape), static_cast<WCHAR*>(line));
    EXPECT_EQ(line.string(), u"a # b");
    EXPECT_EQ(Parser::StripComments(nullptr, Text(markers({u"#"})), kQuote, kEscape), nullptr);
}

TEST(StripComments, GoesOnBehindTheCut) {
    const Text line(u"a#b#c");
    Parser::StripComments(line, Text(markers({u"#"})), kQuote, kEscape);
    EXPECT_EQ(u16string_view(line, 6), u16string_view(u"a\0b\0c\0", 6));
}

TEST(NormalizeLine, StripsCommentsThenWhiteSpace) {
    const Text line(u" \t a = \"#\" \t# b\n");
    EXPECT_EQ(u16string_view(Parser::NormalizeLine(line, kHash, kQuote, kEscape)), u"a = \"#\"");
    EXPECT_EQ(Parser::NormalizeLine(nullptr, kHash, kQuote, kEscape), nullptr);
}

u16string stripQuotes(const u16string& text, WCHAR quote = kQuote, WCHAR escape = kEscape) {
    return Parser::StripQuotes(Text(text), quote, escape);
}

TEST(StripQuotes, TakesWhatStandsBetween) {
    EXPECT_EQ(stripQuotes(u"\"a b\""), u"a b");
    EXPECT_EQ(stripQuotes(u"\"a\" b \"c\""), u"a");
    EXPECT_EQ(stripQuotes(u"\"\""), u"");
    EXPECT_EQ(stripQuotes(u"\""), u"");
    EXPECT_EQ(stripQuotes(u"\"a"), u"a");
}

TEST(StripQuotes, KeepsEscapedQuotes) {
    EXPECT_EQ(stripQuotes(u"\"say \\\"hi\\\" now\" x"), u"say \"hi\" now");
    EXPECT_EQ(stripQuotes(u"\"a\\\""), u"a\"");
    EXPECT_EQ(stripQuotes(u"\"a\\b\\\\\""), u"a\\b\\\"");
    EXPECT_EQ(stripQuotes(u"\"\\\"\\\""), u"\"\"");
}

TEST(StripQuotes, LeavesOtherTextsAlone) {
    const Text s(u"a \"b\"");
    EXPECT_EQ(Parser::StripQuotes(s, kQuote, kEscape), static_cast<WCHAR*>(s));
    EXPECT_EQ(s.string(), u"a \"b\"");
    EXPECT_EQ(stripQuotes(u""), u"");
    EXPECT_EQ(stripQuotes(u"\"a\"", 0), u"\"a\"");
    EXPECT_EQ(stripQuotes(u"'a'"), u"'a'");
    EXPECT_EQ(stripQuotes(u"'a'", u'\''), u"a");
    EXPECT_EQ(Parser::StripQuotes(nullptr, kQuote, kEscape), nullptr);
}

TEST(StripQuotes, WithoutAnEscapeNothingCloses) {
    EXPECT_EQ(stripQuotes(u"\"abc\"", kQuote, 0), u"ab\"");
    EXPECT_EQ(stripQuotes(u"\"\"", kQuote, 0), u"");
    EXPECT_EQ(stripQuotes(u"\"\"\"", kQuote, 0), u"");
    EXPECT_EQ(stripQuotes(u"\"a\"b\"c", kQuote, 0), u"\"\"c");
}

// The rules as they are said, one shift of the whole rest at a time.
u16string quotesModel(u16string s, WCHAR quote, WCHAR escape) {
    if (quote == 0 || s.empty() || s[0] != quote) return s;
    for (std::size_t from = 1;;) {
        const std::size_t found = s.find(quote, from);
        if (found == u16string::npos) return s.substr(1);
        if (escape != 0 && s[found - 1] != escape) return s.substr(1, found - 1);
        s.erase(found - 1, 1);
        from = found;
    }
}

u16string commentsModel(const u16string& line, const std::vector<u16string>& list, WCHAR quote, WCHAR escape) {
    bool quoted = false;
    for (std::size_t at = 0; at < line.size(); ++at) {
        if (quote != 0 && line[at] == quote) {
            if (!quoted)
                quoted = true;
            else if (escape == 0 || line[at - 1] != escape)
                quoted = false;
        }
        for (const u16string& marker : list) {
            if (!quoted && line.compare(at, marker.size(), marker) == 0) return line.substr(0, at);
        }
    }
    return line;
}

TEST(ZrPropertyFileParser, InPlaceFunctionsAgreeWithSimpleModels) {
    std::mt19937 random(20260101);
    constexpr u16string_view kCharacters = u"\"\"\\\\##/'a b\x3000";
    const std::vector<u16string> lists[] = {{}, {u"#"}, {u"//", u"#"}, {u"\""}, {u"a \\", u"b", u"\x3000"}};
    for (int i = 0; i < 20000; ++i) {
        const u16string text = randomText(random, kCharacters, 16);
        const WCHAR quote = u"\"\"'\0"[random() % 4];
        const WCHAR escape = u"\\\\\"\0"[random() % 4];
        const auto& list = lists[random() % std::size(lists)];
        SCOPED_TRACE(testing::PrintToString(text));
        ASSERT_EQ(stripQuotes(text, quote, escape), quotesModel(text, quote, escape));
        ASSERT_EQ(stripComments(text, markers(list), quote, escape), commentsModel(text, list, quote, escape));
    }
}

// ---- Files

struct Property {
    ULONG line;
    u16string key;
    u16string value;

    friend bool operator==(const Property&, const Property&) = default;
};
using Properties = std::vector<Property>;

struct Collected {
    Properties properties;
    std::size_t limit = SIZE_MAX;  // the last call says so to stop
};

int collect(ULONG line, const WCHAR* key, const WCHAR* value, void* context) {
    auto& collected = *static_cast<Collected*>(context);
    collected.properties.push_back({line, key, value});
    return collected.properties.size() < collected.limit ? 1 : 0;
}

int parse(const u16string& path, Collected& collected, const WCHAR* list = kHash) {
    return Parser::ParsePropertyFile(path.c_str(), list, kQuote, kEscape, collect, &collected);
}

class PropertyFile : public testing::Test {
protected:
    u16string path() const { return folder_.handheld() + u"\\a.properties"; }
    std::filesystem::path host() const { return folder_.host() / "a.properties"; }

    void write(std::string_view bytes) {
        std::ofstream file(host(), std::ios::binary);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        ASSERT_TRUE(file.flush());
    }
    // What a file of these bytes holds; it must be read to its end.
    Properties parsed(std::string_view bytes) {
        write(bytes);
        Collected collected;
        EXPECT_EQ(parse(path(), collected), 1);
        return collected.properties;
    }

    TempFolder folder_;
};

TEST_F(PropertyFile, HandsOverEachPair) {
    EXPECT_EQ(parsed("a=1\nb = two words \n"), (Properties{{1, u"a", u"1"}, {2, u"b", u"two words"}}));
    EXPECT_EQ(parsed("a=1"), (Properties{{1, u"a", u"1"}}));
    EXPECT_EQ(parsed("a = b = c\n"), (Properties{{1, u"a", u"b = c"}}));
    EXPECT_EQ(parsed("a=\n=b\n=\n"), (Properties{{1, u"a", u""}, {2, u"", u"b"}, {3, u"", u""}}));
}

TEST_F(PropertyFile, CountsTheLinesItPassesOver) {
    EXPECT_EQ(parsed("# comment\n\nno pair\n  \t \na=1\n#b=2\n\nc=3"), (Properties{{5, u"a", u"1"}, {8, u"c", u"3"}}));
    EXPECT_EQ(parsed("a # = b\n"), Properties{});
    EXPECT_EQ(parsed(""), Properties{});
    EXPECT_EQ(parsed("\n\n\n"), Properties{});
}

TEST_F(PropertyFile, UnderstandsQuotesEscapesAndComments) {
    EXPECT_EQ(parsed("name=\"say \\\"hi\\\" # here\"   # note\n"), (Properties{{1, u"name", u"say \"hi\" # here"}}));
    EXPECT_EQ(parsed("\"a\"=\" b \"\n"), (Properties{{1, u"\"a\"", u" b "}}));
}

TEST_F(PropertyFile, PassesItsArgumentsOn) {
    write("a='#'\n;b=1\nc=2;\n");
    Collected collected;
    EXPECT_EQ(Parser::ParsePropertyFile(path().c_str(), u";\0", u'\'', kEscape, collect, &collected), 1);
    EXPECT_EQ(collected.properties, (Properties{{1, u"a", u"#"}, {3, u"c", u"2"}}));
    collected = {};
    EXPECT_EQ(Parser::ParsePropertyFile(path().c_str(), nullptr, 0, 0, collect, &collected), 1);
    EXPECT_EQ(collected.properties, (Properties{{1, u"a", u"'#'"}, {2, u";b", u"1"}, {3, u"c", u"2;"}}));
}

TEST_F(PropertyFile, TakesEveryEndOfLine) {
    EXPECT_EQ(parsed("a=1\r\nb=2\r\n\r\nc=3\r\n"), (Properties{{1, u"a", u"1"}, {2, u"b", u"2"}, {4, u"c", u"3"}}));
    EXPECT_EQ(parsed("a=1\rb=2\r"), (Properties{{1, u"a", u"1\rb=2"}}));
}

TEST_F(PropertyFile, StopsWhenTheCallbackSaysSo) {
    write("a=1\nb=2\nc=3\n");
    Collected collected;
    collected.limit = 2;
    EXPECT_EQ(parse(path(), collected), 0);
    EXPECT_EQ(collected.properties, (Properties{{1, u"a", u"1"}, {2, u"b", u"2"}}));
}

TEST_F(PropertyFile, LongLinesComeInPieces) {
    const string longest = "k=" + string(1020, 'v');
    EXPECT_EQ(parsed(longest + "\na=1\n"), (Properties{{1, u"k", u16string(1020, u'v')}, {2, u"a", u"1"}}));
    // The end of line does not fit in any more, and is a line of its own.
    EXPECT_EQ(parsed(longest + "v\na=1\n"), (Properties{{1, u"k", u16string(1021, u'v')}, {3, u"a", u"1"}}));
    EXPECT_EQ(parsed(longest + "v"), (Properties{{1, u"k", u16string(1021, u'v')}}));
    EXPECT_EQ(parsed(longest + "vx=2\na=1\n"),
              (Properties{{1, u"k", u16string(1021, u'v')}, {2, u"x", u"2"}, {3, u"a", u"1"}}));
    EXPECT_EQ(parsed(longest + "\r\na=1\r\n"), (Properties{{1, u"k", u16string(1020, u'v')}, {2, u"a", u"1"}}));
    EXPECT_EQ(parsed(string(3 * 1023, 'x') + "a=1\n"), (Properties{{4, u"a", u"1"}}));
}

// In characters, not in bytes: 1,023 of them are a piece whatever each took in the file.
TEST_F(PropertyFile, PiecesCountCharacters) {
    string line = "k=";
    for (int i = 0; i < 1021; ++i) {
        line += "\xE2\x82\xAC";
    }
    EXPECT_EQ(parsed(line + "x=1\n"), (Properties{{1, u"k", u16string(1021, u'\x20AC')}, {2, u"x", u"1"}}));
}

TEST_F(PropertyFile, ReadsUtf8WithAndWithoutAMark) {
    const Properties expected = {{1, u"gr\xFC\xDF", u"\x20AC \xD83D\xDE00"}};
    EXPECT_EQ(parsed("gr\xC3\xBC\xC3\x9F=\xE2\x82\xAC \xF0\x9F\x98\x80\n"), expected);
    EXPECT_EQ(parsed("\xEF\xBB\xBFgr\xC3\xBC\xC3\x9F=\xE2\x82\xAC \xF0\x9F\x98\x80\n"), expected);
    EXPECT_EQ(parsed("\xEF\xBB\xBF"), Properties{});
    EXPECT_EQ(parsed("\xEF\xBB"), Properties{});
    EXPECT_EQ(parsed("a=\xEF\xBB\xBF"), (Properties{{1, u"a", u"\xFEFF"}}));
}

string utf16(u16string_view text, bool big) {
    string bytes;
    for (const WCHAR c : text) {
        const char low = static_cast<char>(c & 0xFF);
        const char high = static_cast<char>(c >> 8);
        bytes += big ? high : low;
        bytes += big ? low : high;
    }
    return bytes;
}

TEST_F(PropertyFile, ReadsUtf16WithAMarkOfEitherOrder) {
    const u16string text = u"\xFEFFgr\xFC\xDF=\x20AC \xD83D\xDE00\r\n\xD800=\xFEFF\n";
    const Properties expected = {{1, u"gr\xFC\xDF", u"\x20AC \xD83D\xDE00"}, {2, u"\xD800", u"\xFEFF"}};
    for (const bool big : {false, true}) {
        EXPECT_EQ(parsed(utf16(text, big)), expected);
        EXPECT_EQ(parsed(utf16(u"\xFEFF", big)), Properties{});
        EXPECT_EQ(parsed(utf16(u"\xFEFF"
                               u"a=b",
                               big) +
                         "x"),
                  (Properties{{1, u"a", u"b\xFFFD"}}));
        EXPECT_EQ(parsed(utf16(u"\xFEFF" + u16string(4 * 1023, u'x') + u"a=b", big)), (Properties{{5, u"a", u"b"}}));
    }
}

TEST_F(PropertyFile, ReadsInvalidTextAsReplacements) {
    EXPECT_EQ(parsed("a=x\xFFy\xE2\x82z\xC3\n"), (Properties{{1, u"a", u"x\xFFFDy\xFFFDz\xFFFD"}}));
    EXPECT_EQ(parsed("a=\xE2\x82"), (Properties{{1, u"a", u"\xFFFD"}}));
}

TEST_F(PropertyFile, NulEndsWhatIsSeenOfItsLine) {
    EXPECT_EQ(parsed(string("a=1\0=2\nb\0=1\nc=3\n", 16)), (Properties{{1, u"a", u"1"}, {3, u"c", u"3"}}));
    EXPECT_EQ(parsed(string(5000, '\0')), Properties{});
}

TEST_F(PropertyFile, RefusesMissingArguments) {
    Collected collected;
    SetLastError(0);
    EXPECT_EQ(Parser::ParsePropertyFile(nullptr, kHash, kQuote, kEscape, collect, &collected), 0);
    EXPECT_EQ(GetLastError(), 87u);
    write("a=1\n");
    SetLastError(0);
    EXPECT_EQ(Parser::ParsePropertyFile(path().c_str(), kHash, kQuote, kEscape, nullptr, &collected), 0);
    EXPECT_EQ(GetLastError(), 87u);
}

TEST_F(PropertyFile, FailsWhenTheFileCannotBeOpened) {
    Collected collected;
    EXPECT_EQ(parse(path(), collected), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(parse(path() + u"\\b", collected), 0);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(parse(u"", collected), 0);
    EXPECT_EQ(parse(folder_.handheld(), collected), 0);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    write("a=1\n");
    std::filesystem::permissions(host(), std::filesystem::perms::none);
    const zr::test::WithoutOverride unprivileged;
    EXPECT_EQ(parse(path(), collected), 0);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(collected.properties, Properties{});
}

// This process's own memory can be opened, and nothing is at its start.
TEST_F(PropertyFile, FailsWhenReadingFails) {
    std::filesystem::create_symlink("/proc/self/mem", host());
    Collected collected;
    SetLastError(0);
    EXPECT_EQ(parse(path(), collected), 0);
    EXPECT_NE(GetLastError(), 0u);
    EXPECT_EQ(collected.properties, Properties{});
}

TEST_F(PropertyFile, FailsWhenMemoryIsShort) {
    write("a=1\n");
    const u16string file = path();
    Collected collected;
    parse(file, collected);
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    const long news = zr::test::live_news();
    const auto nothing = [](ULONG, const WCHAR*, const WCHAR*, void*) { return 1; };
    bool parsed = false;
    for (int successes = 0; !parsed; ++successes) {
        ASSERT_LT(successes, 100);
        {
            const FailingNew failing(successes);
            parsed = Parser::ParsePropertyFile(file.c_str(), kHash, kQuote, kEscape, nothing, nullptr) == 1;
        }
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
        EXPECT_EQ(zr::test::live_news(), news);
    }
}

TEST_F(PropertyFile, ClosesTheFileHoweverItEnds) {
    write("a=1\nb=2\n");
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    Collected collected;
    EXPECT_EQ(parse(path(), collected), 1);
    collected.limit = 1;
    EXPECT_EQ(parse(path(), collected), 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
}

// Once the first property is there nothing more is allocated, however long the file is and its line.
TEST_F(PropertyFile, BigFileWithoutALineEndNeedsNoMemory) {
    write("a=1\n");
    constexpr std::uintmax_t kSize = 16 << 20;
    std::filesystem::resize_file(host(), kSize - 4);
    std::ofstream(host(), std::ios::binary | std::ios::app) << "\nb=2";
    struct Watched {
        std::optional<FailingNew> failing;
        ULONG last = 0;
    } watched;
    const auto callback = [](ULONG line, const WCHAR*, const WCHAR*, void* context) {
        auto& seen = *static_cast<Watched*>(context);
        seen.last = line;
        if (!seen.failing) seen.failing.emplace();
        return 1;
    };
    const int result = Parser::ParsePropertyFile(path().c_str(), kHash, kQuote, kEscape, callback, &watched);
    watched.failing.reset();
    EXPECT_EQ(result, 1);
    // The zeros with the end of line behind them, in pieces, between the first line and the last.
    EXPECT_EQ(watched.last, 2 + (kSize - 4 - 4 + 1 + 1022) / 1023);
}

// A pipe that never ends, and never ends a line.
TEST_F(PropertyFile, EndlessFileEndsWithTheCallback) {
    ASSERT_EQ(mkfifo(host().c_str(), 0600), 0);
    const int pipe = open(host().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    const string bytes(30000, '=');
    ASSERT_EQ(::write(pipe, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    Collected collected;
    collected.limit = 20;
    EXPECT_EQ(parse(path(), collected), 0);
    ASSERT_EQ(collected.properties.size(), 20u);
    EXPECT_EQ(collected.properties.back(), (Property{20, u"", u16string(1022, u'=')}));
    close(pipe);
}

// ---- Any bytes

u16string decoded(const string& bytes) {
    const bool little = bytes.starts_with("\xFF\xFE");
    if (little || bytes.starts_with("\xFE\xFF")) {
        u16string text;
        for (std::size_t i = 2; i < bytes.size(); i += 2) {
            const auto first = static_cast<unsigned char>(bytes[i]);
            if (i + 1 == bytes.size()) return text + u'\xFFFD';
            const auto second = static_cast<unsigned char>(bytes[i + 1]);
            text += static_cast<WCHAR>(little ? second << 8 | first : first << 8 | second);
        }
        return text;
    }
    const std::size_t mark = bytes.starts_with("\xEF\xBB\xBF") ? 3 : 0;
    u16string text(bytes.size() + 1, u'\0');
    const int length = MultiByteToWideChar(CP_UTF8, 0, bytes.data() + mark, static_cast<int>(bytes.size() - mark),
                                           text.data(), static_cast<int>(text.size()));
    return text.substr(0, static_cast<std::size_t>(length));
}

u16string trimmed(const u16string& text) {
    const Text s(text);
    return Parser::StripWhiteSpace(s, 1, 1);
}

// The whole file in memory, line after line.
Properties fileModel(const string& bytes) {
    u16string text = decoded(bytes);
    for (std::size_t at = 0; (at = text.find(u"\r\n", at)) != u16string::npos;) {
        text.erase(at, 1);
    }
    Properties properties;
    ULONG number = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min({text.find(u'\n', at), text.size() - 1, at + 1022}) + 1;
        u16string line = text.substr(at, end - at);
        at = end;
        ++number;
        line = commentsModel(line.substr(0, line.find(u'\0')), {u"#"}, kQuote, kEscape);
        const std::size_t equals = line.find(u'=');
        if (equals == u16string::npos) continue;
        const u16string value = quotesModel(trimmed(line.substr(equals + 1)), kQuote, kEscape);
        properties.push_back({number, trimmed(line.substr(0, equals)), value});
    }
    return properties;
}

string randomFile(std::mt19937& random) {
    static const string pieces[] = {"a",    "=",    " ",    "\n",   "\r\n",         "\r",           "\"",
                                    "\\\"", "#",    "\t",   "key",  "\xC3\xBC",     "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                    "\xFF", "\xE2", "\x82", "\xF0", string(1, '\0')};
    static const string marks[] = {"", "", "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF", "\xEF\xBB", "\xFF"};
    string bytes = marks[random() % std::size(marks)];
    const std::size_t size = random() % 4 == 0 ? random() % 8000 : random() % 200;
    while (bytes.size() < size) {
        bytes += pieces[random() % std::size(pieces)];
        if (random() % 64 == 0) bytes.append(random() % 1500, 'v');
    }
    return bytes;
}

TEST_F(PropertyFile, AgreesWithASimpleModelOverRandomFiles) {
    std::mt19937 random(20260101);
    for (int i = 0; i < 600; ++i) {
        SCOPED_TRACE(i);
        const string bytes = randomFile(random);
        ASSERT_EQ(parsed(bytes), fileModel(bytes));
    }
}

// Every place of a character across the edge between two reads.
TEST_F(PropertyFile, CharactersMayLieAcrossReads) {
    for (const string tail :
         {"\xC3\xBC=1", "\xE2\x82\xAC=1", "\xF0\x9F\x98\x80=1", "\r\na=1", "\xF0\x9F\x98", "\xE2"}) {
        for (std::size_t before = 1018; before < 1027; ++before) {
            const string bytes = string(before, 'x') + tail;
            ASSERT_EQ(parsed(bytes), fileModel(bytes)) << before;
        }
    }
}

}  // namespace
