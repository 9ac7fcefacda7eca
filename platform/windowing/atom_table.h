#pragma once

// Numbers for names: window classes and registered messages share one table, from 0xC000 to 0xFFFF.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace zr::platform {

inline constexpr ATOM kFirstAtom = 0xC000;
inline constexpr std::size_t kLongestAtomName = 255;

// The form in which names are compared: two names are the same ignoring case when their folded forms are equal.
std::u16string fold_name(const WCHAR* name);

inline bool is_atom(const WCHAR* name) {
    return reinterpret_cast<UINT_PTR>(name) < 0x10000;
}

// Not synchronised: its owner locks. May throw std::bad_alloc, and is unchanged then.
class AtomTable {
public:
    ATOM find(std::u16string_view folded) const;  // 0: none
    ATOM add(const std::u16string& folded);       // counts one more user; 0: the numbers are used up
    void release(ATOM atom);

private:
    struct Entry {
        ATOM atom;
        std::size_t users;
    };
    using Names = std::map<std::u16string, Entry, std::less<>>;

    Names names_;
    std::map<ATOM, Names::iterator> numbers_;
    ATOM next_ = kFirstAtom;
};

}  // namespace zr::platform
