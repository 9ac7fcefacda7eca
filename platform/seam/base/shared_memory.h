#pragma once

// Memory that all processes of a user share who name it by the same path.
//
// It is no file. A mapped file can be made shorter by anybody who may write it (`: > file`), and then ends the programs
// that touch it; this cannot be made shorter. It is there for as long as some process has it, and ends with the last
// one, in whatever way that ends: what is in it never comes from an earlier boot or from a copy. At the path stands an
// empty file, which is locked while the memory is looked for or made, and whose folder says whose memory it is.
//
// Behind it stand the host's System V segments: marked for removal as soon as they are made, by which they lose their
// key, and found by looking through those that there are for one that is this user's, has the size and carries the
// path's mark. A process has no descriptor of it, and a child made by fork has it too. Processes of different IPC
// namespaces (containers) do not share it, whatever files they share.

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "base/file_lock.h"
#include "platform/export.h"

namespace zr::platform {

// After how long a segment that nobody has and that was not marked was left behind by a maker that was killed: whoever
// looks for memory then removes it.
ZRPLATFORM_API extern std::atomic<int> unmarked_segment_seconds;

class ZRPLATFORM_API SharedMemory {
public:
    SharedMemory() noexcept = default;
    ~SharedMemory() { detach(); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    // With the path's file locked. find: the memory that some process has; ENOENT when none has. make: new memory, all
    // zero; what was found under the path so far is not found any more. 0 or an error number, and then there is none.
    // Memory is spent on what is touched; `size` is an upper bound and part of what is looked for.
    int find(const FileLock& path, std::size_t size) noexcept;
    int make(const FileLock& path, std::size_t size) noexcept;
    void detach() noexcept;
    // A child made by fork does not have it. `size` as above; 0 or an error number.
    int keep_from_children(std::size_t size) noexcept;

    explicit operator bool() const noexcept { return base_ != nullptr; }
    void* data() const noexcept { return static_cast<char*>(base_) + kHeader; }

    // A number by chance, another one for each memory that was ever made.
    std::uint64_t number() const noexcept;

private:
    static constexpr std::size_t kHeader = 4096;

    void* base_ = nullptr;
};

// Memory of the same kind, of any size, that is known by a number, which its maker passes on. There for as long as some
// process has one of these or a view.
class ZRPLATFORM_API SharedSegment {
public:
    SharedSegment() noexcept = default;
    SharedSegment(SharedSegment&& other) noexcept
        : held_(std::exchange(other.held_, nullptr)), number_(other.number_), size_(other.size_) {}
    SharedSegment& operator=(SharedSegment&& other) noexcept {
        std::swap(held_, other.held_);
        std::swap(number_, other.number_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~SharedSegment();

    // make: new memory, zero, all of it set aside: ENOMEM when there is not so much, or it is over half of the
    // machine's. open: what somebody has made and somebody has; EACCES when the number is not that of such memory of
    // that size. 0 or an error number. Sizes are of whole pages.
    int make(std::size_t size) noexcept;
    int open(int number, std::size_t size) noexcept;
    explicit operator bool() const noexcept { return held_ != nullptr; }
    int number() const noexcept { return number_; }

    // A part of it, of whole pages, with the protection of mmap(2), to be given back by munmap(2); a copy is nobody
    // else's. MAP_FAILED with errno.
    void* view(std::size_t offset, std::size_t size, int protection, bool copy) const noexcept;

private:
    void* held_ = nullptr;  // its first page, so that it stays
    int number_ = 0;
    std::size_t size_ = 0;
};

// A small structure of atomics that is shared so, zero at first.
template <class Page>
class SharedPage {
    static_assert(std::is_standard_layout_v<Page> && std::is_trivially_destructible_v<Page>);

public:
    // Opens or makes it. 0 or an error number; nothing when it is open. The path is kept for the length of the call.
    int open(const char* path) noexcept {
        if (memory_) return 0;
        FileLock lock;
        int error = lock.take(path, FileLock::Missing::IsMade);
        if (error == 0) error = memory_.find(lock, sizeof(Page));
        if (error == ENOENT) error = memory_.make(lock, sizeof(Page));
        return error;
    }

    explicit operator bool() const noexcept { return static_cast<bool>(memory_); }
    Page* operator->() const noexcept { return static_cast<Page*>(memory_.data()); }
    Page& operator*() const noexcept { return *operator->(); }
    std::uint64_t number() const noexcept { return memory_.number(); }

private:
    SharedMemory memory_;
};

}  // namespace zr::platform
