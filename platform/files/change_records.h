#pragma once

// Change records that wait to be read, kept in the form in which they are read.

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "platform/file_changes.h"

namespace zr::platform {

class ChangeRecords {
public:
    // `name` is a host path relative to the watched folder. May throw std::bad_alloc; then nothing was added.
    // A change of a file whose last record says so already adds nothing.
    void add(DWORD action, std::string_view name);
    void add_rename(std::string_view from, std::string_view to);

    // Moves whole records to `out`, which may be too small for any; the number of bytes.
    std::size_t take(std::span<std::byte> out);

    bool empty() const { return begin_ == records_.size(); }
    std::size_t size() const { return records_.size() - begin_; }

private:
    void append(DWORD action, std::u16string_view name);
    bool repeats_last(std::u16string_view name) const;
    std::size_t unit_at(std::size_t at) const;

    std::vector<std::byte> records_;  // each record's NextEntryOffset is its own size
    std::size_t begin_ = 0;           // what lies before has been read
    std::size_t last_ = 0;            // the record that was added last, while there is one
};

}  // namespace zr::platform
