// zr store, as a person runs it.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/sandbox.h"
#include "support/sql.h"
#include "zr/commands/tool.h"

namespace {

using zr::test::lines_of;
using zr::test::read_file;
using zr::test::write_file;
using zr::test::zr;

class StoreTool : public testing::Test {
protected:
    void SetUp() override { setenv("ZR_HOME", (folder_.host() / "home").c_str(), 1); }
    std::string path(const std::string& name) const { return folder_.host() / name; }
    std::string contacts() const { return path("home") + "/pim.db"; }
    static void add(const std::string& first) {
        EXPECT_EQ(zr({"contacts", "add", "--first", first, "--last", "Somebody", "--note", std::string(900, 'n')}).code,
                  0);
    }
    // A calendar's export says when it was made.
    static std::string without_stamps(std::string text) {
        for (std::size_t at = 0; (at = text.find("DTSTAMP:", at)) != std::string::npos; ++at) {
            text.replace(at, 25, "");
        }
        return text;
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

TEST_F(StoreTool, Compacts) {
    add("A");
    const auto done = zr({"store", "compact"});
    EXPECT_EQ(done.code, 0) << done.err;
    EXPECT_EQ(done.out, "registry: empty\ncontacts: 0 bytes freed\nmail: empty\n");
    EXPECT_EQ(zr({"store", "compact", "letters"}).code, 2);
    EXPECT_EQ(lines_of(zr({"contacts", "list"}).out).size(), 1u);
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

// A root that lies below a key of its own.
TEST_F(StoreTool, DamagedLinksOfKeysEndAnExportAndATree) {
    const std::vector<std::vector<std::string>> commands = {{"reg", "export", "--output", path("exported")},
                                                            {"reg", "tree", "HKCU"}};
    for (const auto& command : commands) {
        ASSERT_EQ(zr({"reg", "set", "HKCU\\A\\B", "n", "x"}).code, 0);
        zr::test::query(path("home") + "/registry.db",
                        "UPDATE key SET parent = (SELECT id FROM key WHERE name = X'4200') WHERE id = 2");
        const auto result = zr(command);
        EXPECT_EQ(result.code, 10) << result.err;
        EXPECT_NE(result.err.find("damaged"), std::string::npos) << result.err;
        EXPECT_FALSE(std::filesystem::exists(path("exported")));
        EXPECT_EQ(zr({"reg", "list", "HKCU"}).out, "") << "it was set aside";
    }
}

// Wherever the damage is: an export says so and writes nothing, or has met none of it and is what it was.
TEST_F(StoreTool, AnExportOfADamagedStoreWritesNoFile) {
    for (int i = 0; i < 12; ++i) {
        add("Person " + std::to_string(i));
        ASSERT_EQ(zr({"reg", "set", "HKCU\\Key" + std::to_string(i), "n", std::string(1500, 'v')}).code, 0);
    }
    ASSERT_EQ(zr({"calendar", "import", zr::test::kData + "office.ics"}).code, 7);
    const std::vector<std::vector<std::string>> exports = {
        {"contacts", "export"}, {"calendar", "export"}, {"reg", "export"}};
    for (const auto& command : exports) {
        const std::string store = command[0] == "reg" ? path("home") + "/registry.db" : contacts();
        const std::string whole = read_file(store);
        const std::string kept = path("kept " + command[0]);
        std::filesystem::copy(path("home"), kept);
        const std::string target = path("exported");
        const auto run = [&] { return zr({command[0], command[1], "--output", target}); };
        std::filesystem::remove(target);
        ASSERT_EQ(run().code, 0);
        const std::string good = without_stamps(read_file(target));
        int damaged = 0;
        for (std::size_t page = 0; page < whole.size() / 4096; ++page) {
            std::string bytes = whole;
            bytes[page * 4096 + 2000] = static_cast<char>(bytes[page * 4096 + 2000] ^ 8);
            write_file(store, bytes);
            write_file(target, "an earlier export");
            const auto result = run();
            if (result.code == 0) {
                EXPECT_EQ(without_stamps(read_file(target)), good) << command[0] << ' ' << page;
            } else {
                ++damaged;
                EXPECT_EQ(result.code, 10) << command[0] << ' ' << page << result.err;
                EXPECT_EQ(read_file(target), "an earlier export") << command[0] << ' ' << page;
                EXPECT_NE(result.err.find("damaged"), std::string::npos) << result.err;
            }
            std::filesystem::remove_all(path("home"));
            std::filesystem::copy(kept, path("home"));
        }
        EXPECT_GT(damaged, 0) << command[0];
    }
}

// An export that waits for its reader, while another program finds the store damaged: what is left of it seems gone.
TEST_F(StoreTool, AnExportOfAStoreThatIsSetAsideMeanwhileIsNoGoodExport) {
    std::string cards;
    std::string events = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
    std::string mailbox;
    std::string registry = "Windows Registry Editor Version 5.00\r\n";
    constexpr int kItems = 400;
    for (int i = 0; i < kItems; ++i) {
        const std::string number = std::to_string(i);
        const std::string text(1500, static_cast<char>('a' + i % 26));
        cards += "BEGIN:VCARD\r\nVERSION:3.0\r\nN:" + number + ";;;;\r\nNOTE:" + text + "\r\nEND:VCARD\r\n";
        events += "BEGIN:VEVENT\r\nUID:" + number +
                  "\r\nDTSTART:20261122T100000Z\r\nDTEND:20261122T110000Z\r\nSUMMARY:" + number +
                  "\r\nDESCRIPTION:" + text + "\r\nEND:VEVENT\r\n";
        mailbox += "From a@x.org Thu Jan  1 00:00:00 1970\nFrom: a@x.org\nSubject: " + number + "\n\n" + text + "\n\n";
        registry += "[HKEY_CURRENT_USER\\Some\\" + number + "]\r\n\"text\"=\"" + text + "\"\r\n";
    }
    events += "END:VCALENDAR\r\n";
    write_file(path("in.vcf"), cards);
    write_file(path("in.ics"), events);
    write_file(path("in.mbox"), mailbox);
    write_file(path("in.reg"), registry);
    struct Case {
        std::string file;
        std::string store;
        std::vector<std::string> import;
        std::vector<std::string> outward;
    };
    const Case cases[] = {
        {"pim.db", "contacts", {"contacts", "import", path("in.vcf")}, {"contacts", "export"}},
        {"pim.db", "contacts", {"calendar", "import", path("in.ics")}, {"calendar", "export"}},
        {"mail.db", "mail", {"mail", "import", path("in.mbox")}, {"mail", "export", "-"}},
        {"registry.db", "registry", {"reg", "import", path("in.reg")}, {"reg", "export", "HKCU\\Some"}},
    };
    for (const Case& each : cases) {
        std::filesystem::remove_all(path("home"));
        const auto imported = zr(each.import);
        ASSERT_EQ(imported.code, 0) << imported.err;
        zr::test::RunningZr running(each.outward);
        ASSERT_FALSE(running.read_line().empty());  // and what is left is more than the pipe takes
        std::string bytes = read_file(path("home") + "/" + each.file);
        for (std::size_t at = 8192; at < bytes.size(); at += 4096) {
            bytes[at + 300] = static_cast<char>(bytes[at + 300] ^ 1);
        }
        write_file(path("home") + "/" + each.file, bytes);
        zr({"store", "check", each.store});  // unless the export itself has come upon it first
        EXPECT_NE(set_aside(), "") << each.outward[0];
        running.read_rest();
        EXPECT_EQ(running.wait(), 10) << each.outward[0];
    }
}

TEST_F(StoreTool, ALimitOfFileSizesIsAFullDisk) {
    for (int i = 0; i < 8; ++i) {
        add("Person " + std::to_string(i));
    }
    const std::string zr_tool = ZR_TOOL;
    const auto limited = [&](const std::string& rest) {
        return zr::test::run({"sh", "-c", "ulimit -f 4; exec " + zr_tool + " " + rest});
    };
    const auto written = limited("contacts export --output " + path("cards"));
    EXPECT_EQ(written.code, 8) << written.err;
    EXPECT_FALSE(std::filesystem::exists(path("cards")));
    EXPECT_EQ(limited("contacts export > " + path("out")).code, 8);
    EXPECT_EQ(limited("store backup contacts " + path("backup.db")).code, 8);
    EXPECT_FALSE(std::filesystem::exists(path("backup.db")));
    EXPECT_EQ(limited("contacts add --last X --note " + std::string(20000, 'n')).code, 8);
    EXPECT_EQ(lines_of(zr({"contacts", "list"}).out).size(), 8u);
}

// What others could have had a hand in is refused by name, and nothing is followed or changed.
TEST_F(StoreTool, RefusesFilesThatAreNotTheUsersAlone) {
    add("Kept");
    ASSERT_EQ(zr({"reg", "set", "HKCU\\A", "n", "v"}).code, 0);
    const std::string list[][3] = {{"registry.db", "reg", "tree"}, {"pim.db", "contacts", "list"}};
    for (const auto& [name, group, verb] : list) {
        const std::string store = path("home") + "/" + name;
        const auto refused = [&, &group = group, &verb = verb](const std::string& file, const std::string& why) {
            const auto result = zr({group, verb});
            EXPECT_NE(result.code, 0);
            EXPECT_NE(result.err.find(file + ": " + why), std::string::npos) << result.err;
        };
        ASSERT_EQ(chmod(store.c_str(), 0620), 0);
        refused(store, "can be written by other users");
        ASSERT_EQ(chmod(store.c_str(), 0600), 0);
        EXPECT_EQ(zr({group, verb}).code, 0);
        for (const char* const end : {"", "-wal", "-shm", ".bell", ".lock"}) {
            const std::string file = store + end;
            const std::string kept = path("kept");
            if (std::filesystem::exists(file)) std::filesystem::rename(file, kept);
            const std::string target = path("target");
            std::filesystem::create_symlink(target, file);
            refused(file, "is a symbolic link");
            EXPECT_FALSE(std::filesystem::exists(target)) << file;
            std::filesystem::remove(file);
            if (geteuid() == 0) {
                write_file(file, "");
                ASSERT_EQ(chown(file.c_str(), 12345, 12345), 0);
                refused(file, "belongs to another user");
                EXPECT_EQ(std::filesystem::file_size(file), 0u);
                std::filesystem::remove(file);
            }
            if (std::filesystem::exists(kept)) std::filesystem::rename(kept, file);
            EXPECT_EQ(zr({group, verb}).code, 0) << file;
        }
    }
    EXPECT_NE(zr({"contacts", "list"}).out.find("Kept"), std::string::npos);
    if (geteuid() != 0) return;
    ASSERT_EQ(chown(path("home").c_str(), 12345, 12345), 0);
    EXPECT_NE(zr({"contacts", "list"}).err.find("home: belongs to another user (12345)"), std::string::npos);
}

TEST_F(StoreTool, RefusesWhatIsNoStore) {
    write_file(path("letter.txt"), "Dear reader");
    EXPECT_EQ(zr({"store", "restore", path("letter.txt")}).code, 6);
    EXPECT_EQ(zr({"store", "recover", path("letter.txt"), path("x")}).code, 6);
    EXPECT_EQ(zr({"store", "restore", path("nothing")}).code, 6);
    EXPECT_EQ(zr({"store", "backup", "contacts"}).code, 2);
}

}  // namespace
