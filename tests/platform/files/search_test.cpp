#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "files_support.h"
#include "platform/diagnostics.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

// Enough long names that no single read of the folder yields them all.
constexpr int kMany = 400;
std::string long_name(int number) {
    return std::to_string(number) + std::string(120, 'x');
}

}  // namespace

TEST(Search, YieldsEveryEntryOnceAndNeverTheDots) {
    const TempFolder folder;
    Names expected;
    for (int i = 0; i < kMany; ++i) {
        const std::string name = long_name(i);
        write_text(folder.host() / name);
        expected.insert(std::u16string(name.begin(), name.end()));
    }
    fs::create_directory(folder.host() / "sub");
    expected.insert(u"sub");
    DWORD error = 0;
    EXPECT_EQ(search(folder.handheld() + u"\\*", &error), expected);
    EXPECT_EQ(error, ERROR_NO_MORE_FILES);
    EXPECT_EQ(search(folder.handheld() + u"\\*.*"), expected);
    EXPECT_EQ(search(folder.handheld() + u"\\?*"), expected);
}

TEST(Search, DataOfAnEntry) {
    const TempFolder folder;
    write_text(folder.host() / "a.txt", "12345");
    const timespec times[2] = {{1000000000, 0}, {1234567890, 123456700}};
    ASSERT_EQ(utimensat(AT_FDCWD, (folder.host() / "a.txt").c_str(), times, 0), 0);
    WIN32_FIND_DATAW data;
    const HANDLE handle = FindFirstFileW((folder.handheld() + u"\\a.txt").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(data.nFileSizeLow, 5u);
    EXPECT_EQ(data.nFileSizeHigh, 0u);
    EXPECT_EQ(data.dwOID, 0u);
    const auto ticks = [](const FILETIME& time) {
        return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
    };
    EXPECT_EQ(ticks(data.ftLastWriteTime), (1234567890 + 11644473600) * 10000000ULL + 1234567);
    EXPECT_EQ(ticks(data.ftLastAccessTime), (1000000000 + 11644473600) * 10000000ULL);
    EXPECT_NE(ticks(data.ftCreationTime), 0u);
    EXPECT_EQ(std::u16string(data.cFileName), u"a.txt");
    EXPECT_FAILS_WITH(ERROR_NO_MORE_FILES, FindNextFileW(handle, &data));
    EXPECT_TRUE(FindClose(handle));
}

TEST(Search, LargeSizesInTwoHalves) {
    const TempFolder folder;
    write_text(folder.host() / "large");
    fs::resize_file(folder.host() / "large", 0x3'0000'0005ULL);
    WIN32_FIND_DATAW data;
    const HANDLE handle = FindFirstFileW((folder.handheld() + u"\\LARGE").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(data.nFileSizeHigh, 3u);
    EXPECT_EQ(data.nFileSizeLow, 5u);
    EXPECT_EQ(std::u16string(data.cFileName), u"large");  // as the host spells it
    FindClose(handle);
}

TEST(Search, NothingFound) {
    const TempFolder folder;
    write_text(folder.host() / "file");
    const std::u16string base = folder.handheld();
    const std::pair<std::u16string, DWORD> cases[] = {
        {base + u"\\*.pwi", ERROR_NO_MORE_FILES},
        {base + u"\\absent", ERROR_NO_MORE_FILES},
        {base + u"\\", ERROR_NO_MORE_FILES},
        {base + u"\\.", ERROR_NO_MORE_FILES},
        {base + u"\\..", ERROR_NO_MORE_FILES},
        {base + u"\\no\\*", ERROR_PATH_NOT_FOUND},
        {base + u"\\no\\x", ERROR_PATH_NOT_FOUND},
        {base + u"\\file\\*", ERROR_PATH_NOT_FOUND},
        {base + u"\\file\\x", ERROR_PATH_NOT_FOUND},
        {u"", ERROR_PATH_NOT_FOUND},
        {std::u16string(300, u'x') + u"\\*", ERROR_FILENAME_EXCED_RANGE},
    };
    for (const auto& [path, expected] : cases) {
        DWORD error = 0;
        EXPECT_EQ(search(path, &error), Names{});
        EXPECT_EQ(error, expected) << std::string(path.begin(), path.end());
    }
    WIN32_FIND_DATAW data;
    SetLastError(0);
    EXPECT_EQ(FindFirstFileW(nullptr, &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(FindFirstFileW(u"\\*", nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Search, HandlesThatAreNoOpenSearch) {
    const TempFolder folder;
    write_text(folder.host() / "a");
    write_text(folder.host() / "b");
    WIN32_FIND_DATAW data;
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Handles);
    const HANDLE handle = FindFirstFileW((folder.handheld() + u"\\*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 1);
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, FindNextFileW(handle, nullptr));
    EXPECT_TRUE(FindClose(handle));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before);
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, FindNextFileW(handle, &data));
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, FindClose(handle));
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, FindClose(INVALID_HANDLE_VALUE));
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, FindClose(nullptr));
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, FindNextFileW(&data, &data));
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, FindNextFileW(event, &data));
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, FindClose(event));
    EXPECT_TRUE(CloseHandle(event));
}

namespace {

// The definition of a pattern, as plainly as it can be said.
bool model(std::u16string_view pattern, std::u16string_view name) {
    if (pattern.empty()) return name.empty();
    if (pattern[0] == u'*') return model(pattern.substr(1), name) || (!name.empty() && model(pattern, name.substr(1)));
    if (name.empty()) return false;
    return (pattern[0] == u'?' || towlower(pattern[0]) == towlower(name[0])) &&
           model(pattern.substr(1), name.substr(1));
}

std::u16string random_text(std::mt19937& random, std::u16string_view letters, std::size_t longest) {
    std::u16string text;
    for (std::size_t length = 1 + random() % longest; length > 0; --length)
        text += letters[random() % letters.size()];
    return text;
}

}  // namespace

TEST(Search, WildcardsAgreeWithTheirDefinition) {
    std::mt19937 random(7);
    const TempFolder folder;
    std::set<std::u16string> names;
    while (names.size() < 150) {
        const std::u16string name = random_text(random, u"aAbB.Äß\u4E00", 7);
        if (name == u"." || name == u"..") continue;
        names.insert(name);
        write_text(folder.host() / fs::path(name));
    }
    for (int round = 0; round < 300; ++round) {
        const std::u16string pattern = random_text(random, u"aAbä.*?**?", 6);
        if (pattern.find_first_of(u"*?") == pattern.npos) continue;
        Names expected;
        for (const std::u16string& name : names)
            if (pattern == u"*.*" || model(pattern, name)) expected.insert(name);
        ASSERT_EQ(search(folder.handheld() + u"\\" + pattern), expected) << fs::path(pattern).string();
    }
}

TEST(Search, ManyStarsDoNotTakeForEver) {
    const TempFolder folder;
    write_text(folder.host() / std::string(250, 'a'));
    std::u16string pattern;
    for (int i = 0; i < 100; ++i)
        pattern += u"*a";
    EXPECT_EQ(search(folder.handheld() + u"\\" + pattern).size(), 1u);
    EXPECT_EQ(search(folder.handheld() + u"\\" + pattern + u"b").size(), 0u);
}

TEST(Search, EntriesDeletedMeanwhile) {
    const TempFolder folder;
    for (int i = 0; i < kMany; ++i)
        write_text(folder.host() / long_name(i));
    WIN32_FIND_DATAW data;
    const HANDLE handle = FindFirstFileW((folder.handheld() + u"\\*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    int seen = 0;
    do {
        EXPECT_TRUE(DeleteFileW((folder.handheld() + u"\\" + data.cFileName).c_str()));
        ++seen;
    } while (FindNextFileW(handle, &data));
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
    EXPECT_EQ(seen, kMany);
    EXPECT_TRUE(FindClose(handle));
    EXPECT_TRUE(fs::is_empty(folder.host()));
}

TEST(Search, EntriesGoneBeforeTheyComeAreLeftOut) {
    const TempFolder folder;
    for (int i = 0; i < 100; ++i)
        write_text(folder.host() / std::to_string(i));
    WIN32_FIND_DATAW data;
    const HANDLE handle = FindFirstFileW((folder.handheld() + u"\\*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    for (const auto& entry : fs::directory_iterator(folder.host()))
        fs::remove(entry);
    EXPECT_FAILS_WITH(ERROR_NO_MORE_FILES, FindNextFileW(handle, &data));
    EXPECT_TRUE(FindClose(handle));
}

TEST(Search, FolderRemovedOrRenamedMeanwhile) {
    const TempFolder folder;
    const std::u16string sub = folder.handheld() + u"\\sub";
    fs::create_directory(folder.host() / "sub");
    for (int i = 0; i < 20; ++i)
        write_text(folder.host() / "sub" / std::to_string(i));
    WIN32_FIND_DATAW data;
    HANDLE handle = FindFirstFileW((sub + u"\\*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    fs::rename(folder.host() / "sub", folder.host() / "moved");
    int seen = 1;
    while (FindNextFileW(handle, &data))
        ++seen;
    EXPECT_EQ(seen, 20);
    EXPECT_TRUE(FindClose(handle));

    handle = FindFirstFileW((folder.handheld() + u"\\moved\\*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    fs::remove_all(folder.host() / "moved");
    EXPECT_FAILS_WITH(ERROR_NO_MORE_FILES, FindNextFileW(handle, &data));
    EXPECT_TRUE(FindClose(handle));
}

TEST(Search, LinksShowWhatTheyLeadTo) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "real/deep");
    write_text(folder.host() / "file", "abc");
    fs::create_symlink("file", folder.host() / "to file");
    fs::create_symlink("real", folder.host() / "to folder");
    fs::create_symlink("nowhere", folder.host() / "broken");
    fs::create_symlink("circle", folder.host() / "circle");
    fs::create_symlink("..", folder.host() / "real/up");
    fs::create_symlink(".", folder.host() / "real/deep/here");
    const std::u16string base = folder.handheld();
    const auto is_folder = [&](const std::u16string& name) {
        const DWORD direct = GetFileAttributesW((base + name).c_str());
        EXPECT_NE(direct, INVALID_FILE_ATTRIBUTES);
        WIN32_FIND_DATAW data;
        const std::u16string parent = base + name.substr(0, name.rfind(u'\\'));
        const HANDLE handle = FindFirstFileW((parent + u"\\*").c_str(), &data);
        EXPECT_NE(handle, INVALID_HANDLE_VALUE);
        while (name.substr(name.rfind(u'\\') + 1) != data.cFileName && FindNextFileW(handle, &data)) {
        }
        FindClose(handle);
        EXPECT_EQ(data.dwFileAttributes, direct);
        return (direct & FILE_ATTRIBUTE_DIRECTORY) != 0;
    };
    EXPECT_FALSE(is_folder(u"\\to file"));
    EXPECT_TRUE(is_folder(u"\\to folder"));
    EXPECT_FALSE(is_folder(u"\\broken"));
    EXPECT_FALSE(is_folder(u"\\circle"));
    EXPECT_FALSE(is_folder(u"\\real\\up"));
    EXPECT_FALSE(is_folder(u"\\real\\deep\\here"));
    EXPECT_FALSE(is_folder(u"\\to folder\\up"));
    EXPECT_TRUE(DeleteFileW((base + u"\\broken").c_str()));
    // What shows as a file goes as one; what is behind it stays.
    EXPECT_TRUE(DeleteFileW((base + u"\\real\\up").c_str()));
    EXPECT_TRUE(DeleteFileW((base + u"\\real\\deep\\here").c_str()));
    EXPECT_FALSE(fs::is_symlink(folder.host() / "real/up"));
    EXPECT_FALSE(fs::is_symlink(folder.host() / "real/deep/here"));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, DeleteFileW((base + u"\\to folder").c_str()));
    EXPECT_TRUE(RemoveDirectoryW((base + u"\\to folder").c_str()));
    EXPECT_TRUE(fs::exists(folder.host() / "real/deep"));
    EXPECT_FALSE(fs::is_symlink(folder.host() / "to folder"));
}

TEST(Search, FolderThatMayBeListedButNotEntered) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "closed/sub");
    write_text(folder.host() / "closed/file", "abc");
    fs::permissions(folder.host() / "closed", fs::perms::owner_read);
    {
        const WithoutOverride everybody;
        WIN32_FIND_DATAW data;
        const HANDLE handle = FindFirstFileW((folder.handheld() + u"\\closed\\*").c_str(), &data);
        ASSERT_NE(handle, INVALID_HANDLE_VALUE);
        int seen = 0;
        do {
            const bool sub = std::u16string(data.cFileName) == u"sub";
            EXPECT_EQ(data.dwFileAttributes, sub ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL);
            EXPECT_EQ(data.nFileSizeLow, 0u);
            ++seen;
        } while (FindNextFileW(handle, &data));
        EXPECT_EQ(seen, 2);
        FindClose(handle);
    }
    fs::permissions(folder.host() / "closed", fs::perms::owner_all);
}

TEST(Search, OneSearchFromManyThreadsYieldsEachEntryOnce) {
    const TempFolder folder;
    for (int i = 0; i < kMany; ++i)
        write_text(folder.host() / long_name(i));
    WIN32_FIND_DATAW data;
    const HANDLE handle = FindFirstFileW((folder.handheld() + u"\\*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    std::atomic<int> seen{1};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            WIN32_FIND_DATAW mine;
            while (FindNextFileW(handle, &mine))
                ++seen;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(seen, kMany);
    EXPECT_TRUE(FindClose(handle));
}

TEST(Search, KindAgreesWithTheAttributes) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "sub/.hidden");
    write_text(folder.host() / "file", "12345");
    fs::create_symlink("sub", folder.host() / "to folder");
    fs::create_symlink("file", folder.host() / "to file");
    fs::create_symlink("nowhere", folder.host() / "broken");
    fs::create_symlink(".", folder.host() / "here");
    const auto check = [&](const std::u16string& pattern, int expected) {
        WIN32_FIND_DATAW data;
        const HANDLE handle = FindFirstFileExW((folder.handheld() + pattern).c_str(), ZrFindExInfoKind, &data,
                                               FindExSearchNameMatch, nullptr, 0);
        ASSERT_NE(handle, INVALID_HANDLE_VALUE);
        int seen = 0;
        do {
            ++seen;
            const DWORD known = GetFileAttributesW((folder.handheld() + u"\\" + data.cFileName).c_str());
            const bool is_folder = (known & FILE_ATTRIBUTE_DIRECTORY) != 0;
            EXPECT_EQ(data.dwFileAttributes, is_folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL);
            EXPECT_EQ(data.nFileSizeLow, 0u);
        } while (FindNextFileW(handle, &data));
        EXPECT_EQ(seen, expected);
        FindClose(handle);
    };
    check(u"\\*", 6);
    check(u"\\file", 1);
    check(u"\\TO FOLDER", 1);
}

TEST(Search, LevelsAndOperations) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "closed");
    write_text(folder.host() / "closed/file", "12345");
    const std::u16string path = folder.handheld() + u"\\closed\\*";
    WIN32_FIND_DATAW data;
    const auto start = [&](int level, int operation, void* filter) {
        const HANDLE handle = FindFirstFileExW(path.c_str(), static_cast<FINDEX_INFO_LEVELS>(level), &data,
                                               static_cast<FINDEX_SEARCH_OPS>(operation), filter, 0);
        FindClose(handle);
        return handle != INVALID_HANDLE_VALUE;
    };
    EXPECT_TRUE(start(FindExInfoBasic, FindExSearchLimitToDirectories, nullptr));
    EXPECT_EQ(data.nFileSizeLow, 5u);
    EXPECT_FALSE(start(2, FindExSearchNameMatch, nullptr));
    EXPECT_FALSE(start(FindExInfoStandard, 3, nullptr));
    EXPECT_FALSE(start(FindExInfoStandard, FindExSearchLimitToDevices, nullptr));
    EXPECT_FALSE(start(FindExInfoStandard, FindExSearchNameMatch, &data));
    fs::permissions(folder.host() / "closed", fs::perms::owner_read);
    {
        const WithoutOverride everybody;
        EXPECT_TRUE(start(ZrFindExInfoKind, FindExSearchNameMatch, nullptr));
        EXPECT_EQ(data.dwFileAttributes, INVALID_FILE_ATTRIBUTES);
    }
    fs::permissions(folder.host() / "closed", fs::perms::owner_all);
}
