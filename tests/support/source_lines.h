#pragma once

// What stands in the source at the place that a log record names. For programs that know ZR_SOURCE_DIR.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/log_capture.h"

namespace zr::test {

// The file that a source tag names; empty if it is none of the library's.
inline std::filesystem::path source_of_tag(std::string tag) {
    const std::string end = "zrwindowsmobile";
    if (!tag.starts_with(".\\") || !tag.ends_with(end)) return {};
    tag = tag.substr(2, tag.size() - 2 - end.size());
    std::replace(tag.begin(), tag.end(), '\\', '/');
    return std::filesystem::path(ZR_SOURCE_DIR) / "ZrUtility" / tag;
}

// The line of source that a record names; empty if there is none.
inline std::string line_of(const LoggedRecord& record) {
    std::ifstream file(source_of_tag(record.source));
    std::string line;
    for (int i = 0; i < record.line; ++i) {
        if (!std::getline(file, line)) return "";
    }
    return line;
}

}  // namespace zr::test
