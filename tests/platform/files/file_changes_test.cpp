// Watched folders: what is recorded, in which words, and that replaying the records gives the folder as it is.

#include "platform/file_changes.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "files_support.h"
#include "platform/diagnostics.h"
#include "platform/files.h"
#include "platform/files/file_changes_support.h"
#include "platform/kernel.h"
#include "support/child.h"
#include "support/permissions.h"
#include "support/small_queue.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

constexpr DWORD kEverything = kNames | FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE;

using Texts = std::vector<std::u16string>;

struct Record {
    DWORD action;
    std::u16string name;
};

std::vector<Record> parse(const std::vector<char>& bytes) {
    std::vector<Record> records;
    for (std::size_t at = 0; at < bytes.size();) {
        FILE_NOTIFY_INFORMATION head;
        std::memcpy(&head, bytes.data() + at, offsetof(FILE_NOTIFY_INFORMATION, FileName));
        std::u16string name(head.FileNameLength / sizeof(WCHAR) + 1, u'?');
        std::memcpy(name.data(), bytes.data() + at + offsetof(FILE_NOTIFY_INFORMATION, FileName),
                    name.size() * sizeof(WCHAR));
        EXPECT_EQ(name.back(), u'\0');
        name.pop_back();
        records.push_back({head.Action, name});
        if (head.NextEntryOffset == 0) break;
        EXPECT_EQ(head.NextEntryOffset % sizeof(DWORD), 0u);
        at += head.NextEntryOffset;
    }
    return records;
}

class Watch {
public:
    Watch(const std::u16string& path, DWORD filter = kEverything, BOOL subtree = FALSE)
        : handle_(FindFirstChangeNotificationW(path.c_str(), subtree, filter | FILE_NOTIFY_CHANGE_CEGETINFO)) {
        EXPECT_NE(handle_, INVALID_HANDLE_VALUE) << GetLastError();
    }
    ~Watch() { EXPECT_TRUE(FindCloseChangeNotification(handle_)); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    HANDLE handle() const { return handle_; }

    bool wait(DWORD milliseconds = kSoon) const { return WaitForSingleObject(handle_, milliseconds) == WAIT_OBJECT_0; }

    std::vector<Record> take() const {
        DWORD size = 0;
        EXPECT_TRUE(CeGetFileNotificationInfo(handle_, 0, nullptr, 0, nullptr, &size));
        std::vector<char> bytes(size);
        DWORD returned = 0;
        EXPECT_TRUE(CeGetFileNotificationInfo(handle_, 0, bytes.data(), size, &returned, nullptr));
        bytes.resize(returned);
        return parse(bytes);
    }

    // Records until one is for `name`, or none come any more.
    std::vector<Record> until(const std::u16string& name) const {
        std::vector<Record> all;
        while (wait()) {
            for (Record& each : take()) {
                all.push_back(std::move(each));
            }
            FindNextChangeNotification(handle_);
            for (const Record& each : all) {
                if (each.name == name && each.action != FILE_ACTION_REMOVED) return all;
            }
        }
        ADD_FAILURE() << "no record for the last name";
        return all;
    }

private:
    HANDLE handle_;
};

// What the records say, in the words of the tests: "+a" "-a" "*a" "a>b".
Texts words(const std::vector<Record>& records) {
    Texts all;
    std::u16string old;
    for (const Record& each : records) {
        switch (each.action) {
            case FILE_ACTION_ADDED:
                all.push_back(u"+" + each.name);
                break;
            case FILE_ACTION_REMOVED:
                all.push_back(u"-" + each.name);
                break;
            case FILE_ACTION_MODIFIED:
                all.push_back(u"*" + each.name);
                break;
            case FILE_ACTION_RENAMED_OLD_NAME:
                old = each.name;
                break;
            case FILE_ACTION_RENAMED_NEW_NAME:
                all.push_back(old + u">" + each.name);
                break;
            default:
                ADD_FAILURE() << each.action;
        }
    }
    return all;
}

// The words up to the mark, a file that is made when all is done.
Texts heard(const Watch& watch, const fs::path& folder) {
    write_text(folder / "mark");
    Texts all = words(watch.until(u"mark"));
    if (!all.empty() && all.back() == u"*mark") all.pop_back();
    EXPECT_FALSE(all.empty());
    if (!all.empty()) all.pop_back();
    return all;
}

// The names of a folder as the records tell them. Each record must fit to what was told before.
class Replay {
public:
    explicit Replay(const fs::path& folder) : names_(list(folder)) {}

    static std::set<std::u16string> list(const fs::path& folder) {
        std::set<std::u16string> names;
        for (const auto& entry : fs::directory_iterator(folder)) {
            names.insert(entry.path().filename().u16string());
        }
        return names;
    }

    void apply(const std::vector<Record>& records) {
        std::u16string old;
        for (const Record& each : records) {
            switch (each.action) {
                case FILE_ACTION_ADDED:
                    if (!names_.insert(each.name).second) ++unfit_;
                    break;
                case FILE_ACTION_REMOVED:
                    if (names_.erase(each.name) != 1) ++unfit_;
                    break;
                case FILE_ACTION_MODIFIED:
                    if (!names_.contains(each.name)) ++unfit_;
                    break;
                case FILE_ACTION_RENAMED_OLD_NAME:
                    old = each.name;
                    if (names_.erase(each.name) != 1) ++unfit_;
                    break;
                default:
                    names_.insert(each.name);
            }
        }
        count_ += records.size();
    }

    const std::set<std::u16string>& names() const { return names_; }
    int unfit() const { return unfit_; }
    std::size_t count() const { return count_; }

private:
    std::set<std::u16string> names_;
    int unfit_ = 0;
    std::size_t count_ = 0;
};

// Creates, writes, renames and removes files of a folder, also between it and `other`, until `count` is reached.
void disturb(const fs::path& folder, const fs::path& other, unsigned seed, int count, const std::string& prefix) {
    std::mt19937 random(seed);
    const auto name = [&] { return prefix + std::to_string(random() % 50); };
    for (int i = 0; i < count; ++i) {
        std::error_code ignored;
        switch (random() % 8) {
            case 0:
            case 1:
            case 2:
                close(open((folder / name()).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
                break;
            case 3:
                std::ofstream(folder / name(), std::ios::app) << "more";
                break;
            case 4:
                fs::rename(folder / name(), folder / name(), ignored);
                break;
            case 5:
                fs::rename(folder / name(), other / name(), ignored);
                break;
            case 6:
                fs::rename(other / name(), folder / name(), ignored);
                break;
            default:
                fs::remove(folder / name(), ignored);
        }
    }
}

void replay_until(const Watch& watch, Replay& replay, const std::u16string& name) {
    while (!replay.names().contains(name)) {
        ASSERT_TRUE(watch.wait());
        replay.apply(watch.take());
        FindNextChangeNotification(watch.handle());
    }
}

// Until the others' last file is there. A folder that is read again tells its names in any order, so that a last file
// of our own has to come after it.
void replay_to_the_end(const Watch& watch, Replay& replay, const fs::path& folder) {
    replay_until(watch, replay, u"end");
    write_text(folder / "mark");
    replay_until(watch, replay, u"mark");
}

}  // namespace

TEST(FileChanges, EachKindHasItsRecord) {
    const TempFolder folder;
    write_text(folder.host() / "old", "text");
    write_text(folder.host() / "gone");
    const Watch watch(folder.handheld());
    EXPECT_FALSE(watch.wait(0));
    write_text(folder.host() / "new");
    std::ofstream(folder.host() / "old", std::ios::app) << "more";
    fs::rename(folder.host() / "old", folder.host() / "older");
    fs::remove(folder.host() / "gone");
    fs::create_directory(folder.host() / "sub");
    fs::rename(folder.host() / "sub", folder.host() / "sub2");
    fs::remove(folder.host() / "sub2");
    EXPECT_EQ(heard(watch, folder.host()),
              (Texts{u"+new", u"*old", u"old>older", u"-gone", u"+sub", u"sub>sub2", u"-sub2"}));
}

TEST(FileChanges, FiltersChooseRecords) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    write_text(folder.host() / "a");
    const Watch files(folder.handheld(), FILE_NOTIFY_CHANGE_FILE_NAME);
    const Watch folders(folder.handheld(), FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_FILE_NAME);
    const Watch writes(folder.handheld(), FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_FILE_NAME);
    const Watch attributes(folder.handheld(), FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_FILE_NAME);
    fs::rename(folder.host() / "sub", folder.host() / "sub2");
    ASSERT_EQ(chmod((folder.host() / "a").c_str(), 0444), 0);
    std::ofstream(folder.host() / "a", std::ios::app) << "more";
    write_text(folder.host() / "mark");
    EXPECT_EQ(words(files.until(u"mark")), (Texts{u"+mark"}));
    EXPECT_EQ(words(folders.until(u"mark")), (Texts{u"sub>sub2", u"+mark"}));
    EXPECT_EQ(words(writes.until(u"mark")), (Texts{u"*a", u"+mark"}));
    EXPECT_EQ(words(attributes.until(u"mark")), (Texts{u"*a", u"+mark"}));
}

TEST(FileChanges, SettingTheAttributesThatAFileHasIsTold) {
    const TempFolder folder;
    write_text(folder.host() / "a");
    const std::u16string path = folder.handheld() + u"\\a";
    const DWORD wanted[] = {FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_READONLY,
                            FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_NORMAL};
    for (const DWORD attributes : wanted) {
        const Watch watch(folder.handheld(), FILE_NOTIFY_CHANGE_ATTRIBUTES);
        ASSERT_TRUE(SetFileAttributesW(path.c_str(), attributes));
        EXPECT_EQ(GetFileAttributesW(path.c_str()), attributes);
        EXPECT_TRUE(watch.wait());
    }
}

TEST(FileChanges, AnotherTimeIsAWriteAndOtherPermissionsAreNone) {
    const TempFolder folder;
    write_text(folder.host() / "a");
    const Watch watch(folder.handheld());
    ASSERT_EQ(chmod((folder.host() / "a").c_str(), 0600), 0);
    const timespec times[2] = {{1000000000, 0}, {1234567890, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (folder.host() / "a").c_str(), times, 0), 0);
    EXPECT_EQ(heard(watch, folder.host()), (Texts{u"*a"}));
}

TEST(FileChanges, RenamesOutOfTheFolderAndIntoIt) {
    const TempFolder folder;
    const TempFolder other;
    write_text(folder.host() / "a");
    write_text(other.host() / "b");
    const Watch watch(folder.handheld());
    fs::rename(folder.host() / "a", other.host() / "a");
    fs::rename(other.host() / "b", folder.host() / "b");
    EXPECT_EQ(heard(watch, folder.host()), (Texts{u"-a", u"+b"}));
}

TEST(FileChanges, ARenameBetweenTwoWatchedFoldersIsOneOfEach) {
    const TempFolder folder;
    const TempFolder other;
    write_text(folder.host() / "a");
    const Watch from(folder.handheld());
    const Watch to(other.handheld());
    fs::rename(folder.host() / "a", other.host() / "b");
    EXPECT_EQ(heard(from, folder.host()), (Texts{u"-a"}));
    EXPECT_EQ(heard(to, other.host()), (Texts{u"+b"}));
}

TEST(FileChanges, TwoWatchesOfOneFolderHearTheSame) {
    const TempFolder folder;
    const Watch first(folder.handheld());
    {
        const Watch second(folder.handheld());
        write_text(folder.host() / "a");
        EXPECT_EQ(words(second.until(u"a")).front(), u"+a");
    }
    EXPECT_EQ(heard(first, folder.host()).front(), u"+a");
}

TEST(FileChanges, AReplacedFileIsRenamedOver) {
    const TempFolder folder;
    write_text(folder.host() / "a");
    write_text(folder.host() / "b");
    const Watch watch(folder.handheld());
    fs::rename(folder.host() / "a", folder.host() / "b");
    EXPECT_EQ(heard(watch, folder.host()), (Texts{u"a>b"}));
}

TEST(FileChanges, NamesThatAreNotUtf8AndNamesWithABackslash) {
    const TempFolder folder;
    const Watch watch(folder.handheld());
    write_text(folder.host() / "\xFFx");
    write_text(folder.host() / "a\\b");
    const std::vector<Record> records = watch.until(u"a\uF05Cb");
    EXPECT_EQ(records.front().name, std::u16string({0xDCFF, u'x'}));
    EXPECT_TRUE(DeleteFileW((folder.handheld() + u"\\" + records.front().name).c_str()));
}

TEST(FileChanges, TheHandleStaysSignalledUntilNext) {
    const TempFolder folder;
    const Watch watch(folder.handheld());
    write_text(folder.host() / "a");
    ASSERT_TRUE(watch.wait());
    EXPECT_TRUE(watch.wait(0));
    watch.until(u"a");
    while (!watch.take().empty()) {
    }
    EXPECT_TRUE(FindNextChangeNotification(watch.handle()));
    EXPECT_FALSE(watch.wait(0));
}

TEST(FileChanges, UnreadRecordsSignalAtOnce) {
    const TempFolder folder;
    const Watch watch(folder.handheld());
    write_text(folder.host() / "a");
    ASSERT_TRUE(watch.wait());
    EXPECT_TRUE(FindNextChangeNotification(watch.handle()));
    EXPECT_TRUE(watch.wait(0));
}

TEST(FileChanges, WithoutRecordsOnlyTheHandleTells) {
    const TempFolder folder;
    const HANDLE handle = FindFirstChangeNotificationW(folder.handheld().c_str(), FALSE, kNames);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(WaitForSingleObject(handle, 0), WAIT_TIMEOUT);
    write_text(folder.host() / "a");
    EXPECT_EQ(WaitForSingleObject(handle, kSoon), WAIT_OBJECT_0);
    EXPECT_FALSE(CeGetFileNotificationInfo(handle, 0, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(FindNextChangeNotification(handle));
    EXPECT_EQ(WaitForSingleObject(handle, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(FindCloseChangeNotification(handle));
    EXPECT_FALSE(FindCloseChangeNotification(handle));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(FileChanges, RecordsAreTakenWhole) {
    const TempFolder folder;
    write_text(folder.host() / "a");
    const Watch watch(folder.handheld(), kNames);
    fs::rename(folder.host() / "a", folder.host() / "b");
    write_text(folder.host() / "c");
    DWORD size = 0;
    do {
        ASSERT_TRUE(watch.wait());
        ASSERT_TRUE(CeGetFileNotificationInfo(watch.handle(), 0, nullptr, 0, nullptr, &size));
        FindNextChangeNotification(watch.handle());
    } while (size < 48);
    EXPECT_EQ(size, 48u);  // three records of one letter: 12 bytes, the letter and its NUL
    std::vector<char> bytes(31);
    DWORD returned = 1;
    SetLastError(0);
    EXPECT_FALSE(CeGetFileNotificationInfo(watch.handle(), 0, bytes.data(), 31, &returned, &size));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(size, 48u);
    bytes.resize(40);
    EXPECT_TRUE(CeGetFileNotificationInfo(watch.handle(), 0, bytes.data(), 40, &returned, &size));
    EXPECT_EQ(returned, 32u);
    EXPECT_EQ(size, 16u);
    bytes.resize(returned);
    EXPECT_EQ(words(parse(bytes)), (Texts{u"a>b"}));
    EXPECT_EQ(words(watch.take()), (Texts{u"+c"}));
}

TEST(FileChanges, WrongArguments) {
    const TempFolder folder;
    write_text(folder.host() / "file");
    const auto error = [](const std::u16string& path, DWORD filter) {
        SetLastError(0);
        EXPECT_EQ(FindFirstChangeNotificationW(path.c_str(), FALSE, filter), INVALID_HANDLE_VALUE);
        return GetLastError();
    };
    EXPECT_EQ(error(folder.handheld() + u"\\none", kNames), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(error(u"", kNames), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(error(folder.handheld() + u"\\file", kNames), ERROR_DIRECTORY);
    EXPECT_EQ(error(folder.handheld() + u"\\" + std::u16string(300, u'x'), kNames), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(error(folder.handheld(), 0), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(error(folder.handheld(), FILE_NOTIFY_CHANGE_CEGETINFO), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(error(folder.handheld(), 0x400), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(FindFirstChangeNotificationW(nullptr, FALSE, kNames), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(FindNextChangeNotification(nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    EXPECT_FALSE(FindNextChangeNotification(event));
    EXPECT_FALSE(FindCloseChangeNotification(event));
    EXPECT_FALSE(CeGetFileNotificationInfo(event, 0, nullptr, 0, nullptr, nullptr));
    EXPECT_TRUE(CloseHandle(event));
}

// A watch whose folder has gone tells so once and is quiet then.
void expect_end(const Watch& watch, DWORD error) {
    while (true) {
        ASSERT_TRUE(watch.wait());
        watch.take();
        if (!FindNextChangeNotification(watch.handle())) break;
    }
    EXPECT_EQ(GetLastError(), error);
    EXPECT_FALSE(watch.wait(0));
    EXPECT_FALSE(FindNextChangeNotification(watch.handle()));
    EXPECT_EQ(GetLastError(), error);
    EXPECT_FALSE(watch.wait(0));
}

TEST(FileChanges, ADeletedFolderEndsTheWatch) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    write_text(folder.host() / "sub/a");
    const Watch watch(folder.handheld() + u"\\sub");
    fs::remove_all(folder.host() / "sub");
    ASSERT_TRUE(watch.wait());
    expect_end(watch, ERROR_PATH_NOT_FOUND);
}

TEST(FileChanges, ARenamedFolderEndsTheWatch) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    const Watch watch(folder.handheld() + u"\\sub");
    fs::rename(folder.host() / "sub", folder.host() / "sub2");
    expect_end(watch, ERROR_PATH_NOT_FOUND);
}

TEST(FileChanges, AFolderMadeUnreadableEndsTheWatch) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    const WithoutOverride everybody;
    const Watch watch(folder.handheld() + u"\\sub");
    ASSERT_EQ(chmod((folder.host() / "sub").c_str(), 0), 0);
    expect_end(watch, ERROR_ACCESS_DENIED);
    chmod((folder.host() / "sub").c_str(), 0700);
}

// May be listed, but its files not looked at.
TEST(FileChanges, AFolderThatCannotBeEnteredIsWatchedOn) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    write_text(folder.host() / "sub/a");
    const int inside = open((folder.host() / "sub").c_str(), O_PATH | O_CLOEXEC);
    const WithoutOverride everybody;
    {
        const Watch watch(folder.handheld() + u"\\sub");
        ASSERT_EQ(chmod((folder.host() / "sub").c_str(), 0600), 0);
        ASSERT_EQ(chmod((folder.host() / "sub").c_str(), 0700), 0);
        EXPECT_EQ(heard(watch, folder.host() / "sub"), Texts{});
    }
    close(inside);
}

TEST(FileChanges, RecordsBeforeTheEndAreRead) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    const Watch watch(folder.handheld() + u"\\sub");
    write_text(folder.host() / "sub/a");
    fs::remove(folder.host() / "sub/a");
    fs::remove(folder.host() / "sub");
    Texts all;
    while (true) {
        ASSERT_TRUE(watch.wait());
        for (std::u16string& each : words(watch.take())) {
            all.push_back(std::move(each));
        }
        if (!FindNextChangeNotification(watch.handle())) break;
    }
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(all, (Texts{u"+a", u"-a"}));
}

TEST(FileChanges, TheEndIsToldWithoutRecordsToo) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    const std::u16string path = folder.handheld() + u"\\sub";
    const HANDLE handle = FindFirstChangeNotificationW(path.c_str(), FALSE, FILE_NOTIFY_CHANGE_CREATION);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    write_text(folder.host() / "sub/a");
    fs::remove(folder.host() / "sub/a");
    fs::remove(folder.host() / "sub");
    EXPECT_EQ(WaitForSingleObject(handle, kSoon), WAIT_OBJECT_0);
    while (FindNextChangeNotification(handle)) {
        ASSERT_EQ(WaitForSingleObject(handle, kSoon), WAIT_OBJECT_0);
    }
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(WaitForSingleObject(handle, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(FindCloseChangeNotification(handle));
}

TEST(FileChanges, AFolderMadeAnewIsAnotherOne) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "sub");
    const Watch old(folder.handheld() + u"\\sub");
    fs::remove(folder.host() / "sub");
    fs::create_directory(folder.host() / "sub");
    const Watch watch(folder.handheld() + u"\\sub");
    expect_end(old, ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(heard(watch, folder.host() / "sub"), Texts{});
    EXPECT_FALSE(old.wait(0));
}

// The thread that reads for all watches rests, however many of them have ended.
TEST(FileChanges, EndedWatchesCostNoTime) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "deleted");
    fs::create_directory(folder.host() / "renamed");
    const Watch deleted(folder.handheld() + u"\\deleted");
    const Watch renamed(folder.handheld() + u"\\renamed");
    fs::remove(folder.host() / "deleted");
    fs::rename(folder.host() / "renamed", folder.host() / "other");
    expect_end(deleted, ERROR_PATH_NOT_FOUND);
    expect_end(renamed, ERROR_PATH_NOT_FOUND);
    const std::clock_t before = std::clock();
    EXPECT_FALSE(deleted.wait(200));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20);
}

TEST(FileChanges, ASubtreeIsWatchedAsItGrows) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "a/b");
    const Watch watch(folder.handheld(), kNames, TRUE);
    write_text(folder.host() / "a/b/file");
    fs::create_directories(folder.host() / "c/d");
    write_text(folder.host() / "c/d/file");
    EXPECT_EQ(heard(watch, folder.host()), (Texts{u"+a\\b\\file", u"+c", u"+c\\d", u"+c\\d\\file"}));
    fs::remove(folder.host() / "mark");
    fs::rename(folder.host() / "c/d", folder.host() / "a/e");
    write_text(folder.host() / "a/e/more");
    fs::remove_all(folder.host() / "a/b");
    EXPECT_EQ(heard(watch, folder.host()), (Texts{u"-mark", u"c\\d>a\\e", u"+a\\e\\more", u"-a\\b\\file", u"-a\\b"}));
}

TEST(FileChanges, ClosingWhileAnotherThreadWaits) {
    const TempFolder folder;
    const HANDLE handle = FindFirstChangeNotificationW(folder.handheld().c_str(), FALSE, kNames);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    std::thread waiter([handle] { WaitForSingleObject(handle, 200); });
    EXPECT_TRUE(FindCloseChangeNotification(handle));
    waiter.join();
    write_text(folder.host() / "a");
}

TEST(FileChanges, ReplayingTheRecordsGivesTheFolder) {
    const TempFolder folder;
    const TempFolder other;
    const Watch watch(folder.handheld());
    Replay replay(folder.host());
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < 3; ++i) {
        workers.emplace_back([&, i] { disturb(folder.host(), other.host(), i, 1500, i == 0 ? "x" : "shared"); });
    }
    std::thread end([&] {
        for (auto& each : workers) {
            each.join();
        }
        write_text(folder.host() / "end");
    });
    replay_to_the_end(watch, replay, folder.host());
    end.join();
    EXPECT_EQ(replay.names(), Replay::list(folder.host()));
    EXPECT_EQ(replay.unfit(), 0);
}

// Keeps a watch, and replays it when told to.
ZR_CHILD(watcher) {
    const fs::path host = args.at(0);
    const std::string handheld = args.at(1);
    const Watch watch(std::u16string(handheld.begin(), handheld.end()));
    Replay replay(host);
    say("ready");
    hear();
    replay_to_the_end(watch, replay, host);
    const bool same = replay.names() == Replay::list(host);
    say((same ? "same " : "other ") + std::to_string(replay.unfit()) + (replay.count() < 5000 ? " few" : " many"));
    return 0;
}

// A process that is stopped while more happens than the kernel keeps for it.
TEST(FileChanges, NothingIsLostWhenTheQueueOverflows) {
    if (queue_length() <= 0 || queue_length() > 50000) GTEST_SKIP() << "the kernel keeps too much";
    const TempFolder folder;
    const TempFolder other;
    for (int i = 0; i < 50; ++i) {
        write_text(folder.host() / ("x" + std::to_string(i)));
    }
    const std::u16string handheld = folder.handheld();
    Child child("watcher", {folder.host().string(), std::string(handheld.begin(), handheld.end())});
    ASSERT_EQ(child.hear(), "ready");
    child.kill(SIGSTOP);
    int status = 0;
    ASSERT_EQ(waitpid(child.pid(), &status, WUNTRACED), child.pid());
    disturb(folder.host(), other.host(), 7, 2 * queue_length(), "x");
    child.kill(SIGCONT);
    disturb(folder.host(), other.host(), 8, 500, "x");
    write_text(folder.host() / "end");
    child.say("go");
    const std::string said = child.hear();
    EXPECT_TRUE(said == "same 0 many" || said == "same 0 few") << said;
    EXPECT_EQ(child.wait(), 0);
}

TEST(FileChanges, NothingIsLostWithTheSmallestQueue) {
    const TempFolder folder;
    const TempFolder other;
    std::unique_ptr<Watch> watch;
    {
        if (queues_of_process() > 0) GTEST_SKIP() << "the process has its queue";
        const SmallQueue small;
        if (!small) GTEST_SKIP() << "the kernel's queue cannot be changed here";
        watch = std::make_unique<Watch>(folder.handheld());
    }
    Replay replay(folder.host());
    std::thread worker([&] {
        disturb(folder.host(), other.host(), 9, 5000, "x");
        write_text(folder.host() / "end");
    });
    replay_to_the_end(*watch, replay, folder.host());
    worker.join();
    EXPECT_EQ(replay.names(), Replay::list(folder.host()));
    EXPECT_EQ(replay.unfit(), 0);
    EXPECT_GT(ZrFileChangeLosses(), 0);
}
