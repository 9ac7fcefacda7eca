#include "zr/base/separate_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

namespace {

using zr::SeparateProcess;

TEST(SeparateProcess, AnswersEachQuestion) {
    SeparateProcess process([](std::size_t question) { return std::string(question, 'x'); });
    std::string answer;
    for (const std::size_t question : {0, 1, 70000}) {
        ASSERT_TRUE(process.ask(question, answer));
        EXPECT_EQ(answer.size(), question);
    }
}

TEST(SeparateProcess, GoesOnBehindAQuestionThatEndsIt) {
    SeparateProcess process([](std::size_t question) -> std::string {
        if (question == 1) {
            signal(SIGABRT, SIG_DFL);
            raise(SIGABRT);
        }
        if (question == 2) _exit(3);
        return "well";
    });
    std::string answer;
    EXPECT_FALSE(process.ask(1, answer));
    EXPECT_EQ(process.failure(), "crashes (Aborted)");
    EXPECT_TRUE(process.ask(0, answer));
    EXPECT_EQ(answer, "well");
    EXPECT_FALSE(process.ask(2, answer));
    EXPECT_EQ(process.failure(), "ends the process that asks it");
    EXPECT_TRUE(process.ask(0, answer));
}

TEST(SeparateProcess, WaitsOnlySoLong) {
    SeparateProcess process(
        [](std::size_t question) -> std::string {
            while (question != 0) {
                pause();
            }
            return "here";
        },
        std::chrono::seconds(3));
    std::string answer;
    EXPECT_FALSE(process.ask(1, answer));
    EXPECT_EQ(process.failure(), "does not answer");
    EXPECT_TRUE(process.ask(0, answer));
}

TEST(SeparateProcess, WhatItPrintsIsLost) {
    testing::internal::CaptureStdout();
    SeparateProcess process([](std::size_t) { return std::to_string(write(STDOUT_FILENO, "noise", 5)); });
    std::string answer;
    EXPECT_TRUE(process.ask(0, answer));
    EXPECT_EQ(answer, "5");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
