#include "system_classes.h"

#include "platform/controls.h"

namespace zr::platform {
namespace {

void add_system_class(Desktop& desktop, const WCHAR* name, WNDPROC procedure) {
    const std::u16string key = fold_name(name);
    if (desktop.find_own_class(system_instance(), name, key)) return;
    const ATOM atom = desktop.atoms.add(key);
    if (atom == 0) throw std::bad_alloc();
    WNDCLASSW registered{};
    registered.lpfnWndProc = procedure;
    try {
        desktop.classes.emplace(std::pair(atom, system_instance()), WindowClass{registered, atom, 0, name, nullptr});
    } catch (...) {
        desktop.atoms.release(atom);
        throw;
    }
}

}  // namespace

void add_system_classes(Desktop& desktop) {
    {
        const std::shared_lock guard(desktop.lock);
        if (desktop.has_system_classes) return;
    }
    const std::unique_lock guard(desktop.lock);
    add_system_class(desktop, WC_TABCONTROLW, tab_procedure);
    add_system_class(desktop, WC_DIALOG, dialog_procedure);
    desktop.has_system_classes = true;
}

}  // namespace zr::platform
