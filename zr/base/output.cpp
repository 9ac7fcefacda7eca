#include "zr/base/output.h"

#include <cerrno>
#include <cstdio>

#include "zr/base/failure.h"
#include "zr/base/json.h"
#include "zr/base/pager.h"
#include "zr/base/text.h"

namespace zr {

void print(std::string_view text) {
    if (Pager::instance().takes(text)) return;
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

void page_output() {
    Pager::instance().begin();
}

void end_output() {
    Pager::instance().end();
    flush_output();
}

void flush_output() {
    Pager::instance().flush();
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
