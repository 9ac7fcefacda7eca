// zr store, as a person runs it.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace {

using zr::test::lines_of;
using zr::test::read_file;
using zr::test::write_file;
using zr::test::zr;

class StoreTool : public testing::Test {
protected:
    void SetUp() override { setenv("ZR_HOME", (folder_.host() / "home").c_str(), 1); }
    std::string path(const char* name) const { return folder_.host() / name; }
    std::string contacts() const { return path("home") + "/pim.db"; }
    static void add(const std::string& first) {
        EXPECT_EQ(zr({"contacts", "add", "--first", first, "--last", "Somebody", "--note", std::string(900, 'n')}).code,
                  0);
    }
    std::string set_aside() const {
        for (const auto& entry : std::filesystem::directory_iterator(path("home"))) {
            const std::string name = entry.path();
            if (name.find(".damaged-") != std::string::npos && !name.ends_with("-wal")) return name;
        }
        return {};
    }

    zr::test::TempFolder folder_;
};

TEST_F(StoreTool, TellsWhatIsWholeAndWhatIsEmpty) {
    EXPECT_EQ(zr({"store", "check"}).out, "registry: empty\ncontacts: empty\nmail: empty\n");
    add("A");
    ASSERT_EQ(zr({"reg", "set", "HKCU\\A", "n", "v"}).code, 0);
    const auto all = zr({"store", "check"});
    EXPECT_EQ(all.code, 0);
    EXPECT_EQ(all.out, "registry: whole\ncontacts: whole\nmail: empty\n");
    EXPECT_EQ(zr({"store", "check", "contacts", "--json"}).out.find("\"whole\"") != std::string::npos, true);
    EXPECT_EQ(zr({"store", "check", "letters"}).code, 2);
}

TEST_F(StoreTool, BacksUpAndRestores) {
    add("Kept");
    const std::string backup = path("backup.db");
    ASSERT_EQ(zr({"store", "backup", "contacts", backup}).code, 0);
    EXPECT_EQ(zr({"store", "backup", "contacts", backup}).code, 6) << "it is there";
    add("Later");
    ASSERT_EQ(lines_of(zr({"contacts", "list"}).out).size(), 2u);
    const auto restored = zr({"store", "restore", backup});
    EXPECT_EQ(restored.code, 0) << restored.err;
    EXPECT_NE(restored.out.find(".replaced-"), std::string::npos);
    const auto list = zr({"contacts", "list"});
    EXPECT_EQ(lines_of(list.out).size(), 1u);
    EXPECT_NE(list.out.find("Kept"), std::string::npos);
}

TEST_F(StoreTool, BringsBackWhatIsReadable) {
    for (const char* name : {"A", "B", "C", "D", "E", "F", "G", "H"}) {
        add(name);
    }
    std::string bytes = read_file(contacts());
    const std::size_t page = bytes.size() / 4096 - 2;
    bytes.replace(page * 4096 + 1000, 4, "bad!");
    write_file(contacts(), bytes);
    const auto found = zr({"store", "check", "contacts"});
    EXPECT_EQ(found.code, 10);
    EXPECT_EQ(found.out, "contacts: damaged\n");
    EXPECT_NE(found.err.find("set aside"), std::string::npos);
    const auto recovered = zr({"store", "recover", set_aside(), path("found.db")});
    EXPECT_EQ(recovered.code, 0) << recovered.err;
    EXPECT_NE(recovered.out.find(" rows recovered"), std::string::npos);
    EXPECT_EQ(zr({"store", "restore", path("found.db")}).code, 0);
    EXPECT_EQ(zr({"store", "check", "contacts"}).code, 0);
    EXPECT_GT(lines_of(zr({"contacts", "list"}).out).size(), 3u);
}

TEST_F(StoreTool, RefusesWhatIsNoStore) {
    write_file(path("letter.txt"), "Dear reader");
    EXPECT_EQ(zr({"store", "restore", path("letter.txt")}).code, 6);
    EXPECT_EQ(zr({"store", "recover", path("letter.txt"), path("x")}).code, 6);
    EXPECT_EQ(zr({"store", "restore", path("nothing")}).code, 6);
    EXPECT_EQ(zr({"store", "backup", "contacts"}).code, 2);
}

}  // namespace
