#include "wildcard.h"

#include "platform/base.h"

namespace zr::platform {

Wildcard::Wildcard(std::u16string_view pattern)
    : pattern_(pattern),
      everything_(pattern == u"*" || pattern == u"*.*"),
      literal_(pattern.find_first_of(u"*?") == std::u16string_view::npos) {
    for (WCHAR& c : pattern_)
        c = towlower(c);
}

bool Wildcard::matches(std::u16string_view name) const noexcept {
    if (everything_) return true;
    constexpr std::size_t kNone = std::u16string_view::npos;
    std::size_t p = 0;
    std::size_t n = 0;
    std::size_t star = kNone;  // the last '*' passed, and where its run ends so far
    std::size_t run_end = 0;
    while (n < name.size()) {
        if (p < pattern_.size() && pattern_[p] == u'*') {
            star = p++;
            run_end = n;
        } else if (p < pattern_.size() && (pattern_[p] == u'?' || pattern_[p] == towlower(name[n]))) {
            ++p;
            ++n;
        } else if (star != kNone) {
            p = star + 1;
            n = ++run_end;
        } else {
            return false;
        }
    }
    while (p < pattern_.size() && pattern_[p] == u'*')
        ++p;
    return p == pattern_.size();
}

}  // namespace zr::platform
