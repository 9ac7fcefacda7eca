#include "change_records.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "files/host_path.h"

namespace zr::platform {
namespace {

constexpr std::size_t kHead = offsetof(FILE_NOTIFY_INFORMATION, FileName);

struct Head {
    DWORD next;
    DWORD action;
    DWORD name_length;
};
static_assert(sizeof(Head) == kHead);

Head head_at(const std::vector<std::byte>& records, std::size_t at) {
    Head head;
    std::memcpy(&head, records.data() + at, sizeof head);
    return head;
}

// The names of a relative path one by one: only a name can hold a backslash of its own.
std::u16string handheld_relative(std::string_view path) {
    const std::size_t cut = path.find('/');
    if (cut == path.npos) return handheld_name(path);
    return handheld_name(path.substr(0, cut)) + u'\\' + handheld_relative(path.substr(cut + 1));
}

}  // namespace

void ChangeRecords::add(DWORD action, std::string_view path) {
    const std::u16string name = handheld_relative(path);
    if (action == FILE_ACTION_MODIFIED && repeats_last(name)) return;
    append(action, name);
}

void ChangeRecords::add_rename(std::string_view from, std::string_view to) {
    const std::size_t before = records_.size();
    append(FILE_ACTION_RENAMED_OLD_NAME, handheld_relative(from));
    try {
        append(FILE_ACTION_RENAMED_NEW_NAME, handheld_relative(to));
    } catch (...) {
        records_.resize(before);
        last_ = before;
        throw;
    }
}

std::size_t ChangeRecords::take(std::span<std::byte> out) {
    std::size_t end = begin_;
    std::size_t last = begin_;
    while (end < records_.size()) {
        const std::size_t unit = unit_at(end);
        if (end + unit - begin_ > out.size()) break;
        last = end + (head_at(records_, end).action == FILE_ACTION_RENAMED_OLD_NAME ? head_at(records_, end).next : 0);
        end += unit;
    }
    const std::size_t taken = end - begin_;
    if (taken == 0) return 0;
    std::memcpy(out.data(), records_.data() + begin_, taken);
    constexpr DWORD kNone = 0;
    std::memcpy(out.data() + (last - begin_), &kNone, sizeof kNone);
    begin_ = end;
    if (begin_ * 2 >= records_.size()) {
        records_.erase(records_.begin(), records_.begin() + static_cast<std::ptrdiff_t>(begin_));
        last_ = last_ >= begin_ ? last_ - begin_ : 0;
        begin_ = 0;
    }
    return taken;
}

void ChangeRecords::append(DWORD action, std::u16string_view name) {
    const std::size_t name_bytes = name.size() * sizeof(WCHAR);
    // A NUL behind the name, and the next record where a DWORD may stand.
    const std::size_t size = (kHead + name_bytes + sizeof(WCHAR) + 3) & ~std::size_t{3};
    const std::size_t at = records_.size();
    records_.resize(at + size);
    const Head head{static_cast<DWORD>(size), action, static_cast<DWORD>(name_bytes)};
    std::memcpy(records_.data() + at, &head, sizeof head);
    std::memcpy(records_.data() + at + kHead, name.data(), name_bytes);
    last_ = at;
}

bool ChangeRecords::repeats_last(std::u16string_view name) const {
    if (empty() || last_ < begin_) return false;
    const Head head = head_at(records_, last_);
    const std::size_t bytes = name.size() * sizeof(WCHAR);
    return head.action == FILE_ACTION_MODIFIED && head.name_length == bytes &&
           std::memcmp(records_.data() + last_ + kHead, name.data(), bytes) == 0;
}

// The size of what is read together: one record, or both of a rename.
std::size_t ChangeRecords::unit_at(std::size_t at) const {
    const Head head = head_at(records_, at);
    const bool pair = head.action == FILE_ACTION_RENAMED_OLD_NAME;
    return head.next + (pair ? head_at(records_, at + head.next).next : 0);
}

}  // namespace zr::platform
