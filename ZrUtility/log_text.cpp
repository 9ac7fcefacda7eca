#include "ZrUtility/log_text.h"

#include <memory>
#include <new>

#include "platform/base.h"

void LogText(const char* source, int line, std::uint32_t category, const WCHAR* text) {
    if (text == nullptr) return;
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 0) return;
    const std::unique_ptr<char[]> narrow(new (std::nothrow) char[static_cast<std::size_t>(size)]);
    if (!narrow) return;
    if (WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow.get(), size, nullptr, nullptr) == size)
        zrKelDebugBinBuffer(source, line, category, narrow.get(), static_cast<std::size_t>(size) - 1);
}
