#pragma once

// What zr watch does with a change of a file: tells it, and runs a program.

#include <string>
#include <vector>

namespace zr {

struct FolderWatchOptions {
    std::vector<std::string> folders;
    const std::string* extension = nullptr;  // NULL: any
    std::vector<std::string> only;           // patterns of which a name has to match one
    std::vector<std::string> exec;           // a program and its arguments
    bool below = false;                      // the folders in the folders as well
    bool json = false;
};

// For one thread.
class FileChanges {
public:
    explicit FileChanges(const FolderWatchOptions& options) : options_(options) {}

    // `to`: the new path of what was renamed, else NULL. Both are handheld paths.
    void tell(const char* change, const std::u16string& path, const std::u16string* to) const;

private:
    bool is_wanted(const std::string& path) const;
    void print_change(const char* change, const std::string& path, const std::string& to) const;
    void run(const char* change, const std::string& path, const std::string& to) const;

    const FolderWatchOptions& options_;
};

}  // namespace zr
