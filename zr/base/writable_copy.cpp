#include "zr/base/writable_copy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>

#include "zr/base/failure.h"

namespace zr {
namespace {

namespace fs = std::filesystem;

constexpr int kMostTries = 5;

// The stores and their journals, and what tells one state of a file from another.
using Files = std::map<std::string, std::pair<off_t, timespec>>;

bool differ(const Files& a, const Files& b) {
    const auto equal = [](const auto& one, const auto& other) {
        const auto& [size, time] = one.second;
        const auto& [other_size, other_time] = other.second;
        return one.first == other.first && size == other_size && time.tv_sec == other_time.tv_sec &&
               time.tv_nsec == other_time.tv_nsec;
    };
    return !std::equal(a.begin(), a.end(), b.begin(), b.end(), equal);
}

Files files_in(const std::string& folder) {
    Files files;
    std::error_code error;
    for (fs::directory_iterator each(folder, error), end; !error && each != end; each.increment(error)) {
        const std::string name = each->path().filename();
        struct stat status;
        const bool wanted = name.ends_with(".db") || name.ends_with(".db-wal");
        if (!wanted || ::stat(each->path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        files[name] = {status.st_size, status.st_mtim};
    }
    if (error) throw file_failure(folder, error.value());
    return files;
}

void copy_files(const Files& files, const std::string& from, const std::string& to) {
    for (const auto& [name, facts] : files) {
        std::error_code error;
        const fs::path copy = fs::path(to) / name;
        fs::copy_file(fs::path(from) / name, copy, fs::copy_options::overwrite_existing, error);
        if (error) throw file_failure((fs::path(from) / name).string(), error.value());
        ::chmod(copy.c_str(), S_IRUSR | S_IWUSR);
    }
}

bool cannot_be_written(const std::string& folder) {
    if (::access(folder.c_str(), F_OK) != 0) return false;  // it will be made, or cannot be
    if (::access(folder.c_str(), W_OK) != 0) return errno == EACCES || errno == EROFS;
    for (const auto& [name, facts] : files_in(folder)) {
        if (::access((fs::path(folder) / name).c_str(), W_OK) != 0) return true;
    }
    return false;
}

}  // namespace

std::string folder_of_stores() {
    const auto variable = [](const char* name) {
        const char* const value = std::getenv(name);
        return std::string(value ? value : "");
    };
    if (std::string home = variable("ZR_HOME"); !home.empty()) return home;
    if (const std::string data = variable("XDG_DATA_HOME"); data.starts_with("/")) return data + "/zrutility";
    return variable("HOME") + "/.local/share/zrutility";
}

WritableCopy::WritableCopy() {
    const std::string folder = folder_of_stores();
    if (!cannot_be_written(folder)) return;
    std::string name = (fs::temp_directory_path() / "zr-stores-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw file_failure(name, errno);
    copy_ = name;
    const char* const before = std::getenv("ZR_HOME");
    home_ = before ? before : "";
    try {
        for (int tries = 1;; ++tries) {
            const Files files = files_in(folder);
            copy_files(files, folder, copy_);
            if (!differ(files_in(folder), files)) break;
            if (tries == kMostTries)
                throw Failure{Exit::StoreFailed, folder + ": cannot be written to, and others keep changing it"};
        }
    } catch (...) {
        std::error_code none;
        fs::remove_all(copy_, none);
        throw;
    }
    ::setenv("ZR_HOME", copy_.c_str(), 1);
}

WritableCopy::~WritableCopy() {
    if (copy_.empty()) return;
    if (home_.empty()) {
        ::unsetenv("ZR_HOME");
    } else {
        ::setenv("ZR_HOME", home_.c_str(), 1);
    }
    std::error_code none;
    fs::remove_all(copy_, none);
}

}  // namespace zr
