#include "priorities.h"

#include <algorithm>
#include <utility>

#include "platform/base.h"
#include "platform/registry.h"

namespace zr::platform {
namespace {

constexpr LPCWSTR kPriorities = u"Software\\Microsoft\\Windows\\CurrentVersion\\Telephony\\HandoffPriorities";
constexpr std::pair<DWORD, LPCWSTR> kModes[] = {{LINEMEDIAMODE_UNKNOWN, u"unknown"},
                                                {LINEMEDIAMODE_INTERACTIVEVOICE, u"interactivevoice"},
                                                {LINEMEDIAMODE_AUTOMATEDVOICE, u"automatedvoice"},
                                                {LINEMEDIAMODE_DATAMODEM, u"datamodem"}};
constexpr DWORD kMostBytes = 8192;

LPCWSTR mode_name(DWORD media_mode) {
    for (const auto& [mode, name] : kModes) {
        if (mode == media_mode) return name;
    }
    return nullptr;
}

struct PriorityKey {
    HKEY key = nullptr;
    ~PriorityKey() {
        if (key != nullptr) RegCloseKey(key);
    }
};

std::vector<std::u16string> split(const std::u16string& text) {
    std::vector<std::u16string> names;
    for (std::size_t from = 0; from < text.size();) {
        const std::size_t end = std::min(text.find(u',', from), text.size());
        if (end > from) names.push_back(text.substr(from, end - from));
        from = end + 1;
    }
    return names;
}

}  // namespace

std::vector<std::u16string> priority_order(DWORD media_mode) {
    const LPCWSTR name = mode_name(media_mode);
    PriorityKey opened;
    if (name == nullptr || RegOpenKeyExW(HKEY_CURRENT_USER, kPriorities, 0, KEY_READ, &opened.key) != ERROR_SUCCESS) {
        return {};
    }
    std::u16string text(kMostBytes / sizeof(WCHAR), u'\0');
    DWORD type = 0;
    DWORD size = kMostBytes;
    const LONG result = RegQueryValueExW(opened.key, name, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size);
    if (result != ERROR_SUCCESS || type != REG_SZ) return {};
    text.resize(std::min<std::size_t>(size / sizeof(WCHAR), text.size()));
    text.resize(std::min(text.find(u'\0'), text.size()));
    return split(text);
}

LONG set_priority(const std::u16string& name, DWORD media_mode, bool first) {
    const LPCWSTR value = mode_name(media_mode);
    if (value == nullptr) return LINEERR_INVALMEDIAMODE;
    std::vector<std::u16string> order = priority_order(media_mode);
    std::erase_if(order, [&](const std::u16string& each) { return _wcsicmp(each.c_str(), name.c_str()) == 0; });
    if (first) order.insert(order.begin(), name);
    std::u16string text;
    for (const std::u16string& each : order) {
        if (!text.empty()) text += u',';
        text += each;
    }
    const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(WCHAR));
    if (size > kMostBytes) return LINEERR_RESOURCEUNAVAIL;
    PriorityKey made;
    const LONG result =
        RegCreateKeyExW(HKEY_CURRENT_USER, kPriorities, 0, nullptr, 0, KEY_WRITE, nullptr, &made.key, nullptr);
    const bool good =
        result == ERROR_SUCCESS &&
        RegSetValueExW(made.key, value, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()), size) == ERROR_SUCCESS;
    return good ? 0 : LINEERR_OPERATIONFAILED;
}

}  // namespace zr::platform
