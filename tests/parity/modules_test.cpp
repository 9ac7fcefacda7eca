// Loading and finding in their other forms.
#include <gtest/gtest.h>

#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/modules.h"
#include "support/modules.h"

namespace {

TEST(ModulesOtherForms, NarrowNamesFindTheSame) {
    const zr::test::ModuleFolder folder;
    const std::u16string path = folder.add("seven", "seven.so");
    const HMODULE module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    ASSERT_NE(module, nullptr);
    const HMODULE again = LoadLibraryExW(path.c_str(), nullptr, 0);
    EXPECT_EQ(again, module);
    const FARPROC wide = GetProcAddressW(module, u"ZrIGetModuleId");
    EXPECT_EQ(GetProcAddress(module, "ZrIGetModuleId"), wide);
    EXPECT_EQ(GetProcAddress(module, u"ZrIGetModuleId"), wide);
    EXPECT_EQ(GetProcAddressA(module, "ZrIGetModuleId"), wide);
    SetLastError(NO_ERROR);
    EXPECT_EQ(GetProcAddress(module, "NoSuchName"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    SetLastError(NO_ERROR);
    EXPECT_EQ(GetProcAddress(module, reinterpret_cast<LPCSTR>(UINT_PTR{3})), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    SetLastError(NO_ERROR);
    EXPECT_EQ(GetProcAddressA(module, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SetLastError(NO_ERROR);
    EXPECT_EQ(GetProcAddress(reinterpret_cast<HMODULE>(UINT_PTR{0x12345}), "x"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_TRUE(FreeLibrary(module));
}

TEST(ModulesOtherForms, FlagsThatCannotBeHadAreRefused) {
    const zr::test::ModuleFolder folder;
    const std::u16string path = folder.add("seven", "seven.so");
    for (const DWORD flags : {LOAD_LIBRARY_AS_DATAFILE, DONT_RESOLVE_DLL_REFERENCES}) {
        SetLastError(NO_ERROR);
        EXPECT_EQ(LoadLibraryExW(path.c_str(), nullptr, flags), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    }
    SetLastError(NO_ERROR);
    EXPECT_EQ(LoadLibraryExW(path.c_str(), nullptr, 0x10000000), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(LoadLibraryExW(path.c_str(), GetCurrentProcess(), 0), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(LoadLibraryExW(folder.path("none.so").c_str(), nullptr, 0), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
}

}  // namespace
