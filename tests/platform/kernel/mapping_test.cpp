// File mappings and views, within one process and across processes.

#include <cstring>
#include <fstream>

#include "platform/files.h"
#include "platform/kernel/named/support.h"
#include "support/sandbox.h"

using namespace zr::test;

namespace {

constexpr SIZE_T kGranularity = 64 * 1024;

SIZE_T page() {
    return static_cast<SIZE_T>(sysconf(_SC_PAGESIZE));
}

DWORD map_error(HANDLE mapping, DWORD access, DWORD high = 0, DWORD low = 0, SIZE_T size = 0) {
    SetLastError(ERROR_SUCCESS);
    void* const view = MapViewOfFile(mapping, access, high, low, size);
    if (view) UnmapViewOfFile(view);
    return view ? ERROR_SUCCESS : GetLastError();
}

DWORD create_error(HANDLE file, DWORD protection, DWORD high, DWORD low, LPCWSTR name) {
    SetLastError(ERROR_SUCCESS);
    const Handle mapping(CreateFileMappingW(file, nullptr, protection, high, low, name));
    return mapping ? ERROR_SUCCESS : GetLastError();
}

// Whether a touch of that byte ends the process.
bool faults(char* at, bool write) {
    Fork child([&] {
        signal(SIGSEGV, SIG_DFL);
        signal(SIGBUS, SIG_DFL);
        volatile char* byte = at;
        if (write) {
            *byte = 1;
        } else {
            static_cast<void>(*byte);
        }
        return 0;
    });
    return child.join() != 0;
}

class FileHandle {
public:
    FileHandle(const std::u16string& path, DWORD access, DWORD creation = OPEN_EXISTING)
        : handle_(
              CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, creation, 0, nullptr)) {}
    ~FileHandle() { CloseHandle(handle_); }
    operator HANDLE() const { return handle_; }

private:
    HANDLE handle_;
};

}  // namespace

TEST(Mapping, BeginsZeroedAndIsSharedByItsViews) {
    for (const char16_t* name : {static_cast<const char16_t*>(nullptr), u"shared"}) {
        const Handle mapping = named_mapping(name, 100000);
        ASSERT_NE(mapping, nullptr);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        const View first(mapping, FILE_MAP_WRITE);
        const View second(mapping, FILE_MAP_READ);
        ASSERT_TRUE(first && second);
        EXPECT_EQ(std::count(first + 0, first + 100000, '\0'), 100000);
        std::strcpy(first + 99990, "the end");
        EXPECT_STREQ(second + 99990, "the end");
    }
}

TEST(Mapping, SecondCreatorGetsTheFirstOnesContentsAndSize) {
    const Handle first = named_mapping(u"size", 3 * kGranularity);
    const View view(first, FILE_MAP_WRITE);
    view[2 * kGranularity] = 'x';
    for (const DWORD size : {DWORD{1}, DWORD{100 * kGranularity}}) {
        const Handle second = named_mapping(u"size", size);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        const View whole(second, FILE_MAP_ALL_ACCESS);
        EXPECT_EQ(whole[2 * kGranularity], 'x');
        EXPECT_EQ(map_error(second, FILE_MAP_READ, 0, 0, 3 * kGranularity + 1), ERROR_ACCESS_DENIED);
    }
}

TEST(Mapping, PartsBeginAtMultiplesOfTheGranularity) {
    const Handle mapping = named_mapping(u"parts", 2 * kGranularity + 10);
    const View whole(mapping, FILE_MAP_WRITE);
    whole[kGranularity] = 'a';
    whole[2 * kGranularity + 9] = 'z';
    const View middle(mapping, FILE_MAP_READ, kGranularity, 1);
    EXPECT_EQ(middle[0], 'a');
    const View last(mapping, FILE_MAP_READ, 2 * kGranularity);
    EXPECT_EQ(last[9], 'z');
    EXPECT_EQ(map_error(mapping, FILE_MAP_READ, 0, 1), ERROR_MAPPED_ALIGNMENT);
    EXPECT_EQ(map_error(mapping, FILE_MAP_READ, 0, static_cast<DWORD>(page())),
              page() % kGranularity == 0 ? ERROR_SUCCESS : ERROR_MAPPED_ALIGNMENT);
    EXPECT_EQ(map_error(mapping, FILE_MAP_READ, 0, 3 * kGranularity), ERROR_ACCESS_DENIED);
    EXPECT_EQ(map_error(mapping, FILE_MAP_READ, 1, 0), ERROR_ACCESS_DENIED);
    EXPECT_EQ(map_error(mapping, FILE_MAP_READ, 0, kGranularity, 2 * kGranularity), ERROR_ACCESS_DENIED);
    EXPECT_EQ(map_error(mapping, FILE_MAP_READ, 0xFFFFFFFF, 0xFFFF0000, SIZE_T{0} - 1), ERROR_ACCESS_DENIED);
}

TEST(Mapping, AViewMayReachToTheEndOfTheLastPage) {
    const Handle mapping = named_mapping(u"last page", 1);
    EXPECT_EQ(map_error(mapping, FILE_MAP_WRITE, 0, 0, page()), ERROR_SUCCESS);
    EXPECT_EQ(map_error(mapping, FILE_MAP_WRITE, 0, 0, page() + 1), ERROR_ACCESS_DENIED);
}

TEST(Mapping, AccessIsBoundedByTheProtection) {
    const Handle writable = named_mapping(u"writable", 10);
    EXPECT_EQ(map_error(writable, FILE_MAP_ALL_ACCESS), ERROR_SUCCESS);
    EXPECT_EQ(map_error(writable, FILE_MAP_COPY), ERROR_SUCCESS);
    EXPECT_EQ(map_error(writable, FILE_MAP_READ | FILE_MAP_EXECUTE), ERROR_ACCESS_DENIED);
    EXPECT_EQ(map_error(writable, 0), ERROR_INVALID_PARAMETER);
    const Handle readable = named_mapping(u"readable", 10, PAGE_READONLY);
    EXPECT_EQ(map_error(readable, FILE_MAP_READ), ERROR_SUCCESS);
    EXPECT_EQ(map_error(readable, FILE_MAP_COPY), ERROR_SUCCESS);
    EXPECT_EQ(map_error(readable, FILE_MAP_WRITE), ERROR_ACCESS_DENIED);
    EXPECT_EQ(map_error(readable, FILE_MAP_ALL_ACCESS), ERROR_ACCESS_DENIED);
    // Asking for less, and for more than the mapping has.
    EXPECT_EQ(map_error(named_mapping(u"writable", 10, PAGE_READONLY), FILE_MAP_WRITE), ERROR_ACCESS_DENIED);
    EXPECT_EQ(map_error(named_mapping(u"readable", 10, PAGE_READWRITE), FILE_MAP_WRITE), ERROR_ACCESS_DENIED);
    const Handle opened(OpenFileMappingW(FILE_MAP_READ, FALSE, u"writable"));
    EXPECT_EQ(map_error(opened, FILE_MAP_READ), ERROR_SUCCESS);
    EXPECT_EQ(map_error(opened, FILE_MAP_WRITE), ERROR_ACCESS_DENIED);
    const Handle code = named_mapping(u"code", 10, PAGE_EXECUTE_READWRITE);
    EXPECT_EQ(map_error(code, FILE_MAP_WRITE | FILE_MAP_EXECUTE), ERROR_SUCCESS);
}

TEST(Mapping, PagesHaveTheAccessOfTheirView) {
    const Handle mapping = named_mapping(u"pages", 10);
    const View readable(mapping, FILE_MAP_READ);
    EXPECT_FALSE(faults(readable + 0, false));
    EXPECT_TRUE(faults(readable + 0, true));
    const View copy(mapping, FILE_MAP_COPY);
    copy[0] = 'c';
    EXPECT_EQ(readable[0], '\0');
    const View writable(mapping, FILE_MAP_WRITE);
    writable[0] = 'w';
    EXPECT_EQ(readable[0], 'w');
    EXPECT_EQ(copy[0], 'c');
}

TEST(Mapping, ViewsOutliveTheHandle) {
    Handle mapping = named_mapping(u"outlived", 10);
    const View first(mapping, FILE_MAP_WRITE);
    const View second(mapping, FILE_MAP_READ);
    mapping = Handle();
    first[9] = 'v';
    EXPECT_EQ(second[9], 'v');
    // The name went with the handle.
    const Handle fresh = named_mapping(u"outlived", 10);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    const View zeroes(fresh, FILE_MAP_WRITE);
    EXPECT_EQ(zeroes[9], '\0');
    zeroes[9] = 'n';
    EXPECT_EQ(second[9], 'v');
}

TEST(Mapping, WrongArguments) {
    const HANDLE memory = INVALID_HANDLE_VALUE;
    EXPECT_EQ(create_error(memory, PAGE_READWRITE, 0, 0, u"wrong"), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(create_error(memory, PAGE_READWRITE, 0, 0, nullptr), ERROR_INVALID_PARAMETER);
    for (const DWORD protection : {DWORD{0}, PAGE_NOACCESS, PAGE_EXECUTE, PAGE_READONLY | PAGE_READWRITE,
                                   PAGE_READWRITE | PAGE_GUARD, PAGE_READWRITE | 0x01000000}) {
        EXPECT_EQ(create_error(memory, protection, 0, 10, u"wrong"), ERROR_INVALID_PARAMETER) << protection;
    }
    EXPECT_EQ(create_error(memory, PAGE_READWRITE | SEC_COMMIT, 0, 10, u"right"), ERROR_SUCCESS);
    EXPECT_EQ(create_error(memory, PAGE_READWRITE | SEC_RESERVE | SEC_NOCACHE, 0, 10, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(create_error(memory, PAGE_READWRITE | SEC_COMMIT | SEC_RESERVE, 0, 10, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(create_error(memory, PAGE_READWRITE | SEC_NOCACHE, 0, 10, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(create_error(nullptr, PAGE_READWRITE, 0, 10, nullptr), ERROR_INVALID_HANDLE);
    const Handle event = auto_event();
    EXPECT_EQ(create_error(event, PAGE_READWRITE, 0, 10, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(map_error(event, FILE_MAP_READ), ERROR_INVALID_HANDLE);
    EXPECT_EQ(map_error(nullptr, FILE_MAP_READ), ERROR_INVALID_HANDLE);
    EXPECT_EQ(OpenFileMappingW(FILE_MAP_READ, FALSE, u"none"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenFileMappingW(FILE_MAP_READ, FALSE, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(WaitForSingleObject(named_mapping(u"no waiting", 10), 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(content_files().empty());
}

TEST(Mapping, MoreThanThereIsRoomFor) {
    EXPECT_EQ(create_error(INVALID_HANDLE_VALUE, PAGE_READWRITE, 0x7FFFFFFF, 0, u"huge"), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(create_error(INVALID_HANDLE_VALUE, PAGE_READWRITE, 0xFFFFFFFF, 0xFFFFFFFF, u"huge"),
              ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_TRUE(content_files().empty());
    EXPECT_TRUE(listed().empty());
}

TEST(Mapping, UnmappingNeedsTheBeginningOfAView) {
    const Handle mapping = named_mapping(nullptr, 2 * kGranularity);
    void* const view = MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
    ASSERT_NE(view, nullptr);
    EXPECT_FALSE(UnmapViewOfFile(static_cast<char*>(view) + kGranularity));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
    EXPECT_TRUE(FlushViewOfFile(static_cast<char*>(view) + 5, 0));
    EXPECT_FALSE(FlushViewOfFile(view, 2 * kGranularity + page()));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
    EXPECT_TRUE(UnmapViewOfFile(view));
    EXPECT_FALSE(UnmapViewOfFile(view));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
    EXPECT_FALSE(FlushViewOfFile(view, 1));
    EXPECT_FALSE(UnmapViewOfFile(nullptr));
    int local = 0;
    EXPECT_FALSE(UnmapViewOfFile(&local));
}

TEST(Mapping, OfAFileIsTheFile) {
    const TempFolder folder;
    const auto host = folder.host() / "data";
    std::ofstream(host) << "hello";
    const std::u16string path = folder.handheld() + u"\\data";
    {
        const FileHandle file(path, GENERIC_READ | GENERIC_WRITE);
        const Handle mapping(CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 0, nullptr));
        ASSERT_NE(mapping, nullptr);
        const View view(mapping, FILE_MAP_WRITE);
        EXPECT_EQ(std::string(view + 0, 5), "hello");
        view[0] = 'j';
        EXPECT_TRUE(FlushViewOfFile(view + 0, 0));
        // A larger one makes the file grow.
        const Handle larger(CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 10000, nullptr));
        ASSERT_NE(larger, nullptr);
        const View grown(larger, FILE_MAP_WRITE);
        grown[9999] = 'e';
    }
    EXPECT_EQ(std::filesystem::file_size(host), 10000u);
    std::ifstream in(host);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(text.substr(0, 5), "jello");
    EXPECT_EQ(text.back(), 'e');
}

TEST(Mapping, OfAFileNeedsWhatTheFileWasOpenedFor) {
    const TempFolder folder;
    std::ofstream(folder.host() / "data") << "hello";
    std::ofstream(folder.host() / "empty");
    const std::u16string path = folder.handheld() + u"\\data";
    const FileHandle file(path, GENERIC_READ);
    EXPECT_EQ(create_error(file, PAGE_READWRITE, 0, 0, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(create_error(file, PAGE_READONLY, 0, 6, nullptr), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(create_error(file, PAGE_READONLY, 0, 3, nullptr), ERROR_SUCCESS);
    const Handle copy(CreateFileMappingW(file, nullptr, PAGE_WRITECOPY, 0, 0, nullptr));
    const View view(copy, FILE_MAP_COPY);
    view[0] = 'j';
    EXPECT_EQ(std::string(view + 0, 5), "jello");
    const FileHandle empty(folder.handheld() + u"\\empty", GENERIC_READ | GENERIC_WRITE);
    EXPECT_EQ(create_error(empty, PAGE_READWRITE, 0, 0, nullptr), ERROR_FILE_INVALID);
    const FileHandle blind(path, GENERIC_WRITE);
    EXPECT_EQ(create_error(blind, PAGE_READWRITE, 0, 0, nullptr), ERROR_ACCESS_DENIED);
    std::ifstream in(folder.host() / "data");
    std::string text;
    in >> text;
    EXPECT_EQ(text, "hello");
}

TEST(Mapping, OfAFileByNameReachesOtherProcesses) {
    const TempFolder folder;
    std::ofstream(folder.host() / "data") << "hello";
    const std::u16string path = folder.handheld() + u"\\data";
    const FileHandle file(path, GENERIC_READ | GENERIC_WRITE);
    const Handle mapping(CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 0, u"file by name"));
    ASSERT_NE(mapping, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    const View view(mapping, FILE_MAP_READ);
    Fork other([] {
        const Handle mine = named_mapping(u"file by name", 1);
        if (GetLastError() != ERROR_ALREADY_EXISTS) return 1;
        const View there(mine, FILE_MAP_WRITE);
        if (!there || there[0] != 'h') return 2;
        there[0] = 'j';
        return 0;
    });
    EXPECT_EQ(other.join(), 0);
    EXPECT_EQ(std::string(view + 0, 5), "jello");
    // Who comes when the file has gone cannot have it; who has it keeps it.
    std::filesystem::remove(folder.host() / "data");
    std::ofstream(folder.host() / "data") << "other";
    EXPECT_EQ(create_error(INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, 1, u"file by name"), ERROR_FILE_INVALID);
    EXPECT_EQ(map_error(mapping, FILE_MAP_WRITE), ERROR_SUCCESS);
}

TEST(Mapping, IsSeenByOtherProcessesAsItIsWritten) {
    const Handle mapping = named_mapping(u"both ways", 2 * kGranularity);
    const View view(mapping, FILE_MAP_WRITE);
    std::strcpy(view + kGranularity, "question");
    Fork other([] {
        const Handle mine(OpenFileMappingW(FILE_MAP_WRITE, FALSE, u"both ways"));
        const View there(mine, FILE_MAP_WRITE, kGranularity, 100);
        if (!there || std::strcmp(there + 0, "question") != 0) return 1;
        std::strcpy(there + 0, "answer");
        return 0;
    });
    EXPECT_EQ(other.join(), 0);
    EXPECT_STREQ(view + kGranularity, "answer");
}
