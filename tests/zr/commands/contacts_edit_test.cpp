// zr contacts find anywhere, edit, and fields of all kinds.

#include <nlohmann/json.hpp>

#include "zr/commands/own_store.h"

namespace {

using nlohmann::json;
using zr::test::expect_failure;
using zr::test::lines_of;
using zr::test::read_file;
using zr::test::Result;
using zr::test::zr;

class People : public zr::test::OwnStore {
protected:
    void SetUp() override {
        OwnStore::SetUp();
        const std::string card =
            "BEGIN:VCARD\nVERSION:3.0\nUID:jo-1\nFN:Jo Müller\nN:Müller;Jo;;;\nTEL;TYPE=CELL:+49 (171) 555-01\n"
            "TEL;TYPE=X-SHIP:0800 99 88 77\nNOTE:likes Tea\nADR;TYPE=HOME:;;1 Elm Road;Reading;;;\n"
            "X-NICKNAMES:Speedy\nEND:VCARD\n";
        ASSERT_EQ(zr({"contacts", "import", "-"}, card).code, 0);
        ASSERT_EQ(zr({"contacts", "add", "--last", "Other", "--work-city", "Leeds"}).code, 0);
    }
    static bool finds(const std::vector<std::string>& words) {
        std::vector<std::string> args = {"contacts", "find"};
        args.insert(args.end(), words.begin(), words.end());
        const Result result = zr(args);
        EXPECT_EQ(lines_of(result.out).size(), result.code == 0 ? 1u : 0u) << result.out;
        return result.code == 0;
    }
    // An editor that does what a line of shell does with "$1".
    Result edit(const std::string& script, const std::vector<std::string>& options = {}) const {
        setenv("EDITOR", ("sh -c '" + script + "' sh").c_str(), 1);
        unsetenv("VISUAL");
        setenv("TMPDIR", folder().c_str(), 1);
        std::vector<std::string> args = {"contacts", "edit", "jo-1"};
        args.insert(args.end(), options.begin(), options.end());
        const Result result = zr(args);
        unsetenv("EDITOR");
        unsetenv("TMPDIR");
        return result;
    }
    std::size_t folders_of_edits() const {
        std::size_t count = 0;
        for (const auto& each : std::filesystem::directory_iterator(folder())) {
            if (each.path().filename().string().starts_with("zr-edit-")) ++count;
        }
        return count;
    }
    static json contact() { return json::parse(zr({"contacts", "show", "jo-1", "--json"}).out)[0]; }
};

TEST_F(People, AreFoundByAnyField) {
    EXPECT_TRUE(finds({"MÜLL"}));
    EXPECT_TRUE(finds({"üller"}));
    EXPECT_TRUE(finds({"tea"}));
    EXPECT_TRUE(finds({"elm r"}));
    EXPECT_TRUE(finds({"speedy"}));
    EXPECT_TRUE(finds({"leeds", "--field", "address"}));
    EXPECT_FALSE(finds({"leeds", "--field", "note"}));
    EXPECT_FALSE(finds({"üller", "--begins"}));
    EXPECT_TRUE(finds({"müll", "--begins"}));
}

TEST_F(People, AreFoundByTheDigitsOfANumber) {
    EXPECT_TRUE(finds({"0171 555"}));
    EXPECT_TRUE(finds({"+4917155501"}));
    EXPECT_TRUE(finds({"171-55"}));
    EXPECT_TRUE(finds({"8009988"}));  // of a kind that no field has
    EXPECT_FALSE(finds({"0172"}));
    EXPECT_FALSE(finds({"17155501", "--field", "note"}));
}

TEST_F(People, AreShownWithAllThatIsKept) {
    const std::string text = zr({"contacts", "show", "jo-1"}).out;
    EXPECT_NE(text.find("X-NICKNAMES:Speedy"), std::string::npos) << text;
    EXPECT_EQ(text.find("TYPE=CELL"), std::string::npos) << text;
    EXPECT_NE(zr({"contacts", "show", "jo-1", "--all"}).out.find("TEL;TYPE=CELL:"), std::string::npos);
    const json all = json::parse(zr({"contacts", "show", "jo-1", "--json", "--all"}).out)[0];
    EXPECT_NE(all["lines"].get<std::string>().find("TEL;TYPE=CELL:"), std::string::npos);
}

TEST_F(People, HaveAllNumbersAndAddresses) {
    ASSERT_EQ(zr({"contacts", "change", "jo-1", "--home-fax", "1-2", "--pager", "3", "--other-country", "France",
                  "--anniversary", "2015-06-20", "--children", "Al; Bea", "--email", "jo.m+x@sub.example"})
                  .code,
              0);
    const json changed = contact();
    EXPECT_EQ(changed["homeFax"], "1-2");
    EXPECT_EQ(changed["pager"], "3");
    EXPECT_EQ(changed["otherCountry"], "France");
    EXPECT_EQ(changed["anniversary"], "2015-06-20");
    EXPECT_EQ(changed["children"], "Al; Bea");
    for (const char* const bad : {"jo", "@x.y", "jo@", "a b@x.y", "jo@x@y", "<jo@x.y>", "jo@x..y", "jo@x.y,al@x.y"}) {
        expect_failure(zr({"contacts", "change", "jo-1", "--email", bad}), 2, "is no address");
    }
    EXPECT_EQ(contact()["emails"], json::array({"jo.m+x@sub.example"}));
}

TEST_F(People, AreEditedAsCards) {
    const Result result = edit("sed -i s/^NOTE:.*/NOTE:coffee/ \"$1\"", {"--json"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(json::parse(result.out)["note"], "coffee");
    EXPECT_EQ(contact()["note"], "coffee");
    EXPECT_NE(contact()["extras"].get<std::string>().find("X-NICKNAMES"), std::string::npos);
    EXPECT_EQ(edit("true").err, "zr: nothing was changed\n");
    // The identifier stays although its line is gone.
    EXPECT_EQ(edit("sed -i /^UID/d \"$1\"").code, 0);
    EXPECT_EQ(contact()["note"], "coffee");
    EXPECT_EQ(folders_of_edits(), 0u);
}

TEST_F(People, GetADamagedCardBackWithTheReason) {
    // The first time it is broken, the second time the reason is in front, and it is mended.
    const Result mended =
        edit("if grep -q ^# \"$1\"; then cp \"$1\" " + file("seen") +
             "; sed -i \"/^#/d; s/^nonsense/NOTE:mended/\" \"$1\"; else sed -i s/^NOTE:.*/nonsense/ \"$1\"; fi");
    EXPECT_EQ(mended.code, 0) << mended.err;
    EXPECT_EQ(contact()["note"], "mended");
    EXPECT_TRUE(read_file(file("seen")).starts_with("# line ")) << read_file(file("seen"));
    EXPECT_NE(read_file(file("seen")).find("a line without a colon"), std::string::npos);
    const Result left = edit("sed -i s/^END:.*// \"$1\"");
    EXPECT_EQ(left.code, 7);
    EXPECT_NE(left.err.find("not saved: "), std::string::npos) << left.err;
    EXPECT_EQ(contact()["note"], "mended");
    EXPECT_EQ(folders_of_edits(), 1u);  // with what was written
}

TEST_F(People, AreNotOverwrittenByAnEdit) {
    const Result other = edit("\"" ZR_TOOL "\" contacts change jo-1 --note other; sed -i s/^NOTE:.*/NOTE:mine/ \"$1\"");
    EXPECT_EQ(other.code, 11) << other.err;
    EXPECT_NE(other.err.find("changed meanwhile"), std::string::npos);
    EXPECT_EQ(contact()["note"], "other");
    expect_failure(edit("exit 3"), 6, "ended with 3");
    expect_failure(zr({"contacts", "edit", "nobody"}), 1, "no contact nobody");
}

}  // namespace
