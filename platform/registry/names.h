#pragma once

// Names of keys and values, and the paths that keys' names make.

#include <cstring>
#include <string_view>

#include "platform/base.h"

namespace zr::platform::registry {

inline constexpr std::size_t kLongestName = 255;
inline constexpr std::size_t kDeepest = 512;
inline constexpr std::size_t kLargestData = std::size_t{16} << 20;

inline bool fits(std::u16string_view name) {
    return name.size() <= kLongestName;
}

// A name in the form that it is found by. A name that is too long has none, and there is nothing of that name.
class FoldedName {
public:
    explicit FoldedName(std::u16string_view name) : length_(name.size()) {
        if (!fits(name)) return;
        if (!name.empty()) std::memcpy(units_, name.data(), name.size() * sizeof(WCHAR));
        CharLowerBuffW(units_, static_cast<DWORD>(length_));
    }
    explicit operator bool() const { return length_ <= kLongestName; }
    std::u16string_view view() const { return {units_, length_}; }

private:
    std::size_t length_;
    WCHAR units_[kLongestName];
};

// A value's name as callers give it.
inline std::u16string_view value_name(LPCWSTR name) {
    return name == nullptr ? std::u16string_view() : std::u16string_view(name);
}

// The names in a path, one after the other.
class PathParts {
public:
    explicit PathParts(LPCWSTR path) : at_(path == nullptr ? u"" : path) {}

    bool next(std::u16string_view& part) {
        while (*at_ == u'\\') {
            ++at_;
        }
        const WCHAR* const begin = at_;
        while (*at_ != 0 && *at_ != u'\\') {
            ++at_;
        }
        part = {begin, static_cast<std::size_t>(at_ - begin)};
        return !part.empty();
    }

private:
    const WCHAR* at_;
};

inline bool path_fits(LPCWSTR path) {
    PathParts parts(path);
    std::u16string_view part;
    while (parts.next(part)) {
        if (!fits(part)) return false;
    }
    return true;
}

}  // namespace zr::platform::registry
