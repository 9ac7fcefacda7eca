#include "kernel/host_events.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace {

using namespace zr::platform;

// Counts how many of all have been called.
class Counted final : public HostSource {
public:
    Counted() : file_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) { EXPECT_EQ(watch_host(*this, file_), 0u); }
    ~Counted() override {
        unwatch_host(*this);
        close(file_);
    }
    void ring() const { eventfd_write(file_, 1); }
    void ready() noexcept override {
        eventfd_t count = 0;
        eventfd_read(file_, &count);
        const std::lock_guard guard(lock);
        ++called;
        changed.notify_all();
    }
    static void wait_for(int wanted) {
        std::unique_lock guard(lock);
        changed.wait(guard, [&] { return called == wanted; });
    }

    static inline std::mutex lock;
    static inline std::condition_variable changed;
    static inline int called = 0;

private:
    const int file_;
};

TEST(HostEvents, HearAnyNumberOfSources) {
    Counted::called = 0;
    std::vector<std::unique_ptr<Counted>> sources;
    for (int i = 0; i < 100; ++i) {
        sources.push_back(std::make_unique<Counted>());
        if (i % 10 == 0) sources.back()->ring();  // while the others come
    }
    Counted::wait_for(10);
    for (const auto& source : sources) {
        source->ring();
    }
    Counted::wait_for(110);
    sources.resize(1);
    sources.front()->ring();
    Counted::wait_for(111);
}

}  // namespace
