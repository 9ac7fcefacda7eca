#include "ZrLog/ZrLogReader.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>

#include "ZrLog/file_reader.h"
#include "host/descriptor.h"

namespace zr::log {

bool read_bytes(int fd, void* to, std::size_t size, std::uint64_t from) {
    auto* bytes = static_cast<char*>(to);
    while (size > 0) {
        const ssize_t n = pread(fd, bytes, size, static_cast<off_t>(from));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        from += static_cast<std::uint64_t>(n);
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

std::int64_t milliseconds() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

}  // namespace zr::log

namespace {

using namespace zr::log;
namespace fs = std::filesystem;

// The number behind "NAME." in the name of a file that was the log earlier; 0 for other files.
unsigned number_of(const std::string& name, const std::string& log) {
    if (name.size() < log.size() + 2 || name.compare(0, log.size(), log) != 0 || name[log.size()] != '.') return 0;
    unsigned number = 0;
    const char* const end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data() + log.size() + 1, end, number);
    return error == std::errc() && rest == end ? number : 0;
}

// The log's files, the oldest first; the one of the log's name is the last.
std::vector<std::string> files_of(const std::string& path) {
    std::vector<std::pair<unsigned, std::string>> earlier;
    const fs::path whole(path);
    const std::string name = whole.filename().string();
    std::error_code error;
    const fs::path folder = whole.has_parent_path() ? whole.parent_path() : fs::path(".");
    for (fs::directory_iterator each(folder, error), end; !error && each != end; each.increment(error)) {
        if (const unsigned number = number_of(each->path().filename().string(), name); number != 0) {
            earlier.emplace_back(number, path + "." + std::to_string(number));
        }
    }
    std::sort(earlier.rbegin(), earlier.rend());
    std::vector<std::string> files;
    files.reserve(earlier.size() + 1);
    for (auto& [number, file] : earlier) {
        files.push_back(std::move(file));
    }
    files.push_back(path);
    return files;
}

// What a file keeps while it is renamed and appended to, and loses when it is begun anew: its first bytes.
std::string identity_of(int fd) {
    constexpr std::size_t kBytes = 24;
    char bytes[kBytes];
    struct stat status {};
    if (read_bytes(fd, bytes, sizeof bytes, 0)) return {bytes, sizeof bytes};
    return fstat(fd, &status) == 0 ? "empty file " + std::to_string(status.st_ino) : std::string();
}

std::unique_ptr<FileReader> read_file(int fd, int wait) {
    auto reader = read_slots(fd, wait);
    return reader ? std::move(reader) : read_records(fd, wait);
}

}  // namespace

struct __attribute__((visibility("hidden"))) ZrLogReader::State {
    std::string path;
    int wait = 0;
    ZrLogStatistics statistics;
    zr::HostFd file;
    std::unique_ptr<FileReader> reader;
    std::string identity;            // of the file that is read
    std::set<std::string> was_read;  // the identities of all that were

    std::optional<std::string> open(const std::string& name);
    bool begin_anew();
    bool go_on();
};

// Reads that file from now on; or why not, and then it goes on with the one before.
std::optional<std::string> ZrLogReader::State::open(const std::string& name) {
    zr::HostFd opened = zr::open_host(name.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
    struct stat facts;
    if (!opened) return strerror(errno);
    if (fstat(opened.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return "not a regular file";
    std::string found = identity_of(opened.get());
    if (was_read.contains(found)) return "read before";
    auto reads = read_file(opened.get(), wait);
    if (!reads) return "not a log file of this version";
    if (reader && reader->has_rest()) ++statistics.unfinished;
    reader = std::move(reads);
    file = std::move(opened);
    identity = std::move(found);
    was_read.insert(identity);
    return std::nullopt;
}

// The file was cut while it was read: what is in it now is new.
bool ZrLogReader::State::begin_anew() {
    if (!file) return false;
    std::string found = identity_of(file.get());
    if (found == identity) return false;
    const bool was_empty = identity.rfind("empty", 0) == 0;
    identity = std::move(found);
    was_read.insert(identity);
    if (was_empty) return false;
    reader = read_file(file.get(), wait);
    return reader != nullptr;
}

// At the end of a file: to the next one, if there is one.
bool ZrLogReader::State::go_on() {
    if (begin_anew()) return true;
    for (const std::string& name : files_of(path)) {
        if (!open(name)) return true;
    }
    return false;
}

ZrLogReader::ZrLogReader(std::unique_ptr<State> state) : state_(std::move(state)) {}

ZrLogReader::~ZrLogReader() = default;

std::unique_ptr<ZrLogReader> ZrLogReader::open(const std::string& path, std::string& error, int waitMilliseconds) {
    auto state = std::make_unique<State>();
    state->path = path;
    state->wait = waitMilliseconds;
    // The last one first: it tells whether this is a log at all. While a log is rotated it is missing for a moment.
    struct stat facts;
    const bool rotates = lstat(path.c_str(), &facts) != 0 && errno == ENOENT && files_of(path).size() > 1;
    if (const auto reason = state->open(path); reason && !rotates) {
        error = path + ": " + *reason;
        return nullptr;
    }
    state->was_read.clear();
    state->reader.reset();
    if (!state->go_on()) {
        error = path + ": not a log file of this version";
        return nullptr;
    }
    return std::unique_ptr<ZrLogReader>(new ZrLogReader(std::move(state)));
}

bool ZrLogReader::next(ZrLogEntry& entry) {
    while (!state_->reader || !state_->reader->next(entry, state_->statistics)) {
        if (!state_->go_on()) return false;
    }
    return true;
}

ZrLogStatistics ZrLogReader::statistics() const {
    ZrLogStatistics statistics = state_->statistics;
    if (state_->reader && state_->reader->has_rest()) ++statistics.unfinished;
    return statistics;
}
