#include "platform/input_panel.h"

#include <fcntl.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <string>

#include "base/fail.h"
#include "base/forks.h"
#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/shared_memory.h"
#include "base/state_folder.h"
#include "keyboard.h"
#include "objects.h"
#include "platform/windowing.h"
#include "store/store_listener.h"
#include "windowing/screen_facts.h"

using namespace zr::platform;

namespace {

struct PanelPage {
    std::atomic<std::uint32_t> is_up;
    std::atomic<std::uint32_t> changes;
};

// The state that processes share, and the file through which they wake each other.
class Panel final : public StoreWatcher {
public:
    // NULL with the error. What was opened stays.
    PanelPage* open();
    void set(bool up) noexcept;  // of what was opened
    bool rang() noexcept override {
        tell_windows(*page_);
        return false;
    }

private:
    bool watch();
    void ring() const noexcept;
    void tell_windows(const PanelPage& page) noexcept;

    SharedPage<PanelPage> page_;
    std::string bell_;
    bool is_watching_ = false;
    std::atomic<std::uint32_t> told_{0};
};

Panel& the_panel() {
    static auto* const panel = new Panel;  // never destroyed
    return *panel;
}

PanelPage* Panel::open() {
    const std::lock_guard guard(Gdi::get().lock);
    if (page_ && is_watching_) return &*page_;
    const Folder folder = runtime_folder();
    if (!folder) return fail(folder.error, static_cast<PanelPage*>(nullptr));
    try {
        if (!page_) {
            bell_ = folder.path + "/input-panel.bell";
            if (const int error = page_.open((folder.path + "/input-panel").c_str()); error != 0) {
                return fail(error_from_errno(error), static_cast<PanelPage*>(nullptr));
            }
            told_ = page_->changes.load();
        }
        if (!is_watching_) is_watching_ = watch();
        return &*page_;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<PanelPage*>(nullptr));
    }
}

// Without it, changes that others make are seen, but not told.
bool Panel::watch() {
    const zr::HostFd made(::open(bell_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    return made && add_store_watcher(bell_, *this) == 0;
}

// The kernel tells watchers that the file was closed by somebody who could write.
void Panel::ring() const noexcept {
    const zr::HostFd rung(::open(bell_.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
}

void Panel::set(bool up) noexcept {
    PanelPage& page = *page_;
    if (page.is_up.exchange(up ? 1 : 0) == (up ? 1u : 0u)) return;
    page.changes.fetch_add(1);
    tell_windows(page);
    ring();
}

// This process's, for changes that they were not told of. Posted, so that no window can keep the caller.
void Panel::tell_windows(const PanelPage& page) noexcept {
    const std::uint32_t changes = page.changes;
    if (told_.exchange(changes) == changes) return;
    for (HWND window = GetWindow(GetDesktopWindow(), GW_CHILD); window; window = GetWindow(window, GW_HWNDNEXT)) {
        PostMessageW(window, WM_SETTINGCHANGE, SPI_SETSIPINFO, 0);
    }
}

// On the bus's thread, which a fork waits for behind this family's lock: without it. The state was opened before.
void hear_keyboard(bool up) noexcept {
    the_panel().set(up);
}

BOOL set_panel(bool up) {
    if (!the_panel().open()) return FALSE;
    watch_keyboard(hear_keyboard);
    show_keyboard(up);
    the_panel().set(up);
    return TRUE;
}

// Where a keyboard runs its own word counts.
bool is_panel_up(const PanelPage& page) {
    bool up = false;
    watch_keyboard(hear_keyboard);
    if (read_keyboard(up)) the_panel().set(up);
    return page.is_up != 0;
}

BOOL give_panel(SIPINFO& info) {
    const PanelPage* const page = the_panel().open();
    if (!page) return FALSE;
    const bool up = is_panel_up(*page);
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
