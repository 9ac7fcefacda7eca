#pragma once

// Failures that end a command: thrown where they are met, printed once, as one line, by main.

#include <string>
#include <utility>

#include "zr/base/exit_code.h"

namespace zr {

struct Failure {
    Exit code;
    std::string text;
    bool refused = false;  // the store works, and does not take this item
};

// Failure about a file, from errno.
Failure file_failure(const std::string& path, int error);

// A warning or a failure that does not end the command: "zr: TEXT" on standard error, control characters escaped.
void complain(const std::string& text);

// The code of a command that met several: the first one that is a failure, else the worst answer.
Exit combine(Exit a, Exit b);

}  // namespace zr
