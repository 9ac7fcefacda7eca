#include "base/forks.h"

#include <gtest/gtest.h>

#include <string>

#include "support/forked.h"

namespace {

using namespace zr::platform;

std::string* calls = nullptr;

void note(char what) {
    if (calls) *calls += what;
}

// The last rank; no family has anything to say there.
const AtFork at_fork{ForkRank::Mapi,
                     {[]() noexcept { note('p'); }, []() noexcept { note('P'); }, []() noexcept { note('c'); },
                      []() noexcept { note('r'); }}};

class Forks : public testing::Test {
protected:
    void SetUp() override {
        resume_after_fork();  // the test's own process may have been forked
        calls = &told;
    }
    void TearDown() override { calls = nullptr; }

    std::string told;
};

TEST_F(Forks, AFamilyIsCalledBeforeAndOnBothSides) {
    EXPECT_EQ(zr::test::in_fork([this] { return told == "pc" ? 0 : 1; }), 0);
    EXPECT_EQ(told, "pP");
}

TEST_F(Forks, TheChildResumesOnceAndTheParentNever) {
    EXPECT_EQ(zr::test::in_fork([this] {
                  resume_after_fork();
                  resume_after_fork();
                  return told == "pcr" ? 0 : 1;
              }),
              0);
    resume_after_fork();
    EXPECT_EQ(told, "pP");
}

TEST_F(Forks, AGrandchildResumesByItself) {
    EXPECT_EQ(zr::test::in_fork([this] {
                  resume_after_fork();
                  return zr::test::in_fork([this] {
                      resume_after_fork();
                      return told == "pcrpcr" ? 0 : 1;
                  });
              }),
              0);
}

TEST_F(Forks, ForksAreCounted) {
    const std::uint32_t before = fork_generation();
    EXPECT_EQ(zr::test::in_fork([before] {
                  if (fork_generation() != before + 1) return 1;
                  return zr::test::in_fork([before] { return fork_generation() == before + 2 ? 0 : 1; });
              }),
              0);
    EXPECT_EQ(fork_generation(), before);
}

TEST_F(Forks, ErrnoSurvivesResuming) {
    EXPECT_EQ(zr::test::in_fork([] {
                  errno = 77;
                  resume_after_fork();
                  return errno == 77 ? 0 : 1;
              }),
              0);
}

}  // namespace
