#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace fs = std::filesystem;
using nlohmann::json;
using zr::test::Result;
using zr::test::RunningZr;
using zr::test::TempFolder;

namespace {

void touch(const fs::path& path) {
    std::ofstream file(path);
}

// The watch has begun once it tells of a file; until then files are made. The line is the first one.
std::string first_line(RunningZr& watch, const fs::path& folder, const std::string& extension) {
    std::string line;
    std::thread reader([&] { line = watch.read_line(); });
    std::atomic<bool> done{false};
    std::thread maker([&] {
        for (int i = 0; !done; ++i) {
            touch(folder / ("first" + std::to_string(i) + extension));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    reader.join();
    done = true;
    maker.join();
    touch(folder / ("last" + extension));
    for (std::string next = line; next.find("last") == std::string::npos && !next.empty();) {
        next = watch.read_line();
    }
    return line;
}

}  // namespace

TEST(WatchFolders, TellsWhatHappens) {
    const TempFolder folder;
    RunningZr watch({"watch", folder.host().string()});
    EXPECT_TRUE(first_line(watch, folder.host(), "").starts_with("created " + folder.host().string() + "/first"));
    fs::rename(folder.host() / "last", folder.host() / "b\x1b");
    EXPECT_EQ(watch.read_line(),
              "renamed " + (folder.host() / "last").string() + " -> " + (folder.host() / "b\\x1b").string());
    fs::remove(folder.host() / "b\x1b");
    EXPECT_EQ(watch.read_line(), "deleted " + (folder.host() / "b\\x1b").string());
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

TEST(WatchFolders, TellsOfTheDeletionAndTheNewNameOfANewFile) {
    const TempFolder folder;
    RunningZr watch({"watch", folder.host().string()});
    first_line(watch, folder.host(), "");
    std::set<std::string> wanted;
    for (int i = 0; i < 100; ++i) {
        const fs::path made = folder.host() / ("made" + std::to_string(i));
        const fs::path named = folder.host() / ("named" + std::to_string(i));
        touch(made);
        fs::rename(made, named);
        wanted.insert("renamed " + made.string() + " -> " + named.string());
        touch(made);
        fs::remove(made);
        wanted.insert("deleted " + made.string());
    }
    touch(folder.host() / "end");
    for (std::string line; line != "created " + (folder.host() / "end").string(); wanted.erase(line)) {
        line = watch.read_line();
        ASSERT_NE(line, "");
    }
    EXPECT_EQ(wanted, std::set<std::string>());
}

TEST(WatchFolders, JsonAndAnExtension) {
    const TempFolder folder;
    const TempFolder other;
    RunningZr watch({"watch", other.host().string(), folder.host().string(), "--ext", "txt", "--json"});
    const json first = json::parse(first_line(watch, folder.host(), ".txt"));
    EXPECT_EQ(first["change"], "created");
    touch(folder.host() / "a.doc");
    fs::rename(folder.host() / "a.doc", folder.host() / "a.txt");
    const json renamed = json::parse(watch.read_line());
    EXPECT_EQ(renamed["change"], "renamed");
    EXPECT_EQ(renamed["path"], (folder.host() / "a.doc").string());
    EXPECT_EQ(renamed["to"], (folder.host() / "a.txt").string());
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
}

TEST(WatchFolders, WatchesAllBelow) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "a/b");
    RunningZr watch({"watch", "-r", folder.host().string()});
    first_line(watch, folder.host() / "a/b", "");
    fs::create_directory(folder.host() / "new");
    EXPECT_EQ(watch.read_line(), "created " + (folder.host() / "new").string());
    touch(folder.host() / "new/file");
    EXPECT_EQ(watch.read_line(), "created " + (folder.host() / "new/file").string());
    fs::rename(folder.host() / "new/file", folder.host() / "a/b/other");
    std::set<std::string> told;
    for (std::string line; !line.ends_with("/other");) {
        line = watch.read_line();
        ASSERT_NE(line, "");
        told.insert(line.substr(0, line.find(' ')));
    }
    EXPECT_TRUE(told.contains("renamed") || told.contains("created"));
    fs::remove(folder.host() / "a/b/other");
    std::string line;
    while (!line.starts_with("deleted") || !line.ends_with("/other")) {
        line = watch.read_line();
        ASSERT_NE(line, "");
    }
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

TEST(WatchFolders, OnlyWhatMatches) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "a");
    RunningZr watch({"watch", "-r", folder.host().string(), "--only", "*.c", "--only", "*/a/*.h", "--ext", "c"});
    first_line(watch, folder.host(), ".c");
    touch(folder.host() / "a/x.h");
    touch(folder.host() / "y.txt");
    fs::rename(folder.host() / "y.txt", folder.host() / "y.c");
    EXPECT_EQ(watch.read_line(),
              "renamed " + (folder.host() / "y.txt").string() + " -> " + (folder.host() / "y.c").string());
}

TEST(WatchFolders, RunsAProgramWithoutAShell) {
    const TempFolder folder;
    RunningZr watch(
        {"watch", folder.host().string(), "--exec", "sh", "-c", R"(echo "$ZR_CHANGE <$1> $2")", "--json", "{}", "<{}>"},
        RunningZr::Errors::ToOutput);
    first_line(watch, folder.host(), "");
    const std::string last = (folder.host() / "last").string();
    EXPECT_EQ(watch.read_line(), "created <" + last + "> <" + last + ">");
    const std::string odd = (folder.host() / "a b;$(touch c) '{}").string();
    fs::rename(last, odd);
    EXPECT_EQ(watch.read_line(), "renamed " + last + " -> " + odd);
    EXPECT_EQ(watch.read_line(), "renamed <" + odd + "> <" + odd + ">");
    EXPECT_FALSE(fs::exists(folder.host() / "c"));
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

TEST(WatchFolders, NamesAProgramThatFails) {
    const TempFolder folder;
    RunningZr failing({"watch", folder.host().string(), "--exec", "false"}, RunningZr::Errors::ToOutput);
    first_line(failing, folder.host(), "");
    EXPECT_EQ(failing.read_line(), "zr: false ended with 1");
    RunningZr missing({"watch", folder.host().string(), "--exec", "/no/such/program"}, RunningZr::Errors::ToOutput);
    first_line(missing, folder.host(), "x");
    EXPECT_EQ(missing.read_line(), "zr: /no/such/program: cannot be run: No such file or directory");
    zr::test::expect_failure(zr::test::zr({"watch", folder.host().string(), "--exec"}), 2, "--exec");
    zr::test::expect_failure(zr::test::zr({"watch", "--clock", "--exec", "true"}), 2, "folders");
}

TEST(WatchFolders, NamesThatMakeThePathTooLongAreToldWhole) {
    const TempFolder folder;
    const fs::path deep = folder.host() / std::string(255 - folder.host().string().size(), 'd');
    const std::string name(255, 'n');
    fs::create_directory(deep);
    RunningZr watch({"watch", deep.string()});
    first_line(watch, deep, "");
    fs::rename(deep / "last", deep / name);
    EXPECT_EQ(watch.read_line(), "renamed " + (deep / "last").string() + " -> " + (deep / name).string());
    fs::rename(deep / name, deep / "\xff");
    EXPECT_EQ(watch.read_line(), "renamed " + (deep / name).string() + " -> " + (deep / "\uFFFD").string());
}

TEST(WatchFolders, AFolderThatGoesIsToldOf) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "one");
    fs::create_directory(folder.host() / "two");
    RunningZr watch({"watch", (folder.host() / "one").string(), (folder.host() / "two").string()},
                    RunningZr::Errors::ToOutput);
    first_line(watch, folder.host() / "two", "");
    fs::remove(folder.host() / "one");
    EXPECT_EQ(watch.read_line(), "zr: " + (folder.host() / "one").string() +
                                     ": is not watched any more: it was deleted, renamed or unmounted");
    touch(folder.host() / "two/more");
    EXPECT_EQ(watch.read_line(), "created " + (folder.host() / "two/more").string());
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

TEST(WatchFolders, WrongUsage) {
    const TempFolder folder;
    EXPECT_EQ(zr::test::zr({"watch"}).code, 2);
    for (const char* extension : {"html", ".h", "/", "\\", "\xff"}) {
        EXPECT_EQ(zr::test::zr({"watch", folder.host().string(), "--ext", extension}).code, 2) << extension;
    }
    const fs::path deep = folder.host() / std::string(200, 'd') / std::string(100, 'd');
    fs::create_directories(deep);
    const Result too_long = zr::test::zr({"watch", deep.string()});
    EXPECT_EQ(too_long.code, 6);
    EXPECT_NE(too_long.err.find("File name too long"), std::string::npos) << too_long.err;
    std::vector<std::string> eleven(12, folder.host().string());
    eleven[0] = "watch";
    EXPECT_EQ(zr::test::zr(eleven).code, 2);
    const Result missing = zr::test::zr({"watch", (folder.host() / "none").string()});
    EXPECT_EQ(missing.code, 6);
    EXPECT_NE(missing.err.find("none: No such file or directory"), std::string::npos);
    touch(folder.host() / "file");
    EXPECT_EQ(zr::test::zr({"watch", (folder.host() / "file").string()}).code, 6);
    EXPECT_EQ(zr::test::zr({"watch", "/"}).code, 6);  // outside the root of this test
}
