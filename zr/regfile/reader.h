#pragma once

// Reads registry text files of both versions, statement by statement.
//
//     Windows Registry Editor Version 5.00      or REGEDIT4
//
//     ; a comment
//     [HKEY_LOCAL_MACHINE\Software\Example]     a key, made when it is not there
//     @="the default value"                     text; \\ and \" are the only escapes; up to 1 MiB may go over lines
//     "Port"=dword:00001f90                     one to eight hexadecimal digits
//     "Blob"=hex:01,02,\                        bytes; the backslash goes on in the next line
//       03
//     "Path"=hex(2):25,00,00,00                 bytes of a value of type 2; any type, any bytes
//     "Old"=-                                   the value is deleted
//     [-HKEY_LOCAL_MACHINE\Software\Gone]       the key is deleted, with all below it
//
// REGEDIT4 gives the texts of hex(2) and hex(7) in the ANSI code page, which is 1252 here as everywhere in this system.
// That goes by the version, not by how the file itself is encoded.
//
// Encodings: what LineReader takes. Without a byte-order mark a line that is valid UTF-8 is read as that, any other as
// Windows-1252. The first line that is not what the version says (UTF-8 for 5.00, Windows-1252 for REGEDIT4) is told as
// a guess.
//
// Memory is bound by the longest line and the largest value.

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "zr/base/line_reader.h"
#include "zr/base/problem.h"
#include "zr/regfile/path.h"
#include "zr/regfile/value.h"

namespace zr {

enum class RegVersion { V4, V5 };

inline constexpr std::string_view kRegHeader4 = "REGEDIT4";
inline constexpr std::string_view kRegHeader5 = "Windows Registry Editor Version 5.00";

struct RegStatement {
    enum class Kind { Key, DeletedKey, Value, DeletedValue };

    Kind kind = Kind::Key;
    long line = 0;        // where it begins
    RegPath key;          // of Key and DeletedKey; a value belongs to the Key before it
    std::u16string name;  // of a value; empty for the default value
    RegValue value;
};

class RegReader {
public:
    enum class Result { Statement, LeftOut, End };

    // Data of more than `largest` bytes is left out.
    explicit RegReader(LineReader& lines, std::size_t largest = kLargestRegData) : lines_(lines), largest_(largest) {}

    // Adds what there is to say to `problems`: one that is lost for LeftOut, which is a statement that cannot be read;
    // the reader goes on behind it. With a key its values are left out, without being named. A file that does not begin
    // as one of the versions is left out as a whole.
    Result next(RegStatement& statement, std::vector<Problem>& problems);

private:
    enum class Key { None, Good, LeftOut, Deleted };

    struct Line {
        std::string text;
        std::string ending;
        long number = 0;
        bool cut = false;
    };

    // The steps of one statement. False with the reason in fault_; its line is that of the statement unless
    // fault_line_ was set.
    bool read_header();
    bool read_key(RegStatement& statement);
    bool read_value(RegStatement& statement);
    bool read_data(RegStatement& statement);
    bool read_text(RegValue& value);
    bool read_dword(RegValue& value);
    bool read_hex(RegValue& value);
    bool read_bytes(std::string& bytes);
    bool read_byte(std::string& bytes);
    bool read_quoted(std::string& text, const char* what);
    bool continue_bytes();
    bool ends_here();

    std::string too_large() const;
    bool fail(std::string reason);
    void leave_out(long first_line);
    void skip_continuation();

    bool next_line();
    void decode_line();
    char here() const { return at_ < line_.text.size() ? line_.text[at_] : '\0'; }
    bool at_end() const { return at_ >= line_.text.size(); }
    void skip_blanks();
    bool skip(std::string_view word);  // ignoring case

    LineReader& lines_;
    const std::size_t largest_;
    Line line_;
    std::size_t at_ = 0;
    std::deque<Line> again_;   // read, but to be read again
    std::vector<Line> taken_;  // further lines of the quoted text at hand
    bool in_text_ = false;     // the statement failed inside of quotes
    bool begun_ = false;
    bool ended_ = false;
    bool guessed_ = false;
    RegVersion version_ = RegVersion::V5;
    Key key_ = Key::None;
    std::string fault_;
    long fault_line_ = 0;
    std::vector<Problem>* problems_ = nullptr;
    std::string buffer_;
};

}  // namespace zr
