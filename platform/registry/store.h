#pragma once

// The registry's store as this process has it: a connection that reads, behind the tree, and one that writes.
//
// Locks. One lock guards the tree and the reading connection; another is the right to write, of which a process has one
// (other processes' writers are kept off by the transaction). The right to write is taken before the tree's lock, never
// while it is held, and the tree is not locked while a transaction runs: readers do not wait for writers.
//
// Fork. A connection cannot be carried into another process, nor stay behind in this one while another process has
// copies of it. So before a fork both are closed, and opened again when they are next needed.

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "bell.h"
#include "store/sqlite.h"
#include "transaction.h"
#include "tree.h"

namespace zr::platform::registry {

// A descriptor, closed with the last of its users.
struct OpenFile {
    explicit OpenFile(int number) : descriptor(number) {}
    ~OpenFile();
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    const int descriptor;
};

class Store {
public:
    // The process's one; null when there is no memory for it. Never destroyed: static objects' destructors may call.
    static Store* instance() noexcept {
        Store* const store = the_store_.load(std::memory_order_acquire);
        return store != nullptr ? store : make();
    }

    // Calls body(tree) with the tree as new as the store.
    template <class Body>
    DWORD read(Body&& body) noexcept {
        const std::lock_guard lock(mutex_);
        try {
            const DWORD error = fresh();
            return seen(error == ERROR_SUCCESS ? body(tree_) : error);
        } catch (const std::bad_alloc&) {
            tree_.forget();
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    // Calls body(transaction) and commits, or takes all of it back when it returns an error. `own`: the one change that
    // is made; the tree then need not read what this process has just written. Throws what the body throws.
    template <class Body>
    DWORD write(Body&& body, const Tree::OwnChange* own = nullptr) {
        const std::lock_guard right(write_mutex_);
        try {
            DWORD error = prepare_writer();
            if (error != ERROR_SUCCESS) return error;
            Transaction transaction(writer_, bell_);
            error = transaction.begin();
            const bool alone = error == ERROR_SUCCESS && own != nullptr && tree_is_newest();
            if (error == ERROR_SUCCESS) error = body(transaction);
            if (error == ERROR_SUCCESS) error = transaction.commit();
            if (error == ERROR_SUCCESS && alone) take_over(*own);
            return seen(error);
        } catch (const std::bad_alloc&) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    // Returns when all that was committed up to now is on the disk.
    DWORD flush() noexcept;
    const Bell& bell() const { return bell_; }

private:
    Store() : tree_(reader_) {}
    ~Store() = delete;

    DWORD fresh() {
        if (!ready_ || suspect_.load(std::memory_order_relaxed) || bell_.replacements() != replacements_) {
            if (const DWORD error = open(); error != ERROR_SUCCESS) return error;
        }
        return tree_.refresh();
    }
    // A store that turned out to be damaged is opened anew by the next call: that examines it and sets it aside.
    DWORD seen(DWORD error) noexcept {
        if (error == ERROR_REGISTRY_CORRUPT) suspect_.store(true, std::memory_order_relaxed);
        return error;
    }

    static Store* make() noexcept;
    DWORD open();
    DWORD open_journal();
    void close_reader() noexcept;
    DWORD prepare_writer();
    // Whether nothing was committed since prepare_writer; while the transaction is open nothing will be.
    bool tree_is_newest() const {
        CommitWatch::Stamp now;
        return prepared_known_ && commits_.look(now) && now == prepared_;
    }
    void take_over(const Tree::OwnChange& change) noexcept;
    DWORD flush_journal(int file, bool folder_too);
    static void before_fork() noexcept;
    static void after_fork() noexcept;

    static std::atomic<Store*> the_store_;

    std::mutex write_mutex_;  // guards the writer; the bell is made once and then needs no lock
    Connection writer_;
    unsigned writer_opening_ = 0;
    CommitWatch commits_;          // by the writer's connection
    CommitWatch::Stamp prepared_;  // what the tree was like when the writer was made ready
    bool prepared_known_ = false;

    std::mutex mutex_;  // guards all that follows
    std::string path_;
    Bell bell_;
    LONGLONG replacements_ = 0;
    std::atomic<bool> suspect_{false};
    bool ready_ = false;
    unsigned opening_ = 0;  // counts how often the store was opened
    Connection reader_;
    Tree tree_;
    std::shared_ptr<const OpenFile> journal_;
    bool folder_flushed_ = false;
    bool flushed_known_ = false;
    CommitWatch::Stamp flushed_;  // what the journal was like when it was last flushed
};

}  // namespace zr::platform::registry
