#pragma once

// Text for a terminal, line by line: nothing in it can steer one.

#include <string>
#include <string_view>

namespace zr {

class PrintedText {
public:
    void write(std::string_view text);
    void finish();  // what has no line end yet gets one

private:
    std::string waiting_;
};

}  // namespace zr
