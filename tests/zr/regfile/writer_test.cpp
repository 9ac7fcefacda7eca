#include "zr/regfile/writer.h"

#include <gtest/gtest.h>
#include <platform/registry.h>

#include "support/instrumented.h"
#include "zr/regfile/files.h"
#include "zr/regfile/random_registry.h"

namespace {

using zr::RegEncoding;
using zr::RegPath;
using zr::RegRoot;
using zr::RegStatement;
using zr::RegValue;
using zr::RegVersion;
using zr::RegWriter;
using zr::test::RandomRegistry;
using zr::test::read_reg_file;
using zr::test::ReadRegFile;
using zr::test::text_value;

struct Format {
    RegVersion version;
    RegEncoding encoding;
};

constexpr Format kFormats[] = {
    {RegVersion::V5, RegEncoding::Utf16}, {RegVersion::V5, RegEncoding::Utf8},
    {RegVersion::V4, RegEncoding::Utf16}, {RegVersion::V4, RegEncoding::Windows1252},
    {RegVersion::V4, RegEncoding::Utf8},
};

// What one value looks like, behind "X"=, in version 5.
std::string written(const RegValue& value, RegVersion version = RegVersion::V5) {
    std::string out;
    RegWriter writer(version, RegEncoding::Utf8, [&](std::string_view text) { out += text; });
    EXPECT_EQ(writer.value(u"X", value), "");
    EXPECT_TRUE(out.starts_with("\"X\"=") && out.ends_with("\r\n")) << out;
    return out.substr(4, out.size() - 6);
}

TEST(RegWriter, WritesWhatOtherProgramsDo) {
    std::string out;
    RegWriter writer(RegVersion::V4, RegEncoding::Windows1252, [&](std::string_view text) { out += text; });
    writer.begin();
    EXPECT_EQ(writer.key({RegRoot::CurrentUser, u"Größe"}), "");
    EXPECT_EQ(writer.value(u"", text_value(u"a\\b \"c\"\t€")), "");
    EXPECT_EQ(writer.value(u"n\"\\", {REG_DWORD, {"\x01\x02\x03\xF4", 4}}), "");
    EXPECT_EQ(writer.value(u"e", {REG_EXPAND_SZ, zr::reg_bytes({u"€\0", 2})}), "");
    EXPECT_EQ(writer.key({RegRoot::Users, u""}), "");
    EXPECT_EQ(out,
              "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\Gr\xF6\xDF"
              "e]\r\n@=\"a\\\\b "
              "\\\"c\\\"\t\x80\"\r\n\"n\\\"\\\\\"=dword:f4030201\r\n\"e\"=hex(2):80,00\r\n\r\n[HKEY_USERS]\r\n");
}

TEST(RegWriter, WritesTextInQuotesWhereThatKeepsIt) {
    EXPECT_EQ(written(text_value(u"")), "\"\"");
    EXPECT_EQ(written(text_value(u"山")), "\"山\"");
    EXPECT_EQ(written({REG_SZ, ""}), "hex(1):");
    EXPECT_EQ(written({REG_SZ, "a"}), "hex(1):61");
    EXPECT_EQ(written({REG_SZ, zr::reg_bytes(u"a")}), "hex(1):61,00");
    EXPECT_EQ(written({REG_SZ, zr::reg_bytes({u"a\0\0", 3})}), "hex(1):61,00,00,00,00,00");
    EXPECT_EQ(written(text_value(u"\n")), "hex(1):0a,00,00,00");
    EXPECT_EQ(written(text_value(std::u16string(1, 0xD800))), "hex(1):00,d8,00,00");
    EXPECT_EQ(written({REG_DWORD, "abc"}), "hex(4):61,62,63");
    EXPECT_EQ(written({REG_QWORD, std::string(8, '\x01')}), "hex(b):01,01,01,01,01,01,01,01");
    EXPECT_EQ(written({0xFFFFFFFF, ""}), "hex(ffffffff):");
    EXPECT_EQ(written({REG_BINARY, ""}), "hex:");
}

TEST(RegWriter, BreaksLongLines) {
    const std::string text = written({REG_BINARY, std::string(60, '\x0F')});
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find("\r\n", begin)) != std::string::npos; begin = end + 2) {
        EXPECT_LE(end - begin, 80u);
        EXPECT_TRUE(text.substr(begin, end - begin).ends_with("0f,\\"));
    }
    EXPECT_GT(begin, 0u);
    EXPECT_TRUE(text.ends_with("0f"));
}

TEST(RegWriter, SaysWhatItCannotWrite) {
    std::string out;
    RegWriter ansi(RegVersion::V4, RegEncoding::Windows1252, [&](std::string_view text) { out += text; });
    EXPECT_NE(ansi.key({RegRoot::Users, u"山"}), "");
    EXPECT_NE(ansi.value(u"山", text_value(u"a")), "");
    EXPECT_NE(ansi.value(u"m", {REG_MULTI_SZ, zr::reg_bytes({u"山\0\0", 3})}), "");
    EXPECT_NE(ansi.value(u"m", {REG_MULTI_SZ, "odd"}), "");
    // Its bytes are valid UTF-8.
    EXPECT_NE(ansi.value(u"Ã¼", text_value(u"a")), "");
    EXPECT_EQ(out, "");
    EXPECT_EQ(ansi.value(u"s", text_value(u"Ã¼")), "");
    EXPECT_EQ(out, "\"s\"=hex(1):c3,00,bc,00,00,00\r\n");
    RegWriter five(RegVersion::V5, RegEncoding::Utf16, [&](std::string_view) {});
    EXPECT_NE(five.key({RegRoot::Users, u"a\nb"}), "");
}

TEST(RegWriter, WritesWhatIsReadAsItWas) {
    for (unsigned seed = 0; seed < 1500 / zr::test::kStride; ++seed) {
        const Format format = kFormats[seed % std::size(kFormats)];
        RandomRegistry random(seed);
        std::string file;
        RegWriter writer(format.version, format.encoding, [&](std::string_view text) { file += text; });
        writer.begin();
        std::vector<RegStatement> expected;
        for (int keys = 0; keys < 3; ++keys) {
            RegStatement key;
            key.key = random.path();
            if (!writer.key(key.key).empty()) {
                ASSERT_EQ(format.encoding, RegEncoding::Windows1252);
                continue;
            }
            expected.push_back(key);
            for (std::size_t n = random.below(6); n > 0; --n) {
                RegStatement value;
                value.kind = RegStatement::Kind::Value;
                value.name = random.text(10, u"");
                value.value = random.value();
                const std::string reason = writer.value(value.name, value.value);
                if (reason.empty()) {
                    expected.push_back(value);
                } else {
                    ASSERT_EQ(format.version, RegVersion::V4);
                }
            }
        }
        const ReadRegFile read = read_reg_file(file);
        ASSERT_TRUE(read.lost.empty()) << seed << ": " << zr::test::shown(read.lost)[0];
        ASSERT_EQ(read.statements.size(), expected.size()) << seed;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            const RegStatement& got = read.statements[i];
            ASSERT_EQ(got.kind, expected[i].kind) << seed;
            if (got.kind == RegStatement::Kind::Key) {
                ASSERT_EQ(got.key, expected[i].key) << seed;
                continue;
            }
            ASSERT_EQ(got.name, expected[i].name) << seed;
            ASSERT_EQ(got.value, expected[i].value) << seed;
        }
    }
}

}  // namespace
