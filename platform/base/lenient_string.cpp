// The string functions that take NULL for a text that is not there.

#include "platform/base.h"

namespace {

constexpr int sign(int order) {
    return order < 0 ? -1 : static_cast<int>(order > 0);
}

template <class Compare>
int compare(LPCWSTR left, LPCWSTR right, Compare order) {
    if (left == nullptr || right == nullptr)
        return static_cast<int>(left != nullptr) - static_cast<int>(right != nullptr);
    return sign(order(left, right));
}

}  // namespace

int lstrlenW(LPCWSTR text) {
    return text == nullptr ? 0 : static_cast<int>(wcslen(text));
}

LPWSTR lstrcpyW(LPWSTR to, LPCWSTR from) {
    return to == nullptr || from == nullptr ? nullptr : wcscpy(to, from);
}

LPWSTR lstrcatW(LPWSTR to, LPCWSTR from) {
    return to == nullptr || from == nullptr ? nullptr : wcscat(to, from);
}

LPWSTR lstrcpynW(LPWSTR to, LPCWSTR from, int capacity) {
    if (to == nullptr || from == nullptr || capacity <= 0) return nullptr;
    const std::size_t length = wcsnlen(from, static_cast<std::size_t>(capacity) - 1);
    wmemmove(to, from, length);
    to[length] = 0;
    return to;
}

int lstrcmpW(LPCWSTR left, LPCWSTR right) {
    return compare(left, right, [](LPCWSTR a, LPCWSTR b) { return wcscmp(a, b); });
}

int lstrcmpiW(LPCWSTR left, LPCWSTR right) {
    return compare(left, right, [](LPCWSTR a, LPCWSTR b) { return _wcsicmp(a, b); });
}
