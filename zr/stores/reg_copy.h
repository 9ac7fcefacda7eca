#pragma once

// A key with all below it, held in memory: to be copied, moved, or compared with another one.

#include <map>
#include <string>

#include "zr/base/line_reader.h"
#include "zr/stores/registry.h"

namespace zr {

// Names are equal ignoring case, as the registry has them.
struct RegNameLess {
    bool operator()(const std::u16string& a, const std::u16string& b) const;
};

using RegValues = std::map<std::u16string, RegValue, RegNameLess>;
// By their path below the key; the key itself is "".
using RegContents = std::map<std::u16string, RegValues, RegNameLess>;

// Of a key that is there. Throws Failure.
RegContents contents_of(const RegKey& key);

// What the registry would hold at a key if there were nothing but what a .reg file says: nothing when the file does not
// speak of it. Throws Failure (BadRegFile) for a file with mistakes in it.
RegContents contents_in_file(const std::string& file, const RegPath& key);

// Makes a copy at `to`, all of it or nothing, and with `move` removes `from` in the same change. `to` must not be
// there, and neither key may be in the other one. Throws Failure.
void copy_key(const RegPath& from, const RegPath& to, bool move);

}  // namespace zr
