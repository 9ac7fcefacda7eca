#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "ZrUtility/Helpers/ContactsManager.h"
#include "support/sandbox.h"
#include "support/sql.h"
#include "zr/commands/tool.h"

namespace {

using nlohmann::json;
using zr::test::expect_failure;
using zr::test::kData;
using zr::test::lines_of;
using zr::test::query;
using zr::test::read_file;
using zr::test::Result;
using zr::test::RunningZr;
using zr::test::write_file;
using zr::test::zr;

std::string card(const std::string& name, const std::string& email) {
    return "BEGIN:VCARD\nVERSION:3.0\nFN:" + name + "\nEMAIL:" + email + "\nEND:VCARD\n";
}

// Each case has a contact store of its own.
class Tool : public testing::Test {
protected:
    void SetUp() override { use_store("state"); }

    void use_store(const std::string& name) {
        std::filesystem::create_directory(folder_.host() / name);
        setenv("ZR_HOME", (folder_.host() / name).c_str(), 1);
    }
    std::string store_file() const { return std::string(getenv("ZR_HOME")) + "/pim.db"; }
    std::string file(const std::string& name) const { return folder_.host() / name; }
    std::string file(const std::string& name, const std::string& text) const {
        write_file(file(name), text);
        return file(name);
    }
    static void import(const std::string& cards) { ASSERT_EQ(zr({"contacts", "import", "-"}, cards).code, 0); }
    static json list() { return json::parse(zr({"contacts", "list", "--json"}).out); }

private:
    zr::test::TempFolder folder_;
};

const std::vector<std::vector<std::string>> kCommands = {
    {"contacts", "import"},
    {"contacts", "export"},
    {"contacts", "list"},
    {"contacts", "find"},
    {"contacts", "show"},
    {"contacts", "add"},
    {"contacts", "change"},
    {"contacts", "edit"},
    {"contacts", "remove"},
    {"mail", "import"},
    {"mail", "export"},
    {"mail", "folders"},
    {"mail", "list"},
    {"mail", "find"},
    {"mail", "show"},
    {"mail", "attachments"},
    {"mail", "move"},
    {"mail", "save"},
    {"mail", "mark"},
    {"mail", "delete"},
    {"mail", "meetings"},
    {"mail", "watch"},
    {"phone", "lines"},
    {"phone", "calls"},
    {"phone", "watch"},
    {"phone", "answer"},
    {"phone", "hangup"},
    {"phone", "dial"},
    {"reg", "get"},
    {"reg", "set"},
    {"reg", "delete"},
    {"reg", "list"},
    {"reg", "tree"},
    {"reg", "find"},
    {"reg", "copy"},
    {"reg", "rename"},
    {"reg", "diff"},
    {"reg", "watch"},
    {"reg", "import"},
    {"reg", "export"},
    {"resolve"},
    {"log", "show"},
    {"modules"},
    {"screen", "info"},
    {"screen", "fit"},
    {"html"},
    {"objects"},
    {"zone"},
    {"watch"},
    {"net", "status"},
    {"net", "watch"},
    {"proxy", "list"},
    {"proxy", "show"},
    {"proxy", "env"},
    {"proxy", "watch"},
    {"provision"},
    {"calendar", "import"},
    {"calendar", "export"},
    {"calendar", "add"},
    {"calendar", "list"},
    {"calendar", "show"},
    {"calendar", "occurrence"},
    {"calendar", "remove"},
};

TEST_F(Tool, HelpsWithEveryCommand) {
    for (std::vector<std::string> command : kCommands) {
        command.push_back("--help");
        const Result result = zr(command);
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_NE(result.out.find("Example"), std::string::npos) << command[0];
        EXPECT_NE(result.out.find("--json"), std::string::npos) << command[0];
    }
    const Result top = zr({"--help"});
    EXPECT_EQ(top.code, 0);
    EXPECT_NE(top.out.find("Exit codes"), std::string::npos);
    EXPECT_TRUE(std::regex_match(zr({"--version"}).out, std::regex("zr [0-9]+\\.[0-9]+\\.[0-9]+\n")));
}

TEST_F(Tool, DocumentsAndCompletesEveryOption) {
    const std::string manual =
        read_file(ZR_SOURCE_DIR "/zr/man/zr-contacts.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-log.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr-objects.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-zone.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr-screen.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-html.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr-calendar.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-modules.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr-reg.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-resolve.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr-watch.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-net.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr-proxy.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-phone.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr-provision.1") + read_file(ZR_SOURCE_DIR "/zr/man/zr-mail.1") +
        read_file(ZR_SOURCE_DIR "/zr/man/zr.1");
    const std::string bash = read_file(ZR_SOURCE_DIR "/zr/completion/zr.bash");
    const std::string zsh = read_file(ZR_SOURCE_DIR "/zr/completion/_zr");
    int options = 0;
    for (std::vector<std::string> command : kCommands) {
        command.push_back("--help");
        const std::string help = zr(command).out;
        const std::regex option("\n +(?:-., ?)?(--[a-z-]+)");
        for (std::sregex_iterator i(help.begin(), help.end(), option), end; i != end; ++i) {
            const std::string name = (*i)[1];
            EXPECT_NE(manual.find(name), std::string::npos) << name;
            EXPECT_NE(bash.find(name), std::string::npos) << name;
            EXPECT_NE(zsh.find(name), std::string::npos) << name;
            ++options;
        }
    }
    EXPECT_GT(options, 30);
    EXPECT_EQ(zr::test::run({"bash", "-n", ZR_SOURCE_DIR "/zr/completion/zr.bash"}).code, 0);
}

TEST_F(Tool, CompletesInBash) {
    const auto complete = [](const std::string& line, const std::string& current = {}) {
        const std::string script = "source '" ZR_SOURCE_DIR "/zr/completion/zr.bash'; COMP_WORDS=(" + line + " '" +
                                   current + "'); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zr; echo \"${COMPREPLY[*]}\"";
        return zr::test::run({"bash", "-c", script}).out;
    };
    EXPECT_EQ(
        complete("zr"),
        "contacts calendar mail reg store net proxy phone provision resolve log modules screen html objects zone watch "
        "--help --json --no-pager --version\n");
    EXPECT_EQ(complete("zr contacts"), "import export list find show add change edit remove --help\n");
    EXPECT_EQ(complete("zr log"), "show --help\n");
    EXPECT_EQ(complete("zr mail export --format"), "eml mbox mboxo mboxrd mboxcl mboxcl2 maildir\n");
    EXPECT_EQ(complete("zr mail move 1", "--"), "--to --json --help\n");
    EXPECT_EQ(complete("zr reg"), "get set delete list tree find copy rename diff watch import export --help\n");
    EXPECT_EQ(complete("zr reg set HKCU a b --type", "d"), "dword dword_big_endian\n");
    EXPECT_EQ(complete("zr reg export --encoding"), "utf-16 utf-8 windows-1252\n");
    EXPECT_EQ(complete("zr objects"), "--json --help\n");
    EXPECT_EQ(complete("zr zone"), "--next --json --help\n");
    EXPECT_EQ(complete("zr watch", "-"), "--recursive --ext --only --exec --clock --json --help\n");
    EXPECT_EQ(complete("zr contacts export --vcard-version"), "2.1 3.0 4.0\n");
}

TEST_F(Tool, IsReadableToZsh) {
    if (zr::test::run({"sh", "-c", "command -v zsh"}).code != 0) GTEST_SKIP() << "there is no zsh";
    const Result result = zr::test::run({"zsh", "-n", ZR_SOURCE_DIR "/zr/completion/_zr"});
    EXPECT_EQ(result.code, 0) << result.err;
}

TEST_F(Tool, RefusesWrongUsage) {
    const std::vector<std::vector<std::string>> wrong = {
        {"nonsense"},
        {"contacts"},
        {"contacts", "import"},
        {"contacts", "list", "--sort", "shoe-size"},
        {"contacts", "list", "--limit", "0"},
        {"contacts", "find", "a", "--exact", "--words"},
        {"contacts", "show"},
        {"contacts", "import", "--on-duplicate", "merge", "-"},
        {"contacts", "add"},
        {"contacts", "add", "--birthday", "1990-02-30"},
        {"contacts", "add", "--first", "\xFF"},
        {"contacts", "add", "--email", "a", "--email", "b", "--email", "c", "--email", "d"},
        {"contacts", "add", "--email", "jo doe@x.y"},
        {"contacts", "add", "--mobile", "none"},
        {"contacts", "find", "a", "--field", "note", "--words"},
        {"contacts", "change", "1"},
        {"contacts", "remove"},
        {"resolve", "-a", "-m", "x"},
        {"log", "show", "x", "--level", "loud"},
        {"objects", "something"},
        {"watch"},
        {"calendar", "list", "--from", "someday"},
        {"calendar", "list", "--tasks", "--from", "2026-01-01"},
        {"calendar", "list", "--from", "2026-02-02", "--to", "2026-02-01"},
        {"calendar", "add", "x"},
        {"calendar", "add", "x", "--start", "today 25:00"},
        {"calendar", "add", "x", "--start", "today 10:00", "--end", "09:00"},
        {"calendar", "add", "x", "--start", "today", "--end", "09:00"},
        {"calendar", "occurrence", "1", "2026-02-30"},
        {"calendar", "occurrence", "1"},
    };
    for (const auto& args : wrong) {
        expect_failure(zr(args), 2, "");
    }
}

TEST_F(Tool, ImportsTheSamples) {
    const Result result = zr({"contacts", "import", "--json", kData + "phone-2.1.vcf", kData + "address-book-3.0.vcf",
                              kData + "web-4.0.vcf", kData + "desktop-utf16.vcf"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(json::parse(result.out)["imported"], 9);
    std::set<std::string> names;
    for (const json& contact : list()) {
        names.insert(contact["name"]);
    }
    for (const char* name : {"Ada Okafor", "Иван Петров", "Jörg Müller", "Dr. Jo Ann Doe", "Al Smith", "Bea Brown",
                             "山田 太郎", "Zoë O'Neill", "Åsa Ångström"}) {
        EXPECT_TRUE(names.contains(name)) << name;
    }
    const json taro = json::parse(zr({"contacts", "find", "--json", "--exact", "山田 太郎"}).out)[0];
    EXPECT_EQ(taro["emails"], (json{"taro.yamada@example.jp", "taro@home.example"}));
}

TEST_F(Tool, NamesDamagedCardsAndImportsTheRest) {
    const Result result = zr({"contacts", "import", kData + "damaged.vcf"});
    EXPECT_EQ(result.code, 7);
    EXPECT_EQ(result.out, "imported 2 contacts; 1 not in full; left out 1 card\n");
    EXPECT_EQ(lines_of(result.err),
              (std::vector<std::string>{
                  "zr: " + kData + "damaged.vcf:6: card left out: no END:VCARD before the next card begins",
                  "zr: " + kData + "damaged.vcf:13: line left out: a line without a colon"}));
    EXPECT_EQ(list().size(), 2u);
    const Result empty = zr({"contacts", "import", "-"});
    EXPECT_EQ(empty.code, 0);
    EXPECT_EQ(empty.out, "imported 0 contacts\n");
    expect_failure(zr({"contacts", "import", "-"}, "no card\n"), 7, "standard input:1: card left out: text outside");
    const Result guessed = zr({"contacts", "import", "-"}, card("J\xF6rg", "j@x.y"));
    EXPECT_EQ(guessed.code, 0);
    EXPECT_EQ(guessed.err, "zr: standard input:3: warning: not valid UTF-8; read as Windows-1252\n");
    EXPECT_EQ(zr({"contacts", "find", "Jörg"}).code, 0);
}

TEST_F(Tool, TellsFilesThatItCannotRead) {
    expect_failure(zr({"contacts", "import", file("missing.vcf")}), 6, "missing.vcf: No such file or directory");
    expect_failure(zr({"contacts", "import", file("")}), 6, "no file in this folder ends in .vcf");
    const json problems = json::parse(zr({"contacts", "import", "--json", file("missing.vcf")}).out)["problems"];
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0]["effect"], "not read");
    // The other files are imported.
    const Result both = zr({"contacts", "import", file("missing.vcf"), file("a.vcf", card("A", "a@x.y"))});
    EXPECT_EQ(both.code, 6);
    EXPECT_EQ(both.out, "imported 1 contact\n");
    expect_failure(zr({"contacts", "export", "--output", file("no/such/folder.vcf")}), 6, "folder.vcf");
    expect_failure(zr({"resolve", "-m", file("missing.eml")}), 6, "missing.eml");
    expect_failure(zr({"log", "show", file("missing.log")}), 6, "missing.log");
}

TEST_F(Tool, ListsInOrder) {
    expect_failure(zr({"contacts", "show", "1"}), 1, "no contact 1");
    EXPECT_EQ(zr({"contacts", "list"}).code, 1);
    import(card("b", "1@x.y") + card("C", "2@x.y") + card("a", "3@x.y"));
    const auto lines = [](const std::vector<std::string>& command) {
        return std::regex_replace(zr(command).out, std::regex("\tcard-[0-9a-f]{32}\n"), "\n");
    };
    EXPECT_EQ(lines({"contacts", "list"}), "3\ta\t3@x.y\t\n1\tb\t1@x.y\t\n2\tC\t2@x.y\t\n");
    EXPECT_EQ(lines({"contacts", "list", "--sort", "email1", "--reverse", "-n", "2"}),
              "3\ta\t3@x.y\t\n2\tC\t2@x.y\t\n");
    EXPECT_EQ(list()[2]["name"], "C");
}

TEST_F(Tool, FindsByTheRulesOfTheLibrary) {
    zr({"contacts", "add", "--first", "John", "--last", "Smith", "--company", "Acme", "--email", "john@acme.example"});
    zr({"contacts", "add", "--first", "Joan", "--last", "Jones"});
    const auto found = [](std::vector<std::string> args) {
        args.insert(args.begin(), {"contacts", "find"});
        return lines_of(zr(args).out).size();
    };
    EXPECT_EQ(found({"jo"}), 2u);
    EXPECT_EQ(found({"JOHN", "--field", "first"}), 1u);
    EXPECT_EQ(found({"joh", "--exact"}), 0u);
    EXPECT_EQ(found({"john", "--exact"}), 1u);
    EXPECT_EQ(found({"--words", "jo sm"}), 1u);
    EXPECT_EQ(found({"--words", "jo xx"}), 0u);
    EXPECT_EQ(found({"JOHN@ACME.EXAMPLE", "--exact", "-f", "email"}), 1u);
    EXPECT_EQ(found({"acme", "-f", "company", "-f", "last"}), 1u);
    EXPECT_EQ(found({""}), 2u);
    EXPECT_EQ(zr({"contacts", "find", "nobody"}).code, 1);
    EXPECT_EQ(zr({"contacts", "find", "--json", "nobody"}).out, "[]\n");
    // SQL is text.
    EXPECT_EQ(zr({"contacts", "find", "' OR 1=1 --"}).code, 1);
}

TEST_F(Tool, AddsShowsChangesAndRemoves) {
    const Result added = zr({"contacts", "add", "--first", "Jo", "--last", "Doe", "--email", "jo@x.y", "--email",
                             "jo2@x.y", "--birthday", "1984-02-29", "--note", "two\nlines"});
    EXPECT_EQ(added.out, "1\n");
    const json shown = json::parse(zr({"contacts", "show", "1", "--json"}).out)[0];
    EXPECT_EQ(shown["firstName"], "Jo");
    EXPECT_EQ(shown["emails"], (json{"jo@x.y", "jo2@x.y"}));
    EXPECT_EQ(shown["birthday"], "1984-02-29");
    EXPECT_NE(zr({"contacts", "show", "1"}).out.find("two\\nlines"), std::string::npos);
    EXPECT_EQ(zr({"contacts", "change", "1", "--email", "new@x.y", "--note", ""}).code, 0);
    const json changed = json::parse(zr({"contacts", "show", "1", "--json"}).out)[0];
    EXPECT_EQ(changed["emails"], json{"new@x.y"});
    EXPECT_FALSE(changed.contains("note"));
    EXPECT_EQ(changed["birthday"], "1984-02-29");
    expect_failure(zr({"contacts", "change", "9", "--first", "x"}), 1, "no contact 9");
    expect_failure(zr({"contacts", "remove", "9"}), 1, "no contact 9");
    expect_failure(zr({"contacts", "remove", "--email", "old@x.y"}), 1, "no contact has the address old@x.y");
    zr({"contacts", "add", "--first", "Al", "--email", "NEW@x.y"});
    expect_failure(zr({"contacts", "remove", "--email", "new@x.y"}), 3, "2 contacts have the address");
    EXPECT_EQ(list().size(), 2u);
    EXPECT_EQ(zr({"contacts", "remove", "--email", "new@x.y", "--all", "--json"}).out, "{\"removed\":[1,2]}\n");
    EXPECT_EQ(list().size(), 0u);
}

std::string card_with_uid(const std::string& name, const std::string& revision) {
    return "BEGIN:VCARD\nVERSION:3.0\nFN:" + name + "\nUID:the-one\nREV:" + revision + "\nEND:VCARD\n";
}

TEST_F(Tool, ImportsWhatIsThereOnce) {
    const std::string cards = card("A", "a@x.y") + card_with_uid("B", "2020-01-01T00:00:00Z") + card("C", "c@x.y");
    const auto imported = [](const std::string& text, std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"contacts", "import", "--json", "-"});
        const json result = json::parse(zr(options, text).out);
        return std::array<int, 3>{result["imported"], result["updated"], result["alreadyThere"]};
    };
    using Counts = std::array<int, 3>;
    EXPECT_EQ(imported(cards), (Counts{3, 0, 0}));
    EXPECT_EQ(imported(cards), (Counts{0, 0, 3}));
    // What was exported is what is there, in every version.
    for (const char* version : {"2.1", "3.0", "4.0"}) {
        EXPECT_EQ(imported(zr({"contacts", "export", "--vcard-version", version}).out), (Counts{0, 0, 3})) << version;
    }
    EXPECT_EQ(imported(card_with_uid("New", "2021-01-01T00:00:00Z"), {"--dry-run"}), (Counts{0, 1, 0}));
    EXPECT_EQ(zr({"contacts", "find", "New"}).code, 1);
    EXPECT_EQ(imported(card_with_uid("New", "20210101T000000Z"), {"--on-duplicate", "skip"}), (Counts{0, 0, 1}));
    EXPECT_EQ(imported(card_with_uid("New", "20210101T000000Z")), (Counts{0, 1, 0}));
    EXPECT_EQ(imported(card_with_uid("Old", "2020-12-31T00:00:00Z")), (Counts{0, 0, 1}));
    EXPECT_EQ(json::parse(zr({"contacts", "show", "the-one", "--json"}).out)[0]["name"], "New");
    EXPECT_EQ(list().size(), 3u);
    EXPECT_EQ(imported(cards, {"--on-duplicate", "add"}), (Counts{3, 0, 0}));
    EXPECT_EQ(list().size(), 6u);
    // Twice in one file: the newer one.
    EXPECT_EQ(imported(card_with_uid("Newer", "2023") + card_with_uid("Newest", "2024")), (Counts{0, 2, 0}));
    EXPECT_EQ(json::parse(zr({"contacts", "show", "the-one", "--json"}).out)[0]["name"], "Newest");
    EXPECT_EQ(zr({"contacts", "import", "--dry-run", "-"}, card("D", "d@x.y") + card("D", "d@x.y")).out,
              "would import 1 contact; 1 was there already\n");
}

TEST_F(Tool, UpdatesAllOfAContact) {
    import(
        "BEGIN:VCARD\nVERSION:3.0\nFN:Jo\nUID:u\nBDAY:1970-01-02\nEMAIL:a@x.y\nTEL;TYPE=cell,msg:1\nNOTE:n\nX-A:1\n"
        "END:VCARD\n");
    import("BEGIN:VCARD\nVERSION:3.0\nFN:Jo\nUID:u\nTEL;TYPE=home,msg:2\nX-B:2\nEND:VCARD\n");
    const std::string cards = zr({"contacts", "export"}).out;
    for (const char* gone : {"BDAY", "EMAIL", "cell", "NOTE", "X-A"}) {
        EXPECT_EQ(cards.find(gone), std::string::npos) << gone << "\n" << cards;
    }
    EXPECT_NE(cards.find("TEL;TYPE=home,msg:2"), std::string::npos) << cards;
    EXPECT_NE(cards.find("X-B:2"), std::string::npos);
    EXPECT_EQ(list().size(), 1u);
}

TEST_F(Tool, KeepsWhatWasChangedSinceTheImport) {
    import(card("A", "a@x.y"));
    ASSERT_EQ(zr({"contacts", "change", "1", "--note", "mine"}).code, 0);
    EXPECT_EQ(zr({"contacts", "import", "-"}, card("A", "a@x.y")).out, "imported 0 contacts; 1 was there already\n");
    EXPECT_EQ(list()[0]["note"], "mine");
}

TEST_F(Tool, ImportsTheFilesOfAFolder) {
    std::filesystem::create_directory(file("cards"));
    file("cards/b.vcf", card("B", "b@x.y"));
    file("cards/a.VCF", card("A", "a@x.y"));
    file("cards/readme.txt", "text");
    const Result result = zr({"contacts", "import", file("cards")});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "imported 2 contacts\n");
}

TEST_F(Tool, FindsContactsByWhatStays) {
    import(card("A", "a@x.y") + card_with_uid("B", "2020"));
    const json contacts = list();
    ASSERT_EQ(contacts.size(), 2u);
    const std::string uid = contacts[0]["uid"];
    EXPECT_TRUE(uid.starts_with("card-")) << uid;
    EXPECT_EQ(contacts[1]["uid"], "the-one");
    EXPECT_NE(zr({"contacts", "list"}).out.find("the-one"), std::string::npos);
    ASSERT_EQ(zr({"contacts", "remove", "the-one"}).code, 0);
    // Somebody else has the number now, and nobody the identifier.
    ASSERT_EQ(zr({"contacts", "add", "--first", "C"}).out, "2\n");
    expect_failure(zr({"contacts", "show", "the-one"}), 1, "no contact the-one");
    expect_failure(zr({"contacts", "change", "the-one", "--first", "D"}), 1, "no contact the-one");
    expect_failure(zr({"contacts", "remove", "the-one"}), 1, "no contact the-one");
    EXPECT_EQ(zr({"contacts", "change", uid, "--note", "n"}).code, 0);
    EXPECT_EQ(json::parse(zr({"contacts", "show", uid, "--json"}).out)[0]["note"], "n");
    EXPECT_TRUE(list()[1]["uid"].get<std::string>().starts_with("urn:uuid:"));
}

TEST_F(Tool, SaysHowFarAnInterruptedImportCame) {
    std::string cards;
    for (int i = 0; i < 4000; ++i) {
        cards += card("P" + std::to_string(i), "p" + std::to_string(i) + "@x.y");
    }
    for (const int signal : {SIGINT, SIGTERM}) {
        use_store("by-" + std::to_string(signal));
        RunningZr import({"contacts", "import", "-"}, RunningZr::Errors::ToOutput);
        // More than a pipe holds: some of it was read. What comes in the middle of a line is no damaged card.
        import.write(cards + "BEGIN:VCA");
        import.kill(signal);
        const std::string imported = import.read_line();
        const std::string said = import.read_line();
        EXPECT_EQ(import.wait(), -signal);
        const std::size_t there = list().size();
        EXPECT_GT(there, 0u);
        EXPECT_NE(said.find("zr: interrupted: " + std::to_string(there) + " contacts are in"), std::string::npos)
            << imported << said;
        EXPECT_EQ(imported.find("left out"), std::string::npos) << imported;
    }
    const std::size_t there = list().size();
    const json rest = json::parse(zr({"contacts", "import", "--json", "-"}, cards).out);
    EXPECT_EQ(rest["alreadyThere"], there);
    EXPECT_EQ(rest["imported"], 4000 - there);
}

TEST_F(Tool, ChangesAllAddressesTheKeptOnesToo) {
    import(
        "BEGIN:VCARD\nVERSION:4.0\nFN:A\nEMAIL;TYPE=home;PREF=4:d@x.y\nEMAIL;PREF=1:a@x.y\nEMAIL;PREF=2:b@x.y\n"
        "EMAIL;PREF=3:c@x.y\nTEL;TYPE=cell,msg:1\nX-EMAIL:kept\nEND:VCARD\n");
    const std::string before = zr({"contacts", "export"}).out;
    EXPECT_NE(before.find("EMAIL;TYPE=home;PREF=4:d@x.y"), std::string::npos) << before;
    ASSERT_EQ(zr({"contacts", "change", "1", "--email", "new@x.y"}).code, 0);
    const std::string after = zr({"contacts", "export"}).out;
    EXPECT_NE(after.find("EMAIL;TYPE=INTERNET;TYPE=PREF:new@x.y"), std::string::npos) << after;
    EXPECT_NE(after.find("X-EMAIL:kept"), std::string::npos);
    EXPECT_NE(after.find("TEL;TYPE=cell,msg:1"), std::string::npos);
    for (const char* address : {"a@x.y", "b@x.y", "c@x.y", "d@x.y"}) {
        EXPECT_EQ(after.find(address), std::string::npos) << address;
    }
}

TEST_F(Tool, ExportsWhatItImported) {
    std::vector<std::string> args = {"contacts", "import"};
    for (const char* name : {"phone-2.1.vcf", "address-book-3.0.vcf", "web-4.0.vcf", "desktop-utf16.vcf"}) {
        args.push_back(kData + name);
    }
    ASSERT_EQ(zr(args).code, 0);
    ASSERT_EQ(zr({"contacts", "add", "--first", "Nobody's", "--last", "File; as", "--note", "a\\b\nc"}).code, 0);
    // What no field holds is kept as its version puts it.
    const auto contacts = [] {
        return std::regex_replace(zr({"contacts", "export", "--json"}).out, std::regex("\"extras\":\"[^\"]*\""), "");
    };
    const std::string before = contacts();
    for (const char* version : {"2.1", "3.0", "4.0"}) {
        use_store("state");
        const std::string path = file("out.vcf");
        ASSERT_EQ(zr({"contacts", "export", "--vcard-version", version, "--output", path}).code, 0);
        EXPECT_EQ(read_file(path), zr({"contacts", "export", "--vcard-version", version}).out);
        EXPECT_EQ(read_file(path).find('\n'), read_file(path).find("\r\n") + 1);
        use_store(std::string("again-") + version);
        const Result again = zr({"contacts", "import", path});
        EXPECT_EQ(again.code, 0) << again.err;
        EXPECT_EQ(contacts(), before) << version;
    }
    // What no field holds was in there.
    EXPECT_NE(zr({"contacts", "export"}).out.find("jd@club.example"), std::string::npos);
    EXPECT_NE(zr({"contacts", "export"}).out.find("iVBORw0KGgo"), std::string::npos);
}

TEST_F(Tool, LeavesNoHalfFileBehind) {
    import(card("A", "a@x.y"));
    EXPECT_EQ(zr({"contacts", "export", "--output", file("o.vcf", "before")}).code, 0);
    EXPECT_TRUE(read_file(file("o.vcf")).starts_with("BEGIN:VCARD"));
    std::filesystem::create_directory(file("folder"));
    EXPECT_EQ(zr({"contacts", "export", "--output", file("folder")}).code, 6);
    EXPECT_EQ(zr({"contacts", "export", "--output", "/dev/full"}).code, 8);
    EXPECT_EQ(zr::test::run({"sh", "-c", "exec \"$0\" contacts list > /dev/full", ZR_TOOL}).code, 8);
    int files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(file(""))) {
        ++files;
    }
    EXPECT_EQ(files, 3);  // state, folder, o.vcf
}

// Adds a contact whose every field tells that it is whole.
LONG add_whole(ContactsManager& manager, std::u16string last_name) {
    Contact* contact = nullptr;
    EXPECT_GE(manager.AddContact(contact), 0);
    std::u16string job = u"whole";
    WCHAR* text = last_name.data();
    EXPECT_GE(contact->put_LastName(text), 0);
    text = job.data();
    EXPECT_GE(contact->put_JobTitle(text), 0);
    EXPECT_GE(contact->Save(), 0);
    LONG oid = 0;
    EXPECT_GE(contact->get_Oid(oid), 0);
    manager.ReleaseContact(contact);
    return oid;
}

TEST_F(Tool, ListsAndExportsWhileOthersComeAndGo) {
    ContactsManager manager;
    ASSERT_GE(manager.Initialize(), 0);
    std::vector<LONG> going;
    for (int i = 0; i < 200; ++i) {
        going.push_back(add_whole(manager, u"goes"));
        add_whole(manager, u"stays");
    }
    std::atomic<bool> stop = false;
    std::thread restless([&] {
        std::mt19937 random(7);
        while (!stop) {
            LONG& oid = going[static_cast<std::size_t>(random()) % going.size()];
            Contact* contact = nullptr;
            EXPECT_GE(manager.GetContactFromOid(static_cast<ULONG>(oid), contact), 0);
            EXPECT_GE(contact->Delete(), 0);
            manager.ReleaseContact(contact);
            oid = add_whole(manager, u"goes");
        }
    });
    for (int round = 0; round < 5; ++round) {
        for (const std::vector<std::string>& command :
             {std::vector<std::string>{"contacts", "list", "--sort", "last", "--json"},
              {"contacts", "export", "--json"}}) {
            const Result result = zr(command);
            EXPECT_EQ(result.code, 0) << result.err;
            int staying = 0;
            for (const json& contact : json::parse(result.out)) {
                EXPECT_EQ(contact.value("jobTitle", ""), "whole") << contact;
                if (contact.value("lastName", "") == "stays") ++staying;
            }
            EXPECT_EQ(staying, 200);
        }
    }
    stop = true;
    restless.join();
    EXPECT_GE(manager.Uninitialize(0), 0);
}

TEST_F(Tool, EscapesControlCharacters) {
    import(card("Red \x1B[31m\xC2\x9B \x07", "e\x1B@x.y"));
    for (const Result& result :
         {zr({"contacts", "list"}), zr({"contacts", "list", "--json"}), zr({"contacts", "show", "1"}),
          zr({"resolve", "e\x1B@x.y"}), zr({"contacts", "find", "red", "--json"})}) {
        EXPECT_EQ(result.out.find('\x1B'), std::string::npos);
        EXPECT_EQ(result.out.find('\x07'), std::string::npos);
        EXPECT_EQ(result.out.find("\xC2\x9B"), std::string::npos);
        EXPECT_FALSE(result.out.empty());
    }
    EXPECT_EQ(list()[0]["name"], "Red \x1B[31m\xC2\x9B \x07");
    EXPECT_NE(zr({"contacts", "import", file("\x1B[2J.vcf")}).err.find("\\x1b[2J.vcf"), std::string::npos);
}

TEST_F(Tool, TakesSqlAsData) {
    const std::string name = "Robert'); DROP TABLE contacts;--";
    import(card(name, "'; DELETE FROM contact; --@x.y"));
    EXPECT_EQ(list()[0]["name"], name);
    EXPECT_EQ(zr({"resolve", "-a", "x' OR 'a'='a"}).code, 1);
    EXPECT_EQ(list().size(), 1u);
}

TEST_F(Tool, IsQuietWhenItsReaderGoes) {
    std::string cards;
    for (int i = 0; i < 3000; ++i) {
        cards += card("A person with a rather long name " + std::to_string(i), "a@x.y");
    }
    import(cards);
    const Result result = zr::test::run({"sh", "-c", "\"$0\" contacts list | head -n 1", ZR_TOOL});
    EXPECT_EQ(lines_of(result.out).size(), 1u);
    EXPECT_EQ(result.err, "");
}

TEST_F(Tool, ResolvesSenders) {
    import(card("Jo Doe", "jo.doe@example.com") + card("Al", "team@example.com") + card("Bea", "team@example.com"));
    const Result one = zr({"resolve", kData + "from-jo.eml"});
    EXPECT_EQ(one.code, 0);
    EXPECT_EQ(one.out, kData + "from-jo.eml: Jo.Doe@Example.com: one: Jo Doe (contact 1)\n");
    const Result several = zr({"resolve", kData + "from-team.eml"});
    EXPECT_EQ(several.code, 3);
    EXPECT_EQ(several.out, kData + "from-team.eml: team@example.com: several: Al (contact 2), Bea (contact 3)\n");
    const Result none = zr({"resolve", kData + "from-stranger.eml"});
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(none.out, kData + "from-stranger.eml: stranger@nowhere.example: none\n");
    const json answer = json::parse(zr({"resolve", "--json", "-"}, read_file(kData + "from-jo.eml")).out);
    EXPECT_EQ(answer["message"], "standard input");
    EXPECT_EQ(answer["subject"], "Friday");
    EXPECT_EQ(answer["sender"]["name"], "Doe, Jo");
    EXPECT_EQ(answer["answer"], "one");
    EXPECT_EQ(answer["contact"]["oid"], 1);
    const Result list = zr({"resolve", "Jo Doe <JO.DOE@EXAMPLE.COM>; nobody@x.y"});
    EXPECT_EQ(list.code, 1);
    EXPECT_EQ(list.out, "JO.DOE@EXAMPLE.COM: one: Jo Doe (contact 1)\nnobody@x.y: none\n");
    EXPECT_EQ(zr({"resolve", "nobody@x.y", "team@example.com"}).code, 3);
    const json many = json::parse(zr({"resolve", "--json", "TEAM@example.com"}).out);
    ASSERT_EQ(many["contacts"].size(), 2u);
    EXPECT_EQ(many["contacts"][1]["name"], "Bea");
    EXPECT_EQ(zr({"resolve", "--addresses", "someone"}).code, 1);
}

TEST_F(Tool, TellsMessagesWithoutSender) {
    expect_failure(zr({"resolve", kData + "no-from.eml"}), 4, "no-from.eml: no usable From");
    expect_failure(zr({"resolve", kData + "phone-2.1.vcf"}), 5, "phone-2.1.vcf: not a message");
    expect_failure(zr({"resolve", ZR_TOOL}), 5, "not a message");
    expect_failure(zr({"resolve", "-a", "<>"}), 4, "no usable address");
    expect_failure(zr({"resolve", file("missing.eml")}), 6, "missing.eml: No such file");
    // The others are answered all the same.
    const Result both = zr({"resolve", kData + "no-from.eml", kData + "from-jo.eml"});
    EXPECT_EQ(both.code, 4);
    EXPECT_EQ(both.out, kData + "from-jo.eml: Jo.Doe@Example.com: none\n");
}

TEST_F(Tool, WatchesChangesOfOtherProcesses) {
    RunningZr watch({"resolve", "--watch", "jo@x.y", "al@x.y"});
    EXPECT_EQ(watch.read_line(), "jo@x.y: none");
    EXPECT_EQ(watch.read_line(), "al@x.y: none");
    ASSERT_EQ(zr({"contacts", "add", "--first", "Jo", "--email", "jo@x.y"}).out, "1\n");
    EXPECT_EQ(watch.read_line(), "jo@x.y: one: Jo (contact 1)");
    ASSERT_EQ(zr({"contacts", "change", "1", "--email", "al@x.y", "--email", "jo@x.y"}).code, 0);
    EXPECT_EQ(watch.read_line(), "al@x.y: one: Jo (contact 1)");
    ASSERT_EQ(zr({"contacts", "import", "-"}, card("Second", "JO@x.y")).code, 0);
    EXPECT_EQ(watch.read_line(), "jo@x.y: several: Jo (contact 1), Second (contact 2)");
    ASSERT_EQ(zr({"contacts", "remove", "1"}).code, 0);
    std::set<std::string> last = {watch.read_line(), watch.read_line()};
    EXPECT_EQ(last, (std::set<std::string>{"jo@x.y: one: Second (contact 2)", "al@x.y: none"}));
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.read_line(), "");
}

TEST_F(Tool, EndsAWatchOnInterrupt) {
    RunningZr watch({"resolve", "--watch", "--json", "jo@x.y"});
    EXPECT_EQ(json::parse(watch.read_line())["answer"], "none");
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(Tool, KeepsTheStoreWholeWhenAnImportIsKilled) {
    constexpr int kCards = 8000;
    {
        RunningZr import({"contacts", "import", "-"});
        for (int i = 0; i < kCards; ++i) {
            import.write(card("Person " + std::to_string(i), "p" + std::to_string(i) + "@x.y"));
        }
        import.kill(SIGKILL);
        EXPECT_EQ(import.wait(), -SIGKILL);
    }
    // The pipe, the cards read ahead and the batch in hand hold less than 5000 cards, so some batches are in, and none
    // in part.
    const json contacts = list();
    EXPECT_GE(contacts.size(), 3000u);
    EXPECT_EQ(contacts.size() % 1000, 0u);
    for (const json& contact : contacts) {
        const int number = contact["oid"].get<int>() - 1;
        ASSERT_EQ(contact["name"], "Person " + std::to_string(number));
        ASSERT_EQ(contact["emails"], json{"p" + std::to_string(number) + "@x.y"});
    }
    EXPECT_EQ(zr({"resolve", "p7@x.y"}).out, "p7@x.y: one: Person 7 (contact 8)\n");
    import(card("Later", "later@x.y"));
    EXPECT_EQ(list().size(), contacts.size() + 1);
}

TEST_F(Tool, TellsANewerStore) {
    import(card("A", "a@x.y"));
    query(store_file(), "PRAGMA user_version = 99");
    const std::string bytes = read_file(store_file());
    expect_failure(zr({"contacts", "list"}), 9, "written by a newer version");
    expect_failure(zr({"resolve", "a@x.y"}), 9, "written by a newer version");
    expect_failure(zr({"contacts", "find", "a"}), 9, "written by a newer version");
    EXPECT_EQ(read_file(store_file()), bytes);
}

TEST_F(Tool, TellsADamagedStore) {
    const std::string noise(8192, 'x');
    write_file(store_file(), noise);
    expect_failure(zr({"contacts", "list"}), 10, "damaged");
    // It was set aside, not overwritten, and the next run has a new store.
    bool kept = false;
    for (const auto& entry : std::filesystem::directory_iterator(getenv("ZR_HOME"))) {
        kept = kept || read_file(entry.path()) == noise;
    }
    EXPECT_TRUE(kept);
    EXPECT_EQ(zr({"contacts", "list"}).code, 1);
}

TEST_F(Tool, SaysHowManyAreInWhenTheDiskIsFull) {
    std::string cards;
    for (int i = 0; i < 10000; ++i) {
        cards += card("Person with a name of some length " + std::to_string(i), "p" + std::to_string(i) + "@x.y");
    }
    const std::string path = file("many.vcf", cards);
    // No file may grow beyond this many blocks of 512 bytes, which a store meets as it meets a full disk.
    const std::string script =
        "(trap '' XFSZ; ulimit -f 3000; \"$0\" contacts import \"$1\"; echo \"code $?\"); \"$0\" contacts list --json";
    const Result result = zr::test::run({"sh", "-c", script, ZR_TOOL, path});
    const auto lines = lines_of(result.out);
    ASSERT_GE(lines.size(), 3u) << result.err;
    ASSERT_EQ(lines[1], "code 8") << result.err;
    const json contacts = json::parse(result.out.substr(result.out.find('[')));
    EXPECT_GT(contacts.size(), 0u);
    EXPECT_EQ(contacts.size() % 1000, 0u);
    EXPECT_NE(result.err.find("the disk is full"), std::string::npos);
    EXPECT_NE(result.err.find(std::to_string(contacts.size()) + " contacts are in, the rest is not"), std::string::npos)
        << result.err;
}

TEST_F(Tool, ShowsALog) {
    setenv("ZR_LOG", file("zr.log").c_str(), 1);
    EXPECT_EQ(zr({"contacts", "find", "--exact", "a@x.y"}).code, 1);
    unsetenv("ZR_LOG");
    const Result text = zr({"log", "show", file("zr.log")});
    EXPECT_EQ(text.code, 0);
    EXPECT_EQ(text.err, "");
    EXPECT_NE(text.out.find("OutlookManager.cpp:"), std::string::npos);
    const auto records = lines_of(zr({"log", "show", "--json", file("zr.log")}).out);
    ASSERT_EQ(records.size(), lines_of(text.out).size());
    const json first = json::parse(records.at(0));
    EXPECT_TRUE(first.contains("category"));
    EXPECT_TRUE(std::regex_match(first["time"].get<std::string>(),
                                 std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{6}Z")));
    EXPECT_LT(lines_of(zr({"log", "show", "--level", "failure", file("zr.log")}).out).size(), records.size());
    expect_failure(zr({"log", "show", file("no.log", "This is text.\n")}), 12, "no.log");
}

TEST_F(Tool, ShowsALogWithWhatItWasEarlier) {
    setenv("ZR_LOG", file("zr.log").c_str(), 1);
    EXPECT_EQ(zr({"contacts", "find", "--exact", "a@x.y"}).code, 1);
    unsetenv("ZR_LOG");
    const std::size_t records = lines_of(zr({"log", "show", file("zr.log")}).out).size();
    setenv("ZR_LOG", file("zr.log").c_str(), 1);
    ASSERT_EQ(rename(file("zr.log").c_str(), file("zr.log.1").c_str()), 0);
    EXPECT_EQ(zr({"contacts", "find", "--exact", "a@x.y"}).code, 1);
    unsetenv("ZR_LOG");
    EXPECT_EQ(lines_of(zr({"log", "show", file("zr.log")}).out).size(), 2 * records);
    EXPECT_EQ(lines_of(zr({"log", "show", file("zr.log.1")}).out).size(), records);
}

TEST_F(Tool, SaysThatALogIsNotKept) {
    ASSERT_EQ(symlink("elsewhere", file("zr.log").c_str()), 0);
    setenv("ZR_LOG", file("zr.log").c_str(), 1);
    const Result result = zr({"contacts", "find", "--exact", "a@x.y"});
    unsetenv("ZR_LOG");
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find("zr.log: a symbolic link"), std::string::npos) << result.err;
}

TEST_F(Tool, ReadsNoPipeThatIsNamed) {
    const std::string pipe = file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::vector<std::string>& command : {std::vector<std::string>{"log", "show", pipe},
                                                    {"contacts", "import", pipe},
                                                    {"calendar", "import", pipe},
                                                    {"reg", "import", pipe},
                                                    {"mail", "import", pipe},
                                                    {"provision", pipe},
                                                    {"resolve", pipe}}) {
        const Result result = zr(command);
        EXPECT_EQ(result.code, 6) << command[0];
        EXPECT_NE(result.err.find("pipe: not a file; - reads a pipe\n"), std::string::npos) << result.err;
    }
    expect_failure(zr({"log", "show", "/dev/null"}), 6, "not a file");
}

TEST_F(Tool, ResolvesLegalAddressesAsTheyStand) {
    import(card("A", "a|b@x.org") + card("B", "\"a;b\"@x.org"));
    const Result pipe = zr({"resolve", "-"}, "From: a|b@x.org\r\n\r\n");
    EXPECT_EQ(pipe.code, 0) << pipe.out;
    EXPECT_NE(pipe.out.find("one: A"), std::string::npos) << pipe.out;
    const Result quoted = zr({"resolve", "-"}, "From: Al <\"a;b\"@x.org>\r\n\r\n");
    EXPECT_EQ(quoted.code, 0) << quoted.out;
    EXPECT_NE(quoted.out.find("one: B"), std::string::npos) << quoted.out;
}

}  // namespace
