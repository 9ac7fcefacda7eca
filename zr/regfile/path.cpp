#include "zr/regfile/path.h"

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr char16_t kSeparator = u'\\';

struct RootNames {
    const char* full;
    const char* brief;
};

constexpr RootNames kNames[] = {{"HKEY_CLASSES_ROOT", "HKCR"},
                                {"HKEY_CURRENT_USER", "HKCU"},
                                {"HKEY_LOCAL_MACHINE", "HKLM"},
                                {"HKEY_USERS", "HKU"}};

std::optional<RegRoot> find_root(const std::string& name) {
    for (const RegRoot root : kRegRoots) {
        const RootNames& names = kNames[static_cast<std::size_t>(root)];
        if (equal_ignoring_case(name, names.full) || equal_ignoring_case(name, names.brief)) return root;
    }
    return std::nullopt;
}

std::string name_fault(std::u16string_view name, const char* whose) {
    if (name.find(u'\0') != std::u16string_view::npos) return std::string("a zero character in ") + whose + " name";
    if (name.size() <= kLongestRegName) return {};
    return std::string(whose) + " name of " + std::to_string(name.size()) + " characters; " +
           std::to_string(kLongestRegName) + " are the most";
}

}  // namespace

const char* reg_root_name(RegRoot root) {
    return kNames[static_cast<std::size_t>(root)].full;
}

std::u16string reg_path_text(const RegPath& path) {
    std::u16string text = to_utf16(reg_root_name(path.root));
    return path.below.empty() ? text : text + kSeparator + path.below;
}

RegPath reg_child(const RegPath& parent, std::u16string_view name) {
    RegPath child = parent;
    if (!child.below.empty()) child.below += kSeparator;
    child.below += name;
    return child;
}

std::string parse_reg_path(std::u16string_view text, RegPath& path) {
    std::size_t end = std::min(text.find(kSeparator), text.size());
    const std::string root_name = to_utf8(text.substr(0, end));
    const std::optional<RegRoot> root = find_root(root_name);
    if (!root) return "unknown root '" + root_name.substr(0, kLongestRegName) + "'";
    path.root = *root;
    path.below.clear();
    std::size_t depth = 0;
    while (end < text.size()) {
        const std::size_t begin = end + 1;
        end = std::min(text.find(kSeparator, begin), text.size());
        if (end == begin) continue;
        const std::u16string_view name = text.substr(begin, end - begin);
        if (std::string fault = name_fault(name, "a key's"); !fault.empty()) return fault;
        if (++depth > kDeepestRegKey) return "a key more than " + std::to_string(kDeepestRegKey) + " levels deep";
        if (!path.below.empty()) path.below += kSeparator;
        path.below += name;
    }
    return {};
}

std::string reg_name_fault(std::u16string_view name) {
    return name_fault(name, "a value's");
}

}  // namespace zr
