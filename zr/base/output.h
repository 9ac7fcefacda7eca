#pragma once

// Standard output: UTF-8, buffered, checked.

#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace zr {

class Json;

void print(std::string_view text);
// From now on what is printed goes to the user's pager when it is longer than the terminal.
void page_output();
// Behind all that is printed: the reader has seen enough of it. Throws as flush_output does.
void end_output();
// JSON text in which no character can steer a terminal.
std::string json_text(const Json& value);
void print_json_line(const Json& value);
// Writes out what print() kept. Throws Failure when it cannot be written.
void flush_output();

// A JSON array that is written element by element, so that memory does not grow with it.
class JsonArray {
public:
    using Write = std::function<void(std::string_view)>;
    explicit JsonArray(Write write = print) : write_(std::move(write)) {}

    void add(const Json& element);
    void finish();

private:
    Write write_;
    bool any_ = false;
};

}  // namespace zr
