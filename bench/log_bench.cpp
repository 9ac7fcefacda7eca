// A record with its facts (time, thread, source, line, category, two numbers) against spdlog writing the same facts as
// a formatted line, straight, flushed line by line, and through its background thread; and the cost of a call while no
// log is kept.
//
// Ours is in the file's pages when the call returns and outlives a killed process, as the flushed peer's lines do; the
// others' are still in a buffer or a queue.

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "ZrLog/ZrLog.h"

namespace {

constexpr const char* kSource = ".\\Helpers\\ContactsManager.cppzrwindowsmobile";
constexpr const char* kPattern = "%Y-%m-%d %H:%M:%S.%F %P %t %v";

class Folder {
public:
    Folder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
        if (mkdtemp(pattern.data())) path_ = pattern;
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const char* name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

std::unique_ptr<Folder> folder;
std::shared_ptr<spdlog::logger> logger;

void write_ours(benchmark::State& state) {
    std::uintptr_t i = 0;
    for (auto _ : state) {
        zrKelDebugBinLog2(kSource, 321, zrLogCategory(0x73, kZrLogInformation), i++, 42);
    }
    state.SetItemsProcessed(state.iterations());
}

void write_peer(benchmark::State& state) {
    std::uintptr_t i = 0;
    for (auto _ : state) {
        logger->info("{}:{} {:08x} {} {}", kSource, 321, zrLogCategory(0x73, kZrLogInformation), i++, 42);
    }
    state.SetItemsProcessed(state.iterations());
}

void set_up_ours(const benchmark::State&) {
    folder = std::make_unique<Folder>();
    zrLogSetFile(folder->file("log").c_str());
}

void tear_down_ours(const benchmark::State&) {
    zrLogSetFile(nullptr);
    folder.reset();
}

void set_up_straight(const benchmark::State&) {
    folder = std::make_unique<Folder>();
    logger = std::make_shared<spdlog::logger>("peer",
                                              std::make_shared<spdlog::sinks::basic_file_sink_mt>(folder->file("log")));
    logger->set_pattern(kPattern);
}

// A line is in the file's pages when the call returns, as a record of ours is.
void set_up_flushed(const benchmark::State& state) {
    set_up_straight(state);
    logger->flush_on(spdlog::level::info);
}

void set_up_async(const benchmark::State&) {
    folder = std::make_unique<Folder>();
    spdlog::init_thread_pool(8192, 1);
    logger = std::make_shared<spdlog::async_logger>(
        "peer", std::make_shared<spdlog::sinks::basic_file_sink_mt>(folder->file("log")), spdlog::thread_pool(),
        spdlog::async_overflow_policy::block);
    logger->set_pattern(kPattern);
}

void set_up_disabled(const benchmark::State&) {
    logger = std::make_shared<spdlog::logger>("peer", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::off);
}

void tear_down_peer(const benchmark::State&) {
    logger.reset();
    spdlog::shutdown();
    folder.reset();
}

void no_log(const benchmark::State&) {
    zrLogSetFile(nullptr);
}

BENCHMARK(write_ours)->Name("log_disabled/ours")->Setup(no_log);
BENCHMARK(write_peer)->Name("log_disabled/spdlog")->Setup(set_up_disabled)->Teardown(tear_down_peer);

void one_and_four_threads(benchmark::internal::Benchmark* measurement) {
    measurement->Iterations(500000)->Threads(1)->Threads(4)->UseRealTime();
}
BENCHMARK(write_ours)
    ->Name("log_write/ours")
    ->Setup(set_up_ours)
    ->Teardown(tear_down_ours)
    ->Apply(one_and_four_threads);
BENCHMARK(write_peer)
    ->Name("log_write/spdlog")
    ->Setup(set_up_straight)
    ->Teardown(tear_down_peer)
    ->Apply(one_and_four_threads);
BENCHMARK(write_peer)
    ->Name("log_write/spdlog_flushed")
    ->Setup(set_up_flushed)
    ->Teardown(tear_down_peer)
    ->Apply(one_and_four_threads);
BENCHMARK(write_peer)
    ->Name("log_write/spdlog_async")
    ->Setup(set_up_async)
    ->Teardown(tear_down_peer)
    ->Apply(one_and_four_threads);

}  // namespace
