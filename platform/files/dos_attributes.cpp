#include "dos_attributes.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace zr::platform {
namespace {

constexpr const char* kName = "user.DOSATTRIB";
constexpr std::size_t kLargest = 256;

// Samba's binary form: an empty text, a 16-bit version (3 to 5) at 2, and the 32-bit attributes at 12, little-endian.
constexpr std::size_t kBinaryVersion = 2;
constexpr std::size_t kBinaryAttributes = 12;

bool is_binary(std::span<const char> value) noexcept {
    return value.size() >= kBinaryAttributes + 4 && value[0] == 0 && value[kBinaryVersion] >= 3 &&
           value[kBinaryVersion] <= 5 && value[kBinaryVersion + 1] == 0;
}

DWORD parse_all(std::span<const char> value) noexcept {
    if (is_binary(value)) {
        DWORD bits = 0;
        for (std::size_t i = 4; i-- > 0;)
            bits = (bits << 8) | static_cast<unsigned char>(value[kBinaryAttributes + i]);
        return bits;
    }
    if (value.size() < 3 || value[0] != '0' || (value[1] != 'x' && value[1] != 'X')) return 0;
    DWORD bits = 0;
    for (const char c : value.subspan(2)) {
        const char lower = c >= 'A' && c <= 'F' ? static_cast<char>(c + 32) : c;
        if (lower >= '0' && lower <= '9')
            bits = bits * 16 + static_cast<DWORD>(lower - '0');
        else if (lower >= 'a' && lower <= 'f')
            bits = bits * 16 + static_cast<DWORD>(lower - 'a' + 10);
        else
            break;
    }
    return bits;
}

#if defined(SYS_getxattrat)
constexpr long kGetxattrat = SYS_getxattrat;
#elif defined(__x86_64__) || defined(__i386__) || defined(__aarch64__) || defined(__arm__) || defined(__riscv)
constexpr long kGetxattrat = 464;
#else
constexpr long kGetxattrat = -1;
#endif

// The call is younger than the systems we run on; without it the name goes through the folder's entry in /proc.
ssize_t read_below(int folder, const char* name, char* value) noexcept {
    struct {
        std::uint64_t value;
        std::uint32_t size;
        std::uint32_t flags;
    } arguments = {reinterpret_cast<std::uintptr_t>(value), kLargest, 0};
    static std::atomic<bool> absent{kGetxattrat < 0};
    if (!absent.load(std::memory_order_relaxed)) {
        const long size = syscall(kGetxattrat, folder, name, 0, kName, &arguments, sizeof arguments);
        if (size >= 0 || (errno != ENOSYS && errno != EPERM)) return static_cast<ssize_t>(size);
        absent.store(true, std::memory_order_relaxed);
    }
    char path[32 + NAME_MAX];
    snprintf(path, sizeof path, "/proc/self/fd/%d/%s", folder, name);
    return getxattr(path, kName, value, kLargest);
}

}  // namespace

DWORD parse_dos_attributes(std::span<const char> value) noexcept {
    return parse_all(value) & kStoredAttributes;
}

DWORD read_dos_attributes(int folder, const char* name) noexcept {
    char value[kLargest];
    const ssize_t size =
        folder == AT_FDCWD ? getxattr(name, kName, value, sizeof value) : read_below(folder, name, value);
    return size <= 0 ? 0 : parse_dos_attributes({value, static_cast<std::size_t>(size)});
}

int write_dos_attributes(const char* path, DWORD bits, bool* written) {
    char value[kLargest];
    const ssize_t got = getxattr(path, kName, value, sizeof value);
    if (got < 0 && bits == 0) return errno == ENODATA || errno == EOPNOTSUPP ? 0 : errno;
    if (written) *written = true;
    const std::span<char> old(value, got > 0 ? static_cast<std::size_t>(got) : 0);
    const DWORD all = (parse_all(old) & ~kStoredAttributes) | bits;
    if (is_binary(old)) {
        for (std::size_t i = 0; i < 4; ++i)
            value[kBinaryAttributes + i] = static_cast<char>(all >> (8 * i));
        return setxattr(path, kName, value, old.size(), 0) == 0 ? 0 : errno;
    }
    if (all == 0) return removexattr(path, kName) == 0 || errno == ENODATA ? 0 : errno;
    const int length = snprintf(value, sizeof value, "0x%x", all);
    return setxattr(path, kName, value, static_cast<std::size_t>(length), 0) == 0 ? 0 : errno;
}

}  // namespace zr::platform
