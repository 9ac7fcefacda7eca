#include "support/disk.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <utility>

namespace zr::test {
namespace {

std::string content(const std::string& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    std::string bytes(error ? 0 : static_cast<std::size_t>(size), '\0');
    std::ifstream(path, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

}  // namespace

Disk& Disk::instance() {
    static Disk disk;
    return disk;
}

void Disk::begin(const std::vector<std::string>& paths, std::function<void()> moment) {
    for (const std::string& path : paths) {
        durable_[path] = content(path);
    }
    moment_ = std::move(moment);
    watching_ = true;
}

void Disk::syncing() {
    if (moment_) moment_();
}

void Disk::synced(int file) {
    if (!watching_) return;
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    std::error_code error;
    const std::string path = std::filesystem::read_symlink(link, error);
    if (error || !std::filesystem::is_regular_file(path, error)) return;
    const std::lock_guard lock(mutex_);
    durable_[path] = content(path);
    ++syncs_[path];
}

int Disk::syncs(const std::string& path) {
    const std::lock_guard lock(mutex_);
    return syncs_[path];
}

std::string Disk::after_power_cut(const std::string& path, std::mt19937& random) {
    constexpr std::size_t kSector = 512;
    const std::lock_guard lock(mutex_);
    const std::string now = content(path);
    std::string left = durable_[path];
    if (now.size() > left.size()) left.resize(left.size() + random() % (now.size() - left.size() + 1), '\0');
    if (now.size() < left.size() && random() % 2 == 0) left.resize(now.size());
    const unsigned odds = random() % 4;  // from nothing to nearly everything
    for (std::size_t at = 0; at < std::min(left.size(), now.size()); at += kSector) {
        const std::size_t size = std::min(kSector, std::min(left.size(), now.size()) - at);
        if (random() % 4 < odds) left.replace(at, size, now, at, size);
    }
    return left;
}

void Disk::cut(const std::string& store, const std::string& folder, std::mt19937& random) {
    const std::string name = std::filesystem::path(store).filename();
    std::filesystem::create_directory(folder);
    for (const char* suffix : {"", "-wal"}) {
        std::ofstream(folder + '/' + name + suffix, std::ios::binary) << after_power_cut(store + suffix, random);
    }
}

}  // namespace zr::test

// In the place of the C library's, for the platform and for SQLite.
extern "C" __attribute__((visibility("default"))) int fdatasync(int file) {
    zr::test::Disk::instance().syncing();
    const auto result = static_cast<int>(syscall(SYS_fdatasync, file));
    if (result == 0) zr::test::Disk::instance().synced(file);
    return result;
}
extern "C" __attribute__((visibility("default"))) int fsync(int file) {
    zr::test::Disk::instance().syncing();
    const auto result = static_cast<int>(syscall(SYS_fsync, file));
    if (result == 0) zr::test::Disk::instance().synced(file);
    return result;
}
