#pragma once

// Reads one file of a log.

#include <cstdint>
#include <memory>
#include <vector>

#include "ZrLog/ZrLogReader.h"

namespace zr::log {

// Bytes of a file, read by calls: a mapped file that is cut short meanwhile would end the program.
bool read_bytes(int fd, void* to, std::size_t size, std::uint64_t from);

std::int64_t milliseconds();

class FileReader {
public:
    virtual ~FileReader() = default;

    // The next whole record; false at the end, and after that what has come meanwhile. What is passed over is counted.
    virtual bool next(ZrLogEntry& entry, ZrLogStatistics& statistics) = 0;

    // Whether something stands behind what was read that is no whole record yet.
    virtual bool has_rest() { return false; }
};

// A reader for the file, which stays its caller's and open; nullptr when it is not a log. `wait`: how many milliseconds
// a record that is being written is waited for.
std::unique_ptr<FileReader> read_slots(int fd, int wait);
std::unique_ptr<FileReader> read_records(int fd, int wait);

}  // namespace zr::log
