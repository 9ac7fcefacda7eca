#include <algorithm>

#include "registry_support.h"

namespace {

using namespace zr::test;
using Names = std::vector<std::u16string>;

BYTE* bytes(void* data) {
    return static_cast<BYTE*>(data);
}

TEST(Values, ComeBackAsTheyWereSet) {
    const Key key = create(HKEY_CURRENT_USER, u"values");
    const DWORD types[] = {REG_NONE,         REG_SZ,       REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_DWORD_BIG_ENDIAN,
                           REG_LINK,         REG_MULTI_SZ, REG_QWORD,     REG_MUI_SZ, 12345,     0xFFFFFFFF,
                           REG_RESOURCE_LIST};
    const std::string data[] = {"", "x", std::string("\0a\0\0b", 5), std::string(100000, '\0')};
    for (DWORD type : types) {
        for (const std::string& each : data) {
            ASSERT_EQ(set(key, u"v", type, each), kOk);
            const Data read = get(key, u"v");
            EXPECT_EQ(read.result, kOk);
            EXPECT_EQ(read.type, type);
            EXPECT_EQ(read.bytes, each);
        }
    }
    EXPECT_EQ(RegSetValueExW(key, u"v", 0, REG_SZ, nullptr, 0), kOk);
    EXPECT_EQ(get(key, u"v").bytes, "");
}

TEST(Values, AreFoundIgnoringCaseAndKeepTheirFirstSpelling) {
    const Key key = create(HKEY_CURRENT_USER, u"case");
    ASSERT_EQ(set_dword(key, u"Größe", 1), kOk);
    ASSERT_EQ(set_dword(key, u"GRÖßE", 2), kOk);
    EXPECT_EQ(get_dword(key, u"größe"), 2u);
    EXPECT_EQ(value_names(key), Names{u"Größe"});
    ASSERT_EQ(RegDeleteValueW(key, u"GRÖßE"), kOk);
    ASSERT_EQ(set_dword(key, u"GRÖßE", 3), kOk);
    EXPECT_EQ(value_names(key), Names{u"GRÖßE"});
}

TEST(Values, MayHaveAnyName) {
    const Key key = create(HKEY_CURRENT_USER, u"names");
    const Names names = {
        u"", u"\\", u"a\\b", u"a b", std::u16string(1, 0xD800), std::u16string(1, 0xFEFF), std::u16string(255, u'n')};
    for (DWORD i = 0; i < names.size(); ++i) {
        ASSERT_EQ(set_dword(key, names[i], i), kOk);
    }
    for (DWORD i = 0; i < names.size(); ++i) {
        EXPECT_EQ(get_dword(key, names[i]), i);
    }
    Names sorted = names;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(value_names(key), sorted);
    const std::u16string too_long(256, u'n');
    EXPECT_EQ(set_dword(key, too_long, 1), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(get(key, too_long).result, code(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(RegDeleteValueW(key, too_long.c_str()), code(ERROR_FILE_NOT_FOUND));
}

TEST(Values, WithoutANameAreTheDefaultValue) {
    const Key key = create(HKEY_CURRENT_USER, u"default");
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(key, nullptr, nullptr, nullptr, nullptr, &size), code(ERROR_FILE_NOT_FOUND));
    const DWORD seven = 7;
    ASSERT_EQ(RegSetValueExW(key, nullptr, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&seven), 4), kOk);
    EXPECT_EQ(get_dword(key, u""), 7u);
    EXPECT_EQ(RegDeleteValueW(key, u""), kOk);
    EXPECT_EQ(RegDeleteValueW(key, nullptr), code(ERROR_FILE_NOT_FOUND));
}

TEST(Values, TellTheSizeThatABufferNeeds) {
    const Key key = create(HKEY_CURRENT_USER, u"sizes");
    ASSERT_EQ(set(key, u"v", REG_BINARY, "12345678"), kOk);
    char buffer[10] = "?????????";
    DWORD type = 99;
    DWORD size = 7;
    EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, &type, bytes(buffer), &size), code(ERROR_MORE_DATA));
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(type, REG_BINARY);
    EXPECT_EQ(std::string(buffer), "?????????") << "nothing is written that does not fit whole";
    EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, nullptr, bytes(buffer), &size), kOk);
    EXPECT_EQ(std::string(buffer), "12345678?");
    size = 0;
    EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, nullptr, bytes(buffer), &size), code(ERROR_MORE_DATA));
    size = 1;
    EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, nullptr, nullptr, &size), kOk);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, &type, nullptr, nullptr), kOk);
    EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, nullptr, nullptr, nullptr), kOk) << "it is there";

    ASSERT_EQ(set(key, u"empty", REG_SZ, ""), kOk);
    size = 0;
    EXPECT_EQ(RegQueryValueExW(key, u"empty", nullptr, &type, bytes(buffer), &size), kOk) << "nothing fits everywhere";
    EXPECT_EQ(type, REG_SZ);
}

TEST(Values, RefuseArgumentsThatMustNotBe) {
    const Key key = create(HKEY_CURRENT_USER, u"arguments");
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    DWORD number = 4;
    DWORD value = 0;
    WCHAR name[8];
    EXPECT_EQ(RegQueryValueExW(key, u"v", &number, nullptr, nullptr, nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, nullptr, bytes(&value), nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegSetValueExW(key, u"v", 1, REG_DWORD, bytes(&value), 4), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegSetValueExW(key, u"v", 0, REG_DWORD, nullptr, 4), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumValueW(key, 0, nullptr, &number, nullptr, nullptr, nullptr, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumValueW(key, 0, name, nullptr, nullptr, nullptr, nullptr, nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumValueW(key, 0, name, &number, &number, nullptr, nullptr, nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumValueW(key, 0, name, &number, nullptr, nullptr, bytes(&value), nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(get_dword(key, u"v"), 1u);
}

TEST(Values, HoldUpTo16Megabytes) {
    const Key key = create(HKEY_CURRENT_USER, u"large");
    std::string data(std::size_t{16} << 20, 'd');
    data.front() = 'a';
    data.back() = 'z';
    ASSERT_EQ(set(key, u"v", REG_BINARY, data), kOk);
    EXPECT_EQ(get(key, u"v").bytes, data);
    data += 'x';
    EXPECT_EQ(set(key, u"v", REG_BINARY, data), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(get(key, u"v").bytes.size(), std::size_t{16} << 20) << "as it was";
}

TEST(Values, AreListedByName) {
    const Key key = create(HKEY_CURRENT_USER, u"list");
    for (const char16_t* name : {u"b", u"A", u"", u"C", u"ab"}) {
        ASSERT_EQ(set(key, name, REG_BINARY, "data"), kOk);
    }
    EXPECT_EQ(value_names(key), (Names{u"", u"A", u"ab", u"b", u"C"}));

    std::vector<WCHAR> name(300, u'?');
    char data[5] = "????";
    DWORD type = 99;
    DWORD chars = 2;
    DWORD size = 4;
    EXPECT_EQ(RegEnumValueW(key, 2, name.data(), &chars, nullptr, &type, bytes(data), &size), code(ERROR_MORE_DATA));
    EXPECT_EQ(chars, 3u) << "with room for the terminator";
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(name[0], u'?');
    EXPECT_EQ(std::string(data), "????");
    size = 3;
    EXPECT_EQ(RegEnumValueW(key, 2, name.data(), &chars, nullptr, &type, bytes(data), &size), code(ERROR_MORE_DATA));
    EXPECT_EQ(std::u16string(name.data(), chars), u"ab") << "the name is there";
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(std::string(data), "????");
    chars = 520;  // more than there is
    EXPECT_EQ(RegEnumValueW(key, 2, name.data(), &chars, nullptr, &type, bytes(data), &size), kOk);
    EXPECT_EQ(chars, 2u);
    EXPECT_EQ(type, REG_BINARY);
    EXPECT_EQ(std::string(data), "data");
    EXPECT_TRUE(std::all_of(name.begin() + 3, name.end(), [](WCHAR unit) { return unit == u'?'; }));
    chars = 300;
    EXPECT_EQ(RegEnumValueW(key, 5, name.data(), &chars, nullptr, nullptr, nullptr, nullptr),
              code(ERROR_NO_MORE_ITEMS));
}

TEST(Values, AreAnsweredAfreshWhenTheyChange) {
    const Key key = create(HKEY_CURRENT_USER, u"again");
    const Key lower = create(key, u"lower");
    for (DWORD i = 0; i < 100; ++i) {
        ASSERT_EQ(set_dword(key, u"v", i), kOk);
        EXPECT_EQ(get_dword(key, u"v"), i);
        ASSERT_EQ(set_dword(key, u"w" + std::u16string(i, u'w'), i), kOk);
        EXPECT_EQ(get_dword(key, u"v"), i);
    }
    ASSERT_EQ(RegDeleteValueW(key, u"v"), kOk);
    EXPECT_EQ(get(key, u"v").result, code(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(exists(HKEY_CURRENT_USER, u"again\\lower"));
    ASSERT_EQ(RegDeleteKeyW(key, u"lower"), kOk);
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"again\\lower"));

    // The same buffer with other texts in it.
    WCHAR name[4] = u"a";
    ASSERT_EQ(set_dword(key, u"a", 1), kOk);
    ASSERT_EQ(set_dword(key, u"ab", 2), kOk);
    DWORD value = 0;
    DWORD size = 4;
    EXPECT_EQ(RegQueryValueExW(key, name, nullptr, nullptr, bytes(&value), &size), kOk);
    EXPECT_EQ(value, 1u);
    name[1] = u'b';
    EXPECT_EQ(RegQueryValueExW(key, name, nullptr, nullptr, bytes(&value), &size), kOk);
    EXPECT_EQ(value, 2u);
    name[0] = 0;
    EXPECT_EQ(RegQueryValueExW(key, name, nullptr, nullptr, bytes(&value), &size), code(ERROR_FILE_NOT_FOUND));
}

TEST(Values, CanBeFlushed) {
    const Key key = create(HKEY_CURRENT_USER, u"flush");
    for (DWORD i = 0; i < 10; ++i) {
        ASSERT_EQ(set_dword(key, u"v", i), kOk);
        EXPECT_EQ(RegFlushKey(key), kOk);
        EXPECT_EQ(RegFlushKey(HKEY_LOCAL_MACHINE), kOk) << "nothing new";
    }
}

}  // namespace
