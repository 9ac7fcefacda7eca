// What is exported and imported into an empty store is exported the same.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace {

using zr::test::Result;
using zr::test::write_file;
using zr::test::zr;

class RoundTrip : public testing::Test {
protected:
    void use_store(const std::string& name) {
        std::filesystem::create_directory(folder_.host() / name);
        setenv("ZR_HOME", (folder_.host() / name).c_str(), 1);
    }
    std::string file(const std::string& name) const { return folder_.host() / name; }

    // What the command writes, but for the time of writing.
    static std::string exported(const std::vector<std::string>& command) {
        const Result result = zr(command);
        EXPECT_EQ(result.code, 0) << result.err;
        return std::regex_replace(result.out, std::regex("DTSTAMP:[0-9TZ]+\r\n"), "");
    }

    // Its components, in an order of their own: a series comes behind what is read before its calendar ends.
    static std::vector<std::string> components(const std::string& calendar) {
        std::vector<std::string> all;
        for (std::size_t at = 0; at != std::string::npos;) {
            const std::size_t next = calendar.find("BEGIN:V", at + 1);
            all.push_back(calendar.substr(at, next - at));
            at = next;
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    // All sample files of a kind, in a store of their own.
    void import_samples(const std::string& kind, const std::string& corpus, const std::string& ending) {
        use_store("samples");
        std::vector<std::string> command = {kind, "import"};
        for (const std::string& folder : {"/fuzz/corpus/" + corpus, std::string("/examples/data")}) {
            for (const auto& entry : std::filesystem::directory_iterator(ZR_SOURCE_DIR + folder)) {
                if (entry.path().extension() == ending) command.push_back(entry.path());
            }
        }
        ASSERT_GT(command.size(), 6u);
        ASSERT_EQ(zr(command).code, 7);  // some are damaged
    }

private:
    zr::test::TempFolder folder_;
};

TEST_F(RoundTrip, OfContactsInEveryVersion) {
    import_samples("contacts", "vcard", ".vcf");
    // Each version has its way to write a day, and several kinds; in which order the lines of a card stand says
    // nothing.
    const auto cards = [] {
        std::string text = exported({"contacts", "export"});
        text = std::regex_replace(text, std::regex("\r\n "), "");
        text = std::regex_replace(text, std::regex("(BDAY.*:....)-(..)-"), "$1$2");
        text = std::regex_replace(text, std::regex(";TYPE=", std::regex::icase), ",");
        std::vector<std::string> lines = zr::test::lines_of(text);
        for (auto begin = lines.begin(); begin != lines.end();) {
            const auto end = std::find(begin, lines.end(), "END:VCARD\r");
            if (end == lines.end()) break;
            std::sort(begin, end);
            begin = end + 1;
        }
        return lines;
    };
    const std::vector<std::string> all = cards();
    EXPECT_GT(all.size(), 80u);
    for (const char* version : {"2.1", "3.0", "4.0"}) {
        use_store("samples");
        write_file(file("cards"), exported({"contacts", "export", "--vcard-version", version}));
        use_store(std::string("again-") + version);
        const Result import = zr({"contacts", "import", file("cards")});
        EXPECT_EQ(import.code, 0) << import.err;
        EXPECT_EQ(cards(), all) << version;
    }
}

TEST_F(RoundTrip, OfAppointmentsAndTasks) {
    setenv("TZ", "Europe/Berlin", 1);
    import_samples("calendar", "calendar", ".ics");
    const std::string all = exported({"calendar", "export"});
    EXPECT_GT(std::count(all.begin(), all.end(), '\n'), 100);
    write_file(file("calendar"), all);
    use_store("again");
    zr({"calendar", "import", file("calendar")});
    EXPECT_EQ(components(exported({"calendar", "export"})), components(all));
    unsetenv("TZ");
}

}  // namespace
