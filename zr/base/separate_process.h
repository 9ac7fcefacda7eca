#pragma once

// Answers questions in a process of its own, for those over which a process may crash, hang or end: a module that is
// loaded runs whatever its author wrote. What it prints is lost.
//
//   SeparateProcess process([](std::size_t question) { return std::string("answer"); });
//   std::string answer;
//   if (!process.ask(0, answer)) complain(process.failure());
//
// To be made and asked by one thread of a program that has no other ones: the process is a fork.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

namespace zr {

class SeparateProcess {
public:
    using Answer = std::function<std::string(std::size_t question)>;  // runs in the process

    explicit SeparateProcess(Answer answer, std::chrono::milliseconds patience = std::chrono::seconds(10));
    ~SeparateProcess();  // ends the process
    SeparateProcess(const SeparateProcess&) = delete;
    SeparateProcess& operator=(const SeparateProcess&) = delete;

    // False when the process ended over the question or does not answer; the next one is asked in another process.
    // Throws Failure when there can be none.
    bool ask(std::size_t question, std::string& answer);
    const std::string& failure() const { return failure_; }  // what became of the last one, such as "crashes (...)"

private:
    void start();
    void end();
    [[noreturn]] void serve(int questions, int answers) const;

    Answer answer_;
    std::chrono::milliseconds patience_;
    pid_t process_ = -1;
    int questions_ = -1;
    int answers_ = -1;
    std::string failure_;
};

}  // namespace zr
