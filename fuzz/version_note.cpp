// The version of a module, read from a file that may say anything.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/modules.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("module", MFD_CLOEXEC);
    if (file < 0 || ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    const std::string number = std::to_string(file);
    const std::u16string path = u"\\proc\\self\\fd\\" + std::u16string(number.begin(), number.end());
    alignas(4) unsigned char block[92];
    const bool sized = GetFileVersionInfoSizeW(path.c_str(), nullptr) == sizeof block;
    if (sized != (GetFileVersionInfoW(path.c_str(), 0, sizeof block, block) != FALSE)) std::abort();
    LPVOID value = nullptr;
    if (sized && !VerQueryValueW(block, u"\\", &value, nullptr)) std::abort();
    return 0;
}
