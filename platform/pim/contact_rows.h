#pragma once

// Contacts' searched fields as they were read: those read lately are kept, within a bound, and walks are read ahead.
//
// What is kept helps and decides nothing: a row that is not kept is read again, and only the store itself says that a
// contact is gone. All of this with the reading side locked (store.h) but note_reads.

#include <atomic>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "database.h"
#include "row.h"

namespace zr::platform::pim {

class ContactRows {
public:
    explicit ContactRows(Database& reader) : reader_(reader) {}

    // What is at hand of a contact; may be nothing, may lack columns.
    RowRef cached(LONG oid) const;
    // A contact's row with at least these columns; it and, on a walk along the identifiers, some that follow are read.
    // kGone: there is no such contact.
    HRESULT read(LONG oid, ColumnMask need, RowRef& row);
    // Reads contacts ahead, for walks in other orders. As many as fit().
    HRESULT read_ahead(std::vector<LONG> oids);
    // How many rows may be read ahead of a walk that is to find them here.
    std::size_t fit() const;
    void drop(LONG oid);
    void clear();

    // Which columns callers read; lets a walk leave out the others. From any thread.
    void note_reads(ColumnMask columns) {
        if ((seen_.load(std::memory_order_relaxed) & columns) != columns)
            seen_.fetch_or(columns, std::memory_order_relaxed);
    }

private:
    // A walk over identifiers: where it goes on (0: nowhere) and how many rows it reads at a time.
    struct Run {
        LONG next = 0;
        int window = 1;
        bool used_last = false;
    };
    enum class Range { From, Between, One };

    Run& run_for(LONG oid);
    ColumnMask walked_columns() const;
    // May take all columns instead of those asked for.
    Use select(Range range, ColumnMask& mask);
    // Keeps the rest of a statement's rows and calls `each(row)` with them.
    template <class Each>
    HRESULT fetch(const Use& rows, ColumnMask mask, Each each);
    void keep(RowRef row);

    static constexpr std::size_t kCacheBytes = 64u << 20;

    Database& reader_;
    std::vector<RowRef> rows_;  // by identifier
    std::size_t bytes_ = 0;
    std::size_t count_ = 0;
    std::size_t hand_ = 0;  // the next to go when there is no room
    std::map<std::pair<Range, ColumnMask>, std::string> sql_;
    Run runs_[2];
    std::atomic<ColumnMask> seen_{0};
};

}  // namespace zr::platform::pim
