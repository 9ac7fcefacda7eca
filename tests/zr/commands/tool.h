#pragma once

// Runs zr as a user does: as a process, with its own streams.

#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace zr::test {

inline const std::string kData = ZR_SOURCE_DIR "/examples/data/";  // the samples

struct Result {
    int code = 0;  // the exit code, or minus the signal that ended it
    std::string out;
    std::string err;
};

// Runs zr to its end with `input` on standard input.
Result zr(const std::vector<std::string>& args, const std::string& input = {});
// The same for any program, found by PATH.
Result run(const std::vector<std::string>& command, const std::string& input = {});

// Runs zr at a terminal of that size: what it writes there is the output, with LF for line ends.
struct Terminal {
    unsigned short rows = 24;
    unsigned short columns = 80;
};
Result zr_at_terminal(const Terminal& terminal, const std::vector<std::string>& args);

// Whether it ended with that code and one line on standard error, with `part` in it.
void expect_failure(const Result& result, int code, const std::string& part);

// A zr that goes on running, with pipes to its standard input and from its standard output.
class RunningZr {
public:
    enum class Errors { NotRead, ToOutput };

    explicit RunningZr(const std::vector<std::string>& args, Errors errors = Errors::NotRead);
    ~RunningZr();  // kills and reaps what still runs
    RunningZr(const RunningZr&) = delete;
    RunningZr& operator=(const RunningZr&) = delete;

    void write(const std::string& text);  // blocks while the pipe is full
    std::string read_line();              // blocks; empty at the end
    std::string read_rest();              // blocks until the end
    void kill(int signal);
    int wait();

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text);
std::vector<std::string> lines_of(const std::string& text);
// The lines of a list without the number in front and the identifier at the end.
std::vector<std::string> rows_of(const std::string& text);

}  // namespace zr::test
