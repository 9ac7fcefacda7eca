#include "contact_rows.h"

#include <algorithm>

#include "last_error.h"

namespace zr::platform::pim {
namespace {

constexpr int kLargestWindow = 512;
constexpr LONG kRunGap = 64;  // a walk may skip what is cached or deleted
// Walks settle on few sets of columns; a program that does not reads all of them.
constexpr std::size_t kColumnSets = 64;

}  // namespace

RowRef ContactRows::cached(LONG oid) const {
    const auto index = static_cast<std::size_t>(oid);
    return index < rows_.size() ? rows_[index] : RowRef();
}

void ContactRows::drop(LONG oid) {
    const auto index = static_cast<std::size_t>(oid);
    if (index >= rows_.size() || !rows_[index]) return;
    bytes_ -= rows_[index]->bytes();
    --count_;
    rows_[index].reset();
}

void ContactRows::clear() {
    rows_.clear();
    bytes_ = 0;
    count_ = 0;
    hand_ = 0;
}

// Room is made where the hand points, which goes round and round: what a walk has behind it goes first.
void ContactRows::keep(RowRef row) {
    const LONG oid = row->oid();
    const auto index = static_cast<std::size_t>(oid);
    drop(oid);
    if (index >= rows_.size()) rows_.resize(std::max(index + 1, rows_.size() + rows_.size() / 2));
    bytes_ += row->bytes();
    ++count_;
    rows_[index] = std::move(row);
    while (bytes_ > kCacheBytes) {
        if (hand_ >= rows_.size()) hand_ = 0;
        drop(static_cast<LONG>(hand_++));
    }
}

std::size_t ContactRows::fit() const {
    // Part of the room only: what is larger than the rows seen so far shall not push out what was read just now.
    return kCacheBytes / 4 * 3 / (count_ != 0 ? std::max<std::size_t>(bytes_ / count_, 1) : 1024);
}

Use ContactRows::select(Range range, ColumnMask& mask) {
    if (sql_.size() >= kColumnSets && !sql_.contains({range, mask})) mask = kAllColumns;
    std::string& sql = sql_[{range, mask}];
    if (sql.empty()) {
        sql = "SELECT oid";
        for (unsigned i = 0; i < kColumns; ++i) {
            if ((mask >> i & 1) != 0) sql += std::string(", ") + kColumnNames[i];
        }
        if (mask == kAllColumns) sql += ", own_file_as";
        sql += " FROM contact WHERE oid ";
        sql += range == Range::From      ? ">= ?1 ORDER BY oid LIMIT ?2"
               : range == Range::Between ? "BETWEEN ?1 AND ?2"
                                         : "= ?1";
    }
    return reader_.use(sql.c_str());
}

template <class Each>
HRESULT ContactRows::fetch(const Use& rows, ColumnMask mask, Each each) {
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        std::u16string_view texts[kColumns];
        int at = 1;
        for (unsigned i = 0; i < kColumns; ++i) {
            if ((mask >> i & 1) != 0) texts[i] = rows->text(at++);
        }
        const auto oid = static_cast<LONG>(rows->integer(0));
        const RowRef row = RowRef::adopt(Row::make(oid, mask, mask == kAllColumns && rows->integer(at) != 0, texts));
        if (!row) return fail(E_OUTOFMEMORY);
        keep(row);
        each(row);
    }
    return code == SQLITE_DONE ? S_OK : reader_.result();
}

ContactRows::Run& ContactRows::run_for(LONG oid) {
    for (Run& run : runs_) {
        if (oid < run.next || oid >= run.next + kRunGap || run.next == 0) continue;
        runs_[0].used_last = &run == &runs_[0];
        run.window = std::min(run.window * 4, kLargestWindow);
        return run;
    }
    Run& run = runs_[runs_[0].used_last ? 1 : 0];
    runs_[0].used_last = &run == &runs_[0];
    run.next = 0;
    run.window = 1;
    return run;
}

ColumnMask ContactRows::walked_columns() const {
    const ColumnMask seen = seen_.load(std::memory_order_relaxed);
    return seen != 0 ? seen : kAllColumns;
}

// The first row of a walk is read whole; the following ones are read ahead, with the columns that were asked for.
HRESULT ContactRows::read(LONG oid, ColumnMask need, RowRef& row) {
    row = cached(oid);
    if (row && row->has(need)) return S_OK;
    row.reset();
    Run& run = run_for(oid);
    ColumnMask mask = kAllColumns;
    if (run.window == 1) {
        seen_.store(need, std::memory_order_relaxed);
    } else {
        note_reads(need);
        mask = walked_columns();
    }
    const Use rows = select(Range::From, mask);
    if (!rows) return reader_.result();
    rows->bind(1, oid);
    rows->bind(2, run.window);
    LONG last = oid;
    const HRESULT result = fetch(rows, mask, [&](const RowRef& each) {
        last = each->oid();
        if (last == oid) row = each;
    });
    if (FAILED(result)) return result;
    run.next = last + 1;
    return row ? S_OK : fail(kGone);
}

HRESULT ContactRows::read_ahead(std::vector<LONG> oids) {
    ColumnMask mask = walked_columns();
    std::erase_if(oids, [&](LONG oid) {
        const RowRef row = cached(oid);
        return row && row->has(mask);
    });
    if (oids.empty()) return S_OK;
    std::sort(oids.begin(), oids.end());
    const auto spread = static_cast<std::size_t>(oids.back() - oids.front()) + 1;
    const bool close = oids.size() >= spread / 2;
    const Use rows = select(close ? Range::Between : Range::One, mask);
    if (!rows) return reader_.result();
    const auto ignored = [](const RowRef&) {};
    if (close) {
        rows->bind(1, oids.front());
        rows->bind(2, oids.back());
        return fetch(rows, mask, ignored);
    }
    for (const LONG oid : oids) {
        rows->reset();
        rows->bind(1, oid);
        const HRESULT result = fetch(rows, mask, ignored);
        if (FAILED(result)) return result;
    }
    return S_OK;
}

}  // namespace zr::platform::pim
