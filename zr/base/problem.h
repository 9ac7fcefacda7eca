#pragma once

// What was found wrong in a file that is imported.

#include <string>

namespace zr {

struct Problem {
    long line;
    std::string reason;
    bool lost = true;  // something is not imported; else it is, with a guess that a person should know of
};

}  // namespace zr
