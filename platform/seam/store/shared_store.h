#pragma once

// A store that processes share: one SQLite file, its log of changes, and how everybody learns of them. The registry,
// the contacts and whatever else outlives a process stand on it. A family brings its tables (StoreKind), what it keeps
// in memory (StoreFamily) and, where it tells somebody, a StoreWatcher.
//
// Reading. One connection reads, under lock(). refresh() compares the header of the journal's shared index with the one
// of the last look (commit_watch.h); while nothing was committed, by whichever process, that is all. Otherwise the
// family follows the log from where it stood, or forgets what it has when the log does not reach back so far.
//
// Writing. A process has one right to write (StoreWriting), which waits five seconds and refuses the thread that has it
// already; SQLite's lock keeps off other processes' writers. Readers wait for neither. The right is taken before, never
// while, lock() is held.
//
// The log. The table change(seq INTEGER PRIMARY KEY, origin INTEGER, ...) has one row for every change, numbered
// without a gap; the numbers of a store begin with the time of its making, so that they never meet those of an earlier
// one of the same name. `origin` tells the process that wrote it: a child made by fork has one of its own. The last
// 8,192 rows at least are kept, and all that is behind the position of a process that keep_changes() was called in.
//
// Room. What is deleted leaves room for what comes. Where that is more than half of the file, 256 pages at least, the
// change that finds it so gives it back to the host behind its commit, by writing the rest anew, unless that is too
// much.
//
// Waking. The bell (bell.h) rings behind each commit, also when the writer was killed there.
//
// Damage. A connection that meets damage leaves a mark beside the store. The next call opens the store anew, which
// examines it and sets it aside when it is damaged. Everybody who has it open notices that at his next call, before he
// reads or writes, and goes on in the new store; what was set aside is never written to.
//
// Forks. Both connections are closed before a fork and opened again by the next call on either side. Where the right to
// write is held just then (by the forking thread's own batch, or for longer than five seconds) the parent keeps them,
// and the child's calls fail with ERROR_BUSY: those of that store, and where another thread had the right, which may
// have been inside SQLite, those of all stores.
//
// ZR_HOME is looked at when a store is joined; who has joined a store keeps it, whatever the variable says later.
//
// Results are system error codes; what happened is told to the family as a sentence. May throw std::bad_alloc where it
// is not noexcept.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#include "base/host_fd.h"
#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"
#include "store/bell.h"
#include "store/commit_watch.h"
#include "store/sqlite.h"
#include "store/store_file.h"
#include "store/store_listener.h"

namespace zr::platform {

class StoreWriting;

// What a family keeps of its store. Called with the reading lock held, but for the sentences.
class StoreFamily {
public:
    // The reading connection was opened; `another`: on another file than before, and nothing that was known holds.
    virtual void opened(bool another) = 0;
    // Reads the changes behind `position`, all of one moment, and takes notice of them. May throw std::bad_alloc.
    virtual DWORD follow(LONGLONG position) = 0;
    // Anything may have changed.
    virtual void forget() noexcept = 0;
    // Keeps a sentence (UTF-8) about what failed, for the calling thread; the error follows as the call's result.
    virtual void failed(std::string_view sentence) noexcept = 0;
    // The same about a damaged store that has another name now.
    virtual void was_set_aside(std::string_view sentence) noexcept = 0;

protected:
    ~StoreFamily() = default;
};

class ZRPLATFORM_API SharedStore {
public:
    // The store of that kind below the present ZR_HOME; a sentence when there is no such folder.
    static DWORD path_of(const StoreKind& kind, std::string& path, std::string& trouble);

    // At `path`; when that is empty, where path_of says at the first call that finds a folder.
    SharedStore(const StoreKind& kind, StoreFamily& family, std::string path = {});
    // Closes the store. Nobody may use it any more.
    ~SharedStore();
    SharedStore(const SharedStore&) = delete;
    SharedStore& operator=(const SharedStore&) = delete;

    const std::string& path() const { return path_; }
    // Tells this process from others by chance, not by number: numbers are used again.
    DWORD origin() const { return origin_.load(std::memory_order_relaxed); }

    // Opens the store, or looks whether somebody has left a mark of damage: what a session begins with.
    DWORD join();

    // --- reading: with the lock held ---
    std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }
    // Takes notice of every commit up to now; opens the store if need be. On failure the family has forgotten.
    DWORD refresh() {
        CommitWatch::Stamp now;
        if (stamp_known_ && !is_suspect() && commits_.look(now) && now == stamp_) return ERROR_SUCCESS;
        return catch_up();
    }
    Connection& reader() { return reader_; }
    // A child's, whose parent was in the middle of a change when it was forked: every call fails.
    bool is_orphan() const { return orphaned_.load(std::memory_order_relaxed); }
    // The number of the last change that was followed.
    LONGLONG position() const { return position_; }
    // The file that the reader has open is not the one that has the store's name.
    bool is_replaced() const;

    // --- the disk ---
    // Returns when all that was committed up to now, by any process, is on the disk.
    DWORD flush() noexcept;

    // --- watching ---
    DWORD watch(StoreWatcher& watcher);
    // Behind a ring: somebody may have given the store's name to another file.
    void look_again();
    // Keeps the changes behind `seq` in the log, for this process, until keep_no_changes or its end.
    DWORD keep_changes(LONGLONG seq);
    void keep_no_changes();

    // Closes the connections, unless somebody uses them: the last process's leave no journal behind. The next call
    // opens them again.
    void rest() noexcept;

private:
    friend class StoreWriting;
    friend class StoreForks;
    using Clock = std::chrono::steady_clock;

    struct File {
        dev_t device = 0;
        ino_t number = 0;
        friend bool operator==(const File&, const File&) = default;
    };

    bool is_suspect() const { return suspect_.load(std::memory_order_relaxed) || reader_.met_damage(); }
    bool is_known(const CommitWatch::Stamp& stamp) const { return stamp_known_ && stamp_ == stamp; }
    DWORD fail(DWORD error, std::string_view sentence);
    DWORD fail(Connection& connection);
    DWORD host_failure(const std::string& path, int number);
    static File file_at(const std::string& path);

    // Another content was written over the file while it was open here.
    bool is_overwritten();
    DWORD catch_up();
    DWORD follow();
    DWORD open();
    DWORD open_file(StoreOpening& opening);
    DWORD begin_reading(bool created);
    void close_reader() noexcept;
    void close_both() noexcept;
    bool has_writer() const noexcept;
    DWORD open_writer();
    DWORD flush_journal(int file, bool folder_too);

    bool take_right(Clock::duration patience);
    void give_right();

    void before_fork() noexcept;
    void after_fork() noexcept;
    void after_fork_in_child() noexcept;

    const StoreKind& kind_;
    StoreFamily& family_;
    std::string path_;
    std::atomic<DWORD> origin_{0};
    std::atomic<bool> suspect_{false};
    std::atomic<bool> orphaned_{false};  // a child's: its parent was in the middle of a change

    std::mutex right_mutex_;
    std::condition_variable right_free_;
    bool has_right_ = false;
    std::thread::id right_holder_;
    bool fork_has_right_ = false;
    bool beside_writer_ = false;  // the fork was: another thread has the right, and may be inside SQLite

    // Guarded by the right to write.
    Connection writer_;
    Bell::Pull pull_;
    unsigned writer_opening_ = 0;
    bool keeps_room_ = false;  // giving it back failed
    CommitWatch writer_commits_;

    std::mutex mutex_;  // guards all that follows
    Connection reader_;
    CommitWatch commits_;
    CommitWatch::Stamp stamp_;
    bool stamp_known_ = false;
    bool ready_ = false;
    bool followed_ = false;  // position_ is one of this file's
    LONGLONG position_ = 0;
    unsigned opening_ = 0;  // counts how often the store was opened
    File file_;             // what the reader has open
    bool closed_before_ = false;
    std::uint32_t closed_name_ = 0;  // the mark of the file that was closed when it was opened
    Bell bell_;
    std::shared_ptr<const HostFd> journal_;
    bool folder_flushed_ = false;
    bool flushed_known_ = false;
    CommitWatch::Stamp flushed_;  // what the journal was like when it was last flushed
};

// One change of a store, all of it or nothing: rolled back unless it is committed. Used by the thread that began it.
class ZRPLATFORM_API StoreWriting {
public:
    StoreWriting() = default;
    ~StoreWriting() { roll_back(); }
    StoreWriting(const StoreWriting&) = delete;
    StoreWriting& operator=(const StoreWriting&) = delete;

    // ERROR_BUSY after five seconds, and at once when this thread is in the middle of another change of the store.
    DWORD begin(SharedStore& store);
    bool is_open() const { return store_ != nullptr; }
    Connection& connection() { return store_->writer_; }
    DWORD origin() const { return store_->origin(); }

    // What look() says, called with the reading lock held, of what is in memory; false when that may be older than what
    // this change begins with.
    template <class Look>
    bool knows(Look look) const {
        if (!before_known_) return false;
        const auto reading = store_->lock();
        return store_->is_known(before_) && look();
    }

    // The number of the next row that the caller writes into the log.
    DWORD next_seq(LONGLONG& seq);
    bool has_changes() const { return seq_ != first_seq_; }

    // A part of the change that can be taken back by itself; one at a time.
    DWORD begin_part();
    DWORD end_part(bool keep);

    // Keeps everything and rings. Without a row in the log there is nothing to keep. On failure nothing is kept.
    DWORD commit() {
        CommitWatch::Stamp after;
        DWORD error = ERROR_SUCCESS;
        keep(after, error);
        end();
        return error;
    }
    // The same; `take_over` is called with the reading lock held when this is all that was written since what is in
    // memory was read, be it in the middle of this change: it puts the changes there, and nobody has to read them. May
    // throw std::bad_alloc: then all is forgotten.
    template <class TakeOver>
    DWORD commit(TakeOver take_over) {
        CommitWatch::Stamp after;
        DWORD error = ERROR_SUCCESS;
        const bool alone = keep(after, error);
        if (alone) {
            const auto reading = store_->lock();
            if (store_->is_known(before_)) {
                try {
                    take_over();
                    taken_over(after);
                } catch (const std::bad_alloc&) {
                    forget();
                }
            }
        }
        end();
        return error;
    }
    void roll_back();

private:
    DWORD prepare();
    DWORD start();
    DWORD prune();
    bool keep(CommitWatch::Stamp& after, DWORD& error);
    bool has_much_free();
    bool has_room_to_move();
    void give_back();
    void taken_over(const CommitWatch::Stamp& after);
    void forget() noexcept;
    void end() noexcept;

    SharedStore* store_ = nullptr;
    CommitWatch::Stamp before_;  // the store's when the transaction began
    bool before_known_ = false;
    LONGLONG before_seq_ = 0;  // the last change in the log then; 0: not known
    bool numbered_ = false;
    LONGLONG first_seq_ = 0;
    LONGLONG seq_ = 0;
    LONGLONG part_seq_ = 0;  // what seq_ was before the part; 0: nothing was numbered
    int spills_ = 0;         // of the connection when the transaction began
};

}  // namespace zr::platform
