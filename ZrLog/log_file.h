#pragma once

// The file that records are written to. Writers reserve slots with one compare-and-swap on the shared header, fill
// them through a shared mapping and set each slot's mark last; none waits for another or for the disk.

#include <atomic>
#include <cstdint>
#include <string>

#include "ZrLog/ZrLog.h"
#include "ZrLog/format.h"

namespace zr::log {

class LogFile {
public:
    // Opens or creates the log at `path`; nullptr with a reason in `error`. Never touches a file that is not a log.
    // The object is never deleted, because threads may be inside it.
    static LogFile* open(const char* path, std::string& error);

    void write(const ZrLogRecord& record, bool is_buffer);

private:
    struct Tag;  // a source tag that this process has written to the file

    explicit LogFile(int fd) : fd_(fd) {}
    bool make_or_check(std::string& error);
    bool make_header(std::string& error);
    bool prepare(std::string& error);
    bool check_header(std::uint64_t file_size, std::string& error) const;

    std::uint64_t reserve(std::uint64_t slots);  // the first slot, or 0 when there is no room
    bool grow(std::uint64_t slots);
    bool allocate(std::uint64_t from, std::uint64_t to);
    Slot* slot_at(std::uint64_t place);  // nullptr when the block cannot be mapped
    char* map_block(std::uint64_t block);
    bool map_blocks(std::uint64_t first, std::uint64_t count);

    bool write_run(Slot& head, std::uint8_t kind, const void* data, std::size_t size, std::uint64_t* place);
    void commit(std::uint64_t place, Slot& slot, std::uint8_t kind);
    std::uint32_t tag_of(const char* source);
    std::uint32_t write_tag(const char* source, std::size_t length);

    static constexpr std::size_t kTagBuckets = 1024;
    static constexpr int kMaxTags = 8192;

    const int fd_;
    Header* header_ = nullptr;
    std::atomic<char*>* blocks_ = nullptr;  // kMaxBlocks of them, in zero pages that are only touched when used
    std::atomic<Tag*> tags_[kTagBuckets] = {};
    std::atomic<int> tag_count_{0};
};

// Called in the child of a fork: process and thread ids are read anew.
void forget_ids();

}  // namespace zr::log
