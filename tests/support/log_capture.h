#pragma once

// Collects the log records written while it lives, from every thread.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ZrLog/ZrLog.h"

namespace zr::test {

struct LoggedRecord {
    std::string source;
    int line = 0;
    std::uint32_t category = 0;
    std::vector<std::uintptr_t> arguments;
    std::string data;  // the bytes of a buffer record
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LoggedRecord> records() const;
    int count(std::uint32_t category) const;

private:
    static void sink(const ZrLogRecord& record, void* context);

    mutable std::mutex mutex_;
    std::vector<LoggedRecord> records_;
};

}  // namespace zr::test
