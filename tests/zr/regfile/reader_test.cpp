#include "zr/regfile/reader.h"

#include <gtest/gtest.h>
#include <platform/registry.h>
#include <sys/resource.h>

#include <cstring>

#include "support/instrumented.h"
#include "zr/regfile/files.h"

namespace {

using zr::RegPath;
using zr::RegRoot;
using zr::RegStatement;
using zr::RegValue;
using zr::test::read_reg_file;
using zr::test::ReadRegFile;
using zr::test::reg_file_text;
using zr::test::shown;
using zr::test::text_value;
using Kind = RegStatement::Kind;

std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (const int each : values) {
        text += static_cast<char>(each);
    }
    return text;
}

// The value that this says of the name X.
RegValue value_of(const std::string& data) {
    const ReadRegFile file = read_reg_file(reg_file_text("\"X\"=" + data + "\r\n"));
    EXPECT_TRUE(file.lost.empty()) << data << ": " << shown(file.lost).front();
    if (file.statements.size() != 2) return {0xDEAD, "?"};
    EXPECT_EQ(file.statements[1].kind, Kind::Value);
    EXPECT_EQ(file.statements[1].name, u"X");
    return file.statements[1].value;
}

// Why the lines below the key on line 3 are refused; the first of them is line 4.
std::vector<std::string> faults(const std::string& lines) {
    return shown(read_reg_file(reg_file_text(lines)).lost);
}

std::string utf16(std::u16string_view text, bool big = false) {
    std::string out = big ? "\xFE\xFF" : "\xFF\xFE";
    for (const char16_t unit : text) {
        const char low = static_cast<char>(unit & 0xFF);
        const char high = static_cast<char>(unit >> 8);
        out += big ? high : low;
        out += big ? low : high;
    }
    return out;
}

using Lines = std::vector<std::string>;

TEST(RegReader, ReadsKeysValuesAndDeletions) {
    const ReadRegFile file = read_reg_file(
        "Windows Registry Editor Version 5.00\r\n"
        "\r\n"
        "; settings\r\n"
        "[HKEY_LOCAL_MACHINE\\Software\\A b]\r\n"
        "@=\"default\"\r\n"
        "\"Name\"=\"text\"  ; said twice\r\n"
        "  \"Gone\" = - \r\n"
        "@=-\r\n"
        "\r\n"
        "[-hkcu\\Old] ; no more\r\n"
        "[HKU]\r\n");
    EXPECT_TRUE(file.lost.empty() && file.guesses.empty());
    ASSERT_EQ(file.statements.size(), 7u);
    EXPECT_EQ(file.statements[0].kind, Kind::Key);
    EXPECT_EQ(file.statements[0].key, (RegPath{RegRoot::LocalMachine, u"Software\\A b"}));
    EXPECT_EQ(file.statements[0].line, 4);
    EXPECT_EQ(file.statements[1].kind, Kind::Value);
    EXPECT_EQ(file.statements[1].name, u"");
    EXPECT_EQ(file.statements[1].value, text_value(u"default"));
    EXPECT_EQ(file.statements[2].value, text_value(u"text"));
    EXPECT_EQ(file.statements[3].kind, Kind::DeletedValue);
    EXPECT_EQ(file.statements[3].name, u"Gone");
    EXPECT_EQ(file.statements[3].line, 7);
    EXPECT_EQ(file.statements[4].kind, Kind::DeletedValue);
    EXPECT_EQ(file.statements[4].name, u"");
    EXPECT_EQ(file.statements[5].kind, Kind::DeletedKey);
    EXPECT_EQ(file.statements[5].key, (RegPath{RegRoot::CurrentUser, u"Old"}));
    EXPECT_EQ(file.statements[6].key, (RegPath{RegRoot::Users, u""}));
}

TEST(RegReader, ReadsEveryKindOfData) {
    EXPECT_EQ(value_of("\"\""), text_value(u""));
    EXPECT_EQ(value_of("\"C:\\\\a \\\"b\\\"\""), text_value(u"C:\\a \"b\""));
    EXPECT_EQ(value_of("\";no comment\""), text_value(u";no comment"));
    EXPECT_EQ(value_of("dword:0000002A"), (RegValue{REG_DWORD, bytes({0x2A, 0, 0, 0})}));
    EXPECT_EQ(value_of("DWORD: ffffFFFE ; -2"), (RegValue{REG_DWORD, bytes({0xFE, 0xFF, 0xFF, 0xFF})}));
    EXPECT_EQ(value_of("dword:7"), (RegValue{REG_DWORD, bytes({7, 0, 0, 0})}));
    EXPECT_EQ(value_of("hex:"), (RegValue{REG_BINARY, ""}));
    EXPECT_EQ(value_of("hex:00,a,FF"), (RegValue{REG_BINARY, bytes({0, 0xA, 0xFF})}));
    EXPECT_EQ(value_of("Hex(2):25,00,00,00"), (RegValue{REG_EXPAND_SZ, bytes({0x25, 0, 0, 0})}));
    EXPECT_EQ(value_of("hex(7):61,00,00,00,00,00"), (RegValue{REG_MULTI_SZ, bytes({0x61, 0, 0, 0, 0, 0})}));
    EXPECT_EQ(value_of("hex(b):01,02,03,04,05,06,07,08"), (RegValue{REG_QWORD, bytes({1, 2, 3, 4, 5, 6, 7, 8})}));
    EXPECT_EQ(value_of("hex(0):"), (RegValue{REG_NONE, ""}));
    EXPECT_EQ(value_of("hex(ffff0021):01 , 02"), (RegValue{0xFFFF0021, bytes({1, 2})}));
}

TEST(RegReader, TakesTypesWhoseDataIsNotWhatTheySay) {
    EXPECT_EQ(value_of("hex(4):01,02,03"), (RegValue{REG_DWORD, bytes({1, 2, 3})}));
    EXPECT_EQ(value_of("hex(1):61"), (RegValue{REG_SZ, "a"}));
    EXPECT_EQ(value_of("hex(7):61,00,62"), (RegValue{REG_MULTI_SZ, bytes({0x61, 0, 0x62})}));
    EXPECT_EQ(value_of("hex(b):"), (RegValue{REG_QWORD, ""}));
}

TEST(RegReader, ContinuesBytesInTheNextLine) {
    const RegValue three{REG_BINARY, bytes({1, 2, 3})};
    EXPECT_EQ(value_of("hex:01,02,\\\r\n  03"), three);
    EXPECT_EQ(value_of("hex:\\\r\n01,\\ ; more\r\n\t02,\\\r\n03 ; all"), three);
}

TEST(RegReader, KeepsTheLineBreaksOfTexts) {
    EXPECT_EQ(value_of("\"a\r\n; b\n\n[c]\r\n\""), text_value(u"a\r\n; b\n\n[c]\r\n"));
    const ReadRegFile file = read_reg_file(reg_file_text("\"a\r\r\nb\"=\"c\r\nd\"\r\n@=\"\"\r\n"));
    EXPECT_TRUE(file.lost.empty());
    ASSERT_EQ(file.statements.size(), 3u);
    EXPECT_EQ(file.statements[1].name, u"a\r\r\nb");
    EXPECT_EQ(file.statements[1].line, 4);
    EXPECT_EQ(file.statements[1].value, text_value(u"c\r\nd"));
    EXPECT_EQ(file.statements[2].line, 7);
}

TEST(RegReader, ReadsEveryEncoding) {
    const std::u16string text = u"Windows Registry Editor Version 5.00\r\n[HKCU\\Größe]\r\n\"€\"=\"山𝄞\"\r\n";
    for (const std::string& file : {utf16(text), utf16(text, true), utf16(text).substr(2), zr::to_utf8(text),
                                    "\xEF\xBB\xBF" + zr::to_utf8(text)}) {
        const ReadRegFile read = read_reg_file(file);
        EXPECT_TRUE(read.lost.empty() && read.guesses.empty());
        ASSERT_EQ(read.statements.size(), 2u);
        EXPECT_EQ(read.statements[0].key.below, u"Größe");
        EXPECT_EQ(read.statements[1].name, u"€");
        EXPECT_EQ(read.statements[1].value, text_value(u"山𝄞"));
    }
}

TEST(RegReader, KeepsLoneSurrogates) {
    const std::u16string name = {u'a', 0xDC00, 0xD800};
    const ReadRegFile read =
        read_reg_file(utf16(u"Windows Registry Editor Version 5.00\n[HKCU\\" + name + u"]\n\"" + name + u"\"=-\n"));
    ASSERT_EQ(read.statements.size(), 2u);
    EXPECT_EQ(read.statements[0].key.below, name);
    EXPECT_EQ(read.statements[1].name, name);
    EXPECT_TRUE(read.guesses.empty());
}

TEST(RegReader, ReadsAnsiTextOfVersion4) {
    const ReadRegFile file = read_reg_file(
        "REGEDIT4\r\n[HKEY_LOCAL_MACHINE\\Gr\xF6\xDF"
        "e]\r\n\"\x80\"=\"\x81\"\r\n"
        "\"e\"=hex(2):80,00\r\n\"m\"=hex(7):61,00,fc,00,00\r\n\"s\"=hex(1):61,00\r\n\"b\"=hex:80\r\n");
    EXPECT_TRUE(file.lost.empty() && file.guesses.empty());
    ASSERT_EQ(file.statements.size(), 6u);
    EXPECT_EQ(file.statements[0].key.below, u"Größe");
    EXPECT_EQ(file.statements[1].name, u"€");
    EXPECT_EQ(file.statements[1].value, text_value(u"\x81"));
    EXPECT_EQ(file.statements[2].value, (RegValue{REG_EXPAND_SZ, zr::reg_bytes({u"€\0", 2})}));
    EXPECT_EQ(file.statements[3].value, (RegValue{REG_MULTI_SZ, zr::reg_bytes({u"a\0ü\0\0", 5})}));
    EXPECT_EQ(file.statements[4].value, (RegValue{REG_SZ, bytes({0x61, 0})}));
    EXPECT_EQ(file.statements[5].value, (RegValue{REG_BINARY, "\x80"}));
    // The version tells, not the encoding.
    const ReadRegFile wide = read_reg_file(utf16(u"REGEDIT4\r\n[HKCU\\€]\r\n\"e\"=hex(2):80,00\r\n"));
    EXPECT_TRUE(wide.guesses.empty());
    EXPECT_EQ(wide.statements[1].value, (RegValue{REG_EXPAND_SZ, zr::reg_bytes({u"€\0", 2})}));
}

TEST(RegReader, TellsWhatItGuesses) {
    const ReadRegFile four = read_reg_file("REGEDIT4\n[HKCU\\\xC3\xBC]\n\"\xC3\xBC\"=-\n\"\xFC\"=-\n");
    EXPECT_EQ(shown(four.guesses), (Lines{"2: valid UTF-8; such lines are read as that, not as Windows-1252"}));
    EXPECT_EQ(four.statements[0].key.below, u"ü");
    EXPECT_EQ(four.statements[2].name, u"ü");
    EXPECT_TRUE(read_reg_file("\xEF\xBB\xBFREGEDIT4\n[HKCU\\\xC3\xBC]\n").guesses.empty());
    const ReadRegFile five = read_reg_file(reg_file_text("\"\xFC\"=-\n\"\xFC\"=-\n"));
    EXPECT_EQ(shown(five.guesses), (Lines{"4: not valid UTF-8; such lines are read as Windows-1252"}));
    EXPECT_EQ(five.statements[1].name, u"ü");
    const ReadRegFile half = read_reg_file(utf16(u"REGEDIT4\n[HKCU\\A]\n;") + "x");
    EXPECT_EQ(shown(half.guesses), (Lines{"3: half a character at the end of the file"}));
    EXPECT_EQ(half.statements.size(), 1u);
}

TEST(RegReader, TakesKeysUpToTheLastBracket) {
    const auto key = [](const std::string& line) {
        const ReadRegFile file = read_reg_file("REGEDIT4\n" + line + "\n");
        return file.statements.empty() ? "?" : zr::to_utf8(file.statements[0].key.below);
    };
    EXPECT_EQ(key("[HKCU\\a]b]"), "a]b");
    EXPECT_EQ(key("[HKCU\\a]]"), "a]");
    EXPECT_EQ(key("[HKCU\\ a ;b ]"), " a ;b ");
    EXPECT_EQ(key("[HKCU\\a\"=@]  ;x"), "a\"=@");
    EXPECT_EQ(key("  [HKCU\\a]b] ; x "), "a]b");
    EXPECT_EQ(key("[HKCU\\\\a\\\\b\\]"), "a\\b");
    EXPECT_EQ(key("[HKCU\\a] ; see [1]"), "a] ; see [1");
    EXPECT_EQ(shown(read_reg_file("REGEDIT4\n[HKCU\\a] ; see [1]\n").guesses),
              (Lines{"2: the key's name is taken to go up to the last ]"}));
}

TEST(RegReader, RefusesWhatIsNoSuchFile) {
    const std::string reason =
        "1: a file that begins neither with 'REGEDIT4' nor with 'Windows Registry Editor Version 5.00'";
    for (const char* text : {"", "\n; nothing\n", "REGEDIT\n[HKLM\\A]\n", "[HKLM\\A]\n", "SQLite format 3"}) {
        const ReadRegFile file = read_reg_file(text);
        ASSERT_EQ(file.lost.size(), 1u) << text;
        EXPECT_EQ(shown(file.lost)[0].substr(1), reason.substr(1));
        EXPECT_TRUE(file.statements.empty());
    }
    EXPECT_EQ(shown(read_reg_file("\n;a\nREGEDIT5\nx\ny\n").lost)[0].substr(0, 2), "3:");
    EXPECT_TRUE(read_reg_file("; before\n\nREGEDIT4").lost.empty());
}

TEST(RegReader, NamesDamagedValues) {
    EXPECT_EQ(faults("\"a\"=dword:123456789\n"), (Lines{"4: dword: with more than eight digits"}));
    EXPECT_EQ(faults("\"a\"=dword:\n"), (Lines{"4: dword: without a hexadecimal number"}));
    EXPECT_EQ(faults("\"a\"=dword:0x10\n"), (Lines{"4: more behind the data"}));
    EXPECT_EQ(faults("\"a\"=hex:1g\n"), (Lines{"4: bytes without a comma between them"}));
    EXPECT_EQ(faults("\"a\"=hex:g\n"), (Lines{"4: 'g' is not a hexadecimal byte"}));
    EXPECT_EQ(faults("\"a\"=hex:123\n"), (Lines{"4: bytes must be of one or two hexadecimal digits"}));
    EXPECT_EQ(faults("\"a\"=hex:01 02\n"), (Lines{"4: bytes without a comma between them"}));
    EXPECT_EQ(faults("\"a\"=hex:01,\n"), (Lines{"4: nothing behind the last comma"}));
    EXPECT_EQ(faults("\"a\"=hex:,01\n"), (Lines{"4: ',' is not a hexadecimal byte"}));
    EXPECT_EQ(faults("\"a\"=hex(g):01\n"), (Lines{"4: hex(TYPE): whose type is not one to eight hexadecimal digits"}));
    EXPECT_EQ(faults("\"a\"=hex(123456789):01\n"),
              (Lines{"4: hex(TYPE): whose type is not one to eight hexadecimal digits"}));
    EXPECT_EQ(faults("\"a\"=hexa:01\n"), (Lines{"4: hex without :"}));
    EXPECT_EQ(faults("\"a\"=qword:01\n"),
              (Lines{"4: data that is neither \"text\" nor dword: nor hex: nor hex(TYPE): nor -"}));
    EXPECT_EQ(faults("\"a\"\n"), (Lines{"4: a value without = behind its name"}));
    EXPECT_EQ(faults("\"a\"=\"b\" c\n"), (Lines{"4: more behind the data"}));
    EXPECT_EQ(faults("\"a\"=\"C:\\new\"\n"), (Lines{"4: a backslash in quotes that is not doubled"}));
    EXPECT_EQ(faults(std::string("\"a\"=\"b\0c\"\n", 10)), (Lines{"4: a zero character in a text"}));
    EXPECT_EQ(faults(std::string("\"a\0\"=-\n", 7)), (Lines{"4: a zero character in a value's name"}));
    EXPECT_EQ(faults("nonsense\n"), (Lines{"4: neither a key nor a value nor a comment"}));
    EXPECT_EQ(faults("REGEDIT4\n"), (Lines{"4: neither a key nor a value nor a comment"}));
}

TEST(RegReader, NamesDamagedKeys) {
    EXPECT_EQ(faults("[HKLM\\A\n"), (Lines{"4: a key without ] at its end"}));
    EXPECT_EQ(faults("[HKLM\\A] b\n"), (Lines{"4: a key without ] at its end"}));
    EXPECT_EQ(faults("[]\n"), (Lines{"4: unknown root ''"}));
    EXPECT_EQ(faults("[\n"), (Lines{"4: a key without ] at its end"}));
    EXPECT_EQ(faults("[HKEY_DYN_DATA\\A]\n"), (Lines{"4: unknown root 'HKEY_DYN_DATA'"}));
    EXPECT_EQ(faults("[-HKLM]\n"), (Lines{"4: a root cannot be deleted"}));
    EXPECT_EQ(faults("[-HKLM\\A]\n@=-\n"), (Lines{"5: a value of a key that is deleted"}));
    EXPECT_EQ(shown(read_reg_file("REGEDIT4\n\n@=-\n\"a\"=hex:0\n").lost),
              (Lines{"3: a value before the first key", "4: a value before the first key"}));
}

TEST(RegReader, KnowsTheLongestNames) {
    const std::string most(255, 'n');
    const ReadRegFile good = read_reg_file(reg_file_text("\"" + most + "\"=-\n", "HKLM\\" + most));
    EXPECT_TRUE(good.lost.empty());
    EXPECT_EQ(good.statements.size(), 2u);
    EXPECT_EQ(faults("\"" + most + "n\"=hex:01,\\\n02\n@=-\n"),
              (Lines{"5: a value's name of 256 characters; 255 are the most"}));
    EXPECT_EQ(faults("[HKLM\\a\\" + most + "n\\b]\n"), (Lines{"4: a key's name of 256 characters; 255 are the most"}));
    std::string deep = "HKLM";
    for (int i = 0; i < 512; ++i) {
        deep += "\\k";
    }
    EXPECT_EQ(faults("[" + deep + "]\n[" + deep + "\\k]\n"), (Lines{"5: a key more than 512 levels deep"}));
}

TEST(RegReader, GoesOnBehindDamage) {
    const auto names = [](const std::string& lines) {
        std::string all;
        for (const RegStatement& each : read_reg_file(reg_file_text(lines)).statements) {
            all += each.kind == Kind::Key ? "[" + zr::to_utf8(each.key.below) + "]" : zr::to_utf8(each.name);
        }
        return all;
    };
    // Bytes that are damaged go as far as their backslashes do.
    EXPECT_EQ(names("\"a\"=hex:xx,\\\n 01,\\\n 02\n\"b\"=-\n"), "[Test]b");
    EXPECT_EQ(faults("\"a\"=hex:xx,\\\n 01,\\\n 02\n\"b\"=-\n").size(), 1u);
    EXPECT_EQ(names("\"a\"=hex:01,\\\n\"b\"=-\n"), "[Test]b");
    EXPECT_EQ(faults("\"a\"=hex:01,\\\n\"b\"=-\n"), (Lines{"4: a backslash with no bytes in the next line"}));
    EXPECT_EQ(names("\"a\"=hex:01,\\\n 0x,\\\n\"b\"=-\n"), "[Test]b");
    EXPECT_EQ(faults("\"a\"=hex:01,\\\n"), (Lines{"4: a backslash with no bytes in the next line"}));
    EXPECT_EQ(names("\"a\"=hex:01,\\ 02\n\"b\"=-\n"), "[Test]b");
    // A quote that is missing does not take the lines behind it along.
    EXPECT_EQ(names("\"a\"=\"x\n\"b\"=\"y\"\n\"c\"=-\n"), "[Test]bc");
    EXPECT_EQ(faults("\"a\"=\"x\n\"b\"=\"y\"\n\"c\"=-\n"), (Lines{"4: a text without \" at its end"}));
    EXPECT_EQ(names("\"a=\"x\"\n\"b\"=\"y\"\n"), "[Test]b");
    EXPECT_EQ(names("\"a\n\"b\"=\"y\"\n"), "[Test]b");
    EXPECT_EQ(faults("\"a\n\"b\"=\"y\"\n"), (Lines{"4: a name without \" at its end"}));
    EXPECT_EQ(faults("\"a\"=\"x\n[HKCU\\B]\n"),
              (Lines{"4: a text without \" at its end, or with a backslash that is not doubled"}));
    EXPECT_EQ(faults("\"a\"=\"x\n[HKCU]\n"), (Lines{"4: a text without \" at its end"}));
    EXPECT_EQ(names("\"a\"=\"x\n[HKCU]\n"), "[Test][]");
    EXPECT_EQ(names("\"a\"=\"x\n[HKCU\\B]\n"), "[Test][B]");
    // The values of a key that is left out are left out with it, deleted ones and those over several lines too.
    const std::string after = "[HKXX\\A]\n\"a\"=\"x\ny\"\n@=-\n\"b\"=hex:0,\\\n1\n\"c\"=hex:zz\n[HKCU\\B]\n\"d\"=-\n";
    EXPECT_EQ(names(after), "[Test][B]d");
    EXPECT_EQ(faults(after), (Lines{"4: unknown root 'HKXX'"}));
}

TEST(RegReader, BindsTheSizeOfData) {
    const auto read = [](const std::string& lines, const std::string& header = "REGEDIT4") {
        return read_reg_file(header + "\n[HKCU]\n" + lines + "\n\"last\"=-\n", 8);
    };
    const std::string eight = "@=hex:1,2,3,\\\n4,5,6,7,8";
    EXPECT_EQ(read(eight).statements[1].value.data.size(), 8u);
    EXPECT_EQ(shown(read(eight + ",\\\n9,\\\n10").lost), (Lines{"5: data of more than 8 bytes"}));
    EXPECT_EQ(read(eight + ",\\\n9,\\\n10").statements.back().name, u"last");
    EXPECT_EQ(read("@=\"abc\"").statements[1].value.data.size(), 8u);
    EXPECT_EQ(shown(read("@=\"abcd\"").lost), (Lines{"3: data of more than 8 bytes"}));
    // Narrow text becomes twice as large.
    EXPECT_EQ(read("@=hex(2):1,2,3,4").statements[1].value.data.size(), 8u);
    EXPECT_EQ(shown(read("@=hex(2):1,2,3,4,5").lost), (Lines{"3: data of more than 8 bytes"}));
    // A text over more than a megabyte of lines is taken for one that is not closed.
    std::string lines;
    while (lines.size() <= 1 << 20) {
        lines += "; a line\r\n";
    }
    EXPECT_EQ(faults("\"a\"=\"" + lines + "\"\n\"b\"=-\n"),
              (Lines{"4: a text without \" at its end",
                     std::to_string(4 + lines.size() / 10) + ": a name without \" at its end"}));
    EXPECT_EQ(value_of("\"" + lines.substr(20) + "\"").data.size(), 2 * (lines.size() - 20 + 1));
}

long peak_memory_kb() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A file of 8 MB that is made as it is read.
TEST(RegReader, NeedsNoMoreMemoryForLargeFiles) {
    std::string keys;
    for (int i = 0; i < 1000; ++i) {
        keys += "[HKLM\\Key" + std::to_string(i) + "]\r\n\"Text\"=\"some text\"\r\n";
    }
    int rounds = static_cast<int>((std::size_t{8} << 20) / zr::test::kStride / keys.size());
    std::string now = "REGEDIT4\r\n";
    zr::LineReader lines([&](char* buffer, std::size_t size) {
        if (now.empty() && rounds-- > 0) now = keys;
        const std::size_t n = std::min(size, now.size());
        std::memcpy(buffer, now.data(), n);
        now.erase(0, n);
        return static_cast<ssize_t>(n);
    });
    const long expected = 2000L * rounds;
    zr::RegReader reader(lines);
    RegStatement statement;
    std::vector<zr::Problem> problems;
    long count = 0;
    const long before = peak_memory_kb();
    while (reader.next(statement, problems) == zr::RegReader::Result::Statement) {
        ++count;
    }
    EXPECT_EQ(count, expected);
    if (!zr::test::kInstrumented) {  // the sanitizers keep freed memory
        EXPECT_LT(peak_memory_kb() - before, 4096);
    }
    EXPECT_TRUE(problems.empty());
}

}  // namespace
