#pragma once

// The file that records are written to: one append for each, so that threads, processes and forked children need no
// agreement. From time to time a writer looks whether the file is still the one of its name, and how long it is.

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "ZrLog/ZrLog.h"
#include "ZrLog/format.h"
#include "ZrLog/log_place.h"

namespace zr::log {

class LogFile {
public:
    // Opens or creates the log at `path`; nullptr with a reason in `error`. Never touches a file that is not a log.
    // The object is never deleted, because threads may be inside it.
    static LogFile* open(const char* path, std::string& error);

    void write(const ZrLogRecord& record, bool is_buffer);

    // What keeps records out of the log just now; nullptr when nothing does.
    const char* trouble() const;

    // Around a fork, so that no thread is in the middle of a look.
    void before_fork();
    void after_fork(bool in_child);

private:
    // What a record's bytes are, in the order of the file.
    struct Pieces {
        Head head;
        const void* body;
        std::size_t body_size;
        const char* source;
    };
    enum Trouble : int { kNone, kDiskFull, kFileTooLarge, kNotWritten, kGone, kTroubles };

    LogFile(int fd, std::string path, const LogLimits& limits);

    bool put(Pieces& pieces);
    ssize_t write_bytes(const Pieces& pieces, std::size_t length) const;
    ssize_t write_within_limit(const Pieces& pieces, std::size_t length) const;
    void put_note(Kind kind, std::uint64_t number);
    void tell_lost();

    bool is_look_due(std::uint64_t time, std::size_t length);
    void look(std::uint64_t time);
    bool is_cut(const struct stat& status);
    void notice_length(const struct stat& status);
    void notice_limit();
    void find_again(bool is_open, const struct stat& status);
    bool adopt(HostFd file, bool is_open);
    std::uint64_t size_limit() const;

    std::atomic<int> fd_;  // what the number stands for changes; the number only when somebody closed it
    const std::string path_;
    const LogLimits limits_;
    std::string troubles_[kTroubles];

    std::atomic<std::uint64_t> lost_{0};
    std::atomic<int> trouble_{kNone};
    std::atomic<bool> gone_{false};            // removed, and cannot be made again
    std::atomic<bool> process_limit_{false};   // the process has a limit for the size of files
    std::atomic<std::uint64_t> looked_{0};     // when
    std::atomic<std::int64_t> bytes_left_{0};  // until the next look

    // The rest belongs to who looks.
    std::mutex looking_;
    struct stat file_ {};
    std::uint64_t size_ = 0;
    Head first_{};  // the file's first record, as far as it was there
    ssize_t first_size_ = 0;
};

// Called in the child of a fork: process and thread ids are read anew.
void forget_ids();

}  // namespace zr::log
