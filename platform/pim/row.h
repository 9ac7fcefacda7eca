#pragma once

// A contact's searched fields as they were read from the store: immutable, shared, one block of memory.

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "fields.h"

namespace zr::platform::pim {

class Row {
public:
    // A row with one reference; null when memory is short. `texts` of columns outside `mask` are ignored.
    static Row* make(LONG oid, ColumnMask mask, bool own_file_as, const std::u16string_view (&texts)[kColumns]) {
        std::size_t units = 0;
        for (unsigned i = 0; i < kColumns; ++i) {
            units += (mask >> i & 1) != 0 ? texts[i].size() : 0;
        }
        void* block = std::malloc(sizeof(Row) + units * sizeof(WCHAR));
        if (block == nullptr) return nullptr;
        Row* row = new (block) Row(oid, mask, own_file_as);
        std::uint32_t end = 0;
        for (unsigned i = 0; i < kColumns; ++i) {
            if ((mask >> i & 1) != 0 && !texts[i].empty()) {
                std::memcpy(row->text() + end, texts[i].data(), texts[i].size() * sizeof(WCHAR));
                end += static_cast<std::uint32_t>(texts[i].size());
            }
            row->ends_[i] = end;
        }
        return row;
    }
    void add_ref() { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) std::free(this);
    }

    LONG oid() const { return oid_; }
    bool has(ColumnMask mask) const { return (mask_ & mask) == mask; }
    bool own_file_as() const { return own_file_as_; }  // known in rows with all columns only
    std::size_t bytes() const { return sizeof(Row) + ends_[kColumns - 1] * sizeof(WCHAR); }
    std::u16string_view text_of(unsigned column) const {
        const std::uint32_t begin = column == 0 ? 0 : ends_[column - 1];
        return {text() + begin, ends_[column] - begin};
    }

private:
    Row(LONG oid, ColumnMask mask, bool own_file_as) : oid_(oid), mask_(mask), own_file_as_(own_file_as) {}

    WCHAR* text() { return reinterpret_cast<WCHAR*>(this + 1); }
    const WCHAR* text() const { return reinterpret_cast<const WCHAR*>(this + 1); }

    std::atomic<std::uint32_t> references_{1};
    LONG oid_;
    ColumnMask mask_;
    bool own_file_as_;
    std::uint32_t ends_[kColumns];
};

// One reference to a row, or none.
class RowRef {
public:
    RowRef() = default;
    ~RowRef() { reset(); }
    RowRef(const RowRef& other) : RowRef(share(other.row_)) {}
    RowRef(RowRef&& other) noexcept : row_(std::exchange(other.row_, nullptr)) {}
    RowRef& operator=(RowRef other) noexcept {
        std::swap(row_, other.row_);
        return *this;
    }
    static RowRef adopt(Row* row) {
        RowRef ref;
        ref.row_ = row;
        return ref;
    }
    static RowRef share(Row* row) {
        if (row != nullptr) row->add_ref();
        return adopt(row);
    }
    void reset() {
        if (row_ != nullptr) std::exchange(row_, nullptr)->release();
    }
    const Row* operator->() const { return row_; }
    Row* get() const { return row_; }
    explicit operator bool() const { return row_ != nullptr; }

private:
    Row* row_ = nullptr;
};

}  // namespace zr::platform::pim
