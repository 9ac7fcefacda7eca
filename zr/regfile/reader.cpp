#include "zr/regfile/reader.h"

#include <platform/base.h>
#include <platform/registry.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "zr/base/text.h"

namespace zr {
namespace {

// What may have to be read again because its quote was never closed.
constexpr std::size_t kLongestTextOverLines = std::size_t{1} << 20;
constexpr std::size_t kMostDigits = 8;

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

bool is_hex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

unsigned value_of_digit(char c) {
    return static_cast<unsigned>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
}

std::size_t count_digits(std::string_view text) {
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_hex) - text.begin());
}

DWORD number_of(std::string_view digits) {
    DWORD number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
    return number;
}

// Where a key's path ends: at the last bracket, or at the first that has a comment behind it.
std::size_t end_of_path(std::string_view line) {
    if (line.back() == ']') return line.size() - 1;
    for (std::size_t at = line.find(']'); at != std::string_view::npos; at = line.find(']', at + 1)) {
        const std::string_view rest = trimmed(line.substr(at + 1));
        if (rest.starts_with(';')) return at;
    }
    return std::string_view::npos;
}

bool has_comment_like_end(std::string_view path) {
    for (std::size_t at = path.find(']'); at != std::string_view::npos; at = path.find(']', at + 1)) {
        if (trimmed(path.substr(at + 1)).starts_with(';')) return true;
    }
    return false;
}

std::string no_header() {
    return "a file that begins neither with '" + std::string(kRegHeader4) + "' nor with '" + std::string(kRegHeader5) +
           "'";
}

// The bytes of ANSI text as those of UTF-16.
std::string widened(std::string_view bytes) {
    std::u16string text(bytes.size(), u'\0');
    if (!bytes.empty())
        MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(),
                            static_cast<int>(text.size()));
    return reg_bytes(text);
}

}  // namespace

RegReader::Result RegReader::next(RegStatement& statement, std::vector<Problem>& problems) {
    problems_ = &problems;
    while (!ended_ && next_line()) {
        skip_blanks();
        if (ends_here()) continue;
        const long first_line = line_.number;
        fault_line_ = 0;
        in_text_ = false;
        taken_.clear();
        const bool is_value = here() == '"' || here() == '@';
        if (begun_ && is_value && key_ == Key::LeftOut) {
            // It belongs to the key that was named; it is read to know where it ends.
            if (!read_value(statement)) leave_out(first_line);
            continue;
        }
        bool good;
        if (line_.cut) {
            good = fail("a line longer than 64 MiB");
        } else if (!begun_) {
            good = read_header();
            ended_ = !good;
            if (good) continue;
        } else if (here() == '[') {
            good = read_key(statement);
            key_ = !good ? Key::LeftOut : statement.kind == RegStatement::Kind::Key ? Key::Good : Key::Deleted;
        } else if (is_value) {
            good = read_value(statement);
        } else {
            good = fail("neither a key nor a value nor a comment");
        }
        statement.line = first_line;
        if (good) return Result::Statement;
        leave_out(first_line);
        problems.push_back({fault_line_ != 0 ? fault_line_ : first_line, fault_});
        return Result::LeftOut;
    }
    if (!std::exchange(begun_, true) && lines_.error() == 0) {
        problems.push_back({1, no_header()});
        return Result::LeftOut;
    }
    return Result::End;
}

bool RegReader::read_header() {
    begun_ = true;
    const std::string_view header = trimmed(line_.text);
    if (header != kRegHeader4 && header != kRegHeader5) return fail(no_header());
    version_ = header == kRegHeader4 ? RegVersion::V4 : RegVersion::V5;
    return true;
}

bool RegReader::read_key(RegStatement& statement) {
    std::string_view text = trimmed(line_.text);
    const std::size_t end = end_of_path(text);
    if (end == std::string_view::npos) return fail("a key without ] at its end");
    text = text.substr(1, end - 1);
    if (has_comment_like_end(text))
        problems_->push_back({line_.number, "the key's name is taken to go up to the last ]", false});
    const bool deleted = text.starts_with('-');
    if (deleted) text.remove_prefix(1);
    std::u16string path;
    to_utf16_with_surrogates(text, path);
    if (std::string fault = parse_reg_path(path, statement.key); !fault.empty()) return fail(std::move(fault));
    if (deleted && statement.key.below.empty()) return fail("a root cannot be deleted");
    statement.kind = deleted ? RegStatement::Kind::DeletedKey : RegStatement::Kind::Key;
    return true;
}

bool RegReader::read_value(RegStatement& statement) {
    statement.name.clear();
    if (here() == '@') {
        ++at_;
    } else {
        ++at_;
        if (!read_quoted(buffer_, "a name")) return false;
        to_utf16_with_surrogates(buffer_, statement.name);
        if (std::string fault = reg_name_fault(statement.name); !fault.empty()) {
            // What stands behind it is passed over as that of a good one is.
            return read_data(statement) && fail(std::move(fault));
        }
    }
    return read_data(statement);
}

// What stands behind a value's name.
bool RegReader::read_data(RegStatement& statement) {
    skip_blanks();
    if (here() != '=') {
        in_text_ = !taken_.empty();
        return fail(in_text_ ? "a name without \" at its end" : "a value without = behind its name");
    }
    ++at_;
    skip_blanks();
    statement.kind = RegStatement::Kind::Value;
    statement.value.data.clear();
    bool good;
    if (skip("\"")) {
        good = read_text(statement.value);
    } else if (skip("dword:")) {
        good = read_dword(statement.value);
    } else if (skip("hex")) {
        good = read_hex(statement.value);
    } else if (skip("-")) {
        statement.kind = RegStatement::Kind::DeletedValue;
        good = true;
    } else {
        return fail("data that is neither \"text\" nor dword: nor hex: nor hex(TYPE): nor -");
    }
    if (!good) return false;
    skip_blanks();
    if (!ends_here()) {
        in_text_ = !taken_.empty();
        return fail(in_text_ ? "a text without \" at its end" : "more behind the data");
    }
    if (key_ == Key::None) return fail("a value before the first key");
    if (key_ == Key::Deleted) return fail("a value of a key that is deleted");
    return true;
}

bool RegReader::read_text(RegValue& value) {
    if (!read_quoted(buffer_, "a text")) return false;
    if (buffer_.find('\0') != std::string::npos) return fail("a zero character in a text");
    std::u16string text;
    to_utf16_with_surrogates(buffer_, text);
    text += u'\0';
    if (2 * text.size() > largest_) return fail(too_large());
    value.type = REG_SZ;
    value.data = reg_bytes(text);
    return true;
}

bool RegReader::read_dword(RegValue& value) {
    skip_blanks();
    const std::string_view rest = std::string_view(line_.text).substr(at_);
    const std::size_t digits = count_digits(rest);
    if (digits == 0) return fail("dword: without a hexadecimal number");
    if (digits > kMostDigits) return fail("dword: with more than eight digits");
    value.type = REG_DWORD;
    DWORD number = number_of(rest.substr(0, digits));
    for (std::size_t i = 0; i < sizeof number; ++i, number >>= 8) {
        value.data += static_cast<char>(number & 0xFF);
    }
    at_ += digits;
    return true;
}

bool RegReader::read_hex(RegValue& value) {
    value.type = REG_BINARY;
    if (skip("(")) {
        const std::string_view rest = std::string_view(line_.text).substr(at_);
        const std::size_t digits = count_digits(rest);
        if (digits == 0 || digits > kMostDigits || !rest.substr(digits).starts_with(')'))
            return fail("hex(TYPE): whose type is not one to eight hexadecimal digits");
        value.type = number_of(rest.substr(0, digits));
        at_ += digits + 1;
    }
    if (!skip(":")) return fail("hex without :");
    if (!read_bytes(value.data)) return false;
    if (version_ == RegVersion::V4 && (value.type == REG_EXPAND_SZ || value.type == REG_MULTI_SZ)) {
        if (2 * value.data.size() > largest_) return fail(too_large());
        value.data = widened(value.data);
    }
    return true;
}

bool RegReader::read_bytes(std::string& bytes) {
    for (bool comma = false;;) {
        skip_blanks();
        if (here() == '\\') {
            if (!continue_bytes()) return false;
            continue;
        }
        if (ends_here()) {
            if (comma) return fail("nothing behind the last comma");
            return true;
        }
        if (!bytes.empty() && !comma) return fail("bytes without a comma between them");
        if (!read_byte(bytes)) return false;
        skip_blanks();
        comma = here() == ',';
        if (comma) ++at_;
    }
}

bool RegReader::read_byte(std::string& bytes) {
    unsigned byte = 0;
    const std::size_t begin = at_;
    for (; is_hex(here()) && at_ - begin < 3; ++at_) {
        byte = byte << 4 | value_of_digit(here());
    }
    if (at_ - begin == 1 || at_ - begin == 2) {
        if (bytes.size() == largest_) return fail(too_large());
        bytes += static_cast<char>(byte);
        return true;
    }
    const char c = here();
    const bool shown = at_ == begin && c > ' ' && c < '\x7F';
    return fail(shown ? std::string("'") + c + "' is not a hexadecimal byte"
                      : "bytes must be of one or two hexadecimal digits");
}

// From the backslash to the line behind it.
bool RegReader::continue_bytes() {
    ++at_;
    skip_blanks();
    if (!ends_here()) return fail("more behind the backslash that ends a line");
    const long number = line_.number;
    const bool more = next_line();
    skip_blanks();
    const bool other = more && (here() == '[' || here() == '"' || here() == '@');
    if (other) again_.push_front(line_);
    if (more && !other) return true;
    line_ = {};
    at_ = 0;
    fault_line_ = number;
    return fail("a backslash with no bytes in the next line");
}

// From behind the opening quote to behind the closing one.
bool RegReader::read_quoted(std::string& text, const char* what) {
    text.clear();
    for (;;) {
        const std::size_t end = std::min(line_.text.find_first_of("\"\\", at_), line_.text.size());
        text.append(line_.text, at_, end - at_);
        at_ = end + 1;
        if (end == line_.text.size()) {
            const std::string ending = line_.ending;
            in_text_ = true;
            const bool too_long = text.size() > kLongestTextOverLines;
            if (too_long || line_.cut || !next_line()) return fail(std::string(what) + " without \" at its end");
            text += ending;
            taken_.push_back(line_);
        } else if (line_.text[end] == '"') {
            return true;
        } else if (here() == '"' || here() == '\\') {
            text += line_.text[at_++];
        } else {
            in_text_ = true;
            if (taken_.empty()) return fail("a backslash in quotes that is not doubled");
            return fail(std::string(what) + " without \" at its end, or with a backslash that is not doubled");
        }
    }
}

// Whether nothing is left of the line but a comment.
bool RegReader::ends_here() {
    return at_end() || here() == ';';
}

std::string RegReader::too_large() const {
    return "data of more than " + std::to_string(largest_) + " bytes";
}

bool RegReader::fail(std::string reason) {
    fault_ = std::move(reason);
    if (fault_line_ == 0 && !in_text_) fault_line_ = line_.number;
    return false;
}

// Goes on where a person would see the next statement.
void RegReader::leave_out(long first_line) {
    if (in_text_) {
        // The quote that is missing is most likely one of the first line.
        again_.insert(again_.begin(), std::make_move_iterator(taken_.begin()), std::make_move_iterator(taken_.end()));
        if (!taken_.empty()) fault_line_ = first_line;
    } else {
        skip_continuation();
    }
}

void RegReader::skip_continuation() {
    while (trimmed(line_.text).ends_with('\\') && next_line()) {
        skip_blanks();
        if (is_hex(here()) || here() == '\\') continue;
        again_.push_front(line_);
        return;
    }
}

bool RegReader::next_line() {
    at_ = 0;
    if (!again_.empty()) {
        line_ = std::move(again_.front());
        again_.pop_front();
        return true;
    }
    std::string_view text;
    if (!lines_.next(text)) {
        line_ = {};
        return false;
    }
    line_.text = text;
    line_.ending = lines_.ending();
    line_.number = lines_.number();
    line_.cut = lines_.was_cut();
    decode_line();
    return true;
}

void RegReader::decode_line() {
    if (is_ascii(line_.text)) return;
    std::u16string wide;
    const bool unicode = to_utf16_with_surrogates(line_.text, wide);
    if (!unicode && lines_.is_utf16()) {
        line_.text = to_utf8(wide);
        problems_->push_back({line_.number, "half a character at the end of the file", false});
        return;
    }
    if (!unicode) line_.text = decode_windows_1252(line_.text);
    if (!begun_) return;
    const bool expected = lines_.is_utf16() || lines_.has_mark() || version_ == RegVersion::V5;
    if (unicode == expected || std::exchange(guessed_, true)) return;
    problems_->push_back({line_.number,
                          unicode ? "valid UTF-8; such lines are read as that, not as Windows-1252"
                                  : "not valid UTF-8; such lines are read as Windows-1252",
                          false});
}

void RegReader::skip_blanks() {
    while (!at_end() && is_blank(here())) {
        ++at_;
    }
}

bool RegReader::skip(std::string_view word) {
    if (!equal_ignoring_case(std::string_view(line_.text).substr(at_, word.size()), word)) return false;
    at_ += word.size();
    return true;
}

}  // namespace zr
