#pragma once

// Tells when a file of the host was made, replaced, rewritten or removed, also through the links that lead to it.
//
// The folders are watched and not the file, so that a file that is put in its place by a rename is seen, and one that
// does not exist yet. It takes neither a descriptor nor a thread of its own. In a forked child that has resumed it goes
// on; what happened since the fork it does not tell.

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/host_events.h"
#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

// How many links are followed, as many as the host follows.
inline constexpr int kMostLinks = 40;

class ZRPLATFORM_API FileWatch {
public:
    // `teller` is a watched source (watch_host) that is called when read_changes() has something to look at.
    explicit FileWatch(HostSource& teller) : teller_(teller) {}
    ~FileWatch() { close(); }
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    // `events` are those of inotify(7) that count. The path is absolute, and its folder exists. An error code, or 0.
    // May throw std::bad_alloc.
    DWORD open(const std::string& path, std::uint32_t events);
    void close() noexcept;
    bool is_open() const noexcept { return open_; }

    // Whether something happened since the last look. May throw std::bad_alloc. For one thread at a time, as target().
    bool read_changes();
    // What the path's links lead to.
    const std::string& target() const noexcept { return target_; }

private:
    friend class ChangeSource;

    struct Place {
        int watch;
        std::string name;
    };

    // With the source's lock held.
    bool concerns(int watch, std::uint32_t events, std::string_view name) const;
    bool has_place(int watch) const noexcept;
    void tell() noexcept;
    DWORD follow();
    void begin_again() noexcept;

    HostSource& teller_;
    bool open_ = false;
    std::uint32_t events_ = 0;
    std::string path_;
    std::string target_;
    std::vector<Place> places_;  // of the path and of each link's target
    std::atomic<bool> changed_{false};
};

}  // namespace zr::platform
