#include "zr/mail/maildir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <set>

#include "support/sandbox.h"

namespace maildir_test {
namespace {

using testing::ElementsAre;
using zr::MailFlags;
namespace fs = std::filesystem;

void make_maildir(const fs::path& path) {
    for (const char* part : {"cur", "new", "tmp"}) {
        fs::create_directories(path / part);
    }
}

void put(const fs::path& path) {
    std::ofstream(path) << "From: a@b.c\n\n";
}

TEST(Maildir, FlagsStandInNames) {
    EXPECT_EQ(zr::flags_of_maildir_name("1700000000.M1P2.host:2,"), MailFlags());
    EXPECT_EQ(zr::flags_of_maildir_name("1700000000.M1P2.host"), MailFlags());
    EXPECT_EQ(zr::flags_of_maildir_name("1.2.host:2,DFPRST"), (MailFlags{true, true, true, true, true, true}));
    EXPECT_EQ(zr::flags_of_maildir_name("1.2.host,S=12:2,Sab"), (MailFlags{.read = true}));
    EXPECT_EQ(zr::flags_of_maildir_name("1.2.host;2,RS"), (MailFlags{.read = true, .replied = true}));
    EXPECT_EQ(zr::flags_of_maildir_name("S"), MailFlags());
    EXPECT_EQ(zr::flags_of_maildir_name("x2,S"), MailFlags());
    for (const char* letters : {"", "S", "DFPRST", "FS"}) {
        EXPECT_EQ(zr::maildir_letters(zr::flags_of_maildir_name(std::string("1.2.h:2,") + letters)), letters);
    }
}

TEST(Maildir, ANamesBaseIsWhatStandsBeforeTheFlags) {
    EXPECT_EQ(zr::base_of_maildir_name("1.2.host,S=12:2,RS"), "1.2.host,S=12");
    EXPECT_EQ(zr::base_of_maildir_name("1.2.host:2,"), "1.2.host");
    EXPECT_EQ(zr::base_of_maildir_name("1.2.host;2,F"), "1.2.host");
    EXPECT_EQ(zr::base_of_maildir_name("1.2.host"), "1.2.host");
    EXPECT_EQ(zr::base_of_maildir_name("2,S"), "2,S");
}

TEST(Maildir, NamesBeginWithATime) {
    EXPECT_EQ(zr::time_of_maildir_name("1700000000.M1P2.host:2,S"), 1700000000);
    EXPECT_EQ(zr::time_of_maildir_name("12.host"), std::nullopt);
    EXPECT_EQ(zr::time_of_maildir_name("99999999999999999999.host"), std::nullopt);
    EXPECT_EQ(zr::time_of_maildir_name("message.eml"), std::nullopt);
}

TEST(Maildir, StatusLettersAreFlagsToo) {
    EXPECT_EQ(zr::flags_of_status("RO"), (MailFlags{.read = true}));
    EXPECT_EQ(zr::flags_of_status("OAF"), (MailFlags{.flagged = true, .replied = true}));
    EXPECT_EQ(zr::flags_of_status("TD"), (MailFlags{.draft = true, .deleted = true}));
}

TEST(Maildir, SubFoldersOfBothKindsAreFound) {
    const zr::test::TempFolder folder;
    make_maildir(folder.host());
    make_maildir(folder.host() / ".Work.Reports");
    make_maildir(folder.host() / ".Entw&APw-rfe");
    make_maildir(folder.host() / "plain" / "deeper");
    fs::create_directories(folder.host() / ".hidden");
    fs::create_directory_symlink(folder.host(), folder.host() / "again");
    EXPECT_TRUE(zr::is_maildir(folder.host()));
    EXPECT_FALSE(zr::is_maildir(folder.host() / "plain"));
    std::vector<std::vector<std::string>> names;
    for (const auto& found : zr::maildir_folders(folder.host())) {
        names.push_back(found.name);
    }
    EXPECT_THAT(names, ElementsAre(ElementsAre(), ElementsAre("Entwürfe"), ElementsAre("Work", "Reports"),
                                   ElementsAre("plain", "deeper")));
}

TEST(Maildir, FolderNamesGoOutAsTheyCameIn) {
    EXPECT_EQ(zr::maildir_folder_name({"Work", "Reports"}), ".Work.Reports");
    EXPECT_EQ(zr::maildir_folder_name({"Entwürfe"}), ".Entw&APw-rfe");
    EXPECT_EQ(zr::maildir_folder_name({"a.b/c"}), ".a\\2eb\\2fc");
    EXPECT_EQ(zr::maildir_folder_name({".."}), ".\\2e\\2e");
    EXPECT_EQ(zr::maildir_folder_name({"R&D", "a\\b"}), ".R&-D.a\\5cb");
}

TEST(Maildir, NoTwoFoldersHaveTheSameNameAndEachComesBack) {
    const std::vector<std::vector<std::string>> names = {
        {"a", "b"},  {"a.b"},     {"a_b"}, {"a/b"},  {"a\\b"}, {"a\\2eb"}, {"a\\", "2eb"}, {"a&b"}, {"a&AC4-b"},
        {"a.", "b"}, {"a", ".b"}, {".."},  {"\\5c"}, {"\\"},   {"Ä.ö"},    {"~"},          {"\\2E"}};
    const zr::test::TempFolder folder;
    make_maildir(folder.host());
    std::set<std::string> written;
    std::set<std::vector<std::string>> expected;
    for (const std::vector<std::string>& name : names) {
        written.insert(zr::maildir_folder_name(name));
        expected.insert(name);
        make_maildir(folder.host() / zr::maildir_folder_name(name));
    }
    EXPECT_EQ(written.size(), expected.size());
    std::set<std::vector<std::string>> read;
    for (const auto& found : zr::maildir_folders(folder.host())) {
        if (!found.name.empty()) read.insert(found.name);
    }
    EXPECT_EQ(read, expected);
}

TEST(Maildir, OtherProgramsDotsAreReadToo) {
    const zr::test::TempFolder folder;
    make_maildir(folder.host());
    make_maildir(folder.host() / ".v1&AC4-2");
    make_maildir(folder.host() / ".w1\\2E2");
    make_maildir(folder.host() / ".x\\y\\");
    std::vector<std::vector<std::string>> names;
    for (const auto& found : zr::maildir_folders(folder.host())) {
        names.push_back(found.name);
    }
    EXPECT_THAT(names, ElementsAre(ElementsAre(), ElementsAre("v1.2"), ElementsAre("w1.2"), ElementsAre("x\\y\\")));
}

TEST(Maildir, MessagesAreInCurAndNew) {
    const zr::test::TempFolder folder;
    make_maildir(folder.host());
    put(folder.host() / "cur" / "1700000001.b:2,S");
    put(folder.host() / "new" / "1700000000.a");
    put(folder.host() / "tmp" / "1700000002.c");
    put(folder.host() / "cur" / ".hidden");
    fs::create_directory(folder.host() / "cur" / "folder");
    int error = 0;
    const auto files = zr::maildir_files(folder.host(), error);
    EXPECT_EQ(error, 0);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].path, folder.host() / "new" / "1700000000.a");
    EXPECT_FALSE(files[0].flags.read);
    EXPECT_EQ(files[0].time, 1700000000);
    EXPECT_TRUE(files[1].flags.read);
    zr::maildir_files(folder.host() / "none", error);
    EXPECT_EQ(error, ENOENT);
}

}  // namespace
}  // namespace maildir_test
