#include "ZrLog/ZrLog.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "ZrLog/log_file.h"
#include "ZrLog/sink.h"

namespace {

using zr::log::LogFile;

// What a record is wanted for. The environment is asked at the first record, so that a process that logs nothing
// makes no file.
constexpr unsigned kUndecided = 1;
constexpr unsigned kFile = 2;
constexpr unsigned kSink = 4;

}  // namespace

constinit std::atomic<unsigned> zrLogWanted{kUndecided};

namespace {

std::atomic<LogFile*> file{nullptr};
std::atomic<const char*> error_text{nullptr};
std::mutex deciding;
std::mutex changing_sink;

std::mutex one_fork;
LogFile* forking = nullptr;  // the file whose looks wait for the fork

void before_fork() {
    one_fork.lock();
    LogFile* const open = file.load(std::memory_order_acquire);
    if (open) open->before_fork();
    forking = open;
}

void after_fork(bool in_child) {
    if (LogFile* const open = std::exchange(forking, nullptr)) open->after_fork(in_child);
    one_fork.unlock();
}

void after_fork_in_parent() {
    after_fork(false);
}

void after_fork_in_child() {
    after_fork(true);
    zr::log::forget_ids();
    zr::log::forget_sink_visitors();
    new (&deciding) std::mutex;
    new (&changing_sink) std::mutex;
}

// Files and texts that are no longer current are kept for good: other threads may be using them.
struct Kept {
    Kept* before;
    LogFile* file;
    std::string error;
};
Kept* kept = nullptr;

bool open_file(const char* path) {
    static const int registered = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    static_cast<void>(registered);
    LogFile* opened = nullptr;
    const char* text = nullptr;
    try {
        std::string error;
        opened = path && *path ? LogFile::open(path, error) : nullptr;
        kept = new Kept{kept, opened, std::move(error)};
        if (!kept->error.empty()) text = kept->error.c_str();
    } catch (...) {
        opened = nullptr;
        text = "out of memory";
    }
    file.store(opened, std::memory_order_release);
    error_text.store(text, std::memory_order_release);
    if (opened) {
        zrLogWanted.fetch_or(kFile, std::memory_order_release);
    } else {
        zrLogWanted.fetch_and(~kFile, std::memory_order_release);
    }
    zrLogWanted.fetch_and(~kUndecided, std::memory_order_release);
    return text == nullptr;
}

void decide() {
    const int saved_errno = errno;
    const std::lock_guard lock(deciding);
    if (zrLogWanted.load(std::memory_order_relaxed) & kUndecided) open_file(secure_getenv("ZR_LOG"));
    errno = saved_errno;
}

[[gnu::noinline]] void record_wanted(const ZrLogRecord& record, bool is_buffer = false) {
    if (zrLogWanted.load(std::memory_order_relaxed) & kUndecided) decide();
    const unsigned now_wanted = zrLogWanted.load(std::memory_order_acquire);
    if (now_wanted & kFile) {
        if (LogFile* open = file.load(std::memory_order_acquire)) open->write(record, is_buffer);
    }
    if (now_wanted & kSink) zr::log::deliver_to_sink(record);
}

}  // namespace

bool zrLogSetFile(const char* path) noexcept {
    const std::lock_guard lock(deciding);
    return open_file(path);
}

const char* zrLogError() noexcept {
    if (zrLogWanted.load(std::memory_order_acquire) & kUndecided) decide();
    if (const char* const text = error_text.load(std::memory_order_acquire)) return text;
    const LogFile* const open = file.load(std::memory_order_acquire);
    return open ? open->trouble() : nullptr;
}

void zrLogSetSink(ZrLogSink sink, void* context) noexcept {
    const std::lock_guard lock(changing_sink);
    zr::log::replace_sink(sink, context);
    if (sink) {
        zrLogWanted.fetch_or(kSink);
    } else {
        zrLogWanted.fetch_and(~kSink);
    }
}

void zrKelDebugBinLog0(const char* source, int line, std::uint32_t category) noexcept {
    if (zrLogIsWanted()) record_wanted({source, line, category, 0, {}, nullptr, 0});
}
void zrKelDebugBinLog1(const char* source, int line, std::uint32_t category, std::uintptr_t a) noexcept {
    if (zrLogIsWanted()) record_wanted({source, line, category, 1, {a}, nullptr, 0});
}
void zrKelDebugBinLog2(const char* source, int line, std::uint32_t category, std::uintptr_t a,
                       std::uintptr_t b) noexcept {
    if (zrLogIsWanted()) record_wanted({source, line, category, 2, {a, b}, nullptr, 0});
}
void zrKelDebugBinLog3(const char* source, int line, std::uint32_t category, std::uintptr_t a, std::uintptr_t b,
                       std::uintptr_t c) noexcept {
    if (zrLogIsWanted()) record_wanted({source, line, category, 3, {a, b, c}, nullptr, 0});
}
void zrKelDebugBinLog4(const char* source, int line, std::uint32_t category, std::uintptr_t a, std::uintptr_t b,
                       std::uintptr_t c, std::uintptr_t d) noexcept {
    if (zrLogIsWanted()) record_wanted({source, line, category, 4, {a, b, c, d}, nullptr, 0});
}
void zrKelDebugBinBuffer(const char* source, int line, std::uint32_t category, const void* data,
                         std::size_t size) noexcept {
    if (zrLogIsWanted()) record_wanted({source, line, category, 0, {}, data, size}, true);
}
