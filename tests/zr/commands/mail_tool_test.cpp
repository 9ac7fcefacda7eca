// zr mail, run as a user does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "support/child.h"
#include "support/sandbox.h"
#include "zr/commands/tool.h"
#include "zr/stores/mail.h"

namespace mail_tool_test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using zr::test::expect_failure;
using zr::test::kData;
using zr::test::lines_of;
using zr::test::read_file;
using zr::test::Result;
using zr::test::write_file;
using zr::test::zr;

std::string message(int number, const std::string& more = {}) {
    const std::string n = std::to_string(number);
    return "From: Jo Doe <jo@example.com>\r\nTo: me@example.net\r\nSubject: number " + n +
           "\r\nDate: Mon, 1 Jan 2024 10:00:00 +0000\r\nMessage-ID: <" + n + "@example.com>\r\n" + more +
           "\r\nbody of " + n + "\r\n";
}

class MailTool : public testing::Test {
protected:
    MailTool() {
        const char* const home = std::getenv("ZR_HOME");
        before_ = home != nullptr ? home : "";
        setenv("ZR_HOME", (folder_.host() / "home").c_str(), 1);
        setenv("TZ", "UTC", 1);
    }
    ~MailTool() override {
        setenv("ZR_HOME", before_.c_str(), 1);
        unsetenv("TZ");
    }

    std::string path(const std::string& name) const { return (folder_.host() / name).string(); }
    std::string put(const std::string& name, const std::string& text) const {
        fs::create_directories(fs::path(path(name)).parent_path());
        write_file(path(name), text);
        return path(name);
    }
    static json list(const std::string& folder = "Inbox") {
        return json::parse(zr({"mail", "list", folder, "--json"}).out);
    }
    static std::vector<std::string> ids(const std::string& folder = "Inbox") {
        std::vector<std::string> all;
        for (const json& row : list(folder)) {
            all.push_back(row["id"]);
        }
        return all;
    }
    static json show(const std::string& id) { return json::parse(zr({"mail", "show", id, "--json"}).out).at(0); }
    static json import(std::vector<std::string> args) {
        args.insert(args.begin(), {"mail", "import", "--json"});
        return json::parse(zr(args).out);
    }
    // What an export to files gives, by their texts.
    std::multiset<std::string> exported(const std::string& name = "out") const {
        EXPECT_EQ(zr({"mail", "export", path(name)}).code, 0);
        std::multiset<std::string> texts;
        for (const auto& each : fs::recursive_directory_iterator(path(name))) {
            if (each.is_regular_file()) texts.insert(read_file(each.path().string()));
        }
        return texts;
    }

    zr::test::TempFolder folder_;
    std::string before_;
};

TEST_F(MailTool, ADefaultStoreIsThereWithoutSetUp) {
    const Result folders = zr({"mail", "folders"});
    EXPECT_EQ(folders.code, 0);
    EXPECT_THAT(lines_of(folders.out),
                ElementsAre("Inbox\t0\t0", "Outbox\t0\t0", "Sent Items\t0\t0", "Drafts\t0\t0", "Deleted Items\t0\t0"));
    EXPECT_EQ(zr({"mail", "list"}).code, 1);
    EXPECT_EQ(zr({"mail", "find", "anything"}).code, 1);
    EXPECT_EQ(zr({"mail", "meetings"}).code, 1);
}

TEST_F(MailTool, EverySampleComesBackByteForByte) {
    std::multiset<std::string> samples;
    std::vector<std::string> args = {"mail", "import"};
    for (const auto& each : fs::directory_iterator(kData)) {
        if (each.path().extension() != ".eml") continue;
        args.push_back(each.path().string());
        samples.insert(read_file(each.path().string()));
    }
    ASSERT_GE(samples.size(), 6u);
    EXPECT_EQ(zr(args).code, 0);
    EXPECT_EQ(exported(), samples);
    // A second time there is nothing new.
    EXPECT_THAT(zr(args).out, HasSubstr("imported 0 messages; " + std::to_string(samples.size()) + " were there"));
    EXPECT_EQ(exported("again"), samples);
    // By way of the other formats, too.
    for (const char* format : {"maildir", "mbox"}) {
        setenv("ZR_HOME", (folder_.host() / "home").c_str(), 1);
        ASSERT_EQ(zr({"mail", "export", "--format", format, path(format)}).code, 0);
        setenv("ZR_HOME", path(std::string(format) + " home").c_str(), 1);
        ASSERT_EQ(zr({"mail", "import", path(format)}).code, 0);
        EXPECT_EQ(exported(std::string(format) + " out"), samples) << format;
    }
}

TEST_F(MailTool, AMessageTellsWhatItIs) {
    const std::string text =
        "From: =?utf-8?Q?J=C3=B6rg?= <joerg@example.com>\nTo: Me <me@example.net>, al@example.com\n"
        "Cc: Team: a@example.com, b@example.com;\nSubject: =?utf-8?B?R3LDvMOfZQ==?=\n"
        "Date: Tue, 2 Jan 2024 11:30:00 +0100\nMessage-ID: <one@example.com>\nImportance: high\n"
        "Content-Type: multipart/mixed; boundary=x\n\n--x\nContent-Type: multipart/alternative; boundary=y\n\n"
        "--y\nContent-Type: text/plain; charset=iso-8859-1\n\nSch\xF6n\n--y\nContent-Type: text/html\n\n<p>Nice</p>\n"
        "--y--\n--x\nContent-Type: application/pdf; name=\"../../evil/re port.pdf\"\n"
        "Content-Disposition: attachment\nContent-Transfer-Encoding: base64\n\naGFsbG8=\n--x--\n";
    ASSERT_EQ(zr({"mail", "import", "-"}, text).code, 0);
    const json row = list().at(0);
    EXPECT_EQ(row["from"]["name"], "Jörg");
    EXPECT_EQ(row["subject"], "Grüße");
    EXPECT_EQ(row["date"], "2024-01-02T10:30:00Z");
    EXPECT_EQ(row["read"], false);
    EXPECT_EQ(row["attachments"], true);
    const std::string id = row["id"];
    const json shown = show(id);
    EXPECT_EQ(shown["text"], "Schön");
    EXPECT_EQ(shown["to"].size(), 2u);
    EXPECT_EQ(shown["cc"].at(1)["address"], "b@example.com");
    EXPECT_EQ(shown["messageId"], "one@example.com");
    // The name of an attachment is no path.
    fs::create_directory(path("save"));
    for (const char* name : {"re port.pdf", "re port (2).pdf"}) {
        EXPECT_EQ(zr({"mail", "attachments", id, "--save", path("save")}).code, 0);
        EXPECT_EQ(read_file(path("save") + "/" + name), "hallo");
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(path("save")), fs::directory_iterator()), 2);
    EXPECT_THAT(zr({"mail", "attachments", id}).out, HasSubstr("application/pdf"));
    expect_failure(zr({"mail", "attachments", id, "--save", path("none")}), 6, "none");
    // It is found by what is in it.
    for (const char* words : {"schon", "joerg@example.com", "Grüße", "gru*"}) {
        EXPECT_EQ(zr({"mail", "find", words}).code, 0) << words;
    }
    EXPECT_EQ(zr({"mail", "find", "absent"}).code, 1);
}

TEST_F(MailTool, WhatHasNoWordIsNotLookedFor) {
    ASSERT_EQ(zr({"mail", "import", "-"}, message(1)).code, 0);
    for (const char* words : {"", " ", "\"", "*", "\"\"", "--", ".", "\xFF"}) {
        const Result result = zr({"mail", "find", "--", words});
        EXPECT_TRUE(result.code == 1 || result.code == 2) << words << ": " << result.err;
        EXPECT_EQ(result.out, "") << words;
    }
    for (const char* words : {"AND", "NOT", "OR", "NEAR(body)", "subject:number", "^body", "body AND", "(", "{body}"}) {
        const Result result = zr({"mail", "find", "--", words});
        EXPECT_LE(result.code, 2) << words << ": " << result.err;
    }
    EXPECT_EQ(zr({"mail", "find", "body", "\"of 1"}).code, 0);
    expect_failure(zr({"mail", "import", "--folder", " ", "-"}, message(1)), 2, "--folder needs a name");
}

TEST_F(MailTool, HtmlAloneIsShownAsText) {
    ASSERT_EQ(
        zr({"mail", "import", "-"}, "From: a@b.c\nSubject: s\nContent-Type: text/html\n\n<p>Hello<br>you &amp; me")
            .code,
        0);
    EXPECT_EQ(show(ids().at(0))["text"], "Hello\nyou & me\n");
    EXPECT_EQ(zr({"mail", "find", "hello"}).code, 0);
}

TEST_F(MailTool, NothingInAMessageSteersTheTerminal) {
    ASSERT_EQ(zr({"mail", "import", "-"},
                 "From: \"\x1b[31mEvil\" <e\x1b@b.c>\nTo: x\x07@y.z\nSubject: a\x1b]0;title\x07 \xE2\x80\xAE\n"
                 "Content-Type: multipart/mixed; boundary=x\n\n--x\n\nred \x1b[31m\r\n\x9b\n--x\n"
                 "Content-Type: a/b; name=\"n\x1b[0m.txt\"\n\n1\n--x--\n")
                  .code,
              0);
    const std::string id = ids().at(0);
    for (const auto& args : std::vector<std::vector<std::string>>{{"mail", "list"},
                                                                  {"mail", "list", "--json"},
                                                                  {"mail", "show", id},
                                                                  {"mail", "show", id, "--headers"},
                                                                  {"mail", "show", id, "--json"},
                                                                  {"mail", "attachments", id},
                                                                  {"mail", "find", "red"}}) {
        const Result result = zr(args);
        for (const char c : result.out) {
            ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\t') << args[1];
        }
        EXPECT_EQ(result.out.find("\xC2\x9B"), std::string::npos) << args[1];
        EXPECT_EQ(result.out.find("\xE2\x80\xAE"), std::string::npos) << args[1];
    }
}

TEST_F(MailTool, AMaildirComesAndGoesWithFlagsAndFolders) {
    for (const char* part : {"M/cur", "M/new", "M/tmp", "M/.Work.Reports/cur", "M/.Work.Reports/new"}) {
        fs::create_directories(path(part));
    }
    put("M/cur/1700000001.a.host:2,FRS", message(1));
    put("M/new/1700000000.b.host", message(2));
    put("M/tmp/1700000002.c.host", message(3));
    put("M/.Work.Reports/cur/1700000003.d.host:2,S", message(4));
    EXPECT_EQ(import({path("M")})["imported"], 3);
    EXPECT_EQ(list().size(), 2u);
    EXPECT_EQ(list("Work/Reports").at(0)["read"], true);
    ASSERT_EQ(zr({"mail", "export", "--format", "maildir", path("N")}).code, 0);
    std::multiset<std::string> letters;
    std::multiset<std::string> texts;
    for (const auto& each : fs::recursive_directory_iterator(path("N"))) {
        if (!each.is_regular_file()) continue;
        const std::string name = each.path().filename().string();
        letters.insert(name.find(":2,") == std::string::npos ? "new" : name.substr(name.find(":2,") + 3));
        texts.insert(read_file(each.path().string()));
    }
    EXPECT_EQ(letters, (std::multiset<std::string>{"FRS", "S", "new"}));
    EXPECT_EQ(texts, (std::multiset<std::string>{message(1), message(2), message(4)}));
    EXPECT_TRUE(fs::is_directory(path("N/.Work.Reports/cur")));
}

// The names below a folder, the parts of messages' names that are the store's own left out.
std::multiset<std::string> maildir_names(const fs::path& maildir) {
    std::multiset<std::string> names;
    for (const auto& each : fs::recursive_directory_iterator(maildir)) {
        if (!each.is_regular_file()) continue;
        const std::string name = each.path().filename().string();
        const std::size_t mark = name.find(":2,");
        names.insert(fs::relative(each.path().parent_path(), maildir).string() + "/" + name.substr(0, name.find('.')) +
                     (mark == std::string::npos ? "" : name.substr(mark)));
    }
    return names;
}

TEST_F(MailTool, FoldersAndFlagsOfAMaildirStayWhatTheyAreBothWays) {
    std::multiset<std::string> names;
    int number = 0;
    for (const char* folder :
         {".", ".Drafts", ".Sent Items", ".Work", ".Work.Reports", ".Entw&APw-rfe.&ZeVnLIqe-", ".Work.Reports.cur"}) {
        for (const char* flags : {"cur", "new", ":2,D", ":2,F", ":2,P", ":2,R", ":2,S", ":2,T", ":2,DFPRST"}) {
            const bool flagged = flags[0] == ':';
            const std::string base = std::string(folder) + (std::string(flags) == "new" ? "/new/" : "/cur/") +
                                     std::to_string(1700000000 + ++number);
            put("M/" + base + ".M1.host" + (flagged ? flags : ""), message(number));
            // Nothing but its place says that somebody has looked at the list.
            names.insert(flagged ? base + flags : std::string(folder) + "/new/" + std::to_string(1700000000 + number));
        }
        for (const char* part : {"cur", "new", "tmp"}) {
            fs::create_directories(path("M") + "/" + folder + "/" + part);
        }
    }
    // The dates of the messages are older than the names, so that these are what an export begins names with.
    std::multiset<std::string> expected;
    for (std::string name : names) {
        const std::size_t at = name.find("/17");
        expected.insert(fs::path(name.substr(0, at)).lexically_normal().string() + "/1704103200" +
                        name.substr(at + 11));
    }
    ASSERT_EQ(import({path("M")})["imported"], number);
    ASSERT_EQ(zr({"mail", "export", "--format", "maildir", path("N")}).code, 0);
    EXPECT_EQ(maildir_names(path("N")), expected);
    setenv("ZR_HOME", path("second").c_str(), 1);
    ASSERT_EQ(import({path("N")})["imported"], number);
    ASSERT_EQ(zr({"mail", "export", "--format", "maildir", path("O")}).code, 0);
    EXPECT_EQ(maildir_names(path("O")), expected);
}

TEST_F(MailTool, ASecondExportToAMaildirRenamesWhatHasOtherFlagsNow) {
    ASSERT_EQ(import({put("1.eml", message(1)), put("2.eml", message(2)), put("3.eml", message(3))})["imported"], 3);
    const auto export_all = [&] { return zr({"mail", "export", "--quiet", "--format", "maildir", path("N")}).code; };
    const auto files = [&] {
        std::map<std::string, std::string> found;  // by the message
        for (const auto& each : fs::recursive_directory_iterator(path("N"))) {
            if (!each.is_regular_file()) continue;
            const bool fresh =
                found.emplace(read_file(each.path().string()), fs::relative(each.path(), path("N")).string()).second;
            EXPECT_TRUE(fresh) << each.path();
        }
        return found;
    };
    ASSERT_EQ(export_all(), 0);
    const std::map<std::string, std::string> first = files();
    ASSERT_EQ(first.size(), 3u);
    const std::string base = fs::path(first.at(message(1))).filename().string();
    EXPECT_EQ(first.at(message(1)), "new/" + base);

    std::string id;
    for (const json& row : list()) {
        if (row["id"].get<std::string>() == base.substr(base.find('.') + 1, base.size() - base.find('.') - 4)) {
            id = row["id"];
        }
    }
    ASSERT_NE(id, "");
    ASSERT_EQ(zr({"mail", "mark", "--read", id}).code, 0);
    ASSERT_EQ(export_all(), 0);
    std::map<std::string, std::string> expected = first;
    expected[message(1)] = "cur/" + base + ":2,S";
    EXPECT_EQ(files(), expected);

    // Whoever looks at a Maildir moves what is new and gives it flags of his own; an earlier version wrote some twice.
    const std::string second = fs::path(first.at(message(2))).filename().string();
    fs::rename(path("N/new/" + second), path("N/cur/" + second + ":2,F"));
    fs::copy_file(path("N/cur/" + base + ":2,S"), path("N/new/" + base));
    ASSERT_EQ(zr({"mail", "mark", "--unread", id}).code, 0);
    ASSERT_EQ(export_all(), 0);
    expected[message(1)] = "cur/" + base + ":2,";
    expected[message(2)] = "cur/" + second + ":2,";
    EXPECT_EQ(files(), expected);
    EXPECT_TRUE(fs::is_empty(path("N/tmp")));
}

TEST_F(MailTool, FoldersWhoseNamesHaveDotsStayApartInAMaildir) {
    const std::vector<std::string> folders = {"a.b", "a_b", "a/b", "a\\2eb", "1.2.3"};
    int number = 0;
    for (const std::string& folder : folders) {
        ++number;
        const std::string file = put(std::to_string(number) + ".eml", message(number));
        ASSERT_EQ(zr({"mail", "import", "--quiet", "--folder", folder, file}).code, 0);
    }
    ASSERT_EQ(zr({"mail", "export", "--quiet", "--format", "maildir", path("N")}).code, 0);
    EXPECT_TRUE(fs::is_directory(path("N/.1\\2e2\\2e3/cur")));
    setenv("ZR_HOME", path("second").c_str(), 1);
    ASSERT_EQ(import({path("N")})["imported"], number);
    for (const std::string& folder : folders) {
        EXPECT_EQ(list(folder).size(), 1u) << folder;
    }
}

TEST_F(MailTool, AMailboxComesBackByteForByte) {
    const std::string mbox =
        "From a@example.com Mon Jan  1 10:00:00 2024\nFrom: a@example.com\nStatus: RO\n\n"
        ">From here\n>>From there\n\n"
        "From b@example.com Tue Jan  2 10:00:00 2024\nFrom: b@example.com\n\nlast\n\n";
    EXPECT_EQ(import({put("in.mbox", mbox)})["imported"], 2);
    const json rows = list();
    EXPECT_EQ(rows.at(0)["read"].get<bool>() + rows.at(1)["read"].get<bool>(), 1);
    ASSERT_EQ(zr({"mail", "export", path("out.mbox"), "--folder", "Inbox"}).code, 0);
    const std::string out = read_file(path("out.mbox"));
    EXPECT_EQ(out.size(), mbox.size());
    EXPECT_THAT(out, HasSubstr(mbox.substr(0, mbox.find("From b@"))));
    EXPECT_THAT(out, HasSubstr(mbox.substr(mbox.find("From b@"))));
    EXPECT_EQ(zr({"mail", "export", "-", "--folder", "Inbox"}).out, out);
}

TEST_F(MailTool, AMailboxOfEveryDialectComesBackByteForByte) {
    const auto with_length = [](const std::string& body) {
        return "From: a@example.com\nContent-Length: " + std::to_string(body.size()) + "\n\n" + body;
    };
    const std::string separator = "From a@example.com Mon Jan  1 10:00:00 2024\n";
    const std::string quoted = separator + "From: a@example.com\n\n>From here\n>>From there\n\n";
    const std::string cl = separator + with_length(">From here\n>>From there\n") + "\n";
    const std::string cl2 = separator + with_length("\nFrom here\n>From there\n\n" + separator + "X: y\n\n") + "\n" +
                            separator + with_length(">From here\n") + "\n";
    for (const auto& [format, mbox] :
         {std::pair<std::string, std::string>{"mbox", quoted}, {"mboxrd", quoted}, {"mboxcl", cl}, {"mboxcl2", cl2}}) {
        const std::string folder = "In " + format;
        ASSERT_EQ(zr({"mail", "import", put(format, mbox), "--folder", folder}).code, 0) << format;
        ASSERT_EQ(zr({"mail", "export", path("out"), "--format", format, "--folder", folder}).code, 0) << format;
        EXPECT_EQ(read_file(path("out")), mbox) << format;
        // For good: what is looked for next was not there before.
        for (const std::string& id : ids(folder)) {
            zr({"mail", "delete", "--permanently", id});
        }
    }
    // Where the dialect must be told.
    const std::string mbox = separator + with_length(">From here\n") + "\n";
    ASSERT_EQ(zr({"mail", "import", put("again", mbox), "--mbox", "mboxcl2"}).code, 0);
    EXPECT_EQ(exported("as they were"), std::multiset<std::string>{with_length(">From here\n")});
    EXPECT_EQ(zr({"mail", "import", path("again"), "--mbox", "mh"}).code, 2);
}

ZR_CHILD(mail_composer) {
    using zr::MailChanges;
    zr::MailSession mail;
    const zr::ComPtr<IMAPIFolder> drafts = mail.folder_named("Drafts");
    zr::ComPtr<IMessage> message;
    zr::check_mail(drafts->CreateMessage(nullptr, 0, message.out()), "creating");
    MailChanges changes;
    changes.text(PR_SUBJECT_W, "Grüße\r\nX-Evil: yes");
    changes.text(PR_SENDER_NAME_W, "Jörg\nBcc: evil@example.com");
    changes.text(PR_SENDER_EMAIL_ADDRESS_W, "joerg@example.com>\r\nX-Evil: <");
    changes.text(PR_BODY_W, "Schön\r\nFrom here\n.\n");
    changes.text(PR_BODY_HTML_W, "<p>Schön</p>");
    changes.text(PR_INTERNET_MESSAGE_ID_W, "made@example.com");
    changes.time(PR_CLIENT_SUBMIT_TIME, 1704103200);
    changes.number(PR_IMPORTANCE, 2);
    changes.apply(message.get(), "creating");
    MailChanges to;
    to.number(PR_RECIPIENT_TYPE, MAPI_CC);
    to.text(PR_DISPLAY_NAME_W, "Doe, Jo");
    to.text(PR_EMAIL_ADDRESS_W, "jo@example.com");
    std::vector<SPropValue> values = to.values();
    ADRLIST list = {1, {{0, static_cast<ULONG>(values.size()), values.data()}}};
    zr::check_mail(message->ModifyRecipients(MODRECIP_ADD, &list), "creating");
    const std::pair<const char*, std::string> files[] = {{"image/png", std::string("\0\xFF\r\n.\n", 6)},
                                                         {"message/rfc822", "From: in@side\r\n\r\nbody\r\n"},
                                                         {"multipart/mixed", "no multipart"}};
    for (const auto& [type, bytes] : files) {
        ULONG number = 0;
        zr::ComPtr<IAttach> attachment;
        zr::check_mail(message->CreateAttach(nullptr, 0, &number, attachment.out()), "attaching");
        MailChanges about;
        about.number(PR_ATTACH_METHOD, ATTACH_BY_VALUE);
        about.text(PR_ATTACH_MIME_TAG_W, type);
        about.text(PR_ATTACH_LONG_FILENAME_W, "é \"" + std::to_string(number) + "\".png");
        about.apply(attachment.get(), "attaching");
        zr::MailStreamWriter writer(attachment.get(), PR_ATTACH_DATA_BIN);
        writer.write(bytes);
        writer.finish();
        zr::check_mail(attachment->SaveChanges(0), "attaching");
    }
    zr::check_mail(message->SaveChanges(0), "creating");
    zr::ComPtr<IMessage> nothing;
    zr::check_mail(drafts->CreateMessage(nullptr, 0, nothing.out()), "creating");
    zr::check_mail(nothing->SaveChanges(0), "creating");
    return 0;
}

TEST_F(MailTool, WhatAProgramMadeIsWrittenFromWhatItSays) {
    ASSERT_EQ(zr::test::Child("mail_composer").wait(), 0);
    const std::multiset<std::string> out = exported();
    ASSERT_EQ(out.size(), 2u);
    const auto full = std::find_if(out.begin(), out.end(), [](const auto& text) { return text.size() > 500; });
    ASSERT_NE(full, out.end());
    EXPECT_THAT(*full, HasSubstr("\r\nMIME-Version: 1.0\r\n"));
    EXPECT_THAT(*full, HasSubstr("Date: Mon, 01 Jan 2024 10:00:00 +0000\r\n"));
    EXPECT_EQ(full->find("\nX-Evil"), std::string::npos);
    EXPECT_EQ(full->find("\nBcc"), std::string::npos);
    EXPECT_EQ(std::count(full->begin(), full->end(), '\n'), std::count(full->begin(), full->end(), '\r'));
    // Every other export gives the same, and a second store reads what the first one had.
    EXPECT_EQ(exported("again"), out);
    for (const char* format : {"maildir", "mbox"}) {
        ASSERT_EQ(zr({"mail", "export", path(std::string("as ") + format), "--format", format}).code, 0);
    }
    setenv("ZR_HOME", path("second").c_str(), 1);
    EXPECT_EQ(import({path("as maildir")})["imported"], 2);
    EXPECT_EQ(import({path("as mbox"), path("out")})["alreadyThere"], 4);
    EXPECT_EQ(exported("of the second"), out);
    const json row = json::parse(zr({"mail", "find", "schon", "--json"}).out).at(0);
    const json shown = show(row["id"]);
    EXPECT_EQ(shown["subject"], "Grüße  X-Evil: yes");
    EXPECT_EQ(shown["from"]["name"], "Jörg Bcc: evil@example.com");
    EXPECT_EQ(shown["cc"], (json::array({{{"name", "Doe, Jo"}, {"address", "jo@example.com"}}})));
    EXPECT_EQ(shown["messageId"], "made@example.com");
    EXPECT_EQ(shown["date"], "2024-01-01T10:00:00Z");
    EXPECT_EQ(shown["text"], "Schön\r\nFrom here\r\n.\r\n");
    std::vector<std::string> types;
    for (const json& file : shown["files"]) {
        types.push_back(file["type"]);
    }
    EXPECT_THAT(types, ElementsAre("image/png", "message/rfc822", "application/octet-stream"));
    EXPECT_EQ(shown["files"].at(0)["name"], "é \"0\".png");
    fs::create_directory(path("save"));
    const json saved = json::parse(zr({"mail", "attachments", row["id"], "--save", path("save"), "--json"}).out);
    EXPECT_EQ(read_file(saved.at(0)["saved"]), std::string("\0\xFF\r\n.\n", 6));
    EXPECT_EQ(read_file(saved.at(1)["saved"]), "From: in@side\r\n\r\nbody\r\n");
    EXPECT_EQ(read_file(saved.at(2)["saved"]), "no multipart");
}

TEST_F(MailTool, WhatIsNoMailIsNamedAndStopsNothing) {
    put("D/1.eml", message(1));
    put("D/2.jpg", std::string("\xFF\xD8\xFF\xE0\0\x10JFIF", 10));
    put("D/3/3.eml", message(3));
    put("D/4.eml", "");
    const Result result = zr({"mail", "import", path("D"), path("none")});
    EXPECT_EQ(result.code, 6);
    EXPECT_THAT(result.err, HasSubstr("2.jpg: not a message"));
    EXPECT_THAT(result.err, HasSubstr("4.eml: not a message"));
    EXPECT_THAT(result.err, HasSubstr("none"));
    EXPECT_THAT(result.out, HasSubstr("imported 2 messages; left out 2 files"));
    EXPECT_EQ(zr({"mail", "import", path("D")}).code, 7);
}

TEST_F(MailTool, DamagedMessagesAreKeptAsTheyAre) {
    std::string nested = "From: a@b.c\nSubject: nested\n";
    for (int i = 0; i < 10000; ++i) {
        const std::string name = "b" + std::to_string(i);
        nested += "Content-Type: multipart/mixed; boundary=" + name + "\n\n--" + name + "\n";
    }
    const std::multiset<std::string> all = {
        nested,
        "From: a@b.c\nSubject: zero\n\na" + std::string("\0b", 2) + "\n",
        "From: a@b.c\nSubject: long\nX-Long: " + std::string(5 << 20, 'x') + "\n\nend\n",
        "From: a@b.c\nDate: Mon, 99 Foo 99999 77:88:99 +9999\nSubject: date\n\n",
        "From: a@b.c\nSubject: set\nContent-Type: text/plain; charset=no-such\n\n\xFF\xFE\n",
        "From: a@b.c\nSubject: open\nContent-Type: multipart/mixed; boundary=x\n\n--x\nContent-Type: text/html",
        "Subject: no line end"};
    int number = 0;
    for (const std::string& text : all) {
        put("D/" + std::to_string(number++) + ".eml", text);
    }
    EXPECT_EQ(import({path("D")})["imported"], static_cast<int>(all.size()));
    EXPECT_EQ(exported(), all);
    for (const std::string& id : ids()) {
        EXPECT_EQ(zr({"mail", "show", id}).code, 0);
    }
}

TEST_F(MailTool, MeetingsHaveTheirClass) {
    const auto calendar = [](int number, const std::string& type, const std::string& body) {
        return message(number, "MIME-Version: 1.0\r\nContent-Type: text/calendar" + type + "\r\n") + body;
    };
    put("D/1.eml", calendar(1, "; method=REQUEST", "BEGIN:VCALENDAR\r\n"));
    put("D/2.eml", calendar(2, "", "BEGIN:VCALENDAR\r\nMETHOD:CANCEL\r\n"));
    put("D/3.eml",
        calendar(3, "", "BEGIN:VCALENDAR\r\nMETHOD:REPLY\r\nATTENDEE;PARTSTAT=DECL\r\n INED:mailto:a@b.c\r\n"));
    put("D/4.eml", calendar(4, "", "BEGIN:VCALENDAR\r\nMETHOD:PUBLISH\r\n"));
    ASSERT_EQ(zr({"mail", "import", path("D")}).code, 0);
    const json all = json::parse(zr({"mail", "meetings", "--json"}).out);
    std::set<std::string> classes;
    for (const json& each : all) {
        classes.insert(each["class"]);
        EXPECT_EQ(each["foreign"], true);
    }
    EXPECT_EQ(classes, (std::set<std::string>{"IPM.Schedule.Meeting.Request", "IPM.Schedule.Meeting.Canceled",
                                              "IPM.Schedule.Meeting.Resp.Neg"}));
    EXPECT_EQ(zr({"mail", "meetings", "--delete-foreign"}).code, 0);
    EXPECT_EQ(zr({"mail", "meetings"}).code, 1);
    EXPECT_EQ(list().size(), 1u);
}

TEST_F(MailTool, MessagesAreMovedSavedMarkedAndDeleted) {
    for (int i = 0; i < 5; ++i) {
        put("D/" + std::to_string(i) + ".eml", message(i));
    }
    ASSERT_EQ(zr({"mail", "import", path("D")}).code, 0);
    const std::vector<std::string> all = ids();
    ASSERT_EQ(all.size(), 5u);
    EXPECT_EQ(zr({"mail", "move", all[0], all[1], "--to", "drafts"}).code, 0);
    EXPECT_EQ(ids("Drafts"), (std::vector<std::string>{all[0], all[1]}));
    EXPECT_EQ(zr({"mail", "save", all[2]}).code, 0);
    EXPECT_EQ(ids("Saved"), std::vector<std::string>{all[2]});
    EXPECT_EQ(zr({"mail", "delete", all[3]}).code, 0);
    EXPECT_EQ(ids("Deleted Items"), std::vector<std::string>{all[3]});
    EXPECT_EQ(zr({"mail", "delete", all[3], "--permanently"}).code, 0);
    EXPECT_EQ(zr({"mail", "list", "Deleted Items"}).code, 1);
    EXPECT_EQ(zr({"mail", "mark", all[4], "--read"}).code, 0);
    EXPECT_EQ(list().at(0)["read"], true);
    EXPECT_EQ(zr({"mail", "list", "--unread"}).code, 1);
    EXPECT_EQ(zr({"mail", "mark", all[4], "--unread"}).code, 0);
    EXPECT_EQ(zr({"mail", "list", "--unread"}).code, 0);
    // What is not there is named, the rest is done.
    const Result result = zr({"mail", "move", all[3], all[4], "--to", "Drafts"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr(all[3]));
    EXPECT_EQ(ids("Drafts").size(), 3u);
    expect_failure(zr({"mail", "move", all[4], "--to", "Nowhere"}), 1, "no such folder");
    expect_failure(zr({"mail", "mark", all[4]}), 2, "--read");
    for (const char* id : {"", "x", "12", "1234", "abcdef0123456789", "zr"}) {
        EXPECT_EQ(zr({"mail", "show", id}).code, 1) << id;
    }
}

TEST_F(MailTool, TheSameIdentifierWithOtherBytesIsAnotherMessage) {
    put("1.eml", message(1));
    put("2.eml", message(1, "X-More: 1\r\n"));
    const json result = import({path("1.eml"), path("2.eml"), path("1.eml"), path("2.eml")});
    EXPECT_EQ(result["imported"], 2);
    EXPECT_EQ(result["alreadyThere"], 2);
    // Without an identifier the bytes are one.
    put("3.eml", "From: a@b.c\n\nx\n");
    EXPECT_EQ(import({path("3.eml"), path("3.eml")})["imported"], 1);
}

TEST_F(MailTool, TheSenderIsTheContactsName) {
    ASSERT_EQ(zr({"contacts", "add", "--file-as", "Doe, Jo", "--email", "jo@example.com"}).code, 0);
    ASSERT_EQ(zr({"mail", "import", "-"}, message(1)).code, 0);
    EXPECT_THAT(zr({"mail", "list"}).out, HasSubstr("\tDoe, Jo\tnumber 1"));
    const std::string id = ids().at(0);
    EXPECT_THAT(zr({"resolve", id}).out, HasSubstr("jo@example.com: one: Doe, Jo"));
    expect_failure(zr({"resolve", "1234"}), 1, "no such message");
}

TEST_F(MailTool, AWatcherMissesNothing) {
    zr::test::RunningZr watcher({"mail", "watch", "--json"}, zr::test::RunningZr::Errors::ToOutput);
    EXPECT_THAT(watcher.read_line(), HasSubstr("watching"));
    std::vector<std::thread> importers;
    for (int each = 0; each < 3; ++each) {
        importers.emplace_back([&, each] {
            std::string mbox;
            for (int i = 0; i < 40; ++i) {
                mbox += "From a Mon Jan  1 10:00:00 2024\n" + message(each * 100 + i) + "\n";
            }
            EXPECT_EQ(zr({"mail", "import", "-"}, mbox).code, 0);
        });
    }
    std::set<std::string> seen;
    for (int i = 0; i < 120; ++i) {
        seen.insert(json::parse(watcher.read_line())["subject"]);
    }
    EXPECT_EQ(seen.size(), 120u);
    for (std::thread& each : importers) {
        each.join();
    }
    watcher.kill(SIGTERM);
    EXPECT_EQ(watcher.wait(), 0);
}

TEST_F(MailTool, AWatcherNamesTheSenderAsTheContactIsCalledBy) {
    zr::test::RunningZr watcher({"mail", "watch"}, zr::test::RunningZr::Errors::ToOutput);
    EXPECT_THAT(watcher.read_line(), HasSubstr("watching"));
    ASSERT_EQ(zr({"mail", "import", "-"}, message(1)).code, 0);
    EXPECT_THAT(watcher.read_line(), HasSubstr("\tJo Doe\tnumber 1"));
    ASSERT_EQ(zr({"contacts", "add", "--file-as", "Doe, Jo", "--email", "jo@example.com"}).code, 0);
    ASSERT_EQ(zr({"mail", "import", "-"}, message(2)).code, 0);
    EXPECT_THAT(watcher.read_line(), HasSubstr("\tDoe, Jo\tnumber 2"));
}

// Whatever moment an import is killed at: the next one brings the rest, and nothing is there twice or half.
TEST_F(MailTool, AKilledImportLeavesWholeMessages) {
    std::multiset<std::string> all;
    std::string mbox;
    for (int i = 0; i < 300; ++i) {
        const std::string text = message(i, "X-Fill: " + std::string(1 + i * 37 % 5000, 'x') + "\r\n");
        all.insert(text);
        mbox += "From a Mon Jan  1 10:00:00 2024\n" + text + "\r\n";
    }
    const std::string file = put("in.mbox", mbox);
    std::mt19937 random(11);
    for (int round = 0; round < 30; ++round) {
        zr::test::RunningZr import({"mail", "import", file, file});
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 60000));
        import.kill(SIGKILL);
        import.wait();
        const std::multiset<std::string> now = exported("out" + std::to_string(round));
        EXPECT_TRUE(std::includes(all.begin(), all.end(), now.begin(), now.end())) << round;
    }
    EXPECT_EQ(zr({"mail", "import", file}).code, 0);
    EXPECT_EQ(exported("last"), all);
}

// A store that may not grow is a disk that is full.
TEST_F(MailTool, AFullDiskKeepsWholeMessagesAndTheNextImportBringsTheRest) {
    constexpr int kMessages = 3000;
    std::multiset<std::string> all;
    std::string mbox;
    for (int i = 0; i < kMessages; ++i) {
        const std::string text = "From a Mon Jan  1 10:00:00 2024\n" + message(i) + "\r\n";
        all.insert(text);
        mbox += text;
    }
    const std::string file = put("in.mbox", mbox);
    const auto kept = [] {
        const std::string out = zr({"mail", "export", "-"}).out;
        std::multiset<std::string> texts;
        for (std::size_t at = 0, end = 0; at < out.size(); at = end) {
            end = std::min(out.find("From a Mon", at + 1), out.size());
            texts.insert(out.substr(at, end - at));
        }
        return texts;
    };
    std::size_t before = 0;
    for (const char* limit : {"1000", "5000"}) {  // blocks of 512 bytes
        const std::string command = "ulimit -f " + std::string(limit) + " && exec \"$0\" \"$@\"";
        expect_failure(zr::test::run({"sh", "-c", command, ZR_TOOL, "mail", "import", "--quiet", file}), 8,
                       "messages are in, the rest is not");
        const std::multiset<std::string> now = kept();
        EXPECT_TRUE(std::includes(all.begin(), all.end(), now.begin(), now.end()));
        EXPECT_LT(now.size(), all.size());
        EXPECT_GE(now.size(), before);
        before = now.size();
    }
    EXPECT_GT(before, 0u);
    EXPECT_EQ(import({file})["imported"], kMessages - static_cast<int>(before));
    EXPECT_EQ(kept(), all);
}

TEST_F(MailTool, TwoMoversLoseNothing) {
    std::string mbox;
    for (int i = 0; i < 30; ++i) {
        mbox += "From a Mon Jan  1 10:00:00 2024\n" + message(i) + "\n";
    }
    ASSERT_EQ(zr({"mail", "import", "-"}, mbox).code, 0);
    const std::vector<std::string> all = ids();
    const auto mover = [&](const std::string& target) {
        std::vector<std::string> args = {"mail", "move"};
        args.insert(args.end(), all.begin(), all.end());
        args.insert(args.end(), {"--to", target});
        for (int round = 0; round < 5; ++round) {
            const int code = zr(args).code;
            EXPECT_TRUE(code == 0 || code == 1) << code;
        }
    };
    std::thread other([&] { mover("Drafts"); });
    mover("Outbox");
    other.join();
    std::multiset<std::string> found;
    for (const char* folder : {"Inbox", "Drafts", "Outbox"}) {
        for (const std::string& id : ids(folder)) {
            found.insert(id);
        }
    }
    EXPECT_EQ(found, std::multiset<std::string>(all.begin(), all.end()));
}

TEST_F(MailTool, ADamagedStoreIsSetAside) {
    ASSERT_EQ(zr({"mail", "import", "-"}, message(1)).code, 0);
    const std::string file = path("home/mail.db");
    ASSERT_TRUE(fs::exists(file));
    std::string bytes = read_file(file);
    for (std::size_t i = 0; i < bytes.size(); i += 512) {
        bytes[i] = static_cast<char>(bytes[i] ^ 0x55);
    }
    write_file(file, bytes);
    const Result result = zr({"mail", "list"});
    EXPECT_NE(result.code, 0);
    bool kept = false;
    for (const auto& each : fs::directory_iterator(path("home"))) {
        kept = kept || each.path().filename().string().starts_with("mail.db.damaged");
    }
    EXPECT_TRUE(kept);
    EXPECT_EQ(zr({"mail", "import", "-"}, message(1)).code, 0);
}

}  // namespace
}  // namespace mail_tool_test
