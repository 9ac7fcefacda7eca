// Registry text files: whatever is read is a statement that a registry can take, is at a line that there is, and is
// read again as it was when it is written.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/input.h"
#include "zr/regfile/reader.h"
#include "zr/regfile/writer.h"

namespace {

using zr::RegReader;
using zr::RegStatement;
using zr::fuzz::require;

void check_statement(const RegStatement& statement, long lines) {
    require(statement.line >= 1 && statement.line <= lines);
    switch (statement.kind) {
        case RegStatement::Kind::Key:
        case RegStatement::Kind::DeletedKey: {
            zr::RegPath again;
            require(zr::parse_reg_path(zr::reg_path_text(statement.key), again).empty() && again == statement.key);
            break;
        }
        case RegStatement::Kind::Value:
        case RegStatement::Kind::DeletedValue:
            require(zr::reg_name_fault(statement.name).empty());
            require(statement.value.data.size() <= zr::kLargestRegData);
            break;
    }
}

void check_again(const RegStatement& statement, zr::RegVersion version, zr::RegEncoding encoding) {
    std::string file;
    zr::RegWriter writer(version, encoding, [&](std::string_view text) { file += text; });
    writer.begin();
    const bool is_key = statement.kind == RegStatement::Kind::Key;
    std::string reason = writer.key(is_key ? statement.key : zr::RegPath{});
    if (reason.empty() && !is_key) reason = writer.value(statement.name, statement.value);
    if (!reason.empty()) {
        require(version == zr::RegVersion::V4 || statement.key.below.find_first_of(u"\r\n") != std::u16string::npos);
        return;
    }
    zr::LineReader lines(zr::read_from_memory(file));
    RegReader reader(lines);
    RegStatement again;
    std::vector<zr::Problem> problems;
    require(reader.next(again, problems) == RegReader::Result::Statement);
    if (is_key) {
        require(again.key == statement.key);
    } else {
        require(reader.next(again, problems) == RegReader::Result::Statement);
        require(again.name == statement.name && again.value == statement.value);
    }
    require(reader.next(again, problems) == RegReader::Result::End);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zr::LineReader lines(zr::read_from_memory({reinterpret_cast<const char*>(data), size}));
    RegReader reader(lines);
    RegStatement statement;
    for (;;) {
        std::vector<zr::Problem> problems;
        const RegReader::Result result = reader.next(statement, problems);
        for (const zr::Problem& problem : problems) {
            require(problem.line >= 1 && problem.line <= std::max(lines.number(), 1L) && !problem.reason.empty());
        }
        if (result == RegReader::Result::End) return 0;
        if (result == RegReader::Result::LeftOut) {
            require(!problems.empty() && problems.back().lost);
            continue;
        }
        check_statement(statement, lines.number());
        if (statement.kind == RegStatement::Kind::DeletedKey || statement.kind == RegStatement::Kind::DeletedValue)
            continue;
        check_again(statement, zr::RegVersion::V5, zr::RegEncoding::Utf16);
        check_again(statement, zr::RegVersion::V5, zr::RegEncoding::Utf8);
        check_again(statement, zr::RegVersion::V4, zr::RegEncoding::Windows1252);
    }
}
