#pragma once

// Reads a folder's names in runs, straight from the kernel: entries may come and go meanwhile.

#include <cstddef>
#include <cstdint>

namespace zr::platform {

// What getdents64 writes.
struct RawEntry {
    std::uint64_t inode;
    std::int64_t offset;
    unsigned short length;
    unsigned char type;  // DT_*
    char name[1];
};

class Listing {
public:
    Listing() = default;
    ~Listing();
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;

    // An errno value, or 0. The second form opens a folder below an open one.
    int open(const char* path);
    int open(int folder, const char* name);

    int fd() const { return fd_; }

    // Whether files in the folder may be looked at: a folder can be open for listing only.
    bool may_enter() const;

    // The next name but "." and ".."; null at the end or, with `error` set, when reading failed.
    const RawEntry* next(int& error);

private:
    bool refill(int& error);

    alignas(RawEntry) char buffer_[32768];
    std::size_t at_ = 0;
    std::size_t size_ = 0;
    int fd_ = -1;
};

}  // namespace zr::platform
