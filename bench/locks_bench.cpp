// The library's locks, taken by their holder, beside the locks that a program on Linux would use instead. Each is
// measured without a log and with one; the peers log nothing of themselves, so there is one more that writes the same
// records with spdlog.

#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/LockHelper.h"
#include "support/winpr_peer.h"

namespace {

// Each subject is a class whose Hold takes the lock for as long as it lives.
template <class Lock>
class Ours {
public:
    Ours() { lock_.Init(); }

    class Hold {
    public:
        explicit Hold(Ours& ours) : helper_(&ours.lock_) {}

    private:
        LockHelper helper_;
    };

private:
    Lock lock_;
};

class StdRecursive {
public:
    class Hold {
    public:
        explicit Hold(StdRecursive& lock) : guard_(lock.mutex_) {}

    private:
        std::lock_guard<std::recursive_mutex> guard_;
    };

private:
    std::recursive_mutex mutex_;
};

class WinPRSection {
public:
    ~WinPRSection() { winpr::destroy_section(section_); }

    class Hold {
    public:
        explicit Hold(WinPRSection& lock) : section_(lock.section_) { winpr::enter(section_); }
        ~Hold() { winpr::leave(section_); }

    private:
        void* section_;
    };

private:
    void* section_ = winpr::create_section();
};

class WinPRMutex {
public:
    ~WinPRMutex() { winpr::close(mutex_); }

    class Hold {
    public:
        explicit Hold(WinPRMutex& lock) : mutex_(lock.mutex_) { winpr::wait(mutex_); }
        ~Hold() { winpr::release(mutex_); }

    private:
        void* mutex_;
    };

private:
    void* mutex_ = winpr::create_mutex();
};

std::string scratch_file(const char* name) {
    return "/tmp/locks_bench." + std::to_string(getpid()) + "." + name;
}

// Three records for each time that the lock is held, as ours writes them.
class StdWithSpdlog {
public:
    StdWithSpdlog() : file_(scratch_file("spdlog")), log_(spdlog::basic_logger_mt("locks", file_, true)) {}
    ~StdWithSpdlog() {
        spdlog::drop("locks");
        unlink(file_.c_str());
    }

    class Hold {
    public:
        explicit Hold(StdWithSpdlog& lock) : lock_(lock) {
            lock_.log_->info("lock {}", static_cast<void*>(&lock_));
            lock_.mutex_.lock();
            lock_.log_->info("locked {} {}", static_cast<void*>(&lock_), ++lock_.count_);
        }
        ~Hold() {
            lock_.log_->info("unlock {} {}", static_cast<void*>(&lock_), --lock_.count_);
            lock_.mutex_.unlock();
        }

    private:
        StdWithSpdlog& lock_;
    };

private:
    std::recursive_mutex mutex_;
    std::string file_;
    std::shared_ptr<spdlog::logger> log_;
    int count_ = 0;
};

template <class Lock>
void alone(benchmark::State& state) {
    Lock lock;
    for (auto _ : state) {
        const typename Lock::Hold hold(lock);
        benchmark::ClobberMemory();
    }
}

// Two threads that take the lock in turn as fast as they can, with a little work inside and outside.
template <class Lock>
void contended(benchmark::State& state) {
    static Lock* lock = nullptr;
    static long shared = 0;
    if (state.thread_index() == 0) lock = new Lock;
    for (auto _ : state) {
        {
            const typename Lock::Hold hold(*lock);
            benchmark::DoNotOptimize(++shared);
        }
        for (int i = 0; i < 20; ++i) {
            benchmark::DoNotOptimize(i);
        }
    }
    if (state.thread_index() == 0) delete lock;
}

// The log's file starts anew before each measurement, and none is kept between them.
void start_log(const benchmark::State&) {
    unlink(scratch_file("zrlog").c_str());
    zrLogSetFile(scratch_file("zrlog").c_str());
}
void stop_log(const benchmark::State&) {
    zrLogSetFile(nullptr);
    unlink(scratch_file("zrlog").c_str());
}

template <class Lock>
void add(const std::string& subject, const std::string& who, bool logged) {
    const std::string what = logged ? "_logged" : "";
    auto* one = benchmark::RegisterBenchmark((subject + what + "/" + who).c_str(), alone<Lock>);
    auto* two = benchmark::RegisterBenchmark((subject + what + "_2_threads/" + who).c_str(), contended<Lock>);
    two->Threads(2)->UseRealTime();
    for (auto* each : {one, two}) {
        if (!logged) continue;
        // As many records as a log file holds in a fraction of a second, so that the disk does not fill.
        each->Iterations(200'000)->Setup(start_log)->Teardown(stop_log);
    }
}

template <class Lock>
void add_peers(const std::string& subject, bool logged) {
    add<Ours<Lock>>(subject, "ours", logged);
    add<StdRecursive>(subject, "std_recursive_mutex", logged);
    if (logged) add<StdWithSpdlog>(subject, "std_recursive_mutex_spdlog", logged);
}

bool register_all() {
    for (const bool logged : {false, true}) {
        add_peers<CriticalSectionLock>("CriticalSectionLock", logged);
        add<WinPRSection>("CriticalSectionLock", "winpr", logged);
        add_peers<MutexLock>("MutexLock", logged);
        add<WinPRMutex>("MutexLock", "winpr", logged);
        add_peers<DebugMutexLock>("DebugMutexLock", logged);
        add<WinPRMutex>("DebugMutexLock", "winpr", logged);
    }
    benchmark::RegisterBenchmark("NullLock/ours", alone<Ours<NullLock>>);
    benchmark::RegisterBenchmark("NullLock/std_recursive_mutex", alone<StdRecursive>);
    return true;
}

const bool registered = register_all();

}  // namespace
