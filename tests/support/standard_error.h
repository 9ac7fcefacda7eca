#pragma once

// Collects what this process writes to standard error while it lives.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace zr::test {

class StandardError {
public:
    StandardError() : file_(memfd_create("stderr", MFD_CLOEXEC)), before_(dup(STDERR_FILENO)) {
        if (dup2(file_, STDERR_FILENO) < 0) ADD_FAILURE() << "no standard error to collect";
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;
    ~StandardError() {
        dup2(before_, STDERR_FILENO);
        close(before_);
        close(file_);
    }

    std::string text() const {
        std::string text;
        char bytes[4096];
        ssize_t size = 0;
        while ((size = pread(file_, bytes, sizeof bytes, static_cast<off_t>(text.size()))) > 0) {
            text.append(bytes, static_cast<std::size_t>(size));
        }
        return text;
    }

private:
    int file_;
    int before_;
};

}  // namespace zr::test
