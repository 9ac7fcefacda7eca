#include "kernel/worker.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "support/forked.h"

namespace {

using zr::platform::Worker;

struct Facts {
    std::atomic<bool> go{false};
    std::atomic<int> runs{0};
    std::string name;
    sigset_t blocked{};
    Worker* worker = nullptr;

    static void body(void* self) {
        Facts& facts = *static_cast<Facts*>(self);
        char text[32] = {};
        pthread_getname_np(pthread_self(), text, sizeof text);
        facts.name = text;
        pthread_sigmask(SIG_SETMASK, nullptr, &facts.blocked);
        facts.runs.fetch_add(1);
        facts.runs.notify_all();
        facts.go.wait(false);
    }
    void release() {
        go.store(true);
        go.notify_all();
    }
    void await(int count) {
        for (int now = runs.load(); now < count; now = runs.load()) {
            runs.wait(now);
        }
    }
};

TEST(WorkerTest, HasANameAndTakesNoSignals) {
    Facts facts;
    Worker worker("zr-test");
    EXPECT_FALSE(worker.is_running());
    ASSERT_TRUE(worker.start(Facts::body, &facts));
    EXPECT_TRUE(worker.is_running());
    facts.await(1);
    EXPECT_EQ(facts.name, "zr-test");
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGUSR1, SIGALRM, SIGPIPE}) {
        EXPECT_EQ(sigismember(&facts.blocked, signal), 1) << signal;
    }
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        EXPECT_EQ(sigismember(&facts.blocked, signal), 0) << signal;
    }
    facts.release();
    worker.stop();
    EXPECT_FALSE(worker.is_running());
}

TEST(WorkerTest, IsStartedOnceAndMayBeStartedAgain) {
    Facts facts;
    Worker worker("zr-test");
    ASSERT_TRUE(worker.start(Facts::body, &facts));
    ASSERT_TRUE(worker.start(Facts::body, &facts));
    facts.await(1);
    facts.release();
    worker.stop();
    EXPECT_EQ(facts.runs.load(), 1);
    ASSERT_TRUE(worker.start(Facts::body, &facts));
    worker.stop();
    EXPECT_EQ(facts.runs.load(), 2);
}

TEST(WorkerTest, IsToldToStop) {
    Worker worker("zr-test");
    ASSERT_TRUE(worker.start(
        [](void* context) {
            while (!static_cast<Worker*>(context)->is_stopping()) {
                sched_yield();
            }
        },
        &worker));
    worker.stop();
    EXPECT_FALSE(worker.is_running());
}

TEST(WorkerTest, MayEndUnasked) {
    struct Rounds {
        std::mutex lock;
        Worker worker{"zr-test"};
        std::atomic<int> runs{0};
    } rounds;
    for (int round = 1; round <= 20; ++round) {
        {
            const std::lock_guard guard(rounds.lock);
            ASSERT_FALSE(rounds.worker.is_running());
            ASSERT_TRUE(rounds.worker.start(
                [](void* context) {
                    Rounds& self = *static_cast<Rounds*>(context);
                    const std::lock_guard mine(self.lock);
                    self.worker.leave();
                    self.runs.fetch_add(1);
                    self.runs.notify_all();
                },
                &rounds));
        }
        rounds.runs.wait(round - 1);
        const std::lock_guard given_back(rounds.lock);
    }
}

TEST(WorkerTest, IsNotInAForkedChildWhichMayStartItAnew) {
    Facts facts;
    Worker worker("zr-test");
    ASSERT_TRUE(worker.start(Facts::body, &facts));
    facts.await(1);
    EXPECT_EQ(zr::test::in_fork([&] {
                  if (worker.is_running()) return 1;
                  worker.stop();  // nothing to wait for
                  if (!worker.start(Facts::body, &facts)) return 2;
                  facts.await(2);
                  facts.release();
                  worker.stop();
                  return 0;
              }),
              0);
    EXPECT_TRUE(worker.is_running());
    facts.release();
    worker.stop();
}

}  // namespace
