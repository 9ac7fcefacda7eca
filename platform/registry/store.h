#pragma once

// The registry's store as this process has it: a connection that reads, behind the tree, and one that writes.
//
// Locks. One lock guards the tree and the reading connection; another is the right to write, of which a process has one
// (other processes' writers are kept off by the transaction). The right to write is taken before the tree's lock, never
// while it is held, and the tree is not locked while a transaction runs: readers do not wait for writers.
//
// Fork. A connection cannot be carried into another process, nor stay behind in this one while another process has
// copies of it. So before a fork both are closed, and opened again when they are next needed.

#include <mutex>
#include <new>
#include <string>

#include "bell.h"
#include "sqlite.h"
#include "transaction.h"
#include "tree.h"

namespace zr::platform::registry {

class Store {
public:
    // The process's one; never destroyed, as handles may be closed by static objects' destructors.
    static Store* instance() noexcept;

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

    // Calls body(transaction) and commits, or takes all of it back when it returns an error.
    template <class Body>
    DWORD write(Body&& body) noexcept {
        const std::lock_guard right(write_mutex_);
        try {
            DWORD error = prepare_writer();
            if (error != ERROR_SUCCESS) return error;
            Transaction transaction(writer_, bell_);
            error = transaction.begin();
            if (error == ERROR_SUCCESS) error = body(transaction);
            if (error == ERROR_SUCCESS) error = transaction.commit();
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
        if (!reader_.is_open() || suspect_.load(std::memory_order_relaxed) || bell_.replacements() != replacements_) {
            if (const DWORD error = open(); error != ERROR_SUCCESS) return error;
        }
        return tree_.refresh();
    }
    // A store that turned out to be damaged is opened anew by the next call: that examines it and sets it aside.
    DWORD seen(DWORD error) noexcept {
        if (error == ERROR_REGISTRY_CORRUPT) suspect_.store(true, std::memory_order_relaxed);
        return error;
    }

    DWORD open();
    DWORD open_journal();
    void close_reader() noexcept;
    DWORD prepare_writer();
    DWORD flush_journal(int file, bool folder_too);
    static void before_fork() noexcept;
    static void after_fork() noexcept;

    std::mutex write_mutex_;  // guards the writer; the bell is made once and then needs no lock
    Connection writer_;
    unsigned writer_opening_ = 0;

    std::mutex mutex_;  // guards all that follows
    std::string path_;
    Bell bell_;
    LONGLONG replacements_ = 0;
    std::atomic<bool> suspect_{false};
    unsigned opening_ = 0;  // counts how often the store was opened
    Connection reader_;
    Tree tree_;
    int journal_ = -1;
    bool folder_flushed_ = false;
    bool flushed_known_ = false;
    CommitWatch::Stamp flushed_;  // what the journal was like when it was last flushed
};

}  // namespace zr::platform::registry
