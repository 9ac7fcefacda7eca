#include "zr/commands/printed_text.h"

#include "zr/base/output.h"
#include "zr/base/text.h"

namespace zr {
namespace {

void print_line(std::string_view text) {
    if (text.ends_with('\r')) text.remove_suffix(1);
    // A tab is what it looks like.
    for (std::size_t tab = 0; (tab = text.find('\t')) != std::string_view::npos; text.remove_prefix(tab + 1)) {
        print(printable(text.substr(0, tab)) + "    ");
    }
    print(printable(text) + "\n");
}

}  // namespace

void PrintedText::write(std::string_view text) {
    waiting_ += text;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = waiting_.find('\n', begin)) != std::string::npos; begin = end + 1) {
        print_line(std::string_view(waiting_).substr(begin, end - begin));
    }
    waiting_.erase(0, begin);
}

void PrintedText::finish() {
    if (!waiting_.empty()) print_line(waiting_);
    waiting_.clear();
}

}  // namespace zr
