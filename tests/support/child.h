#pragma once

// Real second processes for tests. A function declared with ZR_CHILD runs in a process of its own: the test program
// started anew, so that nothing but the file system, the named objects and the pipes is shared with the test.
//
//   ZR_CHILD(writer) {                       // std::vector<std::string> args; returns the exit code
//       zr::test::say("ready");              // a line to the parent
//       return zr::test::hear() == "go" ? 0 : 1;  // a line from the parent; empty at the end of the pipe
//   }
//   zr::test::Child child("writer", {"argument"});
//   EXPECT_EQ(child.hear(), "ready");
//   child.say("go");
//   EXPECT_EQ(child.wait(), 0);

#include <sys/types.h>

#include <string>
#include <vector>

namespace zr::test {

class Child {
public:
    // `program` may be this test program built for another architecture.
    explicit Child(const std::string& function, const std::vector<std::string>& args = {},
                   const std::string& program = "/proc/self/exe");
    ~Child();  // kills and reaps what still runs
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void say(const std::string& line);
    std::string hear();  // blocks until the child writes a line; empty when it ended
    void kill(int signal);
    int wait();  // the exit code, or minus the signal that ended it
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int to_ = -1;
    int from_ = -1;
};

void say(const std::string& line);
std::string hear();

using ChildFunction = int (*)(std::vector<std::string> args);
struct ChildRegistration {
    ChildRegistration(const char* name, ChildFunction function);
};

// Runs the requested child function if this process was started as one; returns its exit code, or -1 if it was not.
int run_as_child(int argc, char** argv);

}  // namespace zr::test

#define ZR_CHILD(name)                                                                   \
    static int zr_child_##name(std::vector<std::string> args);                           \
    static const zr::test::ChildRegistration zr_register_##name(#name, zr_child_##name); \
    static int zr_child_##name([[maybe_unused]] std::vector<std::string> args)
