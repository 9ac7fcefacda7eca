#pragma once

// Registry text files from text, for tests.

#include <string>
#include <string_view>
#include <vector>

#include "zr/base/text.h"
#include "zr/regfile/reader.h"

namespace zr::test {

struct ReadRegFile {
    std::vector<RegStatement> statements;
    std::vector<Problem> lost;
    std::vector<Problem> guesses;
};

inline ReadRegFile read_reg_file(std::string_view text, std::size_t largest = kLargestRegData) {
    ReadRegFile result;
    LineReader lines(read_from_memory(text));
    RegReader reader(lines, largest);
    for (;;) {
        RegStatement statement;
        std::vector<Problem> problems;
        const RegReader::Result read = reader.next(statement, problems);
        for (const Problem& each : problems) {
            (each.lost ? result.lost : result.guesses).push_back(each);
        }
        if (read == RegReader::Result::End) return result;
        if (read == RegReader::Result::Statement) result.statements.push_back(statement);
    }
}

inline RegValue text_value(std::u16string text) {
    return {REG_SZ, reg_bytes(text + u'\0')};
}

// Of version 5, without a mark, with `key` at its beginning.
inline std::string reg_file_text(std::string_view values, std::string_view key = "HKLM\\Test") {
    return std::string(kRegHeader5) + "\r\n\r\n[" + std::string(key) + "]\r\n" + std::string(values);
}

// "LINE: REASON" of each.
inline std::vector<std::string> shown(const std::vector<Problem>& problems) {
    std::vector<std::string> all;
    for (const Problem& each : problems) {
        all.push_back(std::to_string(each.line) + ": " + each.reason);
    }
    return all;
}

}  // namespace zr::test
