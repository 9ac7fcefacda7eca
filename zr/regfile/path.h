#pragma once

// The names of registry keys, as people and .reg files write them.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zr {

inline constexpr std::size_t kLongestRegName = 255;  // of a key or a value, in characters
inline constexpr std::size_t kDeepestRegKey = 512;   // names below the root

enum class RegRoot { ClassesRoot, CurrentUser, LocalMachine, Users };
inline constexpr RegRoot kRegRoots[] = {RegRoot::ClassesRoot, RegRoot::CurrentUser, RegRoot::LocalMachine,
                                        RegRoot::Users};

struct RegPath {
    RegRoot root = RegRoot::LocalMachine;
    std::u16string below;  // names with one backslash between; empty for the root

    bool operator==(const RegPath&) const = default;
};

const char* reg_root_name(RegRoot root);  // the long one
std::u16string reg_path_text(const RegPath& path);
RegPath reg_child(const RegPath& parent, std::u16string_view name);

// Reads a path that begins with a root's long or short name, in any case. Empty names in it are passed over, as the
// registry does. Returns why it is none; an empty text when it is one.
std::string parse_reg_path(std::u16string_view text, RegPath& path);

// Why a value cannot have this name; empty when it can.
std::string reg_name_fault(std::u16string_view name);

}  // namespace zr
