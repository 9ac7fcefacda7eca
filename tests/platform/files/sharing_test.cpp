// What open and mapped files allow others to do: copying, moving, deleting, emptying, cutting short.

#include <unistd.h>

#include "files_support.h"
#include "platform/mapping.h"
#include "support/child.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kShareWhole = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Sharing : public testing::Test {
protected:
    Sharing() {
        write_text(folder_.host() / "a", "old text");
        write_text(folder_.host() / "new", "new");
    }

    HANDLE open(DWORD access, DWORD share, DWORD creation = OPEN_EXISTING) const {
        SetLastError(0xBAD);
        return CreateFileW(a_.c_str(), access, share, nullptr, creation, 0, nullptr);
    }
    std::string text() const { return read_text(folder_.host() / "a"); }

    const TempFolder folder_;
    const std::u16string a_ = folder_.handheld() + u"\\a";
    const std::u16string new_ = folder_.handheld() + u"\\new";
    const std::u16string other_ = folder_.handheld() + u"\\other";
};

// A mapping over a file whose handle is closed at once.
class MappedFile {
public:
    explicit MappedFile(const std::u16string& path, DWORD share = kShareWhole) {
        const HANDLE file = CreateFileW(path.c_str(), kReadWrite, share, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(file, INVALID_HANDLE_VALUE);
        mapping_ = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 0, nullptr);
        EXPECT_NE(mapping_, nullptr);
        EXPECT_TRUE(CloseHandle(file));
    }
    ~MappedFile() {
        close();
        unmap();
    }
    char* map() { return view_ = static_cast<char*>(MapViewOfFile(mapping_, FILE_MAP_WRITE, 0, 0, 0)); }
    void close() {
        if (const HANDLE mapping = std::exchange(mapping_, nullptr)) CloseHandle(mapping);
    }
    void unmap() {
        if (const char* const view = std::exchange(view_, nullptr)) UnmapViewOfFile(view);
    }

private:
    HANDLE mapping_ = nullptr;
    char* view_ = nullptr;
};

}  // namespace

TEST_F(Sharing, CopyOverNeedsThatWritingIsShared) {
    for (const DWORD access : {GENERIC_READ, GENERIC_WRITE, kReadWrite})
        for (DWORD share = 0; share < 8; ++share) {
            write_text(folder_.host() / "a", "old text");
            const HANDLE file = open(access, share);
            ASSERT_NE(file, INVALID_HANDLE_VALUE);
            if (share & FILE_SHARE_WRITE) {
                EXPECT_TRUE(CopyFileW(new_.c_str(), a_.c_str(), FALSE)) << access << " " << share;
                EXPECT_EQ(text(), "new");
            } else {
                EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, CopyFileW(new_.c_str(), a_.c_str(), FALSE));
                EXPECT_EQ(text(), "old text");
            }
            EXPECT_TRUE(CloseHandle(file));
        }
    EXPECT_TRUE(CopyFileW(new_.c_str(), a_.c_str(), FALSE));
}

TEST_F(Sharing, CopyFromNeedsThatReadingIsShared) {
    for (DWORD share = 0; share < 8; ++share) {
        const HANDLE file = open(kReadWrite, share);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        if (share & FILE_SHARE_READ)
            EXPECT_TRUE(CopyFileW(a_.c_str(), new_.c_str(), FALSE));
        else
            EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, CopyFileW(a_.c_str(), other_.c_str(), FALSE));
        EXPECT_TRUE(CloseHandle(file));
        EXPECT_FALSE(fs::exists(folder_.host() / "other"));
    }
}

TEST_F(Sharing, DeletingAndMovingNeedThatDeletionIsShared) {
    for (const DWORD access : {GENERIC_READ, GENERIC_WRITE, kReadWrite})
        for (const DWORD share : {DWORD{0}, FILE_SHARE_READ | FILE_SHARE_WRITE}) {
            const HANDLE file = open(access, share);
            ASSERT_NE(file, INVALID_HANDLE_VALUE);
            EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, DeleteFileW(a_.c_str()));
            EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, MoveFileW(a_.c_str(), other_.c_str()));
            EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, MoveFileW(a_.c_str(), (folder_.handheld() + u"\\A").c_str()));
            EXPECT_TRUE(CloseHandle(file));
        }
    const HANDLE file = open(kReadWrite, kShareWhole);
    EXPECT_TRUE(MoveFileW(a_.c_str(), other_.c_str()));
    EXPECT_TRUE(DeleteFileW(other_.c_str()));
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, "x", 1, &written, nullptr));  // what is open goes on
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_FALSE(fs::exists(folder_.host() / "other"));
}

TEST_F(Sharing, WhoOnlyAsksIsInNobodysWay) {
    const HANDLE file = open(0, 0);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CopyFileW(new_.c_str(), a_.c_str(), FALSE));
    EXPECT_TRUE(MoveFileW(a_.c_str(), other_.c_str()));
    EXPECT_TRUE(DeleteFileW(other_.c_str()));
    EXPECT_TRUE(CloseHandle(file));
}

TEST_F(Sharing, ALinkMayGoWhileItsFileIsOpen) {
    fs::create_symlink("a", folder_.host() / "link");
    const HANDLE file = open(kReadWrite, 0);
    EXPECT_TRUE(DeleteFileW((folder_.handheld() + u"\\link").c_str()));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(text(), "old text");
}

ZR_CHILD(owner) {
    const std::u16string path(args[0].begin(), args[0].end());
    const HANDLE file = CreateFileW(path.c_str(), kReadWrite, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const HANDLE mapping =
        args[1] == "mapped" ? CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 0, nullptr) : nullptr;
    if (mapping) CloseHandle(file);
    say(file == INVALID_HANDLE_VALUE ? "failed" : "open");
    hear();
    return 0;
}

TEST_F(Sharing, WhatAnotherProcessHasForItselfStays) {
    Child child("owner", {std::string(a_.begin(), a_.end()), "open"});
    ASSERT_EQ(child.hear(), "open");
    EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, CopyFileW(new_.c_str(), a_.c_str(), FALSE));
    EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, CopyFileW(a_.c_str(), other_.c_str(), FALSE));
    EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, MoveFileW(a_.c_str(), other_.c_str()));
    EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, DeleteFileW(a_.c_str()));
    EXPECT_EQ(text(), "old text");
    child.say("end");
    child.wait();
    EXPECT_TRUE(DeleteFileW(a_.c_str()));
}

TEST_F(Sharing, AMappingKeepsNoShareModeForOtherProcesses) {
    Child child("owner", {std::string(a_.begin(), a_.end()), "mapped"});
    ASSERT_EQ(child.hear(), "open");
    const HANDLE file = open(kReadWrite, 0);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    CloseHandle(file);
    child.say("end");
    child.wait();
}

TEST_F(Sharing, AMappingKeepsNoShareMode) {
    MappedFile mapped(a_, 0);
    ASSERT_NE(mapped.map(), nullptr);
    const HANDLE file = open(kReadWrite, 0);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(file));
}

TEST_F(Sharing, AMappedFileIsNotCutShort) {
    MappedFile mapped(a_);
    char* const view = mapped.map();
    ASSERT_NE(view, nullptr);
    const HANDLE file = open(kReadWrite, kShareWhole);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    ASSERT_EQ(SetFilePointer(file, 3, nullptr, FILE_BEGIN), 3u);
    EXPECT_FAILS_WITH(ERROR_USER_MAPPED_FILE, SetEndOfFile(file));
    mapped.close();
    EXPECT_FAILS_WITH(ERROR_USER_MAPPED_FILE, SetEndOfFile(file));  // the view is there still
    EXPECT_EQ(std::string(view, 8), "old text");
    ASSERT_EQ(SetFilePointer(file, 100, nullptr, FILE_BEGIN), 100u);
    EXPECT_TRUE(SetEndOfFile(file));  // longer is in nobody's way
    mapped.unmap();
    ASSERT_EQ(SetFilePointer(file, 3, nullptr, FILE_BEGIN), 3u);
    EXPECT_TRUE(SetEndOfFile(file));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(text(), "old");
}

TEST_F(Sharing, AMappedFileIsNotEmptiedReplacedOrDeleted) {
    for (const bool view : {true, false}) {
        MappedFile mapped(a_);
        if (view) {
            ASSERT_NE(mapped.map(), nullptr);
            mapped.close();
        }
        EXPECT_EQ(open(kReadWrite, kShareWhole, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_USER_MAPPED_FILE);
        EXPECT_EQ(open(kReadWrite, kShareWhole, TRUNCATE_EXISTING), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_USER_MAPPED_FILE);
        EXPECT_FAILS_WITH(ERROR_USER_MAPPED_FILE, CopyFileW(new_.c_str(), a_.c_str(), FALSE));
        EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, DeleteFileW(a_.c_str()));
        EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, MoveFileW(a_.c_str(), other_.c_str()));
        EXPECT_TRUE(CopyFileW(a_.c_str(), new_.c_str(), FALSE));
        EXPECT_EQ(text(), "old text");
    }
    EXPECT_TRUE(DeleteFileW(a_.c_str()));
}

TEST_F(Sharing, ANamedMappingCountsAsWell) {
    const HANDLE file = open(kReadWrite, kShareWhole);
    const std::u16string name = u"sharing" + std::u16string(folder_.handheld());
    const HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 0, name.c_str());
    ASSERT_NE(mapping, nullptr);
    EXPECT_FAILS_WITH(ERROR_USER_MAPPED_FILE, SetEndOfFile(file));
    EXPECT_TRUE(CloseHandle(mapping));
    EXPECT_TRUE(SetEndOfFile(file));
    EXPECT_TRUE(CloseHandle(file));
}

TEST_F(Sharing, AFolderIsNoNewFile) {
    fs::create_directory(folder_.host() / "sub");
    SetLastError(0xBAD);
    const std::u16string sub = folder_.handheld() + u"\\sub";
    EXPECT_EQ(CreateFileW(sub.c_str(), kReadWrite, 0, nullptr, CREATE_NEW, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}
