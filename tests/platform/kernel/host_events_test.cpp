#include "kernel/host_events.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "support/child.h"
#include "support/own_process.h"

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

// From here on the host answers as one does that keeps no signals with files. False where it does not let itself.
bool refuse_signals_of_files() {
#ifdef SYS_fcntl64
    constexpr unsigned call = SYS_fcntl64;
#else
    constexpr unsigned call = SYS_fcntl;
#endif
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, F_SETSIG, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof code / sizeof *code, code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

ZR_CHILD(hears_without_signals_of_files) {
    if (!refuse_signals_of_files()) return 2;
    Counted::called = 0;
    std::vector<std::unique_ptr<Counted>> sources;
    const Counted first;
    const int before = zr::test::count_descriptors();
    for (int i = 0; i < 20; ++i) {
        sources.push_back(std::make_unique<Counted>());
        sources.back()->ring();
        Counted::wait_for(i + 1);
    }
    return zr::test::count_descriptors() == before + 20 ? 0 : 1;
}

TEST(HostEvents, AreHeardWhereFilesKeepNoSignals) {
    zr::test::Child child("hears_without_signals_of_files");
    const int code = child.wait();
    if (code == 2) GTEST_SKIP() << "the host filters no system calls";
    EXPECT_EQ(code, 0);
}

}  // namespace
