// What zr says to somebody who mistyped a word.

#include <gtest/gtest.h>

#include "zr/base/nearest.h"
#include "zr/commands/own_store.h"

namespace {

using zr::test::expect_failure;

class Usage : public zr::test::OwnStore {};

TEST_F(Usage, AMistypedWordIsNamedWithTheNearestOne) {
    const auto refused = [](const std::vector<std::string>& args, const std::string& part) {
        const auto result = zr::test::zr(args);
        EXPECT_EQ(result.out, "");
        expect_failure(result, 2, part);
    };
    refused({"contcats"}, "no command 'contcats'; did you mean 'contacts'?");
    refused({"contacts", "lst"}, "no command 'lst'; did you mean 'list'?");
    refused({"reg", "xyzzy"}, "no command 'xyzzy' (");
    refused({"contacts", "list", "--revrese"}, "no option '--revrese'; did you mean '--reverse'?");
    refused({"contacts", "list", "--sort=lats"}, "'lats' is none of");
    refused({"contacts", "list", "--sort=lats"}, "did you mean 'last'?");
    refused({"mail", "export", "x", "--format", "mbxo"}, "did you mean 'mbox'?");
}

TEST(Nearest, IsTheWordWithFewestChanges) {
    const std::vector<std::string> words = {"list", "show", "import", "export"};
    EXPECT_EQ(zr::nearest("lsit", words), "list");
    EXPECT_EQ(zr::nearest("imp", words), "import");
    EXPECT_EQ(zr::nearest("EXPROT", words), "export");
    EXPECT_EQ(zr::nearest("elsewhere", words), "");
    EXPECT_EQ(zr::nearest("", words), "");
    EXPECT_EQ(zr::nearest(std::string(100000, 'x'), words), "");
}

}  // namespace
