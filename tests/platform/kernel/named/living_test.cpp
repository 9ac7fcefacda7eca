#include "kernel/living.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/kernel/named/support.h"
#include "support/forked.h"

using namespace zr::platform;
using namespace zr::test;

namespace {

// A process that tells its mark, then waits to be killed.
struct Marked {
    Marked()
        : process([] {
              ProcessMark own;
              if (!mark_of_process(own)) return 1;
              for (const char byte : std::string(reinterpret_cast<const char*>(&own), sizeof own)) {
                  Fork::say(byte);
              }
              pause();
              return 0;
          }) {
        char bytes[sizeof mark];
        for (char& byte : bytes) {
            byte = process.hear();
        }
        std::memcpy(&mark, bytes, sizeof mark);
    }

    Fork process;
    ProcessMark mark;
};

TEST(Living, ThisProcessLives) {
    ProcessMark mark;
    ASSERT_TRUE(mark_of_process(mark));
    EXPECT_TRUE(process_lives(mark));
    ProcessMark again;
    ASSERT_TRUE(mark_of_process(again));
    EXPECT_EQ(mark, again);
}

TEST(Living, NobodyIsNoMark) {
    EXPECT_FALSE(process_lives({}));
}

TEST(Living, AKilledProcessDoesNotLiveAnyMore) {
    Marked other;
    ProcessMark mine;
    ASSERT_TRUE(mark_of_process(mine));
    EXPECT_NE(other.mark, mine);
    EXPECT_TRUE(process_lives(other.mark));
    other.process.kill();
    EXPECT_FALSE(process_lives(other.mark));
}

TEST(Living, WhoTakesThePlaceIsSomebodyElse) {
    ProcessMark before;
    ASSERT_TRUE(mark_of_process(before));
    for (int i = 0; i < 20; ++i) {
        Marked other;
        EXPECT_TRUE(process_lives(other.mark));
        EXPECT_FALSE(process_lives({other.mark.region, other.mark.birth - 512}));
        EXPECT_NE(other.mark, before);
        before = other.mark;
    }
    EXPECT_FALSE(process_lives({before.region + 1, before.birth}));
}

TEST(Living, AForkedChildIsAnotherProcess) {
    ProcessMark parent;
    ASSERT_TRUE(mark_of_process(parent));
    EXPECT_EQ(in_fork([&] {
                  ProcessMark own;
                  if (!mark_of_process(own)) return 1;
                  if (own == parent) return 2;
                  return process_lives(own) && process_lives(parent) ? 0 : 3;
              }),
              0);
}

}  // namespace
