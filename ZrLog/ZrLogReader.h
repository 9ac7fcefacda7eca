#pragma once

// Reads a log, also while other processes write to it: the files that were rotated away and still are there, the oldest
// first, then the one of the log's name.
//
//   std::string error;
//   auto reader = ZrLogReader::open(path, error);
//   ZrLogEntry entry;
//   while (reader && reader->next(entry)) { ... }
//
// Nothing in the file is trusted: a file that is cut short, overwritten or torn gives the records that are whole, and
// counters that tell what was passed over. One object is used by one thread at a time.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ZrLog/ZrLog.h"

struct ZrLogEntry {
    std::uint64_t time = 0;  // nanoseconds since 1 January 1970 UTC
    std::uint32_t process = 0;
    std::uint32_t thread = 0;
    std::string source;  // empty when the record had none, or when its text is damaged
    std::int32_t line = 0;
    std::uint32_t category = 0;
    bool isBuffer = false;
    int argumentCount = 0;  // 0 to 4; 0 for a buffer record
    std::uint64_t arguments[4] = {};
    std::string data;        // of a buffer record: its first bytes, up to the limit that the format sets
    std::uint64_t size = 0;  // of a buffer record: how many bytes the caller gave
};

struct ZrLogStatistics {
    std::uint64_t records = 0;     // handed out by this reader
    std::uint64_t unfinished = 0;  // that a killed process left, or that another one was writing for too long
    std::uint64_t damaged = 0;     // places where bytes stand that are not a record as it was written
    std::uint64_t lost = 0;        // records that found no room when they were written, as their writers told
    std::uint64_t cuts = 0;        // times that a writer found the log cut short or removed
    std::uint64_t missing = 0;     // of a log of version 1: slots that the file is too short for
};

class ZRLOG_API ZrLogReader {
public:
    // How long a record that is just being written is waited for.
    static constexpr int kWaitMilliseconds = 20;

    // nullptr, with the reason in `error`, when the file cannot be read, is not a log or is of another version.
    static std::unique_ptr<ZrLogReader> open(const std::string& path, std::string& error,
                                             int waitMilliseconds = kWaitMilliseconds);
    ~ZrLogReader();
    ZrLogReader(const ZrLogReader&) = delete;
    ZrLogReader& operator=(const ZrLogReader&) = delete;

    // The next whole record, in the order of the files; false at the end. After false it may be called again: it then
    // goes on with what has been written meanwhile. A record that is still being written is waited for once and
    // passed over when it is not there by then.
    bool next(ZrLogEntry& entry);

    ZrLogStatistics statistics() const;

private:
    struct State;
    explicit ZrLogReader(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};
