#pragma once

// Other programs, started with a list of arguments: no shell reads it.

#include <sys/types.h>

#include <string>
#include <vector>

namespace zr {

// Runs a program, found by PATH, to its end, on this one's terminal. Returns its exit code, or minus the signal that
// ended it. `environment` is added to this one's, each as NAME=VALUE. Throws Failure when it cannot be started.
int run_program(const std::vector<std::string>& command, const std::vector<std::string>& environment = {});

// The same in two steps. `input` is its standard input, unless it is -1.
pid_t start_program(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                    int input = -1);
int wait_for_program(const std::string& name, pid_t process);

// What the end of a program was, for people: "ended with 3". Empty for 0.
std::string program_fault(int code);

}  // namespace zr
