// Which host file a handheld path names.

#include <random>

#include "files_support.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

bool is_there(const std::u16string& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// A backslash and a character so many times.
std::u16string rooted(std::size_t count, WCHAR character) {
    return std::u16string(1, u'\\').append(count, character);
}

}  // namespace

TEST(Paths, SeparatorsOfBothKindsRepeatedAndTrailing) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "My Documents");
    write_text(folder.host() / "My Documents/a.txt");
    const std::u16string base = folder.handheld();
    EXPECT_TRUE(is_there(base + u"\\My Documents\\a.txt"));
    EXPECT_TRUE(is_there(base + u"/My Documents/a.txt"));
    EXPECT_TRUE(is_there(base + u"\\\\My Documents//\\a.txt"));
    EXPECT_TRUE(is_there(base + u"\\My Documents\\"));
    EXPECT_TRUE(is_there(base.substr(1) + u"\\My Documents"));  // no current folder: from the root all the same
    EXPECT_TRUE(is_there(u"\\"));
    EXPECT_TRUE(is_there(u"/"));
}

TEST(Paths, DotsAreWorkedOutOnTheTextAndStayBelowTheRoot) {
    const TempFolder folder;
    write_text(folder.host() / "a.txt");
    write_text(sandbox() / "outside.txt");
    const std::u16string base = folder.handheld();
    EXPECT_TRUE(is_there(base + u"\\.\\a.txt"));
    EXPECT_TRUE(is_there(base + u"\\missing\\..\\a.txt"));
    EXPECT_TRUE(is_there(u"\\..\\..\\.." + base + u"\\a.txt"));
    EXPECT_FALSE(is_there(u"\\..\\outside.txt"));
    EXPECT_FALSE(is_there(base + u"\\..\\..\\outside.txt"));
    EXPECT_FALSE(is_there(u"../outside.txt"));
    fs::remove(sandbox() / "outside.txt");
}

TEST(Paths, NamesMatchIgnoringCaseExactOnesFirst) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "Größe");
    write_text(folder.host() / "Größe/Read.Me", "mixed");
    const std::u16string base = folder.handheld();
    EXPECT_TRUE(is_there(base + u"\\GRÖßE\\READ.ME"));
    EXPECT_TRUE(is_there(base + u"\\größe\\read.me"));
    write_text(folder.host() / "Größe/READ.ME", "capitals");
    WIN32_FILE_ATTRIBUTE_DATA data;
    ASSERT_TRUE(GetFileAttributesExW((base + u"\\größe\\READ.ME").c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(data.nFileSizeLow, 8u);
    ASSERT_TRUE(GetFileAttributesExW((base + u"\\größe\\Read.Me").c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(data.nFileSizeLow, 5u);
    // Neither is exact: the first in byte order, whatever order the folder lists them in.
    ASSERT_TRUE(GetFileAttributesExW((base + u"\\größe\\read.me").c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(data.nFileSizeLow, 8u);
}

TEST(Paths, ExactFolderWinsOverOneThatHasTheFile) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "data");
    fs::create_directories(folder.host() / "Data");
    write_text(folder.host() / "Data/a.txt");
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, is_there(folder.handheld() + u"\\data\\a.txt"));
    EXPECT_TRUE(is_there(folder.handheld() + u"\\DATA\\a.txt"));  // "Data" comes before "data"
}

TEST(Paths, FailuresTellMissingFolderFromMissingFile) {
    const TempFolder folder;
    write_text(folder.host() / "file");
    const std::u16string base = folder.handheld();
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, is_there(base + u"\\no"));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, is_there(base + u"\\no\\no"));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, is_there(base + u"\\file\\no"));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, is_there(base + u"\\FILE\\no"));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, is_there(u""));
    SetLastError(0);
    EXPECT_EQ(GetFileAttributesW(nullptr), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Paths, LongPathsAndLongNames) {
    EXPECT_FAILS_WITH(ERROR_FILENAME_EXCED_RANGE, is_there(rooted(259, u'a')));
    EXPECT_FAILS_WITH(ERROR_FILENAME_EXCED_RANGE, is_there(rooted(100000, u'a')));
    EXPECT_FAILS_WITH(ERROR_FILENAME_EXCED_RANGE, is_there(rooted(256, u'a')));  // over 255 bytes
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, is_there(rooted(255, u'a')));
    // 100 characters of three bytes each are too long for the host.
    EXPECT_FAILS_WITH(ERROR_FILENAME_EXCED_RANGE, is_there(rooted(100, u'\u4E00')));
    const std::u16string longest = rooted(129, u'/').append(129, u'a');
    ASSERT_EQ(longest.size(), 259u);
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, is_there(longest));
}

TEST(Paths, ForbiddenCharactersCannotBeMadeButCanBeUsed) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    for (const std::u16string name : {u"a*b", u"a?b", u"a<b", u"a>b", u"a|b", u"a\"b", u"a:b", u"a\x01z"}) {
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, CreateDirectoryW((base + u"\\" + name).c_str(), nullptr));
        write_text(folder.host() / fs::path(name));
        EXPECT_TRUE(is_there(base + u"\\" + name));
        EXPECT_TRUE(DeleteFileW((base + u"\\" + name).c_str()));
    }
    EXPECT_TRUE(fs::is_empty(folder.host()));
}

TEST(Paths, AnyHostNameSurvivesTheRoundTrip) {
    std::mt19937 random(20260101);
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    const std::string pieces[] = {
        "\\", "\xEF\x81\x9C", "\xEF\x81\x9B", "\xED\xA0\x80", "\xED\xB2\x80", "\xF0\x9F\x98\x80", "\xC3", "a", " ",
        ".",  "\xEF",         "\x81",         "\x9C"};
    for (int round = 0; round < 300; ++round) {
        std::string name;
        const std::size_t length = 1 + random() % 40;
        while (name.size() < length) {
            const char byte = static_cast<char>(random() % 256);
            if (random() % 3 == 0)
                name += pieces[random() % std::size(pieces)];
            else if (byte != '/' && byte != 0)
                name += byte;
        }
        if (name == "." || name == "..") continue;
        const fs::path host = folder.host() / name;
        write_text(host, "x");
        WIN32_FIND_DATAW data;
        const HANDLE search = FindFirstFileW((base + u"\\*").c_str(), &data);
        ASSERT_NE(search, INVALID_HANDLE_VALUE);
        EXPECT_TRUE(FindClose(search));
        const std::u16string path = base + u"\\" + data.cFileName;
        ASSERT_NE(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
        const std::u16string moved = base + u"\\moved";
        ASSERT_TRUE(MoveFileW(path.c_str(), moved.c_str()));
        EXPECT_FALSE(fs::exists(host));
        fs::rename(folder.host() / "moved", host);
        ASSERT_TRUE(DeleteFileW(path.c_str()));
        ASSERT_TRUE(fs::is_empty(folder.host()));
    }
}

TEST(Paths, BackslashAndItsStandInAreDifferentFiles) {
    const TempFolder folder;
    write_text(folder.host() / "a\\b", "1");
    write_text(folder.host() /
                   "a\xEF\x81\x9C"
                   "b",
               "22");
    EXPECT_EQ(search(folder.handheld() + u"\\*").size(), 2u);
    WIN32_FILE_ATTRIBUTE_DATA data;
    ASSERT_TRUE(GetFileAttributesExW((folder.handheld() + u"\\a\xF05C"
                                                          u"b")
                                         .c_str(),
                                     GetFileExInfoStandard, &data));
    EXPECT_EQ(data.nFileSizeLow, 1u);
}

TEST(Paths, UnlistableFolderIsUsedByExactNamesOnly) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "closed");
    write_text(folder.host() / "closed/A.txt");
    fs::permissions(folder.host() / "closed", fs::perms::owner_exec);
    {
        const WithoutOverride everybody;
        const std::u16string closed = folder.handheld() + u"\\closed";
        EXPECT_TRUE(is_there(closed + u"\\A.txt"));
        EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, is_there(closed + u"\\a.TXT"));
        DWORD error = 0;
        EXPECT_EQ(search(closed + u"\\*", &error), Names{});
        EXPECT_EQ(error, ERROR_ACCESS_DENIED);
        EXPECT_EQ(search(closed + u"\\A.txt"), Names{u"A.txt"});
    }
    fs::permissions(folder.host() / "closed", fs::perms::none);
    {
        const WithoutOverride everybody;
        EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, is_there(folder.handheld() + u"\\closed\\A.txt"));
    }
    fs::permissions(folder.host() / "closed", fs::perms::owner_all);
}

TEST(Paths, ATrailingSeparatorNamesAFolder) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    write_text(folder.host() / "file", "text");
    fs::create_directory(folder.host() / "sub");
    fs::create_symlink("sub", folder.host() / "link");
    EXPECT_EQ(GetFileAttributesW((base + u"\\sub\\").c_str()), FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(GetFileAttributesW((base + u"\\link/").c_str()), FILE_ATTRIBUTE_DIRECTORY);
    const auto open = [](const std::u16string& path, DWORD creation) {
        return CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, creation, 0, nullptr) != INVALID_HANDLE_VALUE;
    };
    WIN32_FILE_ATTRIBUTE_DATA data;
    for (const std::u16string& path : {base + u"\\file\\", base + u"\\FILE/", base + u"\\file\\\\"}) {
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES);
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data));
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_HIDDEN));
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, DeleteFileW(path.c_str()));
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, MoveFileW(path.c_str(), (base + u"\\x").c_str()));
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, CopyFileW(path.c_str(), (base + u"\\x").c_str(), FALSE));
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, open(path, OPEN_EXISTING));
        EXPECT_FAILS_WITH(ERROR_INVALID_NAME, open(path, CREATE_ALWAYS));
    }
    EXPECT_FAILS_WITH(ERROR_DIRECTORY, RemoveDirectoryW((base + u"\\file\\").c_str()));
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, GetFileAttributesW((base + u"\\x\\").c_str()) != INVALID_FILE_ATTRIBUTES);
    EXPECT_FAILS_WITH(ERROR_INVALID_NAME, open(base + u"\\x\\", CREATE_NEW));
    EXPECT_FAILS_WITH(ERROR_INVALID_NAME, CopyFileW((base + u"\\file").c_str(), (base + u"\\x\\").c_str(), FALSE));
    EXPECT_FAILS_WITH(ERROR_INVALID_NAME, MoveFileW((base + u"\\file").c_str(), (base + u"\\x\\").c_str()));
    EXPECT_EQ(read_text(folder.host() / "file"), "text");
    EXPECT_FALSE(fs::exists(folder.host() / "x"));
    EXPECT_TRUE(MoveFileW((base + u"\\sub\\").c_str(), (base + u"\\moved\\").c_str()));
    WIN32_FIND_DATAW found;
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND,
                      FindFirstFileW((base + u"\\file\\*").c_str(), &found) != INVALID_HANDLE_VALUE);
}
