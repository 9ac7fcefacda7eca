#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "base/state_folder.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/modules.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/modules.h"

using namespace zr::test;

namespace {

constexpr DWORD kCapacity = MAX_PATH;

DWORD error_of_loading(const std::u16string& path) {
    SetLastError(0);
    EXPECT_EQ(LoadLibraryW(path.c_str()), nullptr);
    return GetLastError();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int ZrTestOfTheProgram() {
    return 42;
}

// Who asks for what only a library behind the module has is not handed that one's.
TEST(Modules, ExportsOfOtherLibrariesAreNotTheModules) {
    const ModuleFolder folder;
    const HMODULE math = LoadLibraryW(u"libm.so.6");
    ASSERT_NE(math, nullptr);
    ASSERT_NE(dlsym(math, "getenv"), nullptr);  // the host finds it in the C library
    EXPECT_EQ(GetProcAddressW(math, u"getenv"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_NE(GetProcAddressW(math, u"sin"), nullptr);
    EXPECT_TRUE(FreeLibrary(math));
    const HMODULE silent = LoadLibraryW(folder.add("silent", "b.so").c_str());
    ASSERT_NE(silent, nullptr);
    EXPECT_EQ(GetProcAddressW(silent, u"ZrIGetModuleId"), nullptr);
    EXPECT_TRUE(FreeLibrary(silent));
}

TEST(Modules, WordsOfTheHostsLoaderAreNamesLikeOthers) {
    const ModuleFolder folder;
    for (const std::string word : {"$ORIGIN", "${ORIGIN}", "$LIB", "${PLATFORM}", "x$LIB", "$LIBRARY", "$5"}) {
        std::filesystem::create_directory(folder.host() / word);
        std::u16string inside = folder.add("seven", word + "/a.so");
        inside[inside.rfind(u'/')] = u'\\';
        const std::u16string itself = folder.add("eight", word + ".so");
        for (const auto& [path, id] : {std::pair(inside, 7), std::pair(itself, 8)}) {
            const HMODULE module = LoadLibraryW(path.c_str());
            ASSERT_NE(module, nullptr) << word;
            EXPECT_EQ(LoadLibraryW(path.c_str()), module);
            const auto identity = reinterpret_cast<int (*)()>(GetProcAddressW(module, u"ZrIGetModuleId"));
            EXPECT_EQ(identity(), id);
            WCHAR name[kCapacity];
            EXPECT_EQ(GetModuleFileNameW(module, name, kCapacity), path.size());
            EXPECT_EQ(name, path);
            EXPECT_TRUE(FreeLibrary(module));
            EXPECT_TRUE(FreeLibrary(module));
        }
    }
    EXPECT_EQ(error_of_loading(u"$LIB"), ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(error_of_loading(u"${ORIGIN}"), ERROR_MOD_NOT_FOUND);
    // Nothing is left of the names that the host's loader was given.
    const zr::platform::Folder runtime = zr::platform::runtime_folder();
    ASSERT_TRUE(runtime);
    for (const auto& entry : std::filesystem::directory_iterator(runtime.path))
        EXPECT_NE(entry.path().filename().string().substr(0, 7), "module.");
}

TEST(Modules, LoadsFindsAndFrees) {
    const ModuleFolder folder;
    const std::u16string path = folder.add("seven", "a.so");
    const HMODULE module = LoadLibraryW(path.c_str());
    ASSERT_NE(module, nullptr);
    const auto id = reinterpret_cast<int (*)()>(GetProcAddressW(module, u"ZrIGetModuleId"));
    ASSERT_NE(id, nullptr);
    EXPECT_EQ(id(), 7);
    EXPECT_EQ(GetProcAddressW(module, u"NoSuchFunction"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(GetProcAddressW(module, nullptr), nullptr);
    WCHAR name[kCapacity];
    EXPECT_EQ(GetModuleFileNameW(module, name, kCapacity), path.size());
    EXPECT_EQ(name, path);
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_FALSE(FreeLibrary(module));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetProcAddressW(module, u"ZrIGetModuleId"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetModuleFileNameW(module, name, kCapacity), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Modules, TheSameFileIsOneModule) {
    const ModuleFolder folder;
    const std::u16string path = folder.add("seven", "a.so");
    const std::u16string other = folder.add("seven", "b.so");
    const HMODULE first = LoadLibraryW(path.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(LoadLibraryW(path.c_str()), first);
    const HMODULE copy = LoadLibraryW(other.c_str());
    EXPECT_NE(copy, first);
    EXPECT_TRUE(FreeLibrary(copy));
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_NE(GetProcAddressW(first, u"ZrIGetModuleId"), nullptr);
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_FALSE(FreeLibrary(first));
}

TEST(Modules, WhatCannotBeLoaded) {
    const ModuleFolder folder;
    EXPECT_EQ(error_of_loading(folder.path("none.so")), ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(error_of_loading(u"no-such-module.so"), ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(error_of_loading(u""), ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(error_of_loading(folder.path(std::string(300, 'x'))), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(error_of_loading(folder.handheld()), ERROR_BAD_EXE_FORMAT);
    std::ofstream(folder.host() / "text.so") << "no module";
    EXPECT_EQ(error_of_loading(folder.path("text.so")), ERROR_BAD_EXE_FORMAT);
    const std::u16string whole = folder.add("seven", "cut.so");
    std::filesystem::resize_file(folder.host() / "cut.so", 700);
    EXPECT_EQ(error_of_loading(whole), ERROR_BAD_EXE_FORMAT);
    ASSERT_EQ(mkfifo((folder.host() / "pipe.so").c_str(), 0600), 0);
    EXPECT_EQ(error_of_loading(folder.path("pipe.so")), ERROR_BAD_EXE_FORMAT);
    EXPECT_EQ(LoadLibraryW(nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

// A process that touches what is missing from a mapped file is killed.
TEST(Modules, AFileCutShortAnywhereDoesNoHarm) {
    const ModuleFolder folder;
    const auto whole = std::filesystem::file_size(std::filesystem::path(ZR_TEST_MODULES) / "seven.so");
    int refused = 0;
    for (std::uintmax_t size = 0; size < whole; size += size < 1200 ? 61 : 499) {
        const std::string name = std::to_string(size) + ".so";
        const std::u16string path = folder.add("seven", name);
        std::filesystem::resize_file(folder.host() / name, size);
        const HMODULE module = LoadLibraryW(path.c_str());
        if (module) {
            EXPECT_TRUE(FreeLibrary(module)) << size;
            continue;
        }
        EXPECT_EQ(GetLastError(), ERROR_BAD_EXE_FORMAT) << size;
        ++refused;
    }
    EXPECT_GT(refused, 20);
}

TEST(Modules, AHostLibraryByItsName) {
    const HMODULE math = LoadLibraryW(u"libm.so.6");
    ASSERT_NE(math, nullptr);
    EXPECT_NE(GetProcAddressW(math, u"cos"), nullptr);
    WCHAR name[kCapacity];
    EXPECT_EQ(GetModuleFileNameW(math, name, kCapacity), 0u);  // outside the root of this test
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_TRUE(FreeLibrary(math));
}

TEST(Modules, TheProgramItself) {
    const HMODULE program = GetModuleHandleW(nullptr);
    const auto own = reinterpret_cast<int (*)()>(GetProcAddressW(program, u"ZrTestOfTheProgram"));
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(own(), 42);
    EXPECT_EQ(GetProcAddressW(program, u"sqlite3_libversion"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_FALSE(FreeLibrary(program));
    EXPECT_EQ(GetProcAddressW(nullptr, u"malloc"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Modules, APathThatDoesNotFitIsCut) {
    const ModuleFolder folder;
    const std::u16string path = folder.add("seven", "a.so");
    const HMODULE module = LoadLibraryW(path.c_str());
    ASSERT_NE(module, nullptr);
    WCHAR name[kCapacity];
    EXPECT_EQ(GetModuleFileNameW(module, name, 5), 5u);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(name, path.substr(0, 4));
    const auto exact = static_cast<DWORD>(path.size());
    EXPECT_EQ(GetModuleFileNameW(module, name, exact), exact);
    EXPECT_EQ(name, path.substr(0, exact - 1));
    EXPECT_EQ(GetModuleFileNameW(module, name, exact + 1), exact);
    EXPECT_EQ(GetModuleFileNameW(module, name, 0), 0u);
    EXPECT_TRUE(FreeLibrary(module));
}

TEST(Modules, BothProcessesGoOnAfterThreeHundredForksUnderLoad) {
    const ModuleFolder folder;
    const std::u16string path = folder.add("seven", "a.so");
    const HMODULE kept = LoadLibraryW(path.c_str());
    ASSERT_NE(kept, nullptr);
    const auto use = [&] {
        WCHAR name[kCapacity];
        const HMODULE module = LoadLibraryW(path.c_str());
        if (module != kept) return 1;
        if (GetModuleFileNameW(module, name, kCapacity) != path.size()) return 2;
        return FreeLibrary(module) ? 0 : 3;
    };
    {
        const Load load({[&] { EXPECT_EQ(use(), 0); }, [&] { EXPECT_EQ(use(), 0); }});
        for (int i = 0; i < 300 / kStride; ++i) {
            ASSERT_EQ(in_fork(use), 0) << "fork " << i;
        }
    }
    EXPECT_TRUE(FreeLibrary(kept));
}
