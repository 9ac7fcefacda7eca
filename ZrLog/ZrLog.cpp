#include "ZrLog/ZrLog.h"

#include <atomic>
#include <mutex>
#include <shared_mutex>

namespace {

std::atomic<bool> listening{false};
std::shared_mutex sink_mutex;
ZrLogSink sink = nullptr;
void* sink_context = nullptr;

void deliver(const ZrLogRecord& record) {
    const std::shared_lock lock(sink_mutex);
    if (sink) sink(record, sink_context);
}

}  // namespace

void zrLogSetSink(ZrLogSink new_sink, void* context) noexcept {
    const std::lock_guard lock(sink_mutex);
    sink = new_sink;
    sink_context = context;
    listening = new_sink != nullptr;
}

void zrKelDebugBinLog0(const char* source, int line, std::uint32_t category) noexcept {
    if (listening) deliver({source, line, category, 0, {}, nullptr, 0});
}
void zrKelDebugBinLog1(const char* source, int line, std::uint32_t category, std::uintptr_t a) noexcept {
    if (listening) deliver({source, line, category, 1, {a}, nullptr, 0});
}
void zrKelDebugBinLog2(const char* source, int line, std::uint32_t category, std::uintptr_t a,
                       std::uintptr_t b) noexcept {
    if (listening) deliver({source, line, category, 2, {a, b}, nullptr, 0});
}
void zrKelDebugBinLog3(const char* source, int line, std::uint32_t category, std::uintptr_t a, std::uintptr_t b,
                       std::uintptr_t c) noexcept {
    if (listening) deliver({source, line, category, 3, {a, b, c}, nullptr, 0});
}
void zrKelDebugBinLog4(const char* source, int line, std::uint32_t category, std::uintptr_t a, std::uintptr_t b,
                       std::uintptr_t c, std::uintptr_t d) noexcept {
    if (listening) deliver({source, line, category, 4, {a, b, c, d}, nullptr, 0});
}
void zrKelDebugBinBuffer(const char* source, int line, std::uint32_t category, const void* data,
                         std::size_t size) noexcept {
    if (listening) deliver({source, line, category, 0, {}, data, size});
}
