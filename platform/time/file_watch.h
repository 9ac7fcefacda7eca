#pragma once

// Tells when a file was made, replaced, rewritten or removed, also through the links that lead to it.
//
// The folders are watched and not the file, so that a file that is put in its place by a rename is seen, and one that
// does not exist yet.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/types.h"

namespace zr::platform {

// How many links are followed, as many as the host follows.
inline constexpr int kMostLinks = 40;

class FileWatch {
public:
    FileWatch() = default;
    ~FileWatch() { close(); }
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    // `events` are those of inotify(7) that count. The path is absolute, and its folder exists. An error code, or 0.
    DWORD open(const std::string& path, std::uint32_t events);
    void close() noexcept;

    int descriptor() const noexcept { return descriptor_; }  // readable when read_changes() has something to look at
    bool read_changes();
    // What the path's links lead to.
    const std::string& target() const noexcept { return target_; }

private:
    struct Place {
        int watch;
        std::string name;
    };

    bool concerns(int watch, std::uint32_t events, const char* name) const;
    DWORD follow();

    int descriptor_ = -1;
    std::uint32_t events_ = 0;
    std::string path_;
    std::string target_;
    std::vector<Place> places_;  // of the path and of each link's target
};

}  // namespace zr::platform
