#pragma once

// A file to read; "-" is standard input, which may be anything.

#include <sys/types.h>

#include <string>

#include "zr/base/line_reader.h"

namespace zr {

class InputFile {
public:
    explicit InputFile(const std::string& path);  // throws Failure when it cannot be opened or is no regular file
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    int descriptor() const { return fd_; }
    ReadFunction reader() const { return read_from_descriptor(fd_); }
    const std::string& name() const { return name_; }  // for messages
    off_t size() const;                                // 0 when it is not a regular file

private:
    std::string name_;
    int fd_ = -1;
    bool owned_ = false;
};

}  // namespace zr
