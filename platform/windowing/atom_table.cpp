#include "atom_table.h"

#include "platform/base.h"

namespace zr::platform {

std::u16string fold_name(const WCHAR* name) {
    std::u16string folded(name);
    for (WCHAR& unit : folded)
        unit = towlower(unit);
    return folded;
}

ATOM AtomTable::find(std::u16string_view folded) const {
    const auto found = names_.find(folded);
    return found == names_.end() ? ATOM{0} : found->second.atom;
}

ATOM AtomTable::add(const std::u16string& folded) {
    if (const auto found = names_.find(folded); found != names_.end()) {
        ++found->second.users;
        return found->second.atom;
    }
    constexpr std::size_t kMost = 0x10000 - kFirstAtom;
    if (numbers_.size() == kMost) return 0;
    while (numbers_.contains(next_))
        next_ = next_ == 0xFFFF ? kFirstAtom : static_cast<ATOM>(next_ + 1);
    const auto name = names_.emplace(folded, Entry{next_, 1}).first;
    try {
        numbers_.emplace(next_, name);
    } catch (...) {
        names_.erase(name);
        throw;
    }
    const ATOM atom = next_;
    // Numbers go round, so that one that was given back stays unused for as long as possible.
    next_ = next_ == 0xFFFF ? kFirstAtom : static_cast<ATOM>(next_ + 1);
    return atom;
}

void AtomTable::release(ATOM atom) {
    const auto found = numbers_.find(atom);
    if (found == numbers_.end() || --found->second->second.users != 0) return;
    names_.erase(found->second);
    numbers_.erase(found);
}

}  // namespace zr::platform
