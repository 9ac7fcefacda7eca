// zr html and zr mail show --html, run as a user does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace html_tool_test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using zr::test::expect_failure;
using zr::test::read_file;
using zr::test::Result;
using zr::test::write_file;
using zr::test::zr;

class HtmlTool : public testing::Test {
protected:
    HtmlTool() {
        const char* const home = std::getenv("ZR_HOME");
        before_ = home != nullptr ? home : "";
        setenv("ZR_HOME", (folder_.host() / "home").c_str(), 1);
    }
    ~HtmlTool() override { setenv("ZR_HOME", before_.c_str(), 1); }

    void SetUp() override {
        const Result shown = zr({"html", put("probe.html", "")});
        if (shown.code == 16 && shown.err.find("library may be missing") != std::string::npos)
            GTEST_SKIP() << shown.err;
    }

    std::string path(const std::string& name) const { return (folder_.host() / name).string(); }
    std::string put(const std::string& name, const std::string& text) const {
        write_file(path(name), text);
        return path(name);
    }

private:
    zr::test::TempFolder folder_;
    std::string before_;
};

// Width and height of a PNG file.
std::pair<unsigned, unsigned> png_size(const std::string& bytes) {
    if (bytes.size() < 24 || bytes.compare(0, 8, "\x89PNG\r\n\x1A\n") != 0) return {0, 0};
    const auto number = [&](std::size_t at) {
        unsigned value = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
        }
        return value;
    };
    return {number(16), number(20)};
}

TEST_F(HtmlTool, PrintsTheTextThatIsSeen) {
    const Result shown =
        zr({"html", "-"}, "<title>T</title><p>Hello <b>you</b> &amp; me<p style=display:none>not me<p>\u20AC \tx");
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_EQ(shown.out, "Hello you & me\n\n\u20AC x\n");
    EXPECT_EQ(shown.err, "");
    const Result nothing = zr({"html", "-", "--text"}, "");
    EXPECT_EQ(nothing.code, 0) << nothing.err;
    EXPECT_EQ(nothing.out, "");
    const json object = json::parse(zr({"html", put("a.html", "<title>T</title>x"), "--json"}).out);
    EXPECT_EQ(object, (json{{"title", "T"}, {"text", "x"}}));
}

TEST_F(HtmlTool, ReadsFilesOfManySets) {
    EXPECT_EQ(zr({"html", put("koi.html", "<meta charset=koi8-r><p>\xD0\xD2\xC9")}).out, "\u043F\u0440\u0438\n");
    EXPECT_EQ(zr({"html", put("old.html", "<p>caf\xE9")}).out, "caf\u00E9\n");
    EXPECT_EQ(zr({"html", put("wide.html", std::string("\xFF\xFE<\0p\0>\0\xAC\x20", 10))}).out, "\u20AC\n");
    EXPECT_EQ(zr({"html", put("mark.html", "\xEF\xBB\xBFx")}).out, "x\n");
    EXPECT_EQ(zr({"html", put("nul.html", std::string("a\0b", 3))}).out, "a b\n");
}

TEST_F(HtmlTool, ListsLinks) {
    const std::string page = put("links.html",
                                 "<a href='http://example.org/a'> one\n <b>link</b></a><a name=x>none</a>"
                                 "<a href='mailto:jo@example.com'>two</a><a href='http://example.org/b'><img></a>");
    const Result plain = zr({"html", page, "--links"});
    EXPECT_EQ(plain.code, 0) << plain.err;
    EXPECT_EQ(plain.out, "http://example.org/a\tone link\nmailto:jo@example.com\ttwo\nhttp://example.org/b\t\n");
    const json object = json::parse(zr({"html", page, "--links", "--json"}).out);
    ASSERT_EQ(object["links"].size(), 3u);
    EXPECT_EQ(object["links"][0], (json{{"address", "http://example.org/a"}, {"text", "one link"}}));
    const Result none = zr({"html", "-", "--links"}, "<p>x");
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(none.out, "");
}

TEST_F(HtmlTool, RunsAScript) {
    const std::string page = put("s.html", "<p id=a>text");
    const auto value = [&](const std::string& script) {
        const Result result = zr({"html", page, "--script", script, "--json"});
        EXPECT_EQ(result.code, 0) << script << result.err;
        return json::parse(result.out)["value"];
    };
    EXPECT_EQ(value("1 + 1"), 2);
    EXPECT_EQ(value("1 / 4"), 0.25);
    EXPECT_EQ(value("'a' + document.getElementById('a').textContent"), "atext");
    EXPECT_EQ(value("1 == 1"), true);
    EXPECT_EQ(value("null"), nullptr);
    EXPECT_EQ(zr({"html", page, "--script", "undefined"}).out, "undefined\n");
    EXPECT_EQ(zr({"html", page, "--script", "0/0"}).out, "NaN\n");
    expect_failure(zr({"html", page, "--script", "no such thing"}), 16, "script");
}

TEST_F(HtmlTool, EndsAnEndlessScript) {
    expect_failure(zr({"html", "-", "--script", "while (true) {}"}, "<p>x"), 16, "answer");
}

TEST_F(HtmlTool, DrawsAPicture) {
    const std::string page = put("p.html", "<body bgcolor=red><p>x");
    const Result usual = zr({"html", page, "--png", path("a.png")});
    EXPECT_EQ(usual.code, 0) << usual.err;
    EXPECT_EQ(usual.out, "");
    EXPECT_EQ(png_size(read_file(path("a.png"))), std::make_pair(240u, 320u));
    const Result wide = zr({"html", page, "--png", path("a.png"), "--width", "300", "--height", "50", "--text"});
    EXPECT_EQ(wide.code, 0) << wide.err;
    EXPECT_EQ(wide.out, "x\n");
    EXPECT_EQ(png_size(read_file(path("a.png"))), std::make_pair(300u, 50u));
    expect_failure(zr({"html", page, "--png", path("none/a.png")}), 6, "none");
}

TEST_F(HtmlTool, LetsNothingSteerTheTerminal) {
    const std::string page = put("evil.html",
                                 "<title>\x1B]0;t\x07</title><a href='http://x/\u202E'>\x1B[31mred\u202E \x1E\x1F\x9B"
                                 "</a><p>\u0085\u2028x");
    for (const std::vector<std::string>& options :
         std::vector<std::vector<std::string>>{{},
                                               {"--links"},

                                               {"--script", "'\\u001b[2J\\r\\u0007\\u202e'"},
                                               {"--links", "--json"}}) {
        std::vector<std::string> args = {"html", page};
        args.insert(args.end(), options.begin(), options.end());
        const Result result = zr(args);
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_NE(result.out, "");
        for (const std::string steering : {"\x1B", "\x07", "\r", "\u202E", "\u0085", "\u009B", "\u2028"}) {
            EXPECT_EQ(result.out.find(steering), std::string::npos);
        }
    }
}

TEST_F(HtmlTool, FetchesNothing) {
    const std::string page = put("far.html",
                                 "<img id=i src='http://127.0.0.1:9/x.gif'><img id=j src='file:///etc/hostname'>"
                                 "<iframe src='http://127.0.0.1:9/'></iframe><script>document.title='ran'</script>");
    const json object = json::parse(zr({"html", page, "--json", "--script", "document.images[0].naturalWidth"}).out);
    EXPECT_EQ(object["value"], 0);
    EXPECT_EQ(object["title"], "");
}

TEST_F(HtmlTool, RefusesWhatIsWrong) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"html"},
                                               {"html", "-", "--text", "--links"},
                                               {"html", "-", "--links", "--script", "1"},
                                               {"html", "-", "--width", "0"},
                                               {"html", "-", "--width", "99999", "--png", "x.png"},
                                               {"mail", "show", "1", "--links"},
                                               {"mail", "show", "1", "2", "--html", "--png", "x.png"}}) {
        EXPECT_EQ(zr(args).code, 2) << args.back();
    }
    expect_failure(zr({"html", path("none.html")}), 6, "none.html");
    expect_failure(zr({"html", path("")}), 6, "directory");
}

// ---- Messages ----

class HtmlMail : public HtmlTool {
protected:
    std::string import(const std::string& message) const {
        EXPECT_EQ(zr({"mail", "import", put("m.eml", message)}).code, 0);
        const json list = json::parse(zr({"mail", "list", "Inbox", "--json"}).out);
        return list.empty() ? "" : list.back()["id"];
    }

    static std::string message(const std::string& body) {
        return "From: Jo <jo@example.com>\r\nTo: me@example.net\r\nSubject: News\r\nDate: Mon, 1 Jan 2024 10:00:00 "
               "+0000\r\nMessage-ID: <1@example.com>\r\nMIME-Version: 1.0\r\n" +
               body;
    }
};

TEST_F(HtmlMail, IsShownWithItsPictures) {
    const std::string id = import(message(
        "Content-Type: multipart/related; boundary=b\r\n\r\n--b\r\nContent-Type: text/html; charset=utf-8\r\n\r\n"
        "<h1>News</h1><img src=\"cid:dot@x\" width=10 height=10><p hidden>no</p><a href='http://example.org/'>more</a>"
        "\r\n--b\r\nContent-Type: image/gif\r\nContent-ID: <dot@x>\r\nContent-Transfer-Encoding: base64\r\n"
        "Content-Disposition: inline; filename=dot.gif\r\n\r\n"
        "R0lGODlhAQABAIAAAP8AAAAAACwAAAAAAQABAAACAkQBADs=\r\n--b--\r\n"));
    const Result shown = zr({"mail", "show", id, "--html"});
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_THAT(shown.out, HasSubstr("Subject: News\n"));
    EXPECT_THAT(shown.out, HasSubstr("\n\nNews\n"));
    EXPECT_EQ(shown.out.find("no\n"), std::string::npos);
    EXPECT_EQ(zr({"mail", "show", id, "--html", "--links"}).out, "http://example.org/\tmore\n");
    EXPECT_EQ(zr({"mail", "show", id, "--html", "--script", "document.images[0].naturalWidth"}).out, "1\n");
    EXPECT_EQ(zr({"mail", "show", id, "--html", "--png", path("m.png")}).out, "");
    EXPECT_EQ(png_size(read_file(path("m.png"))), std::make_pair(240u, 320u));
    const json object = json::parse(zr({"mail", "show", id, "--html", "--links", "--json"}).out).at(0);
    EXPECT_EQ(object["subject"], "News");
    EXPECT_EQ(object["links"][0]["text"], "more");
}

TEST_F(HtmlMail, OfPlainTextIsAPage) {
    const std::string id =
        import(message("Content-Type: text/plain; charset=utf-8\r\n\r\nfirst <line> & more\r\n\r\n  third\r\n"));
    const Result shown = zr({"mail", "show", id, "--html"});
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_THAT(shown.out, HasSubstr("\n\nfirst <line> & more\n\n  third\n"));
    EXPECT_EQ(zr({"mail", "show", id, "--html", "--links"}).code, 1);
}

TEST_F(HtmlMail, ThatIsNotThereIsNone) {
    EXPECT_EQ(zr({"mail", "show", "180400000004", "--html"}).code, 1);
}

}  // namespace
}  // namespace html_tool_test
