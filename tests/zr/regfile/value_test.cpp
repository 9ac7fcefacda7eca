#include "zr/regfile/value.h"

#include <gtest/gtest.h>
#include <platform/registry.h>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/regfile/path.h"

namespace {

using zr::parse_reg_type;
using zr::parse_reg_value;
using zr::reg_bytes;
using zr::reg_data_shown;
using zr::RegPath;
using zr::RegRoot;
using zr::RegValue;

std::string json_of(const RegValue& value) {
    zr::Json shown;
    zr::add_reg_value(shown, value);
    return shown.text(false);
}

TEST(RegValue, NamesTypes) {
    for (const DWORD type : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 21u, 0xFFFFFFFFu}) {
        EXPECT_EQ(parse_reg_type(zr::reg_type_name(type)), type);
    }
    EXPECT_EQ(parse_reg_type("multi_sz"), REG_MULTI_SZ);
    EXPECT_EQ(parse_reg_type("Reg_Dword"), REG_DWORD);
    EXPECT_EQ(parse_reg_type("0x15"), REG_MUI_SZ);
    for (const char* wrong : {"", "reg_", "text", "-1", "4294967296", "0x", "1 "}) {
        EXPECT_EQ(parse_reg_type(wrong), std::nullopt) << wrong;
    }
}

TEST(RegValue, MakesValuesOfWords) {
    EXPECT_EQ(parse_reg_value(REG_SZ, {"ü"}), (RegValue{REG_SZ, reg_bytes({u"ü\0", 2})}));
    EXPECT_EQ(parse_reg_value(REG_MULTI_SZ, {"a", "b"}), (RegValue{REG_MULTI_SZ, reg_bytes({u"a\0b\0\0", 5})}));
    EXPECT_EQ(parse_reg_value(REG_MULTI_SZ, {}), (RegValue{REG_MULTI_SZ, reg_bytes({u"\0", 1})}));
    EXPECT_EQ(parse_reg_value(REG_DWORD, {"0xffffffff"}), (RegValue{REG_DWORD, "\xFF\xFF\xFF\xFF"}));
    EXPECT_EQ(parse_reg_value(REG_DWORD_BIG_ENDIAN, {"258"}), (RegValue{REG_DWORD_BIG_ENDIAN, {"\0\0\1\2", 4}}));
    EXPECT_EQ(parse_reg_value(REG_QWORD, {"4294967296"}), (RegValue{REG_QWORD, {"\0\0\0\0\1\0\0\0", 8}}));
    EXPECT_EQ(parse_reg_value(REG_BINARY, {"0aFF, 01 2b"}), (RegValue{REG_BINARY, "\x0A\xFF\x01\x2B"}));
    EXPECT_EQ(parse_reg_value(REG_NONE, {}), (RegValue{REG_NONE, ""}));
    EXPECT_EQ(parse_reg_value(99, {"00"}), (RegValue{99, {"\0", 1}}));
    EXPECT_THROW(parse_reg_value(REG_SZ, {}), zr::Failure);
    EXPECT_THROW(parse_reg_value(REG_SZ, {"a", "b"}), zr::Failure);
    EXPECT_THROW(parse_reg_value(REG_SZ, {"\xFF"}), zr::Failure);
    EXPECT_THROW(parse_reg_value(REG_MULTI_SZ, {"a", ""}), zr::Failure);
    for (const char* wrong : {"", "-1", "4294967296", "1.0", "0x", "x"}) {
        EXPECT_THROW(parse_reg_value(REG_DWORD, {wrong}), zr::Failure) << wrong;
    }
    EXPECT_THROW(parse_reg_value(REG_QWORD, {"18446744073709551616"}), zr::Failure);
    EXPECT_THROW(parse_reg_value(REG_BINARY, {"0a f"}), zr::Failure);
    EXPECT_THROW(parse_reg_value(REG_BINARY, {"0g"}), zr::Failure);
}

TEST(RegValue, ShowsWhatItIsAndBytesOtherwise) {
    EXPECT_EQ(reg_data_shown(parse_reg_value(REG_SZ, {"a ü"})), "a ü");
    EXPECT_EQ(reg_data_shown(parse_reg_value(REG_SZ, {"a\nü"})), R"("a\nü")");
    EXPECT_EQ(reg_data_shown({REG_SZ, "abc"}), "61 62 63");
    EXPECT_EQ(reg_data_shown(parse_reg_value(REG_MULTI_SZ, {"a", "b c"})), "\"a\" \"b c\"");
    EXPECT_EQ(reg_data_shown(parse_reg_value(REG_DWORD, {"42"})), "42");
    EXPECT_EQ(reg_data_shown(parse_reg_value(REG_DWORD_BIG_ENDIAN, {"42"})), "42");
    EXPECT_EQ(reg_data_shown({REG_DWORD, "\x01\x02\x03"}), "01 02 03");
    EXPECT_EQ(reg_data_shown({REG_BINARY, ""}), "");
}

TEST(RegValue, IsExactInJson) {
    EXPECT_EQ(json_of(parse_reg_value(REG_SZ, {"ü"})), R"({"type":"REG_SZ","data":"ü"})");
    EXPECT_EQ(json_of({REG_SZ, reg_bytes(u"a")}), R"({"type":"REG_SZ","hex":"6100"})");
    EXPECT_EQ(json_of({REG_SZ, reg_bytes(std::u16string{0xD800, 0})}), R"({"type":"REG_SZ","hex":"00d80000"})");
    EXPECT_EQ(json_of(parse_reg_value(REG_MULTI_SZ, {"a", "b"})), R"({"type":"REG_MULTI_SZ","data":["a","b"]})");
    EXPECT_EQ(json_of(parse_reg_value(REG_MULTI_SZ, {})), R"({"type":"REG_MULTI_SZ","data":[]})");
    EXPECT_EQ(json_of({REG_MULTI_SZ, ""}), R"({"type":"REG_MULTI_SZ","hex":""})");
    EXPECT_EQ(json_of({REG_MULTI_SZ, reg_bytes(std::u16string{'a', 0})}),
              R"({"type":"REG_MULTI_SZ","hex":"61000000"})");
    EXPECT_EQ(json_of({REG_MULTI_SZ, reg_bytes({u"\0\0", 2})}), R"({"type":"REG_MULTI_SZ","hex":"00000000"})");
    EXPECT_EQ(json_of(parse_reg_value(REG_QWORD, {"0xffffffffffffffff"})),
              R"({"type":"REG_QWORD","data":18446744073709551615})");
    EXPECT_EQ(json_of({77, "\x01"}), R"({"type":"77","hex":"01"})");
}

TEST(RegPath, ReadsRootsInEveryForm) {
    RegPath path;
    EXPECT_EQ(zr::parse_reg_path(u"hkcr\\.txt", path), "");
    EXPECT_EQ(path, (RegPath{RegRoot::ClassesRoot, u".txt"}));
    EXPECT_EQ(zr::reg_path_text(path), u"HKEY_CLASSES_ROOT\\.txt");
    for (const RegRoot root : zr::kRegRoots) {
        EXPECT_EQ(zr::parse_reg_path(zr::reg_path_text({root, u""}), path), "");
        EXPECT_EQ(path, (RegPath{root, u""}));
    }
    EXPECT_EQ(zr::parse_reg_path(u"HKU\\\\a\\b c\\", path), "");
    EXPECT_EQ(path, (RegPath{RegRoot::Users, u"a\\b c"}));
    EXPECT_NE(zr::parse_reg_path(u"", path), "");
    EXPECT_NE(zr::parse_reg_path(u"Software\\A", path), "");
    EXPECT_NE(zr::parse_reg_path(u"HKLM2", path), "");
}

}  // namespace
