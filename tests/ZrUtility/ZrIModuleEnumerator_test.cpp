#include "ZrUtility/ZrIModuleEnumerator.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "platform/base.h"
#include "platform/modules.h"
#include "support/modules.h"
#include "support/slots.h"

using namespace zr::test;

namespace {

WCHAR g_pattern[] = u"*.so";

// The names of the modules that a walk yields; each is freed.
std::multiset<std::u16string> found(const ModuleFolder& folder, int id, _ModuleVersion version, int level) {
    std::multiset<std::u16string> names;
    std::u16string path = folder.handheld();
    ZrIModuleEnumerator walk;
    EXPECT_EQ(walk.start(id, version, level, path.data(), g_pattern), 0);
    for (; walk.isValid(); walk.advance()) {
        WCHAR name[MAX_PATH];
        const DWORD length = GetModuleFileNameW(walk.value(), name, MAX_PATH);
        names.insert(std::u16string(name, length).substr(path.size() + 1));
        EXPECT_NE(GetProcAddressW(walk.value(), u"ZrIGetModuleId"), nullptr);
        EXPECT_TRUE(FreeLibrary(walk.value()));
    }
    EXPECT_EQ(walk.value(), nullptr);
    return names;
}

using Names = std::multiset<std::u16string>;

// The modules of the folder that this process has loaded.
std::set<std::string> loaded(const ModuleFolder& folder) {
    std::set<std::string> names;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t at = line.find(folder.host().string() + "/");
        if (at != line.npos) names.insert(line.substr(at + folder.host().string().size() + 1));
    }
    return names;
}

using Loaded = std::set<std::string>;

int g_versions_read = 0;
UINT g_info_size = 0;  // what is given for the fixed part's size, unless 0

}  // namespace

// These stand before the platform's own for everything in this program.
__attribute__((visibility("default"))) DWORD GetFileVersionInfoSizeW(LPCWSTR path, LPDWORD handle) {
    ++g_versions_read;
    static const auto own =
        reinterpret_cast<decltype(&GetFileVersionInfoSizeW)>(dlsym(RTLD_NEXT, "_Z23GetFileVersionInfoSizeWPKDsPj"));
    return own(path, handle);
}
__attribute__((visibility("default"))) BOOL VerQueryValueW(LPCVOID block, LPCWSTR name, LPVOID* value, UINT* size) {
    static const auto own =
        reinterpret_cast<decltype(&VerQueryValueW)>(dlsym(RTLD_NEXT, "_Z14VerQueryValueWPKvPKDsPPvPj"));
    const BOOL result = own(block, name, value, size);
    if (g_info_size != 0) *size = g_info_size;
    return result;
}

TEST(ZrIModuleEnumerator, NothingBeforeTheStart) {
    ZrIModuleEnumerator walk;
    EXPECT_FALSE(walk.isValid());
    EXPECT_EQ(walk.value(), nullptr);
    walk.advance();
    EXPECT_FALSE(walk.isValid());
}

TEST(ZrIModuleEnumerator, FindsByIdentity) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    folder.add("seven_plain", "b.so");
    folder.add("eight", "c.so");
    folder.add("silent", "d.so");
    folder.add("seven", "e.other");
    std::ofstream(folder.host() / "f.so") << "no module";
    std::filesystem::create_directory(folder.host() / "g.so");
    EXPECT_EQ(found(folder, 7, {}, 0), (Names{u"a.so", u"b.so"}));
    EXPECT_EQ(found(folder, 8, {}, 0), Names{u"c.so"});
    EXPECT_EQ(found(folder, 9, {}, 0), Names{});
}

TEST(ZrIModuleEnumerator, VersionsByLevel) {
    const ModuleFolder folder;
    folder.add("seven", "1234.so");
    folder.add("seven_later", "9234.so");
    folder.add("seven_plain", "none.so");
    const auto at = [&](_ModuleVersion version, int level) { return found(folder, 7, version, level); };
    const _ModuleVersion exact{1, 2, 3, 4, 0};
    const Names both{u"1234.so", u"9234.so"};
    EXPECT_EQ(at({0, 0, 0, 0, 0}, 0), (Names{u"1234.so", u"9234.so", u"none.so"}));
    EXPECT_EQ(at(exact, -1), Names{u"1234.so"});
    EXPECT_EQ(at(exact, 1), Names{u"1234.so"});
    EXPECT_EQ(at(exact, 2), both);
    EXPECT_EQ(at({8, 2, 3, 5, 0}, 2), Names{});
    EXPECT_EQ(at({8, 8, 3, 4, 0}, 3), both);
    EXPECT_EQ(at({8, 8, 8, 4, 0}, 4), both);
    EXPECT_EQ(at({8, 8, 8, 5, 0}, 4), Names{});
    EXPECT_EQ(at({8, 8, 8, 8, 0}, 5), both);  // the version must be readable all the same
    EXPECT_EQ(at({1, 2, 3, 4, 77}, 1), Names{u"1234.so"});
}

TEST(ZrIModuleEnumerator, LevelNoneReadsNoVersions) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    folder.add("eight", "b.so");
    g_versions_read = 0;
    EXPECT_EQ(found(folder, 7, {1, 2, 3, 4, 0}, 0), Names{u"a.so"});
    EXPECT_EQ(g_versions_read, 0);
    EXPECT_EQ(found(folder, 7, {1, 2, 3, 4, 0}, 5), Names{u"a.so"});
    EXPECT_EQ(g_versions_read, 2);
}

TEST(ZrIModuleEnumerator, AFixedPartOfAnotherSizeIsNoVersion) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    for (const UINT size : {51u, 53u}) {
        g_info_size = size;
        EXPECT_EQ(found(folder, 7, {1, 2, 3, 4, 0}, 1), Names{});
    }
    g_info_size = 52;
    EXPECT_EQ(found(folder, 7, {1, 2, 3, 4, 0}, 1), Names{u"a.so"});
    g_info_size = 0;
}

TEST(ZrIModuleEnumerator, WhatIsSkippedIsUnloaded) {
    const ModuleFolder folder;
    folder.add("silent", "silent.so");
    folder.add("eight", "other.so");
    folder.add("seven_later", "later.so");
    folder.add("seven_plain", "plain.so");
    EXPECT_EQ(found(folder, 7, {1, 2, 3, 4, 0}, 1), Names{});
    EXPECT_EQ(found(folder, 9, {}, 0), Names{});
    EXPECT_EQ(loaded(folder), Loaded{});
    folder.add("seven", "seven.so");
    std::u16string path = folder.handheld();
    ZrIModuleEnumerator walk;
    ASSERT_EQ(walk.start(7, {1, 2, 3, 4, 0}, 1, path.data(), g_pattern), 0);
    EXPECT_EQ(loaded(folder), Loaded{"seven.so"});
    const HINSTANCE module = walk.value();
    walk.advance();
    EXPECT_EQ(loaded(folder), Loaded{"seven.so"});
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(loaded(folder), Loaded{});
}

TEST(ZrIModuleEnumerator, HandedOutModulesStayLoaded) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    folder.add("seven_plain", "b.so");
    std::u16string path = folder.handheld();
    HINSTANCE modules[2] = {};
    {
        ZrIModuleEnumerator walk;
        ASSERT_EQ(walk.start(7, {}, 0, path.data(), g_pattern), 0);
        modules[0] = walk.value();
        walk.advance();
        modules[1] = walk.value();
        walk.advance();
        EXPECT_FALSE(walk.isValid());
    }
    for (const HINSTANCE each : modules) {
        const auto id = reinterpret_cast<int (*)()>(GetProcAddressW(each, u"ZrIGetModuleId"));
        ASSERT_NE(id, nullptr);
        EXPECT_EQ(id(), 7);
        EXPECT_TRUE(FreeLibrary(each));
    }
}

TEST(ZrIModuleEnumerator, TheWalksErrorIsPassedOn) {
    ZrIModuleEnumerator walk;
    EXPECT_EQ(walk.start(7, {}, 0, nullptr, g_pattern), -1);
    std::u16string endless(300, u'x');
    EXPECT_EQ(walk.start(7, {}, 0, endless.data(), g_pattern), 1);
    EXPECT_FALSE(walk.isValid());
}

TEST(ZrIModuleEnumerator, Slots) {
    ModuleFolder folder;
    folder.add("seven", "a.so");
    std::u16string path = folder.handheld();
    ZrIModuleEnumerator walk;
    EXPECT_EQ(call_slot<int>(&walk, 5, 7, _ModuleVersion{}, 0, path.data(), g_pattern), 0);
    EXPECT_TRUE(call_slot<int>(&walk, 3));
    const auto module = call_slot<HINSTANCE>(&walk, 4);
    EXPECT_EQ(module, walk.value());
    call_slot<void>(&walk, 2);
    EXPECT_FALSE(call_slot<int>(&walk, 3));
    EXPECT_TRUE(FreeLibrary(module));
}

TEST(ZrIModuleEnumerator, ACopyGoesOnWithTheSameWalk) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    folder.add("seven_plain", "b.so");
    std::u16string path = folder.handheld();
    ZrIModuleEnumerator walk;
    ASSERT_EQ(walk.start(7, {}, 0, path.data(), g_pattern), 0);
    ZrIModuleEnumerator copy(walk);
    const HINSTANCE first = copy.value();
    EXPECT_EQ(first, walk.value());
    copy.advance();
    EXPECT_TRUE(copy.isValid());
    const HINSTANCE second = copy.value();
    EXPECT_NE(second, first);
    EXPECT_EQ(walk.value(), first);
    walk = copy;
    EXPECT_EQ(walk.value(), second);
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_TRUE(FreeLibrary(second));
}
