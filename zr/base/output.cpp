#include "zr/base/output.h"

#include <cerrno>
#include <cstdio>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/text.h"

namespace zr {

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) throw file_failure("standard output", errno);
}

std::string json_text(const Json& value) {
    const std::string text = value.text(false);
    // Such characters stand inside of strings only, where an escape means the same.
    return printable(text) == text ? text : value.text(true);
}

void print_json_line(const Json& value) {
    print(json_text(value));
    print("\n");
}

void flush_output() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) throw file_failure("standard output", errno);
}

void JsonArray::add(const Json& element) {
    write_(any_ ? ",\n" : "[\n");
    any_ = true;
    write_(json_text(element));
}

void JsonArray::finish() {
    write_(any_ ? "\n]\n" : "[]\n");
}

}  // namespace zr
