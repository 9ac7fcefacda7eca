// What a person at a terminal gets: columns, colour, a pager; and what a program gets that reads along: none of it.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "support/sandbox.h"
#include "zr/base/terminal.h"
#include "zr/commands/tool.h"

namespace {

using zr::test::lines_of;
using zr::test::Result;
using zr::test::Terminal;
using zr::test::write_file;
using zr::test::zr;
using zr::test::zr_at_terminal;

class AtTerminal : public testing::Test {
protected:
    void SetUp() override {
        setenv("ZR_HOME", folder_.host().c_str(), 1);
        setenv("TERM", "xterm", 1);
        setenv("NO_COLOR", "1", 1);
        setenv("PAGER", "", 1);
    }
    void TearDown() override {
        for (const char* name : {"TERM", "NO_COLOR", "PAGER"}) {
            unsetenv(name);
        }
    }
    static void import(const std::string& name, const std::string& more = {}, const std::string& uid = "u") {
        const Result result =
            zr({"contacts", "import", "--quiet", "-"},
               "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + name + ";;;;\r\nUID:" + uid + "\r\n" + more + "END:VCARD\r\n");
        ASSERT_EQ(result.code, 0) << result.err;
    }
    // Keys of the registry, one a line.
    static std::string keys(int count) {
        std::string file = "Windows Registry Editor Version 5.00\r\n";
        std::string listed;
        for (int i = 100; i < 100 + count; ++i) {
            file += "[HKEY_CURRENT_USER\\k\\" + std::to_string(i) + "]\r\n";
            listed += std::to_string(i) + "\\\n";
        }
        EXPECT_EQ(zr({"reg", "import", "-"}, file).code, 0);
        return listed;
    }
    std::string file(const std::string& name) const { return folder_.host() / name; }

private:
    zr::test::TempFolder folder_;
};

const std::vector<std::string> kContacts = {"contacts", "list"};
const std::vector<std::string> kKeys = {"reg", "list", "HKCU\\k"};

TEST_F(AtTerminal, ListsInColumnsByCells) {
    import("Ann", "EMAIL:ann@example.com\r\n", "u1");
    import("山田太郎", "EMAIL:y@example.com\r\n", "u2");
    import("Zoe\xCC\x88", "EMAIL:z@example.com\r\n", "u3");  // with a combining mark
    const Result result = zr_at_terminal({}, kContacts);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "NUMBER  NAME      ADDRESSES        UID\n"
              "1       Ann       ann@example.com  u1\n"
              "3       Zoe\xCC\x88       z@example.com    u3\n"
              "2       山田太郎  y@example.com    u2\n");
    EXPECT_EQ(zr(kContacts).out,
              "1\tAnn\tann@example.com\t\tu1\n3\tZoe\xCC\x88\tz@example.com\t\tu3\n2\t山田太郎\ty@example.com\t\tu2\n");
}

TEST_F(AtTerminal, CutsTextWhereTheTerminalIsNarrowAndIdentifiersNever) {
    const std::string uid(30, 'u');
    import("Maximiliane von und zu Hohenlohe", "ORG:山田太郎山田太郎株式会社\r\n", uid);
    const auto lines = lines_of(zr_at_terminal({24, 60}, kContacts).out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "1       Maximili…  山田太郎…  " + uid) << lines[1];
    EXPECT_EQ(zr::cells_of(lines[1]), 60u);
    // Where there is no room for them either nothing is lost.
    EXPECT_NE(zr_at_terminal({24, 20}, kContacts).out.find(uid), std::string::npos);
    EXPECT_EQ(zr(kContacts).out, "1\tMaximiliane von und zu Hohenlohe\t\t山田太郎山田太郎株式会社\t" + uid + "\n");
}

TEST_F(AtTerminal, ColoursUnlessToldNotTo) {
    import("Ann");
    const std::string plain = "NUMBER  NAME  UID\n1       Ann   u\n";
    EXPECT_EQ(zr_at_terminal({}, kContacts).out, plain);
    setenv("NO_COLOR", "", 1);
    EXPECT_EQ(zr_at_terminal({}, kContacts).out,
              "\033[1mNUMBER\033[0m  \033[1mNAME\033[0m  \033[1mUID\033[0m\n\033[36m1\033[0m       Ann   "
              "\033[36mu\033[0m\n");
    EXPECT_EQ(zr(kContacts).out, "1\tAnn\t\t\tu\n");
    setenv("TERM", "dumb", 1);
    EXPECT_EQ(zr_at_terminal({}, kContacts).out, plain);
    unsetenv("TERM");
    EXPECT_EQ(zr_at_terminal({}, kContacts).out, plain);
}

TEST_F(AtTerminal, ListsEverythingInColumns) {
    setenv("TZ", "Europe/Oslo", 1);
    ASSERT_EQ(zr({"calendar", "add", "Board", "--start", "2026-03-04 14:00", "--end", "15:00"}).code, 0);
    ASSERT_EQ(zr({"reg", "set", "HKCU\\a", "Port", "8080", "-t", "dword"}).code, 0);
    const auto first_line = [](const std::vector<std::string>& args) {
        const auto lines = lines_of(zr_at_terminal({24, 120}, args).out);
        return lines.empty() ? std::string() : lines[0];
    };
    EXPECT_EQ(first_line({"calendar", "list"}).substr(0, 46), "NUMBER     START             END              ");
    EXPECT_EQ(first_line({"mail", "folders"}), "FOLDER         MESSAGES  NOT READ");
    EXPECT_EQ(first_line({"reg", "list", "HKCU\\a"}), "NAME  TYPE       DATA");
    EXPECT_EQ(first_line({"net", "status"}).substr(0, 9), "INTERFACE");
    // JSON is no list for people.
    EXPECT_EQ(zr_at_terminal({}, {"reg", "list", "HKCU\\a", "--json"}).out,
              zr({"reg", "list", "HKCU\\a", "--json"}).out);
}

TEST_F(AtTerminal, PagesWhatIsLongerThanTheTerminal) {
    const std::string listed = keys(40);
    setenv("PAGER", "sed 's/^/paged /'", 1);
    const Result paged = zr_at_terminal({20, 80}, kKeys);
    EXPECT_EQ(paged.code, 0);
    EXPECT_EQ(lines_of(paged.out).size(), 41u);
    for (const std::string& line : lines_of(paged.out)) {
        EXPECT_EQ(line.substr(0, 6), "paged ");
    }
    const std::string plain = "NAME\n" + listed;
    EXPECT_EQ(zr_at_terminal({42, 80}, kKeys).out, plain);
    EXPECT_EQ(zr_at_terminal({20, 80}, {"--no-pager", "reg", "list", "HKCU\\k"}).out, plain);
    EXPECT_EQ(zr_at_terminal({20, 80}, {"reg", "list", "HKCU\\k", "--no-pager"}).out, plain);
    EXPECT_EQ(zr(kKeys).out, listed);
    // A word is named as mistyped beside it too.
    EXPECT_NE(zr({"--no-pager", "reg", "lost"}).err.find("did you mean 'list'?"), std::string::npos);
    EXPECT_NE(zr({"reg", "list", "--no-pager", "--jsun"}).err.find("did you mean '--json'?"), std::string::npos);
    for (const char* none : {"", "cat", "no-such-pager"}) {
        setenv("PAGER", none, 1);
        EXPECT_EQ(zr_at_terminal({20, 80}, kKeys).out, plain) << none;
    }
}

TEST_F(AtTerminal, TakesLessWhereNothingIsSaidOfAPager) {
    const std::string listed = keys(40);
    std::filesystem::create_directory(file("bin"));
    write_file(file("bin/less"), "#!/bin/sh\necho \"less $LESS\"\nexec /bin/cat\n");
    std::filesystem::permissions(file("bin/less"), std::filesystem::perms::owner_all);
    const std::string path = getenv("PATH");
    setenv("PATH", (file("bin") + ":" + path).c_str(), 1);
    unsetenv("PAGER");
    unsetenv("LESS");
    EXPECT_EQ(zr_at_terminal({20, 80}, kKeys).out, "less FRX\nNAME\n" + listed);
    setenv("LESS", "S", 1);
    EXPECT_EQ(zr_at_terminal({20, 80}, kKeys).out, "less S\nNAME\n" + listed);
    unsetenv("LESS");
    setenv("TERM", "dumb", 1);
    EXPECT_EQ(zr_at_terminal({20, 80}, kKeys).out, "NAME\n" + listed);
    setenv("PATH", path.c_str(), 1);
}

TEST_F(AtTerminal, KeepsItsExitCodeWhateverThePagerDoes) {
    keys(20000);  // more than a pipe holds
    setenv("PAGER", "head -n 2", 1);
    Result result = zr_at_terminal({20, 80}, kKeys);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "NAME\n100\\\n");
    setenv("PAGER", "exit 3; cat", 1);
    EXPECT_EQ(zr_at_terminal({20, 80}, kKeys).code, 0);
    // What fails behind the list is told when the pager has ended.
    std::string many;
    for (int i = 0; i < 30; ++i) {
        many += "NOTE:line\r\nURL:http://a.b/" + std::to_string(i) + "\r\n";
    }
    import("Ann", many);
    setenv("PAGER", "sed -n 1p", 1);
    result = zr_at_terminal({3, 80}, {"contacts", "show", "u", "nobody"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "zr: no contact nobody\n");
    EXPECT_EQ(lines_of(result.out).size(), 1u);
    // Where the reader does not wait for the end, nobody looks for what would follow.
    setenv("PAGER", "head -n 1", 1);
    std::vector<std::string> args = {"contacts", "show"};
    args.insert(args.end(), 200, "u");
    args.push_back("nobody");
    result = zr_at_terminal({3, 80}, args);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
}

TEST(TerminalText, IsMeasuredInCells) {
    EXPECT_EQ(zr::cells_of(""), 0u);
    EXPECT_EQ(zr::cells_of("abc"), 3u);
    EXPECT_EQ(zr::cells_of("山田"), 4u);
    EXPECT_EQ(zr::cells_of("e\xCC\x81"), 1u);
    EXPECT_EQ(zr::cells_of("ｱ"), 1u);  // half-width
    EXPECT_EQ(zr::cells_of("☕"), 2u);
    EXPECT_EQ(zr::cells_of("a\xFF\xC3"), 3u);  // no characters
    EXPECT_EQ(zr::cut_to_cells("山田太郎", 8), "山田太郎");
    EXPECT_EQ(zr::cut_to_cells("山田太郎", 7), "山田太…");
    EXPECT_EQ(zr::cut_to_cells("山田太郎", 6), "山田…");
    EXPECT_EQ(zr::cut_to_cells("ae\xCC\x81iou", 3), "ae\xCC\x81…");
    EXPECT_EQ(zr::cut_to_cells("abc", 1), "…");
}

}  // namespace
