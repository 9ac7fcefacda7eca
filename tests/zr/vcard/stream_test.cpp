#include "zr/vcard/stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "zr/vcard/cards.h"

namespace {

using zr::CardStream;

struct Pipe {
    Pipe() { EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0); }
    ~Pipe() {
        ::close(ends[0]);
        close_writer();
    }
    void write(const std::string& text) {
        ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void close_writer() {
        if (ends[1] >= 0) ::close(ends[1]);
        ends[1] = -1;
    }
    int ends[2] = {-1, -1};
};

std::string numbered(int i) {
    return zr::test::card_text("FN:Person " + std::to_string(i) + "\r\n");
}

TEST(CardStream, GivesEveryCardInOrder) {
    constexpr int kCards = 5000;
    Pipe pipe;
    std::thread writer([&] {
        for (int i = 0; i < kCards; ++i) {
            pipe.write(i % 1000 == 7 ? "stray\r\n" + numbered(i) : numbered(i));
        }
        pipe.close_writer();
    });
    CardStream cards(pipe.ends[0]);
    CardStream::Part part;
    int next = 0;
    std::size_t notes = 0;
    std::uint64_t bytes = 0;
    while (cards.next(part)) {
        for (const zr::Card& card : part.cards) {
            ASSERT_EQ(card[zr::Field::FileAs], "Person " + std::to_string(next));
            ++next;
        }
        notes += part.notes.size();
        EXPECT_GE(part.bytes_read, bytes);
        bytes = part.bytes_read;
    }
    writer.join();
    EXPECT_EQ(next, kCards);
    EXPECT_EQ(notes, 5u);
    EXPECT_EQ(cards.error(), 0);
    EXPECT_FALSE(cards.next(part));
}

TEST(CardStream, EndsWhileItWaitsForInput) {
    Pipe pipe;
    pipe.write("BEGIN:VCARD\r\nFN:half of a c");
    CardStream cards(pipe.ends[0]);
    // Its end must not wait for the writer, who is still there.
}

TEST(CardStream, EndsWhileItWaitsForItsCaller) {
    char name[] = "/tmp/zr-cards-XXXXXX";
    const int file = ::mkostemp(name, O_CLOEXEC);
    ASSERT_GE(file, 0);
    ::unlink(name);
    std::string text;
    for (int i = 0; i < 5000; ++i) {
        text += numbered(i);
    }
    ASSERT_EQ(::write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ASSERT_EQ(::lseek(file, 0, SEEK_SET), 0);
    {
        CardStream cards(file);
        CardStream::Part part;
        ASSERT_TRUE(cards.next(part));
        EXPECT_EQ(part.cards.size(), 250u);
    }
    // It read no further ahead than it may.
    EXPECT_LT(::lseek(file, 0, SEEK_CUR), static_cast<off_t>(text.size()));
    ::close(file);
}

TEST(CardStream, TellsAFailingRead) {
    const int folder = ::open("/", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    {
        CardStream cards(folder);
        CardStream::Part part;
        EXPECT_FALSE(cards.next(part));
        EXPECT_EQ(cards.error(), EISDIR);
    }
    ::close(folder);
}

}  // namespace
