#include "zr/mail/html_source.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zr::HtmlPart;
using zr::text_page;
using zr::with_parts;

constexpr std::size_t kPlenty = 1000;

std::string with_logo(const std::string& html, std::size_t most = kPlenty) {
    return with_parts(
        html,
        [](const std::string& id) {
            return id == "logo@x" ? HtmlPart{"image/png", "PNG"} : HtmlPart{};
        },
        most);
}

TEST(HtmlParts, StandInPlaceOfTheirAddresses) {
    const std::string data = "data:image/png;base64,UE5H";
    EXPECT_EQ(with_logo("<img src=\"cid:logo@x\" alt='a'>"), "<img src=\"" + data + "\" alt='a'>");
    EXPECT_EQ(with_logo("<img src='CID:logo@x'>"), "<img src='" + data + "'>");
    EXPECT_EQ(with_logo("<img src=cid:logo@x>"), "<img src=" + data + ">");
    EXPECT_EQ(with_logo("<p style=\"background:url(cid:logo%40x)\">"), "<p style=\"background:url(" + data + ")\">");
    EXPECT_EQ(with_logo("<img src=cid:logo@x><img src=cid:logo@x"), "<img src=" + data + "><img src=" + data);
}

TEST(HtmlParts, StayNamedInVain) {
    for (const std::string html :
         {"", "c", "cid:", "cid:logo@x", "<img src=\"cid:other\">", "<p>acid:logo@x",
          "<img src=cid:", "<img src=cid:logo%4>", "<img src=cid:logo%zzx>", "<a href=\"x?cid:logo@x\">"}) {
        EXPECT_EQ(with_logo(html), html);
    }
}

TEST(HtmlParts, AreNoMoreThanThereIsRoomFor) {
    const std::string html = "<img src=cid:logo@x><img src=cid:logo@x>";
    EXPECT_EQ(with_logo(html, 5), "<img src=data:image/png;base64,UE5H><img src=cid:logo@x>");
    EXPECT_EQ(with_logo(html, 2), html);
}

TEST(HtmlParts, CannotWriteThePage) {
    const std::string html = with_parts(
        "<img src=cid:a>",
        [](const std::string&) {
            return HtmlPart{"image/png\"><script>", "x"};
        },
        kPlenty);
    EXPECT_EQ(html, "<img src=data:application/octet-stream;base64,eA==>");
}

TEST(HtmlParts, AreAskedForByIdentifier) {
    std::vector<std::string> asked;
    with_parts(
        "<img src=cid:a%20b> <img src='cid:%3Cc%3E'>",
        [&](const std::string& id) {
            asked.push_back(id);
            return HtmlPart{};
        },
        kPlenty);
    EXPECT_EQ(asked, (std::vector<std::string>{"a b", "<c>"}));
}

TEST(TextPage, KeepsText) {
    EXPECT_EQ(text_page("a <b> & c\n"),
              "<!DOCTYPE html><pre style=\"white-space:pre-wrap;overflow-wrap:anywhere\">\na &lt;b> &amp; c\n</pre>\n");
}

}  // namespace
