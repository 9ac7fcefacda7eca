#include "process.h"

#include <sys/auxv.h>
#include <unistd.h>

#include "platform/kernel.h"

namespace zr::platform {
namespace {

class Process final : public Waitable {
public:
    Process() noexcept : Waitable(ObjectKind::Process) {}

protected:
    ~Process() override = default;
    bool is_signalled(const Thread&) const noexcept override { return false; }
};

// Never destroyed: threads may ask while the process exits.
alignas(Process) std::byte room[sizeof(Process)];
Process& process = *new (room) Process;

}  // namespace

Waitable& this_process() noexcept {
    return process;
}

}  // namespace zr::platform

DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

HANDLE GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(ULONG_PTR{66});
}

HMODULE GetModuleHandleW(LPCWSTR name) {
    if (name) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    // Where the program is loaded: its headers begin on the first page.
    const ULONG_PTR headers = getauxval(AT_PHDR);
    return reinterpret_cast<HMODULE>(headers & ~(static_cast<ULONG_PTR>(sysconf(_SC_PAGESIZE)) - 1));
}
