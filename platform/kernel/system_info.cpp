#include <sys/utsname.h>
#include <unistd.h>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/memory.h"

namespace {

#if defined(__x86_64__)
constexpr WORD kArchitecture = PROCESSOR_ARCHITECTURE_AMD64;
constexpr DWORD kType = PROCESSOR_AMD_X8664;
#elif defined(__i386__)
constexpr WORD kArchitecture = PROCESSOR_ARCHITECTURE_INTEL;
constexpr DWORD kType = PROCESSOR_INTEL_PENTIUM;
#elif defined(__aarch64__)
constexpr WORD kArchitecture = PROCESSOR_ARCHITECTURE_ARM64;
constexpr DWORD kType = 0;
#elif defined(__arm__)
constexpr WORD kArchitecture = PROCESSOR_ARCHITECTURE_ARM;
constexpr DWORD kType = 0;
#else
constexpr WORD kArchitecture = PROCESSOR_ARCHITECTURE_UNKNOWN;
constexpr DWORD kType = 0;
#endif

DWORD host_page_size() {
    return static_cast<DWORD>(sysconf(_SC_PAGESIZE));
}

std::uintptr_t lowest_address() {
    unsigned long lowest = 0x10000;
    if (std::FILE* const file = std::fopen("/proc/sys/vm/mmap_min_addr", "re")) {
        if (std::fscanf(file, "%lu", &lowest) != 1) lowest = 0x10000;
        std::fclose(file);
    }
    return std::max<std::uintptr_t>(lowest, host_page_size());
}

// Where the host's half of the addresses begins.
std::uintptr_t end_of_addresses() {
    if constexpr (sizeof(void*) == 8) {
        return (std::uintptr_t{1} << (kArchitecture == PROCESSOR_ARCHITECTURE_AMD64 ? 47 : 48)) - host_page_size();
    }
    // A host of 64 bits leaves programs of 32 bits nearly all of them.
    utsname host{};
    const bool wide = uname(&host) == 0 && std::strstr(host.machine, "64") != nullptr;
    return wide ? static_cast<std::uintptr_t>(0xFFFFE000u) : static_cast<std::uintptr_t>(0xC0000000u);
}

#if defined(__x86_64__) || defined(__i386__)
void tell_processor(SYSTEM_INFO& information) {
    unsigned signature = 0;
    unsigned unused = 0;
    if (__get_cpuid(1, &signature, &unused, &unused, &unused) == 0) return;
    const unsigned family = signature >> 8 & 0xF;
    unsigned model = signature >> 4 & 0xF;
    if (family == 6 || family == 15) model |= (signature >> 16 & 0xF) << 4;
    information.wProcessorLevel = static_cast<WORD>(family == 15 ? family + (signature >> 20 & 0xFF) : family);
    information.wProcessorRevision = static_cast<WORD>(model << 8 | (signature & 0xF));
}
#else
void tell_processor(SYSTEM_INFO&) {}
#endif

}  // namespace

void GetSystemInfo(LPSYSTEM_INFO information) {
    if (!information) return;
    constexpr int kMaskBits = static_cast<int>(sizeof(DWORD_PTR) * 8);
    const int processors = static_cast<int>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    *information = {};
    information->wProcessorArchitecture = kArchitecture;
    information->dwPageSize = host_page_size();
    information->lpMinimumApplicationAddress = reinterpret_cast<LPVOID>(lowest_address());
    information->lpMaximumApplicationAddress = reinterpret_cast<LPVOID>(end_of_addresses() - 1);
    information->dwNumberOfProcessors = static_cast<DWORD>(processors);
    information->dwActiveProcessorMask = processors >= kMaskBits ? ~DWORD_PTR{0} : (DWORD_PTR{1} << processors) - 1;
    information->dwProcessorType = kType;
    information->dwAllocationGranularity = std::max<DWORD>(0x10000, host_page_size());
    tell_processor(*information);
}
