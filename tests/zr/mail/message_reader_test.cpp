#include "zr/mail/message_reader.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "zr/mail/recipients.h"

namespace {

using zr::Message;
using zr::MessageStatus;
using zr::read_from_memory;
using zr::read_message;

Message read(const std::string& text) {
    return read_message(read_from_memory(text));
}

Message with_from(const std::string& from) {
    return read("Date: Mon, 1 Jan 2024 10:00:00 +0000\r\nFrom: " + from + "\r\nSubject: x\r\n\r\nbody\r\n");
}

void expect_sender(const Message& message, const std::string& name, const std::string& address) {
    ASSERT_EQ(message.status, MessageStatus::Ok);
    ASSERT_EQ(message.senders.size(), 1u);
    EXPECT_EQ(message.senders[0].name, name);
    EXPECT_EQ(message.senders[0].address, address);
}

TEST(MessageReader, ReadsEveryFormOfFrom) {
    expect_sender(with_from("jo@example.com"), "", "jo@example.com");
    expect_sender(with_from("Jo Doe <jo@example.com>"), "Jo Doe", "jo@example.com");
    expect_sender(with_from("\"Doe, Jo\" <jo@example.com>"), "Doe, Jo", "jo@example.com");
    expect_sender(with_from("jo@example.com (Jo Doe)"), "Jo Doe", "jo@example.com");
    expect_sender(with_from("=?UTF-8?Q?J=C3=B6rg?= =?ISO-8859-1?Q?_M=FCller?= <j@example.com>"), "Jörg Müller",
                  "j@example.com");
    expect_sender(with_from("=?utf-8?B?5bGx55Sw?=\r\n <y@example.jp>"), "山田", "y@example.jp");
    expect_sender(with_from("Jörg <j@example.com>"), "Jörg", "j@example.com");
    expect_sender(with_from("J\xF6rg <j@example.com>"), "Jörg", "j@example.com");
}

TEST(MessageReader, ReadsGroupsAndSeveralSenders) {
    const Message group = with_from("Team: a@x.y, B <b@x.y>;");
    ASSERT_EQ(group.senders.size(), 2u);
    EXPECT_EQ(group.senders[1].address, "b@x.y");
    const Message list = with_from("a@x.y, B <b@x.y>");
    ASSERT_EQ(list.senders.size(), 2u);
    EXPECT_EQ(list.subject, "x");
}

TEST(MessageReader, SkipsWhatStandsBeforeTheHeader) {
    expect_sender(read("From jo@x.y Mon Jan  1 10:00:00 2024\nFrom: jo@x.y\n\nbody"), "", "jo@x.y");
    expect_sender(read("\xEF\xBB\xBF\r\nFrom: jo@x.y\r\n\r\n"), "", "jo@x.y");
    expect_sender(read("From: jo@x.y"), "", "jo@x.y");
}

TEST(MessageReader, ReadsNoFurtherThanTheHeader) {
    std::string text = "From: jo@x.y\r\n\r\nFrom: other@x.y\r\n";
    text.append(1 << 20, 'x');
    std::size_t given = 0;
    const auto all = read_from_memory(text);
    const Message message = read_message([&](char* buffer, std::size_t size) {
        const ssize_t n = all(buffer, size);
        given += static_cast<std::size_t>(n);
        return n;
    });
    expect_sender(message, "", "jo@x.y");
    EXPECT_LE(given, 65536u);
}

TEST(MessageReader, TellsWhatIsNotUsable) {
    EXPECT_EQ(read("").status, MessageStatus::NotAMessage);
    EXPECT_EQ(read("Just a letter to you.\n\nBye: me\n").status, MessageStatus::NotAMessage);
    EXPECT_EQ(read("BEGIN:VCARD\r\nFN:Jo\r\nEND:VCARD\r\n").status, MessageStatus::NotAMessage);
    EXPECT_EQ(read(std::string("\x7F"
                               "ELF\0\0\0",
                               7))
                  .status,
              MessageStatus::NotAMessage);
    EXPECT_EQ(read("To: jo@x.y\r\n\r\n").status, MessageStatus::NoSender);
    EXPECT_EQ(with_from("").status, MessageStatus::NoSender);
    EXPECT_EQ(with_from("undisclosed:;").status, MessageStatus::NoSender);
    const Message unreadable = read_message([](char*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(unreadable.status, MessageStatus::Unreadable);
    EXPECT_EQ(unreadable.error, EIO);
}

TEST(Recipients, AreSplitByTheLibrary) {
    const auto two = zr::split_recipients("\"Doe, Jo\" <jo@x.y>; al@x.y");
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[0].name, "Doe, Jo");
    EXPECT_EQ(two[0].address, "jo@x.y");
    EXPECT_EQ(two[1].name, "");
    EXPECT_EQ(two[1].address, "al@x.y");
    EXPECT_TRUE(zr::split_recipients("").empty());
    EXPECT_TRUE(zr::split_recipients(" ;<>; @ ").empty());
}

TEST(MessageReader, GivesLegalAddressesAsTheyStand) {
    expect_sender(with_from("a|b@x.org"), "", "a|b@x.org");
    expect_sender(with_from("Al <\"a;b\"@x.org>"), "Al", "\"a;b\"@x.org");
    expect_sender(with_from("\"A; <B>\" <c@x.org>"), "A; <B>", "c@x.org");
}

TEST(MessageReader, DecodesEncodedWordsOneByOne) {
    const auto decoded = [](const std::string& words) {
        const Message message = read("From: jo@x.y\r\nSubject: " + words + "\r\n\r\n");
        return message.subject;
    };
    EXPECT_EQ(decoded("=?UTF-8?B?TXlTdXJ2ZXk=?= =?UTF-8?B?LmNvbSAmIEM=?="), "MySurvey.com & C");
    EXPECT_EQ(decoded("=?UTF-8?B?TXlTdXJ2ZXk=?=\r\n =?utf-8?q?.com?= x =?UTF-8*en?Q?=C3=A4_b?="), "MySurvey.com x ä b");
    // Each word begins and ends in ASCII.
    EXPECT_EQ(decoded("=?ISO-2022-JP?B?GyRCOzNFRBsoQg==?= =?ISO-2022-JP?B?GyRCQkBPOhsoQg==?="), "山田太郎");
    // Written by programs that cut a character in two.
    EXPECT_EQ(decoded("=?UTF-8?B?5bE=?= =?UTF-8?B?seeUsA==?="), "山田");
    EXPECT_EQ(decoded("=?UTF-8?B?TXl?= and =?UTF-8?X?a?="), "My and =?UTF-8?X?a?=");
    expect_sender(with_from("=?UTF-8?B?Sm8=?= =?UTF-8?B?IERvZQ==?= <jo@x.y>"), "Jo Doe", "jo@x.y");
}

TEST(MessageReader, GroupsInGroupsEndNothing) {
    std::string groups;
    for (int i = 0; i < 40000; ++i) {
        groups += "a:";
    }
    EXPECT_EQ(with_from(groups + " x@y.z").status, MessageStatus::NoSender);
    EXPECT_EQ(read("To: " + groups + "\r\nFrom: jo@x.y\r\n\r\n").status, MessageStatus::Ok);
    for (const char* opening : {"(", "<", "\"", "[", "=?", "=?UTF-8?B?", "@", ",", ";"}) {
        std::string many;
        for (int i = 0; i < 100000; ++i) {
            many += opening;
        }
        with_from(many + "x@y.z");
    }
}

}  // namespace
