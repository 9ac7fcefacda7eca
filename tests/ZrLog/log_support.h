#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "ZrLog/ZrLogReader.h"

namespace zr::test {

struct LogContents {
    std::vector<ZrLogEntry> entries;
    ZrLogStatistics statistics;
    std::string error;
};

inline LogContents read_log(const std::filesystem::path& path, int wait = 0) {
    LogContents contents;
    const auto reader = ZrLogReader::open(path.string(), contents.error, wait);
    if (!reader) return contents;
    ZrLogEntry entry;
    while (reader->next(entry)) {
        contents.entries.push_back(entry);
    }
    contents.statistics = reader->statistics();
    return contents;
}

}  // namespace zr::test
