#include "initialise.h"

#include "platform/com.h"

namespace {

struct ThreadState {
    ULONG count = 0;
    DWORD model = 0;
};
constinit thread_local ThreadState state;

constexpr DWORD kKnownModes =
    COINIT_MULTITHREADED | COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE | COINIT_SPEED_OVER_MEMORY;

}  // namespace

namespace zr::platform {

bool com_initialised() noexcept {
    return state.count > 0;
}

}  // namespace zr::platform

HRESULT CoInitializeEx(void* reserved, DWORD mode) {
    if (reserved != nullptr || (mode & ~kKnownModes) != 0) return E_INVALIDARG;
    const DWORD model = mode & COINIT_APARTMENTTHREADED;
    if (state.count > 0 && state.model != model) return RPC_E_CHANGED_MODE;
    state.model = model;
    return state.count++ == 0 ? S_OK : S_FALSE;
}

HRESULT CoInitialize(void* reserved) {
    return CoInitializeEx(reserved, COINIT_APARTMENTTHREADED);
}

void CoUninitialize() {
    if (state.count > 0) --state.count;
}
