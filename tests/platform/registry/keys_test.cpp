#include <algorithm>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "registry_support.h"

namespace {

using namespace zr::test;
using Names = std::vector<std::u16string>;

const HKEY kRoots[] = {HKEY_CLASSES_ROOT, HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, HKEY_USERS};

TEST(Keys, AreMadeAndOpened) {
    DWORD disposition = 0;
    const Key made = create(HKEY_CURRENT_USER, u"Software\\Example\\One", &disposition);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    const Key again = create(HKEY_CURRENT_USER, u"Software\\Example\\One", &disposition);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    EXPECT_NE(static_cast<HKEY>(made), static_cast<HKEY>(again));

    Key software;
    ASSERT_EQ(open(HKEY_CURRENT_USER, u"Software", software), kOk);
    EXPECT_TRUE(exists(software, u"Example\\One"));
    EXPECT_FALSE(exists(software, u"Example\\Two"));
    EXPECT_FALSE(exists(HKEY_LOCAL_MACHINE, u"Software")) << "each root is a tree of its own";
}

TEST(Keys, AFailedOpeningGivesNoKey) {
    HKEY opened = reinterpret_cast<HKEY>(1);
    EXPECT_EQ(RegOpenKeyExW(HKEY_USERS, u"not there", 0, 0, &opened), code(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(opened, nullptr);
    opened = reinterpret_cast<HKEY>(1);
    EXPECT_EQ(RegOpenKeyExW(nullptr, u"a", 0, 0, &opened), code(ERROR_INVALID_HANDLE));
    EXPECT_EQ(opened, nullptr);
}

TEST(Keys, AClassThatDoesNotFitTellsItsLengthAndAllElse) {
    HKEY made = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_USERS, u"classy", 0, u"a class", 0, 0, nullptr, &made, nullptr), kOk);
    ASSERT_EQ(set_dword(made, u"v", 1), kOk);
    for (DWORD room = 0; room <= 9; ++room) {
        WCHAR text[10] = u"#########";
        DWORD chars = room;
        DWORD values = 0;
        const LONG result = RegQueryInfoKeyW(made, text, &chars, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                                             nullptr, nullptr, nullptr);
        EXPECT_EQ(result, room < 8 ? code(ERROR_MORE_DATA) : kOk) << room;
        EXPECT_EQ(chars, 7u);
        EXPECT_EQ(values, 1u);
        EXPECT_EQ(std::u16string(text), room < 8 ? u"#########" : u"a class");
    }
    RegCloseKey(made);
}

TEST(Keys, AreFoundIgnoringCaseAndKeepTheirSpelling) {
    create(HKEY_LOCAL_MACHINE, u"Größe\\ΣΑΣ");
    DWORD disposition = 0;
    create(HKEY_LOCAL_MACHINE, u"GRÖßE\\σασ", &disposition);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    EXPECT_TRUE(exists(HKEY_LOCAL_MACHINE, u"größe"));
    EXPECT_EQ(sub_keys(HKEY_LOCAL_MACHINE), Names{u"Größe"});
    EXPECT_EQ(sub_keys(create(HKEY_LOCAL_MACHINE, u"größe")), Names{u"ΣΑΣ"});
}

TEST(Keys, MayHaveHalvesOfSurrogatePairsInTheirNames) {
    const std::u16string odd[] = {{u'a', 0xD800}, {u'a', 0xDC00}, {0xFEFF, u'x'}, {0xDFFF}, {0xFFFE}};
    for (const auto& name : odd) {
        create(HKEY_USERS, u"odd\\" + name);
    }
    const Key key = create(HKEY_USERS, u"odd");
    Names expected(std::begin(odd), std::end(odd));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(sub_keys(key), expected);
    for (const auto& name : odd) {
        EXPECT_TRUE(exists(key, name));
    }
}

TEST(Keys, PassOverEmptyPartsOfPaths) {
    create(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr\\Providers\\{EF}\\");
    EXPECT_TRUE(exists(HKEY_LOCAL_MACHINE, u"\\Comm\\\\ConnMgr\\Providers"));
    EXPECT_EQ(sub_keys(create(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr\\Providers")), Names{u"{EF}"});
}

TEST(Keys, AreThemselvesWithoutAPath) {
    const Key key = create(HKEY_CURRENT_USER, u"itself");
    ASSERT_EQ(set_dword(key, u"v", 5), kOk);
    for (const WCHAR* path : {static_cast<const WCHAR*>(nullptr), u"", u"\\"}) {
        Key same;
        ASSERT_EQ(RegOpenKeyExW(key, path, 0, 0, same.out()), kOk);
        EXPECT_EQ(get_dword(same, u"v"), 5u);
    }
    DWORD disposition = 0;
    create(key, u"", &disposition);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    Key root;
    ASSERT_EQ(open(HKEY_CURRENT_USER, u"", root), kOk);
    EXPECT_TRUE(exists(root, u"itself"));
}

TEST(Keys, RootsAreAlwaysThereAndStay) {
    for (HKEY root : kRoots) {
        EXPECT_EQ(sub_keys(root), Names{});
        EXPECT_EQ(RegCloseKey(root), kOk);
        EXPECT_EQ(set_dword(root, u"v", 1), kOk);
        EXPECT_EQ(RegDeleteKeyW(root, u""), code(ERROR_ACCESS_DENIED));
        EXPECT_EQ(get_dword(root, u"v"), 1u);
    }
}

TEST(Keys, RefuseHandlesThatAreNotOpen) {
    Key key = create(HKEY_CURRENT_USER, u"a");
    const HKEY stale = key;
    key.close();
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HKEY made = reinterpret_cast<HKEY>(1);
    DWORD number = 0;
    WCHAR name[16];
    SetLastError(77);
    for (HKEY bad : {stale, HKEY{}, reinterpret_cast<HKEY>(LONG_PTR{-1}), reinterpret_cast<HKEY>(event),
                     reinterpret_cast<HKEY>(reinterpret_cast<LONG_PTR>(HKEY_USERS) + 1)}) {
        EXPECT_EQ(RegOpenKeyExW(bad, u"a", 0, 0, &made), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegCreateKeyExW(bad, u"a", 0, nullptr, 0, 0, nullptr, &made, nullptr), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegCloseKey(bad), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegDeleteKeyW(bad, u"a"), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegFlushKey(bad), code(ERROR_INVALID_HANDLE));
        number = 16;
        EXPECT_EQ(RegEnumKeyExW(bad, 0, name, &number, nullptr, nullptr, nullptr, nullptr), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegEnumValueW(bad, 0, name, &number, nullptr, nullptr, nullptr, nullptr), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegQueryInfoKeyW(bad, nullptr, nullptr, nullptr, &number, nullptr, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr),
                  code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegQueryValueExW(bad, u"v", nullptr, nullptr, nullptr, &number), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(set_dword(bad, u"v", 1), code(ERROR_INVALID_HANDLE));
        EXPECT_EQ(RegDeleteValueW(bad, u"v"), code(ERROR_INVALID_HANDLE));
    }
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(GetLastError(), 77u) << "results are returned, not kept";
    CloseHandle(event);
}

TEST(Keys, RefuseArgumentsThatMustNotBe) {
    HKEY made = nullptr;
    WCHAR text[8];
    DWORD number = 8;
    EXPECT_EQ(RegOpenKeyExW(HKEY_USERS, u"a", 0, 0, nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegCreateKeyExW(HKEY_USERS, u"a", 0, nullptr, 0, 0, nullptr, nullptr, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegCreateKeyExW(HKEY_USERS, u"a", 1, nullptr, 0, 0, nullptr, &made, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegDeleteKeyW(HKEY_USERS, nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumKeyExW(HKEY_USERS, 0, nullptr, &number, nullptr, nullptr, nullptr, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumKeyExW(HKEY_USERS, 0, text, nullptr, nullptr, nullptr, nullptr, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumKeyExW(HKEY_USERS, 0, text, &number, nullptr, text, nullptr, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegEnumKeyExW(HKEY_USERS, 0, text, &number, &number, nullptr, nullptr, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(RegQueryInfoKeyW(HKEY_USERS, text, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              code(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(sub_keys(HKEY_USERS), Names{});
}

TEST(Keys, HaveNamesOfUpTo255Characters) {
    const std::u16string longest(255, u'n');
    const Key key = create(HKEY_CURRENT_USER, longest + u"\\" + longest);
    EXPECT_TRUE(exists(HKEY_CURRENT_USER, longest + u"\\" + longest));
    HKEY made = nullptr;
    for (const std::u16string& path : {longest + u"n", u"a\\" + longest + u"n", longest + u"n\\a"}) {
        EXPECT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, 0, nullptr, &made, nullptr),
                  code(ERROR_INVALID_PARAMETER));
        Key opened;
        EXPECT_EQ(open(HKEY_CURRENT_USER, path, opened), code(ERROR_FILE_NOT_FOUND));
        EXPECT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, path.c_str()), code(ERROR_FILE_NOT_FOUND));
    }
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{longest}) << "nothing was made on the way";

    std::vector<WCHAR> name(300, u'?');
    DWORD chars = 520;  // more than there is
    EXPECT_EQ(RegEnumKeyExW(HKEY_CURRENT_USER, 0, name.data(), &chars, nullptr, nullptr, nullptr, nullptr), kOk);
    EXPECT_EQ(chars, 255u);
    EXPECT_EQ(name[255], 0);
    EXPECT_TRUE(std::all_of(name.begin() + 256, name.end(), [](WCHAR unit) { return unit == u'?'; }));
}

TEST(Keys, LieAtMost512LevelsDeep) {
    std::u16string path = u"k";
    for (int i = 1; i < 512; ++i) {
        path += u"\\k";
    }
    const Key deepest = create(HKEY_CURRENT_USER, path);
    HKEY made = nullptr;
    EXPECT_EQ(RegCreateKeyExW(deepest, u"k", 0, nullptr, 0, 0, nullptr, &made, nullptr), code(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(exists(HKEY_CURRENT_USER, path));
    EXPECT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"k"), kOk);
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"k"));
    EXPECT_EQ(set_dword(deepest, u"v", 1), code(ERROR_KEY_DELETED));
}

TEST(Keys, AreListedByName) {
    const Key key = create(HKEY_CURRENT_USER, u"list");
    for (const char16_t* name : {u"b", u"A", u"_", u"C", u"ab"}) {
        create(key, name);
    }
    EXPECT_EQ(sub_keys(key), (Names{u"_", u"A", u"ab", u"b", u"C"}));

    WCHAR name[3] = {u'?', u'?', u'?'};
    DWORD chars = 2;
    EXPECT_EQ(RegEnumKeyExW(key, 2, name, &chars, nullptr, nullptr, nullptr, nullptr), code(ERROR_MORE_DATA));
    EXPECT_EQ(chars, 3u) << "with room for the terminator";
    EXPECT_EQ(name[0], u'?');
    FILETIME written = {1, 1};
    EXPECT_EQ(RegEnumKeyExW(key, 2, name, &chars, nullptr, nullptr, nullptr, &written), kOk);
    EXPECT_EQ(chars, 2u);
    EXPECT_EQ(std::u16string(name), u"ab");
    EXPECT_EQ(written.dwLowDateTime + written.dwHighDateTime, 0u);
    chars = 3;
    EXPECT_EQ(RegEnumKeyExW(key, 5, name, &chars, nullptr, nullptr, nullptr, nullptr), code(ERROR_NO_MORE_ITEMS));
    EXPECT_EQ(RegEnumKeyExW(key, 0xFFFFFFFF, name, &chars, nullptr, nullptr, nullptr, nullptr),
              code(ERROR_NO_MORE_ITEMS));
}

TEST(Keys, KeepTheClassTheyWereMadeWith) {
    HKEY made = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_USERS, u"outer\\inner", 0, u"a class", 0, 0, nullptr, &made, nullptr), kOk);
    RegCloseKey(made);
    ASSERT_EQ(RegCreateKeyExW(HKEY_USERS, u"outer\\inner", 0, u"another", 0, 0, nullptr, &made, nullptr), kOk);
    const Key inner(made);
    const std::u16string too_long(256, u'c');
    EXPECT_EQ(RegCreateKeyExW(HKEY_USERS, u"x", 0, too_long.c_str(), 0, 0, nullptr, &made, nullptr),
              code(ERROR_INVALID_PARAMETER));

    WCHAR text[16];
    DWORD chars = 16;
    const auto info = [&](HKEY key, WCHAR* to) {
        return RegQueryInfoKeyW(key, to, &chars, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr);
    };
    EXPECT_EQ(info(inner, text), kOk);
    EXPECT_EQ(std::u16string(text, chars), u"a class");
    chars = 7;
    EXPECT_EQ(info(inner, text), code(ERROR_MORE_DATA));
    EXPECT_EQ(chars, 7u);
    EXPECT_EQ(info(inner, nullptr), kOk);
    EXPECT_EQ(chars, 7u);
    const Key outer = create(HKEY_USERS, u"outer");
    chars = 16;
    EXPECT_EQ(info(outer, text), kOk);
    EXPECT_EQ(chars, 0u) << "keys made on the way have none";
    WCHAR name[16];
    DWORD name_chars = 16;
    chars = 16;
    EXPECT_EQ(RegEnumKeyExW(outer, 0, name, &name_chars, nullptr, text, &chars, nullptr), kOk);
    EXPECT_EQ(std::u16string(text, chars), u"a class");
}

TEST(Keys, TellCountsAndSizes) {
    const Key key = create(HKEY_LOCAL_MACHINE, u"info");
    HKEY made = nullptr;
    ASSERT_EQ(RegCreateKeyExW(key, u"four", 0, u"sixsix", 0, 0, nullptr, &made, nullptr), kOk);
    RegCloseKey(made);
    create(key, u"one");
    ASSERT_EQ(set(key, u"", REG_BINARY, "12345"), kOk);
    ASSERT_EQ(set(key, u"name", REG_BINARY, "1"), kOk);
    DWORD counts[7] = {9, 9, 9, 9, 9, 9, 9};
    FILETIME written = {1, 1};
    EXPECT_EQ(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &counts[0], &counts[1], &counts[2], &counts[3],
                               &counts[4], &counts[5], &counts[6], &written),
              kOk);
    EXPECT_EQ(std::vector<DWORD>(std::begin(counts), std::end(counts)), (std::vector<DWORD>{2, 4, 6, 2, 4, 5, 0}));
    EXPECT_EQ(written.dwLowDateTime + written.dwHighDateTime, 0u);
    EXPECT_EQ(RegQueryInfoKeyW(HKEY_CLASSES_ROOT, nullptr, nullptr, nullptr, &counts[0], &counts[1], &counts[2],
                               &counts[3], &counts[4], &counts[5], &counts[6], nullptr),
              kOk);
    EXPECT_EQ(std::vector<DWORD>(std::begin(counts), std::end(counts)), (std::vector<DWORD>(7, 0)));
}

TEST(Keys, AreDeletedWithAllBelow) {
    const Key top = create(HKEY_CURRENT_USER, u"top");
    const Key middle = create(top, u"middle");
    const Key leaf = create(middle, u"leaf\\lower");
    const Key other = create(top, u"other");
    ASSERT_EQ(set_dword(leaf, u"v", 1), kOk);
    EXPECT_EQ(RegDeleteKeyW(top, u"MIDDLE"), kOk);
    EXPECT_EQ(sub_keys(top), Names{u"other"});
    EXPECT_EQ(RegDeleteKeyW(top, u"middle"), code(ERROR_FILE_NOT_FOUND));

    // Their like, made anew, is not them.
    const Key fresh = create(top, u"middle\\leaf\\lower");
    EXPECT_EQ(get(fresh, u"v").result, code(ERROR_FILE_NOT_FOUND));
    HKEY made = nullptr;
    DWORD number = 1;
    WCHAR text[16];
    for (HKEY gone : {static_cast<HKEY>(middle), static_cast<HKEY>(leaf)}) {
        EXPECT_EQ(get(gone, u"v").result, code(ERROR_KEY_DELETED));
        EXPECT_EQ(set_dword(gone, u"v", 1), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegDeleteValueW(gone, u"v"), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegOpenKeyExW(gone, u"leaf", 0, 0, &made), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegOpenKeyExW(gone, u"", 0, 0, &made), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegCreateKeyExW(gone, u"new", 0, nullptr, 0, 0, nullptr, &made, nullptr), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegDeleteKeyW(gone, u"leaf"), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegDeleteKeyW(gone, u""), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegFlushKey(gone), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegEnumKeyExW(gone, 0, text, &number, nullptr, nullptr, nullptr, nullptr), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegEnumValueW(gone, 0, text, &number, nullptr, nullptr, nullptr, nullptr), code(ERROR_KEY_DELETED));
        EXPECT_EQ(RegQueryInfoKeyW(gone, nullptr, nullptr, nullptr, &number, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr),
                  code(ERROR_KEY_DELETED));
    }
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(RegDeleteKeyW(other, u""), kOk) << "a key by its own handle";
    EXPECT_EQ(sub_keys(top), Names{u"middle"});
}

TEST(Keys, GiveTheirHandlesBack) {
    create(HKEY_CURRENT_USER, u"a\\b");
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Handles);
    {
        std::vector<Key> keys;
        for (int i = 0; i < 100; ++i) {
            keys.push_back(create(HKEY_CURRENT_USER, u"a\\b"));
        }
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 100);
        ASSERT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"a"), kOk);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before);
}

}  // namespace
