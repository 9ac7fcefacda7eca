#include "zr/mail/mbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <vector>
#include "support/instrumented.h"

namespace mbox_test {
namespace {

using testing::ElementsAre;
using zr::MboxMessage;

constexpr const char* kSeparator = "From jo@example.com Mon Jan  1 10:00:00 2024";

std::string bytes_of(const zr::ReadAtFunction& read, const MboxMessage& message, std::size_t step = 7) {
    const zr::ReadFunction next = zr::message_bytes(read, message);
    std::string bytes;
    std::vector<char> buffer(step);
    for (ssize_t got = 0; (got = next(buffer.data(), buffer.size())) > 0;) {
        bytes.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return bytes;
}

std::vector<std::string> messages(const std::string& mbox, zr::Mbox dialect = zr::Mbox::Guess) {
    const zr::ReadAtFunction read = zr::read_at_memory(mbox);
    zr::MboxReader reader(read, dialect);
    std::vector<std::string> all;
    for (MboxMessage message; reader.next(message);) {
        all.push_back(bytes_of(read, message));
    }
    EXPECT_EQ(reader.error(), 0);
    return all;
}

std::string mailbox(const std::vector<std::string>& all, zr::Mbox dialect = zr::Mbox::Rd) {
    std::string mbox;
    zr::MboxWriter writer([&](std::string_view bytes) { mbox += bytes; }, dialect);
    for (const std::string& message : all) {
        writer.add(kSeparator, [&](const zr::MboxWriter::Write& take) {
            // In pieces of every kind.
            for (std::size_t at = 0, step = 1; at < message.size(); at += step, step = step % 9 + 1) {
                take(std::string_view(message).substr(at, step));
            }
        });
    }
    return mbox;
}

std::string with_separator(const std::string& message) {
    return std::string(kSeparator) + "\n" + message;
}

TEST(Mbox, MessagesEndBeforeTheBlankLine) {
    EXPECT_THAT(messages(with_separator("A: 1\n\none\n\n") + with_separator("A: 2\n\ntwo\n\n")),
                ElementsAre("A: 1\n\none\n", "A: 2\n\ntwo\n"));
    // Without the last blank line, or line end.
    EXPECT_THAT(messages(with_separator("A: 1\n\none\n")), ElementsAre("A: 1\n\none\n"));
    EXPECT_THAT(messages(with_separator("A: 1\n\none")), ElementsAre("A: 1\n\none"));
    EXPECT_THAT(messages(""), ElementsAre());
}

TEST(Mbox, LineEndsStayAsTheyAre) {
    const std::string first = "From a Mon Jan  1 10:00:00 2024\r\nA: 1\r\n\r\none\r\n\r\n";
    EXPECT_THAT(messages(first + first), ElementsAre("A: 1\r\n\r\none\r\n", "A: 1\r\n\r\none\r\n"));
}

TEST(Mbox, TheSeparatorIsKept) {
    const std::string mbox = with_separator("A: 1\n\n\n");
    zr::MboxReader reader(zr::read_at_memory(mbox));
    MboxMessage message;
    ASSERT_TRUE(reader.next(message));
    EXPECT_EQ(message.separator, kSeparator);
    EXPECT_FALSE(reader.next(message));
}

TEST(Mbox, QuotedLinesLoseOneQuote) {
    EXPECT_THAT(messages(with_separator("A: 1\n\n>From me\n>>From you\n>Fro\n> From\nx>From \n>\n\n")),
                ElementsAre("A: 1\n\nFrom me\n>From you\n>Fro\n> From\nx>From \n>\n"));
}

TEST(Mbox, WhatIsNoSeparatorIsText) {
    // Behind no blank line, without a date, and with no header behind.
    const std::string body =
        "x\nFrom a Mon Jan  1 10:00:00 2024\n\nFrom me to you\n\nFrom a Mon Jan  1 10:00:00 2024\n"
        "that was a quote, no header\n";
    EXPECT_THAT(messages(with_separator("A: 1\n\n" + body + "\n")), ElementsAre("A: 1\n\n" + body));
}

TEST(Mbox, SeparatorsOfManyProgramsAreKnown) {
    for (const char* separator : {"From - Sat Jan 06 10:00:00 2024", "From MAILER-DAEMON Fri Jul  8 12:08:34 2011",
                                  "From a@b.c Mon Jan  1 10:00:00 CET 2024", "From a@b.c Mon Jan 1 10:00 2024",
                                  "From a@b.c  1 Jan 2024 10:00:00", "From ???@??? Mon Jan 01 00:00:00 1997",
                                  "From \"jo doe\"@b.c Mon Jan  1 10:00:00 +0100 2024"}) {
        const std::string mbox = with_separator("A: 1\n\none\n\n") + separator + "\nA: 2\n\ntwo\n";
        EXPECT_EQ(messages(mbox).size(), 2u) << separator;
    }
}

TEST(Mbox, ADeclaredLengthCountsWhereItIsRight) {
    const std::string body = "one\n\n" + with_separator("B: no header\n\n") + ">From here\n";
    const std::string header = "A: 1\nContent-Length: " + std::to_string(body.size()) + "\n\n";
    const std::string second = with_separator("A: 2\n\ntwo\n");
    // Nothing is quoted where a bare line stands.
    EXPECT_THAT(messages(with_separator(header + body + "\n") + second), ElementsAre(header + body, "A: 2\n\ntwo\n"));
    // A wrong one is none.
    const std::string wrong = "A: 1\nContent-Length: 3\n\nlonger than that\n";
    EXPECT_THAT(messages(with_separator(wrong + "\n") + second), ElementsAre(wrong, "A: 2\n\ntwo\n"));
    const std::string huge = "A: 1\nContent-Length: 99999999999999999999\n\nx\n";
    EXPECT_THAT(messages(with_separator(huge + "\n") + second), ElementsAre(huge, "A: 2\n\ntwo\n"));
    // With a right one, lines may be quoted nevertheless.
    const std::string quoted = "A: 1\nContent-Length: 12\n\n>From there\n";
    EXPECT_THAT(messages(with_separator(quoted + "\n") + second),
                ElementsAre("A: 1\nContent-Length: 12\n\nFrom there\n", "A: 2\n\ntwo\n"));
}

TEST(Mbox, ADialectThatIsGivenIsNotGuessed) {
    const std::string body = ">From one\n>>From two\n";
    const std::string header = "A: 1\nContent-Length: " + std::to_string(body.size()) + "\n\n";
    const std::string mbox = with_separator(header + body + "\n") + with_separator("A: 2\n\n");
    const std::string all = "From one\n>From two\n";
    for (const auto& [dialect, expected] : {std::pair{zr::Mbox::Guess, all},
                                            {zr::Mbox::Rd, all},
                                            {zr::Mbox::Cl, all},
                                            {zr::Mbox::O, std::string("From one\n>>From two\n")},
                                            {zr::Mbox::Cl2, body}}) {
        EXPECT_THAT(messages(mbox, dialect), ElementsAre(header + expected, "A: 2\n"));
    }
    // Lengths mean nothing to those that have none.
    const std::string inside = "\n" + with_separator("A: 2\n\ntwo\n");
    const std::string two = with_separator("A: 1\nContent-Length: " + std::to_string(inside.size()) + "\n\n" + inside);
    EXPECT_EQ(messages(two).size(), 1u);
    EXPECT_EQ(messages(two, zr::Mbox::Rd).size(), 2u);
}

TEST(Mbox, OneBareLineShowsWhatTheWholeMailboxIs) {
    const auto with_length = [](const std::string& body) {
        return "A: 1\nContent-Length: " + std::to_string(body.size()) + "\n\n" + body;
    };
    const std::string quote = with_length(">From an older mailbox\n");
    const std::string bare = with_length("\nFrom me to you\n");
    const std::string mbox = with_separator(quote + "\n") + with_separator(bare + "\n");
    EXPECT_THAT(messages(mbox), ElementsAre(quote, bare));
}

TEST(Mbox, EveryDialectGivesBackWhatWasWritten) {
    const std::vector<std::string> all = {"A: 1\n\nFrom me\n\nFrom a Mon Jan  1 10:00:00 2024\nB: 2\n\n",
                                          "A: 2\r\n\r\n>From you\r\n>>From us\r\n",
                                          "A: 3\n\nno line end",
                                          "A: 4\nContent-Length: 999\n\nwrong\n\n\n",
                                          "A: 5\n",
                                          "A: 6\nX: " + std::string(70000, 'x') + "\n\nFrom me\n"};
    for (const zr::Mbox dialect : {zr::Mbox::Cl, zr::Mbox::Cl2}) {
        const std::string mbox = mailbox(all, dialect);
        const std::vector<std::string> read = messages(mbox, dialect);
        ASSERT_EQ(read.size(), all.size());
        // The length apart, which was not there, or wrong.
        EXPECT_EQ(read[0].substr(read[0].find("\n\n")), all[0].substr(all[0].find("\n\n")));
        EXPECT_THAT(read[1], testing::MatchesRegex("A: 2\r\nContent-Length: [0-9]+\r\n\r\n>From you\r\n>>From us\r\n"));
        EXPECT_EQ(read[2], "A: 3\nContent-Length: 11\n\nno line end");
        EXPECT_EQ(read[3], "A: 4\nContent-Length: 8\n\nwrong\n\n\n");
        EXPECT_EQ(read[4], all[4]);
        EXPECT_EQ(read[5], all[5]);
        // From then on nothing changes any more: the mailbox neither.
        EXPECT_EQ(mailbox(read, dialect), mbox);
        EXPECT_EQ(messages(mailbox(read, dialect), dialect), read);
    }
    EXPECT_THAT(messages(mailbox({"A: 1\n\nFrom me\n>From you\n"}, zr::Mbox::O), zr::Mbox::O),
                ElementsAre("A: 1\n\nFrom me\nFrom you\n"));
}

TEST(Mbox, LongMessagesAreFoundWhole) {
    std::string longer = "A: 1\n\n";
    for (int i = 0; i < 100000; ++i) {
        longer += "line number " + std::to_string(i) + "\n";
    }
    const std::string shorter = "A: 2\n\ntwo\n";
    EXPECT_THAT(messages(mailbox({longer, shorter, longer})), ElementsAre(longer, shorter, longer));
}

TEST(Mbox, EveryPlaceOfASeparatorIsFound) {
    // Around where one look at the file ends.
    for (std::size_t size = (std::size_t{256} << 10) - 80; size < (std::size_t{256} << 10) + 80;
         size += zr::test::kStride) {
        const std::string first = "A: 1\n\n" + std::string(size, 'x') + "\n";
        ASSERT_EQ(messages(mailbox({first, "A: 2\n\n"})).size(), 2u) << size;
    }
}

TEST(Mbox, WhatWasWrittenIsReadAgain) {
    std::mt19937 random(7);
    const std::string pieces[] = {"From ", ">",    "From a Mon Jan  1 10:00:00 2024\n",
                                  "\n",    "\r\n", "A: b\n",
                                  "Fro",   "x",    ">>From ",
                                  " ",     "\n\n", std::string(1, '\0')};
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::string> all(1 + random() % 3);
        for (std::string& message : all) {
            message = "A: 1\n\n";
            for (std::size_t i = random() % 20; i > 0; --i) {
                message += pieces[random() % std::size(pieces)];
            }
            // A message of lines; one without a last line end gets one in a mailbox.
            if (!message.ends_with('\n')) message += "\n";
        }
        ASSERT_EQ(messages(mailbox(all)), all) << mailbox(all);
    }
}

TEST(Mbox, OneLineOfQuotesCostsWhatItsLengthTakes) {
    const std::string message = "A: 1\n\n" + std::string(3000000, '>') + "From x\n>From y\n";
    EXPECT_THAT(messages(mailbox({message})), ElementsAre(message));
}

TEST(Mbox, ManySeparatorsInADeclaredLengthAreReadOnce) {
    std::string body;
    for (int i = 0; i < 20000; ++i) {
        body += "\n" + with_separator("A: 1\n");
    }
    const std::string message = "A: 1\nContent-Length: " + std::to_string(body.size()) + "\n\n" + body;
    EXPECT_EQ(messages(with_separator(message)).size(), 1u);
}

TEST(Mbox, AFailingReadIsTold) {
    zr::MboxReader reader([](char*, std::size_t, std::uint64_t) -> ssize_t {
        errno = EIO;
        return -1;
    });
    MboxMessage message;
    EXPECT_FALSE(reader.next(message));
    EXPECT_EQ(reader.error(), EIO);
}

TEST(Mbox, OnlyMailboxesBeginLikeOne) {
    EXPECT_TRUE(zr::begins_mbox("From jo\nA: b\n"));
    EXPECT_TRUE(zr::begins_mbox("From jo"));
    EXPECT_FALSE(zr::begins_mbox("From: jo\n"));
    EXPECT_FALSE(zr::begins_mbox("From me to you\nwith love\n"));
    EXPECT_FALSE(zr::begins_mbox(""));
}

}  // namespace
}  // namespace mbox_test
