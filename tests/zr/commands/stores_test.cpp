// Stores that cannot be written to, or that are damaged beside others.

#include <unistd.h>

#include "support/sql.h"
#include "zr/commands/own_store.h"

namespace {

using zr::test::lines_of;
using zr::test::Result;
using zr::test::write_file;
using zr::test::zr;

class Stores : public zr::test::OwnStore {
protected:
    // As somebody whom permissions bind.
    static Result bound(std::vector<std::string> args) {
        args.insert(args.begin(), ZR_TOOL);
        if (::geteuid() == 0) args.insert(args.begin(), {"setpriv", "--bounding-set=-dac_override,-dac_read_search"});
        return zr::test::run(args);
    }
    void allow_writing(bool allowed) const {
        using std::filesystem::perms;
        for (const auto& each : std::filesystem::directory_iterator(home())) {
            std::filesystem::permissions(each.path(),
                                         allowed ? perms::owner_read | perms::owner_write : perms::owner_read);
        }
        std::filesystem::permissions(home(), allowed ? perms::owner_all : perms::owner_read | perms::owner_exec);
    }
    void TearDown() override {
        if (std::filesystem::exists(home())) allow_writing(true);
    }
};

TEST_F(Stores, ThatCannotBeWrittenToAreReadAllTheSame) {
    ASSERT_EQ(zr({"contacts", "add", "--first", "Jo", "--email", "jo@x.example"}).code, 0);
    ASSERT_EQ(zr({"reg", "set", "HKCU\\A", "n", "v"}).code, 0);
    const std::vector<std::vector<std::string>> reading = {{"contacts", "list"},   {"contacts", "find", "jo"},
                                                           {"contacts", "export"}, {"reg", "tree"},
                                                           {"reg", "find", "v"},   {"resolve", "jo@x.example"}};
    std::vector<std::string> before;
    for (const auto& args : reading) {
        before.push_back(zr(args).out);
    }
    allow_writing(false);
    for (std::size_t i = 0; i < reading.size(); ++i) {
        const Result result = bound(reading[i]);
        EXPECT_EQ(result.code, 0) << reading[i][0] << " " << reading[i].back() << result.err;
        EXPECT_EQ(result.out, before[i]);
        EXPECT_EQ(result.err, "");
    }
    const Result refused = bound({"contacts", "add", "--first", "Al"});
    EXPECT_EQ(refused.code, 11) << refused.err;
    EXPECT_NE(refused.err.find("Permission denied"), std::string::npos) << refused.err;
    allow_writing(true);
    EXPECT_EQ(lines_of(zr({"contacts", "list"}).out).size(), 1u);
}

TEST_F(Stores, MailIsListedWithoutTheNamesOfDamagedContacts) {
    ASSERT_EQ(zr({"mail", "import", zr::test::kData + "from-jo.eml"}).code, 0);
    write_file(home() / "pim.db", std::string(8192, 'x'));
    for (const auto& args : {std::vector<std::string>{"mail", "list"}, {"mail", "find", "Friday"}}) {
        write_file(home() / "pim.db", std::string(8192, 'x'));
        const Result result = zr(args);
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_EQ(lines_of(result.out).size(), 1u);
        ASSERT_EQ(lines_of(result.err).size(), 1u) << result.err;
        EXPECT_TRUE(result.err.starts_with("zr: warning: the names of contacts are left out: ")) << result.err;
    }
}

}  // namespace
