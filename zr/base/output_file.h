#pragma once

// Where an export goes: a file that appears under its name only when it is complete, or standard output.

#include <string>
#include <string_view>

namespace zr {

class OutputFile {
public:
    // An empty path or "-" is standard output. Devices and pipes are written to directly. Throws Failure, as below.
    explicit OutputFile(const std::string& path);
    ~OutputFile();  // leaves nothing behind of a file that was not finished
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Whether nothing of it is seen before finish(), so that another one can be made instead.
    bool can_start_over() const { return !temporary_.empty(); }

    void write(std::string_view text);
    void finish();

private:
    void flush();

    std::string path_;
    std::string temporary_;
    std::string waiting_;  // to be written
    bool direct_ = false;
    int fd_ = -1;  // -1: standard output
};

}  // namespace zr
