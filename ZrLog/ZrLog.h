#pragma once

// The client's binary log.
//
// Callers hand over facts, never text: where (source tag and line), what (category) and up to four integers or a run
// of bytes. A log is kept when the environment variable ZR_LOG names a file, or while a sink is installed; otherwise
// a call costs a load and a branch. All functions may be called from any thread at any time, but not from a signal
// handler, and never fail towards the caller; errno is left as it was.
//
// The file is shared by every process that names it, and appended to: see docs/log-format.md. A record is in the file
// when the call returns, so a killed process loses none; what a power failure loses is up to the kernel's write-back.
// A file that is cut short, moved or removed meanwhile ends nobody: writers go on in it or in a new one. One that is
// ZR_LOG_SIZE long (64M) is renamed to NAME.1, and so on up to ZR_LOG_FILES (4). Records that find no room (full disk,
// file size limit) are counted, and their number is written when there is room again. A child made by fork goes on with
// its parent's log; a program started by exec opens the log anew when the variable still names it.

#include <atomic>
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

// Whether a record would be kept, or may be because nobody has asked yet: the load and the branch, made where it is
// called. The calls below ask for themselves; ask before them where even a call is too much. The number is the log's
// own.
ZRLOG_API extern std::atomic<unsigned> zrLogWanted;
inline bool zrLogIsWanted() noexcept {
    return zrLogWanted.load(std::memory_order_relaxed) != 0;
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
    int argumentCount;            // 0 to 4; 0 for a buffer record
    std::uintptr_t arguments[4];  // the first argumentCount are set, the others are 0
    const void* data;             // buffer records only, else nullptr
    std::size_t size;
};

using ZrLogSink = void (*)(const ZrLogRecord& record, void* context);

// Keeps the log in the file at `path` from now on, instead of the one that ZR_LOG named at the first record; nullptr
// keeps no file. Creates a missing file with mode 0600. False, with the reason in zrLogError(), when the file cannot be
// opened or is not a log, is a symbolic link, or belongs to or can be written by another user; such a file is left
// untouched and no log file is kept. The descriptor of a file that was kept before stays until the process ends,
// because threads may still be writing to it.
ZRLOG_API bool zrLogSetFile(const char* path) noexcept;

// Why no log file is kept although one was asked for, or why records are dropped just now, as English text; nullptr
// when nothing is wrong. The text stays valid until the process ends.
ZRLOG_API const char* zrLogError() noexcept;

// Sends every further record of this process to `sink` as well as to the file, if one is kept; nullptr removes it.
// Returns once no thread is inside the previous sink, so it must not be called from within one. A sink runs on the
// logging thread; what it logs itself reaches the file only.
ZRLOG_API void zrLogSetSink(ZrLogSink sink, void* context) noexcept;
