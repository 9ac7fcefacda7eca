#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "support/modules.h"
#include "zr/commands/tool.h"

using nlohmann::json;
using testing::UnorderedElementsAre;
using zr::test::lines_of;
using zr::test::ModuleFolder;
using zr::test::Result;

namespace {

Result modules(const ModuleFolder& folder, std::vector<std::string> more = {}) {
    std::vector<std::string> args{"modules", folder.host().string()};
    args.insert(args.end(), more.begin(), more.end());
    return zr::test::zr(args);
}

}  // namespace

TEST(ZrModules, ListsWhatAnswers) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    folder.add("seven_plain", "b.so");
    folder.add("silent", "c.so");
    zr::test::write_file((folder.host() / "d.so").string(), "no module");
    const std::string path = folder.host().string();
    const Result all = modules(folder);
    EXPECT_EQ(all.code, 0);
    EXPECT_THAT(lines_of(all.out),
                UnorderedElementsAre("7\t1.2.3.4 debug\t" + path + "/a.so", "7\t-\t" + path + "/b.so"));
    const Result exact = modules(folder, {"--id", "7", "--version", "1.2.3.4", "--json"});
    EXPECT_EQ(json::parse(exact.out), (json{{"id", 7}, {"version", "1.2.3.4 debug"}, {"path", path + "/a.so"}}));
    EXPECT_EQ(modules(folder, {"--id", "7", "--version", "9.2.3.4"}).code, 1);
    EXPECT_EQ(modules(folder, {"--id", "7", "--version", "9.2.3.4", "--level", "2"}).code, 0);
    EXPECT_EQ(modules(folder, {"--id", "8"}).code, 1);
    EXPECT_EQ(modules(folder, {"--pattern", "b*"}).out, "7\t-\t" + path + "/b.so\n");
}

TEST(ZrModules, FilesThatAreNoModulesAreLeftOut) {
    const ModuleFolder folder;
    folder.add("seven", "\xff.so");
    const std::string whole = zr::test::read_file((folder.host() / "\xff.so").string());
    for (const std::size_t size : {0, 4, 64, 700}) {
        zr::test::write_file((folder.host() / ("cut" + std::to_string(size))).string(), whole.substr(0, size));
    }
    std::filesystem::create_directory(folder.host() / "folder.so");
    ASSERT_EQ(mkfifo((folder.host() / "pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("nowhere", folder.host() / "link");
    EXPECT_EQ(modules(folder).out, "7\t1.2.3.4 debug\t" + folder.host().string() + "/\uFFFD.so\n");
    EXPECT_EQ(modules(folder, {"--id", "7"}).out, modules(folder).out);
}

TEST(ZrModules, WhatCrashesIsNamedAndPassedOver) {
    const ModuleFolder folder;
    folder.add("seven", "a.so");
    folder.add("crashing", "b.so");
    folder.add("ending", "c.so");
    folder.add("seven_plain", "d.so");
    const std::string path = folder.host().string();
    for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--id", "7"}}) {
        const Result found = modules(folder, more);
        EXPECT_EQ(found.code, 7);
        EXPECT_THAT(lines_of(found.out),
                    UnorderedElementsAre("7\t1.2.3.4 debug\t" + path + "/a.so", "7\t-\t" + path + "/d.so"));
        const auto errors = lines_of(found.err);
#if defined(ZR_SANITIZE_ADDRESS)
        const char* const how = "ends the process";  // the sanitizer takes the signal, and ends it so
#else
        const char* const how = "crashes";
#endif
        EXPECT_THAT(errors, testing::Contains(testing::StartsWith("zr: " + path + "/b.so: " + how)));
        if (more.empty()) {
            EXPECT_THAT(errors, testing::Contains("zr: " + path + "/c.so: ends the process that asks it; passed over"));
        }
    }
}

TEST(ZrModules, WrongUsage) {
    const ModuleFolder folder;
    EXPECT_EQ(modules(folder, {"--version", "1.2.3.4"}).code, 2);
    EXPECT_EQ(modules(folder, {"--id", "7", "--version", "1.2"}).code, 2);
    EXPECT_EQ(modules(folder, {"--id", "7", "--version", "1.2.3.70000"}).code, 2);
    EXPECT_EQ(modules(folder, {"--id", "7", "--level", "2"}).code, 2);
    EXPECT_EQ(modules(folder, {"--id", "x"}).code, 2);
    for (const char* level : {"0", "6", "-1", "x"}) {
        EXPECT_EQ(modules(folder, {"--id", "7", "--version", "1.2.3.4", "--level", level}).code, 2) << level;
    }
    for (const char* version : {" 1.2.3.4", "1.2.3.+4", "1.2.3.-4", "1.2.3.4.5", "1.2.3.4x", "..."}) {
        EXPECT_EQ(modules(folder, {"--id", "7", "--version", version}).code, 2) << version;
    }
    EXPECT_EQ(zr::test::zr({"modules", (folder.host() / "none").string()}).code, 6);
}
