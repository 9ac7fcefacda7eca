#include "names.h"

#include <array>
#include <deque>
#include <mutex>
#include <unordered_map>

#include "platform/html.h"

namespace zr::platform {
namespace {

constexpr DISPID kFirst = 0x10000;
constexpr std::size_t kMostNames = 1'000'000;

struct FixedName {
    DISPID id;
    std::u16string_view name;
};
constexpr std::array<FixedName, 6> kFixed{{{DISPID_VALUE, u""},
                                           {ZR_DISPID_HTML_ID, u"id"},
                                           {ZR_DISPID_HTML_STYLE, u"style"},
                                           {ZR_DISPID_HTML_HREF, u"href"},
                                           {ZR_DISPID_HTML_VALUE, u"value"},
                                           {ZR_DISPID_HTML_DISPLAY, u"display"}}};

std::deque<std::u16string> names;
std::unordered_map<std::u16string_view, DISPID> ids;

}  // namespace

std::mutex names_lock;

DISPID id_of_name(std::u16string_view name) {
    for (const FixedName& fixed : kFixed) {
        if (fixed.name == name) return fixed.id;
    }
    const std::lock_guard guard(names_lock);
    if (const auto found = ids.find(name); found != ids.end()) return found->second;
    if (names.size() >= kMostNames) return DISPID_UNKNOWN;
    names.emplace_back(name);
    const DISPID id = kFirst + static_cast<DISPID>(names.size() - 1);
    try {
        ids.emplace(names.back(), id);
    } catch (...) {
        names.pop_back();
        throw;
    }
    return id;
}

bool name_of_id(DISPID id, std::u16string& name) {
    for (const FixedName& fixed : kFixed) {
        if (fixed.id == id) {
            name = fixed.name;
            return true;
        }
    }
    const std::lock_guard guard(names_lock);
    if (id < kFirst || static_cast<std::size_t>(id - kFirst) >= names.size()) return false;
    name = names[static_cast<std::size_t>(id - kFirst)];
    return true;
}

}  // namespace zr::platform
