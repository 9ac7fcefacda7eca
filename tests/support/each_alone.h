#pragma once

// Tests that run one after the other, each in a process of its own, which is forked where the program has only begun.
// It is as if the program were started for each, without the time that this takes: with a sanitizer longer than most
// tests.

namespace zr::test {

// Whether the first argument is --each-alone.
bool wants_each_alone(int argc, char** argv);

// Runs the tests of the suites that the arguments after it name (without any: all), but those that the variable
// ZR_TESTS_LEFT_OUT names, as PROGRAM:SUITE.TEST and separated by spaces. A line for each on the standard output, and
// what it printed if it failed. A test that takes more than ten minutes is killed, and has failed.
// Returns 0 when none failed, 1 when one did, 2 for a suite that is not there, 77 when all were skipped.
int run_each_alone(int argc, char** argv);

}  // namespace zr::test
