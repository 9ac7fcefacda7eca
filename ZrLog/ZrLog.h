#pragma once

// The client's binary log.
//
// Callers hand over facts, never text: where (source tag and line), what (category) and up to four integers or a run
// of bytes. A log is kept when the environment variable ZR_LOG names a file, or while a sink is installed; otherwise
// a call costs a load and a branch. All functions may be called from any thread at any time and never fail towards
// the caller.

#include <cstddef>
#include <cstdint>

#if defined(ZRLOG_BUILDING)
#define ZRLOG_API __attribute__((visibility("default")))
#else
#define ZRLOG_API
#endif

// A category is a module number (upper 16 bits) and a level (lower 16 bits); buffer records add kZrLogBuffer.
inline constexpr std::uint32_t kZrLogFailure = 0x04;
inline constexpr std::uint32_t kZrLogWarning = 0x08;
inline constexpr std::uint32_t kZrLogInformation = 0x10;
inline constexpr std::uint32_t kZrLogTrace = 0x20;
inline constexpr std::uint32_t kZrLogBuffer = 0x40000000;

constexpr std::uint32_t zrLogCategory(std::uint32_t module, std::uint32_t level) {
    return (module << 16) | level;
}

// `source` must outlive the call only; the log keeps a copy. Arguments are of pointer width.
ZRLOG_API void zrKelDebugBinLog0(const char* source, int line, std::uint32_t category) noexcept;
ZRLOG_API void zrKelDebugBinLog1(const char* source, int line, std::uint32_t category, std::uintptr_t a) noexcept;
ZRLOG_API void zrKelDebugBinLog2(const char* source, int line, std::uint32_t category, std::uintptr_t a,
                                 std::uintptr_t b) noexcept;
ZRLOG_API void zrKelDebugBinLog3(const char* source, int line, std::uint32_t category, std::uintptr_t a,
                                 std::uintptr_t b, std::uintptr_t c) noexcept;
ZRLOG_API void zrKelDebugBinLog4(const char* source, int line, std::uint32_t category, std::uintptr_t a,
                                 std::uintptr_t b, std::uintptr_t c, std::uintptr_t d) noexcept;
ZRLOG_API void zrKelDebugBinBuffer(const char* source, int line, std::uint32_t category, const void* data,
                                   std::size_t size) noexcept;

// One record as a sink sees it. Pointers are valid during the call only.
struct ZrLogRecord {
    const char* source;
    int line;
    std::uint32_t category;
    int argumentCount;             // 0 to 4; 0 for a buffer record
    std::uintptr_t arguments[4];   // the first argumentCount are set, the others are 0
    const void* data;              // buffer records only, else nullptr
    std::size_t size;
};

using ZrLogSink = void (*)(const ZrLogRecord& record, void* context);

// Sends every further record of this process to `sink` as well as to the file, if one is kept; nullptr removes it.
// Returns once no thread is inside the previous sink. A sink runs on the logging thread and must not log.
ZRLOG_API void zrLogSetSink(ZrLogSink sink, void* context) noexcept;
