#include "zr/mail/mime_reader.h"
#include "support/instrumented.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace mime_reader_test {
namespace {

using testing::ElementsAre;
using zr::PartHeader;

struct Part {
    PartHeader header;
    std::string bytes;
    bool ended = false;
};

// Keeps all that a walk tells.
class Parts final : public zr::MimeSink {
public:
    bool header(std::string_view header) override {
        header_ = header;
        ++headers;
        return wanted;
    }
    void begin_part(const PartHeader& part) override {
        EXPECT_TRUE(parts.empty() || parts.back().ended);
        parts.push_back({part, "", false});
    }
    void part_bytes(std::string_view bytes) override { parts.back().bytes += bytes; }
    void end_part() override { parts.back().ended = true; }

    std::vector<std::string> types() const {
        std::vector<std::string> types;
        for (const Part& part : parts) {
            EXPECT_TRUE(part.ended);
            types.push_back(part.header.type);
        }
        return types;
    }
    const std::string& text() const { return header_; }

    bool wanted = true;
    int headers = 0;
    std::vector<Part> parts;

private:
    std::string header_;
};

Parts walk(const std::string& message) {
    Parts parts;
    EXPECT_EQ(zr::read_mime(zr::read_from_memory(message), parts), 0);
    return parts;
}

std::string multipart(const std::string& subtype, const std::string& body) {
    return "From: a@b.c\nContent-Type: multipart/" + subtype + "; boundary=\"x y\"\n\n" + body;
}

TEST(MimeReader, APlainMessageIsOnePart) {
    const Parts parts = walk("From: a@b.c\r\nSubject: s\r\n\r\nline\r\n\r\nlast");
    EXPECT_EQ(parts.text(), "From: a@b.c\r\nSubject: s\r\n");
    ASSERT_EQ(parts.parts.size(), 1u);
    EXPECT_EQ(parts.parts[0].header.type, "text/plain");
    EXPECT_EQ(parts.parts[0].header.depth, 0);
    EXPECT_EQ(parts.parts[0].bytes, "line\r\n\r\nlast");
}

TEST(MimeReader, WhatStandsBeforeTheHeaderIsPassedOver) {
    EXPECT_EQ(walk("\xEF\xBB\xBF\n\r\nFrom: a@b.c\n\nx").text(), "From: a@b.c\n");
    EXPECT_EQ(walk("From a Mon Jan  1 00:00:00 2024\nFrom: a@b.c\n\nx").text(), "From: a@b.c\n");
    EXPECT_EQ(walk("").headers, 0);
    EXPECT_EQ(walk("\n\n").headers, 0);
    EXPECT_EQ(walk("From: a@b.c").text(), "From: a@b.c");
}

TEST(MimeReader, PartsComeInTheirOrder) {
    const Parts parts = walk(multipart("mixed",
                                       "before\n--x y\nContent-Type: text/html; charset=UTF-8\n\n<p>\n--x y  \n"
                                       "Content-Type: image/png; name=\"a.png\"\nContent-Disposition: attachment;\n"
                                       " filename*=utf-8''%C3%A9.png\nContent-Id: <one@two>\n"
                                       "Content-Transfer-Encoding: base64\n\naGFs\nbG8=\n--x y--\nbehind"));
    EXPECT_THAT(parts.types(), ElementsAre("text/html", "image/png"));
    EXPECT_EQ(parts.parts[0].bytes, "<p>");
    EXPECT_EQ(parts.parts[0].header.charset, "utf-8");
    EXPECT_FALSE(parts.parts[0].header.is_attachment);
    const Part& picture = parts.parts[1];
    EXPECT_EQ(picture.bytes, "hallo");
    EXPECT_EQ(picture.header.name, "é.png");
    EXPECT_EQ(picture.header.content_id, "one@two");
    EXPECT_TRUE(picture.header.is_attachment);
    EXPECT_EQ(picture.header.depth, 1);
}

TEST(MimeReader, PartsInPartsAreFollowed) {
    const Parts parts = walk(
        multipart("mixed",
                  "--x y\nContent-Type: multipart/alternative; boundary=in\n\n--in\n\nplain\n--in\n"
                  "Content-Type: text/html\n\n<b>\n--in--\n--x y\nContent-Type: text/x; name=n\n\nend\n--x y--\n"));
    EXPECT_THAT(parts.types(), ElementsAre("text/plain", "text/html", "text/x"));
    EXPECT_TRUE(parts.parts[0].header.is_alternative);
    EXPECT_EQ(parts.parts[0].header.depth, 2);
    EXPECT_FALSE(parts.parts[2].header.is_alternative);
    EXPECT_EQ(parts.parts[2].header.name, "n");
}

TEST(MimeReader, AMessageInAMessageIsOnePart) {
    const Parts parts = walk(multipart(
        "digest", "--x y\n\nFrom: in@side\n\ntext\n--x y\nContent-Type: message/rfc822\n\nFrom: b@c\n\n--x y--"));
    EXPECT_THAT(parts.types(), ElementsAre("message/rfc822", "message/rfc822"));
    EXPECT_EQ(parts.parts[0].bytes, "From: in@side\n\ntext");
}

TEST(MimeReader, TransferEncodingsAreUndone) {
    const auto body = [](const std::string& encoding, const std::string& text) {
        const Parts parts = walk("From: a@b.c\nContent-Transfer-Encoding: " + encoding + "\n\n" + text);
        return parts.parts.at(0).bytes;
    };
    EXPECT_EQ(body("quoted-printable", "a=3Db=\nc =C3=A9\n"), "a=bc \xC3\xA9\n");
    EXPECT_EQ(body("BASE64", "aGFsbG8="), "hallo");
    EXPECT_EQ(body("8bit", "\xE9\n"), "\xE9\n");
    EXPECT_EQ(body("no-such", "=3D\n"), "=3D\n");
    EXPECT_EQ(body("base64", "!!!! aGFs *** bG8"), "hal");
}

TEST(MimeReader, ACalendarTellsItsMethod) {
    const Parts parts = walk("From: a@b.c\nContent-Type: text/calendar; method=request\n\nBEGIN:VCALENDAR\n");
    EXPECT_EQ(parts.parts[0].header.method, "REQUEST");
}

TEST(MimeReader, MissingBoundariesLoseNothing) {
    // The last one.
    EXPECT_EQ(walk(multipart("mixed", "--x y\n\none\n--x y\n\ntwo\n")).parts.at(1).bytes, "two\n");
    // All of them.
    EXPECT_EQ(walk(multipart("mixed", "text without\nany\n")).parts.at(0).bytes, "text without\nany\n");
    // The parameter.
    EXPECT_EQ(walk("From: a@b.c\nContent-Type: multipart/mixed\n\ntext\n").parts.at(0).bytes, "text\n");
    // The inner one: the outer one ends both.
    const Parts parts = walk(multipart("mixed",
                                       "--x y\nContent-Type: multipart/mixed; boundary=in\n\n--in\n\none\n--x y\n\n"
                                       "two\n--x y--\n"));
    EXPECT_THAT(parts.types(), ElementsAre("text/plain", "text/plain"));
    EXPECT_EQ(parts.parts[0].bytes, "one");
    EXPECT_EQ(parts.parts[1].bytes, "two");
    // A part that is over before its header is.
    EXPECT_EQ(walk(multipart("mixed", "--x y\nContent-Type: text/html\n--x y--\n")).parts.at(0).bytes, "");
}

TEST(MimeReader, WhatOnlyBeginsLikeABoundaryIsText) {
    const Parts parts = walk(multipart("mixed", "--x y\n\n--x yz\n--x\n --x y\n-- \n--x y---\n--x y--\n"));
    ASSERT_EQ(parts.parts.size(), 1u);
    EXPECT_EQ(parts.parts[0].bytes, "--x yz\n--x\n --x y\n-- \n--x y---");
}

TEST(MimeReader, TenThousandLevelsEndAtTheDeepest) {
    std::string message = "From: a@b.c\n";
    for (int i = 0; i < 10000; ++i) {
        const std::string name = "b" + std::to_string(i);
        message += "Content-Type: multipart/mixed; boundary=" + name + "\n\n--" + name + "\n";
    }
    message += "\ntext\n";
    const Parts parts = walk(message);
    ASSERT_EQ(parts.parts.size(), 1u);
    EXPECT_EQ(parts.parts[0].header.depth, zr::kDeepest);
    EXPECT_EQ(parts.parts[0].header.type, "multipart/mixed");
    EXPECT_TRUE(parts.parts[0].bytes.ends_with("\ntext\n"));
}

TEST(MimeReader, AHundredThousandPartsAreEachOne) {
    constexpr std::size_t kParts = 100'000 / zr::test::kStride;
    std::string body;
    for (std::size_t i = 0; i < kParts; ++i) {
        body += "--x y\n\n" + std::to_string(i) + "\n";
    }
    const Parts parts = walk(multipart("mixed", body + "--x y--\n"));
    ASSERT_EQ(parts.parts.size(), kParts);
    EXPECT_EQ(parts.parts.back().bytes, std::to_string(kParts - 1));
}

// Hands out a header of any length without holding it.
TEST(MimeReader, OfALongHeaderTheBeginningIsKept) {
    constexpr std::size_t kLong = (std::size_t{100} << 20) / zr::test::kStride;
    const std::string begin = "From: a@b.c\nX-Long: ";
    const std::string end = "\nSubject: behind\n\nbody\n";
    std::size_t at = 0;
    Parts parts;
    EXPECT_EQ(zr::read_mime(
                  [&](char* buffer, std::size_t size) {
                      std::size_t count = 0;
                      for (; count < size && at < begin.size() + kLong + end.size(); ++count, ++at) {
                          buffer[count] = at < begin.size()           ? begin[at]
                                          : at < begin.size() + kLong ? 'x'
                                                                      : end[at - begin.size() - kLong];
                      }
                      return static_cast<ssize_t>(count);
                  },
                  parts),
              0);
    EXPECT_LE(parts.text().size(), zr::kLongestHeader);
    EXPECT_TRUE(parts.text().starts_with(begin));
    ASSERT_EQ(parts.parts.size(), 1u);
    EXPECT_EQ(parts.parts[0].bytes, "body\n");
}

TEST(MimeReader, LongLinesAndZeroBytesComeWhole) {
    std::string body(300000, 'x');
    body[100] = '\0';
    body += "\r\n" + std::string(70000, '\r') + "\n";
    EXPECT_EQ(walk("From: a@b.c\n\n" + body).parts.at(0).bytes, body);
    EXPECT_EQ(walk(multipart("mixed", "--x y\n\n" + body + "\n--x y--\n")).parts.at(0).bytes, body);
}

TEST(MimeReader, EveryCutGivesTheSame) {
    const std::string message = multipart(
        "mixed", "--x y\r\nContent-Transfer-Encoding: base64\r\n\r\naGFsbG8=\r\n--x y\r\n\r\na\r\nb\r\n--x y--\r\n");
    const Parts whole = walk(message);
    for (std::size_t step = 1; step < 40; ++step) {
        std::size_t at = 0;
        Parts parts;
        EXPECT_EQ(zr::read_mime(
                      [&](char* buffer, std::size_t size) {
                          const std::size_t count = std::min({size, step, message.size() - at});
                          std::memcpy(buffer, message.data() + at, count);
                          at += count;
                          return static_cast<ssize_t>(count);
                      },
                      parts),
                  0);
        ASSERT_EQ(parts.types(), whole.types()) << step;
        EXPECT_EQ(parts.parts[0].bytes, "hallo");
        EXPECT_EQ(parts.parts[1].bytes, "a\r\nb");
    }
}

TEST(MimeReader, AMessageOfNoInterestIsNotReadOn) {
    Parts parts;
    parts.wanted = false;
    EXPECT_EQ(zr::read_mime(zr::read_from_memory("From: a@b.c\n\ntext"), parts), 0);
    EXPECT_EQ(parts.headers, 1);
    EXPECT_TRUE(parts.parts.empty());
}

TEST(MimeReader, AFailingReadIsTold) {
    Parts parts;
    const auto failing = [](char*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(zr::read_mime(failing, parts), EIO);
}

}  // namespace
}  // namespace mime_reader_test
