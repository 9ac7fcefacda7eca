#include "ZrUtility/FileEnumerator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

void write_text(const fs::path& path) {
    std::ofstream(path) << "x";
}

// The platform and the library take paths that they may change, so tests hand out copies.
struct Path {
    explicit Path(const std::u16string& text) : units(text.begin(), text.end()) { units.push_back(0); }
    WCHAR* get() { return units.data(); }
    std::vector<WCHAR> units;
};

std::multiset<std::u16string> walk(FileEnumerator& enumerator) {
    std::multiset<std::u16string> paths;
    for (; enumerator.isValid(); enumerator.advance())
        paths.insert(enumerator.value());
    return paths;
}

class Exposed : public FileEnumerator {
public:
    using FileEnumerator::MakeFullPath;
};

// Remembers what it was asked, and accepts names that contain a letter.
class RecordingFilter : public FileEnumeratorFilter {
public:
    explicit RecordingFilter(WCHAR wanted) : wanted_(wanted) {}
    std::vector<std::u16string> directories;

protected:
    int filter(WCHAR* directory, WIN32_FIND_DATAW* entry) override {
        directories.push_back(directory);
        return wcschr(entry->cFileName, wanted_) ? 2 : 0;
    }

private:
    const WCHAR wanted_;
};

class FileEnumeratorTest : public testing::Test {
protected:
    void file(const std::string& name) { write_text(host_ / name); }
    void folder(const std::string& name) { fs::create_directories(host_ / name); }

    TempFolder temp_;
    const fs::path host_ = temp_.host();
    const std::u16string base_ = temp_.handheld();
};

constexpr const char* kEnumeratorSource = ".\\FileEnumerator.cppzrwindowsmobile";

}  // namespace

static_assert(std::is_base_of_v<Enumerator<WCHAR*>, FileEnumerator>);
static_assert(std::is_abstract_v<FileEnumeratorFilter>);
static_assert(std::has_virtual_destructor_v<FileEnumeratorFilter>);

TEST_F(FileEnumeratorTest, NewOneIsEmpty) {
    FileEnumerator enumerator;
    EXPECT_FALSE(enumerator.isValid());
    EXPECT_EQ(std::u16string(enumerator.value()), u"");
    enumerator.advance();
    EXPECT_FALSE(enumerator.isValid());
}

TEST_F(FileEnumeratorTest, WalksTheMatchingEntries) {
    file("a.pwi");
    file("B.PWI");
    file("c.txt");
    folder("d.pwi");
    FileEnumerator enumerator;
    EXPECT_EQ(enumerator.start(base_.c_str(), u"*.pwi"), 0);
    EXPECT_EQ(walk(enumerator),
              (std::multiset<std::u16string>{base_ + u"\\a.pwi", base_ + u"\\B.PWI", base_ + u"\\d.pwi"}));
    EXPECT_FALSE(enumerator.isValid());
    EXPECT_EQ(enumerator.start((base_ + u"\\").c_str(), u"c.txt"), 0);
    EXPECT_EQ(walk(enumerator), (std::multiset<std::u16string>{base_ + u"\\c.txt"}));
}

TEST_F(FileEnumeratorTest, StartsResults) {
    file("a");
    FileEnumerator enumerator;
    ASSERT_EQ(enumerator.start(base_.c_str(), u"*"), 0);
    ASSERT_TRUE(enumerator.isValid());
    EXPECT_EQ(enumerator.start(nullptr, u"*"), -1);
    EXPECT_FALSE(enumerator.isValid());  // the walk before has ended all the same
    EXPECT_EQ(enumerator.start(base_.c_str(), nullptr), -1);
    const std::u16string directory(200, u'd');
    EXPECT_EQ(enumerator.start(directory.c_str(), std::u16string(60, u'p').c_str()), 1);
    EXPECT_FALSE(enumerator.isValid());
    EXPECT_EQ(enumerator.start(directory.c_str(), std::u16string(58, u'p').c_str()), 1);
    const LogCapture log;
    EXPECT_EQ(enumerator.start(directory.c_str(), std::u16string(57, u'p').c_str()), 0);
    EXPECT_FALSE(enumerator.isValid());
    EXPECT_EQ(enumerator.start((base_ + u"\\absent").c_str(), u"*"), 0);
    EXPECT_EQ(enumerator.start(u"", u""), 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), 0);
}

TEST_F(FileEnumeratorTest, NothingFoundIsLogged) {
    LogCapture log;
    FileEnumerator enumerator;
    EXPECT_EQ(enumerator.start((base_ + u"\\Größe").c_str(), u"*"), 0);
    const std::vector<LoggedRecord> records = log.records();
    ASSERT_EQ(records.size(), 4u);
    const int lines[] = {68, 70, 74, 76};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(records[i].source, kEnumeratorSource);
        EXPECT_EQ(records[i].line, lines[i]);
        EXPECT_EQ(records[i].category, i % 2 ? 0x40180008u : 0x180008u);
        EXPECT_TRUE(records[i].arguments.empty());
    }
    EXPECT_EQ(records[1].data, "\\" + host_.filename().string() + "\\Größe\\*");
    EXPECT_EQ(records[3].data, "No such file or directory\r\n");
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), 0);  // the system's text was given back
}

TEST_F(FileEnumeratorTest, FilterSeesEveryEntryAndTheFolder) {
    for (const char* name : {"xa", "b", "xc", "d", "e", "xf"})
        file(name);
    RecordingFilter filter(u'x');
    FileEnumerator enumerator;
    enumerator.setFilter(&filter);
    EXPECT_EQ(enumerator.start(base_.c_str(), u"*"), 0);
    EXPECT_EQ(walk(enumerator), (std::multiset<std::u16string>{base_ + u"\\xa", base_ + u"\\xc", base_ + u"\\xf"}));
    EXPECT_EQ(filter.directories, std::vector<std::u16string>(6, base_));
    RecordingFilter nothing(u'#');
    enumerator.setFilter(&nothing);
    EXPECT_EQ(enumerator.start(base_.c_str(), u"*"), 0);
    EXPECT_FALSE(enumerator.isValid());
    EXPECT_EQ(nothing.directories.size(), 6u);
    enumerator.setFilter(nullptr);
    EXPECT_EQ(enumerator.start(base_.c_str(), u"*"), 0);
    EXPECT_EQ(walk(enumerator).size(), 6u);
}

TEST_F(FileEnumeratorTest, BrowserCacheFilter) {
    file("shown");
    file(".hidden");
    folder("folder");
    folder(".hidden folder");
    PIECacheFileEnumeratorFilter filter;
    FileEnumerator enumerator;
    enumerator.setFilter(&filter);
    EXPECT_EQ(enumerator.start(base_.c_str(), u"*"), 0);
    EXPECT_EQ(walk(enumerator),
              (std::multiset<std::u16string>{base_ + u"\\shown", base_ + u"\\folder", base_ + u"\\.hidden folder"}));
    EXPECT_EQ(PIECacheFileEnumeratorFilter::NUM_DEFAULT_FILES_IN_CACHE, 1);
}

TEST_F(FileEnumeratorTest, CopyMovesTheSameWalk) {
    for (int i = 0; i < 4; ++i)
        file(std::to_string(i));
    FileEnumerator original;
    original.start(base_.c_str(), u"*");
    FileEnumerator copy(original);
    EXPECT_EQ(std::u16string(copy.value()), original.value());
    std::multiset<std::u16string> seen{original.value()};
    original.advance();
    seen.insert(original.value());
    copy.advance();
    seen.insert(copy.value());
    EXPECT_EQ(seen.size(), std::set<std::u16string>(seen.begin(), seen.end()).size());
    while (original.isValid())
        original.advance();
    EXPECT_TRUE(copy.isValid());  // its text is its own
    copy.advance();
    EXPECT_FALSE(copy.isValid());
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), 0);
}

TEST_F(FileEnumeratorTest, UnfinishedWalkIsClosed) {
    file("a");
    file("b");
    {
        FileEnumerator enumerator;
        enumerator.start(base_.c_str(), u"*");
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), 1);
        enumerator.start(base_.c_str(), u"*");
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), 1);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), 0);
}

TEST_F(FileEnumeratorTest, EntryWithoutRoomRepeatsTheOneBefore) {
    // Down to a folder whose path has 250 characters, where only short names have room.
    std::u16string deep = base_;
    while (deep.size() < 250) {
        deep.append(1, u'\\').append(std::min<std::size_t>(49, 250 - deep.size()), u'd');
        ASSERT_TRUE(CreateDirectoryW(deep.c_str(), nullptr));
    }
    ASSERT_EQ(deep.size(), 250u);
    std::string host = sandbox_root().string() + fs::path(deep).string();
    std::replace(host.begin(), host.end(), '\\', '/');
    for (int i = 0; i < 12; ++i)  // 250 + 1 + 8 characters have room, 9 have not
        write_text(host + "/" + std::string(i % 2 ? 8 : 9, static_cast<char>('a' + i)));

    // The folder's order is the host's affair: the same search tells what to expect of it.
    std::vector<std::u16string> expected;
    WIN32_FIND_DATAW data;
    const HANDLE search = FindFirstFileW((deep + u"\\*").c_str(), &data);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    do
        expected.push_back(wcslen(data.cFileName) == 8 ? deep + u"\\" + data.cFileName
                           : expected.empty()          ? u""
                                                       : expected.back());
    while (FindNextFileW(search, &data));
    FindClose(search);

    FileEnumerator enumerator;
    EXPECT_EQ(enumerator.start(deep.c_str(), u"*"), 0);
    for (const std::u16string& path : expected) {
        EXPECT_EQ(std::u16string(enumerator.value()), path);
        EXPECT_EQ(enumerator.isValid() != 0, !path.empty());
        enumerator.advance();
    }
    EXPECT_FALSE(enumerator.isValid());
    // Counting goes by the same walk: at an entry without a current path it ends.
    const bool counted = !expected.front().empty();
    EXPECT_EQ(FileEnumerator::CountFilesInFolder(deep.c_str(), nullptr, 0, 0), counted ? 12 : 0);
    RecordingFilter all(u'\0');  // every name ends with it
    EXPECT_EQ(FileEnumerator::CountFilesInFolder(deep.c_str(), &all, 0, 0), counted ? 12 : 0);
}

TEST_F(FileEnumeratorTest, MakeFullPath) {
    WCHAR out[16];
    const auto join = [&](unsigned capacity, const WCHAR* directory, const WCHAR* name) {
        wcscpy(out, u"#");
        return Exposed::MakeFullPath(out, capacity, directory, name) ? std::u16string(out)
                                                                     : u"failed " + std::u16string(out);
    };
    EXPECT_EQ(join(16, u"\\dir", u"name"), u"\\dir\\name");
    EXPECT_EQ(join(16, u"\\dir\\", u"name"), u"\\dir\\name");
    EXPECT_EQ(join(16, u"", u"name"), u"\\name");
    EXPECT_EQ(join(16, u"\\", u""), u"\\");
    EXPECT_EQ(join(10, u"\\dir", u"name"), u"\\dir\\name");
    EXPECT_EQ(join(9, u"\\dir", u"name"), u"failed #");
    EXPECT_EQ(join(10, u"\\dir\\", u"name"), u"failed #");  // a separator is reckoned with, needed or not
    EXPECT_EQ(join(0, u"", u""), u"failed #");
    EXPECT_EQ(join(1, u"", u""), u"failed #");
    EXPECT_EQ(join(2, u"", u""), u"\\");
    EXPECT_EQ(join(16, nullptr, u"name"), u"failed #");
    EXPECT_EQ(join(16, u"\\dir", nullptr), u"failed #");
    EXPECT_EQ(Exposed::MakeFullPath(nullptr, 16, u"a", u"b"), 0);
}

class CountFiles : public FileEnumeratorTest {
protected:
    int count(int depth, int limit, FileEnumeratorFilter* filter = nullptr) {
        return FileEnumerator::CountFilesInFolder(base_.c_str(), filter, depth, limit);
    }
};

TEST_F(CountFiles, DepthAndLimit) {
    for (const char* name : {"one", "one/two", "one/two/three", "empty"})
        folder(name);
    for (int i = 0; i < 5; ++i)
        for (const char* name : {"f", "one/f", "one/two/f", "one/two/three/f"})
            file(name + std::to_string(i));
    EXPECT_EQ(count(-1, 0), 0);
    EXPECT_EQ(count(0, 0), 5);
    EXPECT_EQ(count(1, 0), 10);
    EXPECT_EQ(count(2, 0), 15);
    EXPECT_EQ(count(3, 0), 20);
    EXPECT_EQ(count(100, 0), 20);
    for (int limit = 1; limit <= 25; ++limit)
        EXPECT_EQ(count(100, limit), std::min(limit, 20));
    EXPECT_EQ(FileEnumerator::CountFilesInFolder(nullptr, nullptr, 5, 0), 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), 0);
}

TEST_F(CountFiles, FilterAlsoDecidesWhichFoldersAreEntered) {
    folder("x");
    folder("y");
    for (const char* name : {"x1", "n1", "x/x2", "x/n2", "y/x3"})
        file(name);
    RecordingFilter filter(u'x');
    EXPECT_EQ(count(5, 0, &filter), 2);
}

TEST_F(CountFiles, AgreesWithTheHostOnRandomTrees) {
    std::mt19937 random(5);
    for (int round = 0; round < 5; ++round) {
        const std::string top = "tree" + std::to_string(round);
        std::vector<std::string> folders{top};
        folder(top);
        std::vector<int> per_depth(20, 0);
        std::vector<int> depths{0};
        for (int i = 0; i < 60; ++i) {
            const std::size_t at = random() % folders.size();
            const std::string name = folders[at] + "/" + std::to_string(i);
            if (random() % 3 == 0 && depths[at] < 15) {
                folder(name);
                folders.push_back(name);
                depths.push_back(depths[at] + 1);
            } else {
                file(name);
                ++per_depth[static_cast<std::size_t>(depths[at])];
            }
        }
        int total = 0;
        for (int depth = 0; depth < 20; ++depth) {
            total += per_depth[static_cast<std::size_t>(depth)];
            const std::u16string path = base_ + u"\\tree" + static_cast<WCHAR>(u'0' + round);
            ASSERT_EQ(FileEnumerator::CountFilesInFolder(path.c_str(), nullptr, depth, 0), total);
        }
    }
}

TEST_F(CountFiles, LinksInCirclesEnd) {
    folder("a/b");
    file("a/b/f");
    fs::create_symlink("..", host_ / "a/b/up");
    fs::create_symlink("../b", host_ / "a/b/again");
    fs::create_symlink("nowhere", host_ / "broken");
    EXPECT_EQ(count(1000, 0), 4);  // f and three links that lead nowhere new
}

class DeleteFiles : public FileEnumeratorTest {
protected:
    int all(int depth) { return FileEnumerator::DeleteAllFilesFolders(Path(base_).get(), depth); }
    int some(const WCHAR* pattern, int depth) {
        return FileEnumerator::DeleteFilesFolders(Path(base_).get(), pattern, depth);
    }
    std::set<std::string> left() const {
        std::set<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(host_))
            names.insert(fs::relative(entry.path(), host_).string());
        return names;
    }
};

TEST_F(DeleteFiles, DepthZeroLeavesFoldersThatAreNotEmpty) {
    folder("empty");
    folder("full");
    file("full/inner");
    file("outer");
    EXPECT_EQ(all(0), 1);
    EXPECT_EQ(left(), (std::set<std::string>{"full", "full/inner"}));
    EXPECT_EQ(all(1), 1);
    EXPECT_EQ(left(), std::set<std::string>{});
    EXPECT_TRUE(fs::exists(host_));
}

TEST_F(DeleteFiles, PatternAppliesOnEveryLevel) {
    folder("sub.pwi");
    folder("other");
    for (const char* name : {"a.pwi", "b.txt", "sub.pwi/c.pwi", "sub.pwi/d.txt", "other/e.pwi"})
        file(name);
    EXPECT_EQ(some(u"*.pwi", 5), 1);
    EXPECT_EQ(left(), (std::set<std::string>{"b.txt", "other", "other/e.pwi", "sub.pwi", "sub.pwi/d.txt"}));
}

TEST_F(DeleteFiles, ArgumentsThatDoNothing) {
    file("a");
    EXPECT_EQ(all(-1), 0);
    EXPECT_EQ(FileEnumerator::DeleteFilesFolders(nullptr, u"*", 3), 0);
    EXPECT_EQ(some(nullptr, 3), 1);
    EXPECT_EQ(left(), std::set<std::string>{"a"});
}

TEST_F(DeleteFiles, WhatCannotBeDeletedIsLoggedAndPassedOver) {
    folder("sub");
    file("sub/locked");
    file("sub/other");
    fs::permissions(host_ / "sub/locked", fs::perms::owner_read);
    LogCapture log;
    EXPECT_EQ(all(3), 1);
    EXPECT_EQ(left(), (std::set<std::string>{"sub", "sub/locked"}));
    const std::vector<LoggedRecord> records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].source, kEnumeratorSource);
    EXPECT_EQ(records[0].line, 151);
    EXPECT_EQ(records[0].category, 0x180008u);
    EXPECT_EQ(records[1].source, kEnumeratorSource);
    EXPECT_EQ(records[1].line, 153);
    EXPECT_EQ(records[1].category, 0x40180008u);
    EXPECT_EQ(records[1].data, "\\" + host_.filename().string() + "\\sub\\locked");
}

TEST_F(DeleteFiles, LinksGoAndWhatTheyLeadToStays) {
    const TempFolder elsewhere;
    fs::create_directory(elsewhere.host() / "kept");
    write_text(elsewhere.host() / "kept/file");
    fs::create_directory_symlink(elsewhere.host() / "kept", host_ / "to folder");
    fs::create_symlink(elsewhere.host() / "kept/file", host_ / "to file");
    fs::create_symlink("nowhere", host_ / "broken");
    EXPECT_EQ(all(5), 1);
    EXPECT_EQ(left(), std::set<std::string>{});
    EXPECT_TRUE(fs::exists(elsewhere.host() / "kept/file"));
}

TEST_F(DeleteFiles, ManyFilesWhileTheyAreWalked) {
    for (int i = 0; i < 300; ++i)
        file(std::string(150, 'n') + std::to_string(i));
    file("\xFF not text \\");
    EXPECT_EQ(all(0), 1);
    EXPECT_EQ(left(), std::set<std::string>{});
}

class FolderChains : public FileEnumeratorTest {
protected:
    void create(const std::u16string& path) {
        Path copy(path);
        CreateDirectoryRecurse(copy.get(), nullptr);
        EXPECT_EQ(copy.get(), path);
    }
    void remove(const std::u16string& path) {
        Path copy(path);
        RemoveDirectoryRecurse(copy.get());
        EXPECT_EQ(copy.get(), path);
    }
    bool exists(const std::string& name) const { return fs::exists(host_ / name); }
};

TEST_F(FolderChains, CreateEveryFolderOfAFile) {
    create(base_ + u"\\one\\two\\file.txt");
    EXPECT_TRUE(exists("one/two"));
    EXPECT_FALSE(exists("one/two/file.txt"));
    create(base_ + u"\\one\\three\\");
    EXPECT_TRUE(exists("one/three"));
    create(base_.substr(1) + u"\\relative\\x");
    EXPECT_TRUE(exists("relative"));
    create(u"");
    create(u"\\");
    create(u"no separator");
    EXPECT_FALSE(fs::exists(sandbox_root() / "no separator"));
    CreateDirectoryRecurse(nullptr, nullptr);
}

TEST_F(FolderChains, OverlongPathIsCreatedAsFarAsItGoes) {
    std::u16string path = base_;
    for (int i = 0; i < 50; ++i)
        path += u"\\1234567";
    create(path + u"\\");
    std::u16string deepest = base_;
    while (deepest.size() + 8 < MAX_PATH)
        deepest += u"\\1234567";
    EXPECT_NE(GetFileAttributesW(deepest.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesW((deepest + u"\\1234567").c_str()), INVALID_FILE_ATTRIBUTES);
    file("stop");
    remove(path);
    EXPECT_FALSE(exists("1234567"));
    EXPECT_TRUE(exists("stop"));
}

TEST_F(FolderChains, RemoveUpToTheFirstThatIsNotEmpty) {
    folder("one/two/three");
    file("one/kept");
    remove(base_ + u"\\one\\two\\three");
    EXPECT_TRUE(exists("one/kept"));
    EXPECT_FALSE(exists("one/two"));
    folder("one/two/three");
    remove(base_ + u"\\one\\two\\three\\");
    EXPECT_FALSE(exists("one/two"));
    folder("one/two");
    file("one/two/file");
    remove(base_ + u"\\one\\two\\absent\\more");  // what is missing is passed over
    EXPECT_TRUE(exists("one/two/file"));
    remove(base_ + u"\\one\\two\\file");  // a file is no folder
    EXPECT_TRUE(exists("one/two/file"));
    fs::create_directory(sandbox_root() / "top level");
    remove(u"top level");
    EXPECT_TRUE(fs::exists(sandbox_root() / "top level"));
    remove(u"\\top level");
    EXPECT_FALSE(fs::exists(sandbox_root() / "top level"));
    remove(u"");
    remove(u"\\");
    RemoveDirectoryRecurse(nullptr);
    EXPECT_TRUE(fs::exists(sandbox_root()));
}

// The slots behind the destructor, by calls through the interface alone.
TEST_F(FileEnumeratorTest, IsAnEnumerator) {
    file("a");
    FileEnumerator files;
    files.start(base_.c_str(), u"*");
    Enumerator<WCHAR*>& enumerator = files;
    ASSERT_TRUE(enumerator.isValid());
    EXPECT_EQ(std::u16string(enumerator.value()), base_ + u"\\a");
    enumerator.advance();
    EXPECT_FALSE(enumerator.isValid());
}

TEST_F(FileEnumeratorTest, SlotsStandInTheirOrder) {
    file("a");
    FileEnumerator files;
    files.start(base_.c_str(), u"*");
    // Two destructors, then advance, isValid, value.
    void** slots = *reinterpret_cast<void***>(&files);
    const auto is_valid = reinterpret_cast<int (*)(FileEnumerator*)>(slots[3]);
    const auto value = reinterpret_cast<WCHAR* (*)(FileEnumerator*)>(slots[4]);
    const auto advance = reinterpret_cast<void (*)(FileEnumerator*)>(slots[2]);
    EXPECT_NE(is_valid(&files), 0);
    EXPECT_EQ(std::u16string(value(&files)), base_ + u"\\a");
    advance(&files);
    EXPECT_EQ(is_valid(&files), 0);
}
