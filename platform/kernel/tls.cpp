#include "tls.h"

#include <atomic>
#include <new>

#include "engine.h"
#include "platform/kernel.h"

namespace zr::platform {

// A value counts only with the generation that it was set in, so that a freed index forgets the values of all threads.
struct TlsValues {
    LPVOID value[TLS_MINIMUM_AVAILABLE];
    std::uint32_t generation[TLS_MINIMUM_AVAILABLE];
};

void free_tls_values(TlsValues* values) noexcept {
    delete values;
}

namespace {

std::atomic<std::uint32_t> generations[TLS_MINIMUM_AVAILABLE];  // odd while the index is allocated

// The index's generation, 0 with the last error set when it is not allocated.
std::uint32_t generation_of(DWORD index) {
    const std::uint32_t generation = index < TLS_MINIMUM_AVAILABLE ? generations[index].load() : 0;
    if (generation % 2 == 1) return generation;
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

DWORD TlsAlloc() {
    cancellation_point();
    for (DWORD index = 0; index < TLS_MINIMUM_AVAILABLE; ++index) {
        std::uint32_t generation = generations[index].load();
        if (generation % 2 == 0 && generations[index].compare_exchange_strong(generation, generation + 1)) return index;
    }
    SetLastError(ERROR_NO_MORE_ITEMS);
    return TLS_OUT_OF_INDEXES;
}

BOOL TlsFree(DWORD index) {
    std::uint32_t generation = generation_of(index);
    if (generation == 0) return FALSE;
    if (generations[index].compare_exchange_strong(generation, generation + 1)) return TRUE;
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
}

LPVOID TlsGetValue(DWORD index) {
    cancellation_point();
    const std::uint32_t generation = generation_of(index);
    if (generation == 0) return nullptr;
    SetLastError(ERROR_SUCCESS);
    const TlsValues* values = ThreadAccess::tls(ThreadAccess::current());
    return values && values->generation[index] == generation ? values->value[index] : nullptr;
}

BOOL TlsSetValue(DWORD index, LPVOID value) {
    cancellation_point();
    const std::uint32_t generation = generation_of(index);
    if (generation == 0) return FALSE;
    TlsValues*& values = ThreadAccess::tls(ThreadAccess::current());
    if (!values) values = new (std::nothrow) TlsValues{};
    if (!values) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    values->value[index] = value;
    values->generation[index] = generation;
    return TRUE;
}
