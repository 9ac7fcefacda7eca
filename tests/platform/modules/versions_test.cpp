#include <gtest/gtest.h>
#include <link.h>

#include <cstring>
#include <fstream>
#include <random>
#include <vector>

#include "platform/base.h"
#include "platform/modules.h"
#include "support/modules.h"

using namespace zr::test;

namespace {

constexpr DWORD kBlock = 92;

std::vector<char> bytes_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put(const std::filesystem::path& path, const std::vector<char>& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

DWORD error_of(const std::u16string& path) {
    DWORD unused = 1;
    SetLastError(0);
    EXPECT_EQ(GetFileVersionInfoSizeW(path.c_str(), &unused), 0u);
    EXPECT_EQ(unused, 0u);
    return GetLastError();
}

}  // namespace

TEST(Versions, ReadFromTheFile) {
    const ModuleFolder folder;
    const std::u16string path = folder.add("seven", "a.so");
    DWORD handle = 1;
    ASSERT_EQ(GetFileVersionInfoSizeW(path.c_str(), &handle), kBlock);
    EXPECT_EQ(handle, 0u);
    alignas(4) unsigned char block[kBlock];
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, kBlock, block));
    LPVOID value = nullptr;
    UINT size = 0;
    ASSERT_TRUE(VerQueryValueW(block, u"\\", &value, &size));
    ASSERT_EQ(size, 52u);
    const auto& info = *static_cast<const VS_FIXEDFILEINFO*>(value);
    EXPECT_EQ(info.dwSignature, VS_FFI_SIGNATURE);
    EXPECT_EQ(info.dwProductVersionMS, 0x00010002u);
    EXPECT_EQ(info.dwProductVersionLS, 0x00030004u);
    EXPECT_EQ(info.dwFileVersionMS, info.dwProductVersionMS);
    EXPECT_EQ(info.dwFileFlags, VS_FF_DEBUG);
    EXPECT_EQ(info.dwFileType, VFT_DLL);
}

TEST(Versions, WrongArguments) {
    const ModuleFolder folder;
    const std::u16string path = folder.add("seven", "a.so");
    alignas(4) unsigned char block[kBlock] = {};
    EXPECT_FALSE(GetFileVersionInfoW(path.c_str(), 0, kBlock - 1, block));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_FALSE(GetFileVersionInfoW(path.c_str(), 0, kBlock, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    LPVOID value = nullptr;
    UINT size = 0;
    EXPECT_FALSE(VerQueryValueW(block, u"\\", &value, &size));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, kBlock, block));
    EXPECT_FALSE(VerQueryValueW(block, u"\\StringFileInfo", &value, &size));
    EXPECT_EQ(GetLastError(), ERROR_RESOURCE_TYPE_NOT_FOUND);
    EXPECT_FALSE(VerQueryValueW(block, u"\\", nullptr, &size));
    EXPECT_TRUE(VerQueryValueW(block, u"\\", &value, nullptr));
    EXPECT_EQ(GetFileVersionInfoSizeW(path.c_str(), nullptr), kBlock);
}

TEST(Versions, FilesWithoutOne) {
    const ModuleFolder folder;
    EXPECT_EQ(error_of(folder.add("seven_plain", "plain.so")), ERROR_RESOURCE_DATA_NOT_FOUND);
    EXPECT_EQ(error_of(folder.path("none.so")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(error_of(folder.handheld()), ERROR_BAD_EXE_FORMAT);
    put(folder.host() / "empty.so", {});
    EXPECT_EQ(error_of(folder.path("empty.so")), ERROR_BAD_EXE_FORMAT);
    put(folder.host() / "text.so", {'t', 'e', 'x', 't'});
    EXPECT_EQ(error_of(folder.path("text.so")), ERROR_BAD_EXE_FORMAT);
}

TEST(Versions, FilesCutShortAnywhere) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    const std::vector<char> whole = bytes_of(folder.host() / "a.so");
    for (std::size_t size = 0; size < whole.size(); size += size < 1200 ? 13 : 997) {
        put(folder.host() / "cut.so", {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        const DWORD found = GetFileVersionInfoSizeW(folder.path("cut.so").c_str(), nullptr);
        EXPECT_TRUE(found == kBlock || GetLastError() == ERROR_BAD_EXE_FORMAT) << size;
    }
}

// Whether they lie at the beginning, at the end of a large file or where reading it by parts cuts them.
TEST(Versions, NotesAndHeadersAnywhere) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    const std::vector<char> whole = bytes_of(folder.host() / "a.so");
    ElfW(Ehdr) header;
    ASSERT_GE(whole.size(), sizeof header);
    std::memcpy(&header, whole.data(), sizeof header);
    const std::size_t headers = header.e_phnum * sizeof(ElfW(Phdr));
    for (std::size_t shift = 0; shift < 4096; shift += 28) {
        const std::size_t notes_at = (shift + sizeof header + 3) & ~std::size_t{3};
        const std::size_t headers_at = notes_at + 1024;
        std::vector<char> file(headers_at + headers, 0);
        std::vector<char> segments(headers);
        std::memcpy(segments.data(), whole.data() + header.e_phoff, headers);
        std::size_t next = notes_at;
        for (std::size_t i = 0; i < header.e_phnum; ++i) {
            ElfW(Phdr) segment;
            std::memcpy(&segment, segments.data() + i * sizeof segment, sizeof segment);
            if (segment.p_type != PT_NOTE) continue;
            ASSERT_LE(next + segment.p_filesz, headers_at);
            std::memcpy(file.data() + next, whole.data() + segment.p_offset, segment.p_filesz);
            segment.p_offset = next;
            next += (segment.p_filesz + 7) & ~std::size_t{7};
            std::memcpy(segments.data() + i * sizeof segment, &segment, sizeof segment);
        }
        ElfW(Ehdr) changed = header;
        changed.e_phoff = headers_at;
        std::memcpy(file.data(), &changed, sizeof changed);
        std::memcpy(file.data() + headers_at, segments.data(), headers);
        put(folder.host() / "moved.so", file);
        ASSERT_EQ(GetFileVersionInfoSizeW(folder.path("moved.so").c_str(), nullptr), kBlock) << shift;
    }
}

// Whatever the headers and notes claim, reading stays within the file.
TEST(Versions, HeadersThatLie) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    const std::vector<char> whole = bytes_of(folder.host() / "a.so");
    ElfW(Ehdr) header;
    ASSERT_GE(whole.size(), sizeof header);
    std::memcpy(&header, whole.data(), sizeof header);
    const auto headers_end = static_cast<std::size_t>(header.e_phoff + header.e_phnum * sizeof(ElfW(Phdr)));
    std::mt19937 random(1);
    int found = 0;
    for (int round = 0; round < 500; ++round) {
        std::vector<char> bytes = whole;
        for (int i = 0; i < 3; ++i) {
            // In the headers, or in the notes that follow them closely.
            const std::size_t at = 16 + random() % (headers_end + 600 - 16);
            const char values[] = {0, 1, '\xFF', 127, static_cast<char>(random())};
            if (at < bytes.size()) bytes[at] = values[random() % 5];
        }
        put(folder.host() / "lies.so", bytes);
        if (GetFileVersionInfoSizeW(folder.path("lies.so").c_str(), nullptr) == kBlock) ++found;
    }
    EXPECT_GT(found, 0);
}
