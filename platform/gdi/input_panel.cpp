#include "platform/input_panel.h"

#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <string>

#include "base/fail.h"
#include "base/forks.h"
#include "base/host_error.h"
#include "base/shared_memory.h"
#include "base/state_folder.h"
#include "objects.h"
#include "platform/windowing.h"
#include "windowing/screen_facts.h"

using namespace zr::platform;

namespace {

struct PanelPage {
    std::atomic<std::uint32_t> is_up;
};

SharedPage<PanelPage>& panel_page() {
    static auto* const page = new SharedPage<PanelPage>;  // never destroyed
    return *page;
}

// The state that processes share; NULL with the error. What was opened stays.
PanelPage* open_panel() {
    const std::lock_guard guard(Gdi::get().lock);
    SharedPage<PanelPage>& page = panel_page();
    if (page) return &*page;
    const Folder folder = runtime_folder();
    if (!folder) return fail(folder.error, static_cast<PanelPage*>(nullptr));
    try {
        if (const int error = page.open((folder.path + "/input-panel").c_str()); error != 0) {
            return fail(error_from_errno(error), static_cast<PanelPage*>(nullptr));
        }
        return &*page;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<PanelPage*>(nullptr));
    }
}

// Posted, so that no window can keep the caller.
void tell_windows() {
    for (HWND window = GetWindow(GetDesktopWindow(), GW_CHILD); window; window = GetWindow(window, GW_HWNDNEXT)) {
        PostMessageW(window, WM_SETTINGCHANGE, SPI_SETSIPINFO, 0);
    }
}

BOOL set_panel(bool up) {
    PanelPage* const page = open_panel();
    if (!page) return FALSE;
    if (page->is_up.exchange(up ? 1 : 0) != (up ? 1u : 0u)) tell_windows();
    return TRUE;
}

BOOL give_panel(SIPINFO& info) {
    const PanelPage* const page = open_panel();
    if (!page) return FALSE;
    const bool up = page->is_up != 0;
    const ScreenFacts screen = screen_facts();
    const int top = screen.height - screen.height / 4;
    info.fdwFlags = (up ? SIPF_ON : SIPF_OFF) | SIPF_DOCKED;
    info.rcVisibleDesktop = {0, 0, screen.width, up ? top : screen.height};
    info.rcSipRect = {0, top, screen.width, screen.height};
    info.dwImDataSize = 0;
    return TRUE;
}

}  // namespace

BOOL SHSipInfo(UINT action, UINT, void* info, UINT) {
    constexpr DWORD kHandheldSize = 48;
    static_assert(offsetof(SIPINFO, pvImData) <= kHandheldSize);
    auto* const given = static_cast<SIPINFO*>(info);
    if (!given || (given->cbSize != kHandheldSize && given->cbSize != sizeof *given)) {
        return fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    if (action == SPI_GETSIPINFO) return give_panel(*given);
    if (action == SPI_SETSIPINFO) return set_panel((given->fdwFlags & SIPF_ON) != 0);
    return fail(ERROR_INVALID_PARAMETER, FALSE);
}

BOOL SHSipPreference(HWND window, SIPSTATE state) {
    if (!IsWindow(window)) return fail(ERROR_INVALID_WINDOW_HANDLE, FALSE);
    switch (state) {
        case SIP_UP:
        case SIP_INPUTDIALOG:
            return set_panel(true);
        case SIP_DOWN:
        case SIP_FORCEDOWN:
            return set_panel(false);
        case SIP_UNCHANGED:
        case SIP_INPUTDIALOGINIT:
            return TRUE;
        default:
            return fail(ERROR_INVALID_PARAMETER, FALSE);
    }
}
