#pragma once

// Where an export goes: a file that appears under its name only when it is complete, or standard output.

#include <string>
#include <string_view>

namespace zr {

class OutputFile {
public:
    // An empty path or "-" is standard output. Devices and pipes are written to directly. A link stays one: what it
    // leads to is written. The permissions of a file that is replaced stay; a new one is the user's alone. Throws
    // Failure, as below.
    explicit OutputFile(const std::string& path);
    // Leaves nothing behind of a file that was not finished; neither does the program when SIGINT, SIGTERM or SIGHUP
    // ends it.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Whether nothing of it is seen before finish(), so that another one can be made instead.
    bool can_start_over() const { return !temporary_.empty(); }

    void write(std::string_view text);
    void finish();

private:
    void flush();
    void make_temporary();
    void drop_temporary();

    std::string path_;
    std::string target_;  // where the path leads
    std::string temporary_;
    std::string waiting_;  // to be written
    bool direct_ = false;
    int fd_ = -1;  // -1: standard output
};

}  // namespace zr
