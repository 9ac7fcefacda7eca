// Settings in the registry: read with defaults, written, and watched while another process changes them.
//
// Run without arguments, it is the client: it writes a setting, watches it, starts itself a second time as the program
// that changes it, and shows what it has been told.

#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>

#include "ZrUtility/ZrUtility.h"
#include "platform/kernel.h"

extern char** environ;

namespace {

const HKEY kRoot = HKEY_CURRENT_USER;
WCHAR path[] = u"Software\\Example\\Settings";
WCHAR port_name[] = u"Port";
constexpr DWORD kPatience = 10000;  // milliseconds

HANDLE changed;

// On the monitor's thread. It reports once, and would go on after ContinueMonitor().
void on_change(HKEY) {
    SetEvent(changed);
}

void show(const char* when) {
    WCHAR server[64];
    char narrow[64];
    RegistryAccessor::RegistryGetString(kRoot, path, u"Server", server, 64, u"localhost");
    WideCharToMultiByte(CP_UTF8, 0, server, -1, narrow, sizeof narrow, nullptr, nullptr);
    std::printf("%s: server %s, port %u\n", when, narrow,
                RegistryAccessor::RegistryGetDWORD(kRoot, path, port_name, 0));
}

// To another one first: a value that is set to what it is has not changed, and this may be done more than once.
int change_the_port() {
    RegistryAccessor::RegistrySetDWORD(kRoot, path, port_name, 995);
    RegistryAccessor::RegistrySetDWORD(kRoot, path, port_name, 993);
    return 0;
}

// Starts the other program, again until it is heard of: the monitor begins to listen shortly after it was started.
bool have_it_changed(const char* program) {
    for (DWORD waited = 0; waited < kPatience; waited += 100) {
        char* arguments[] = {const_cast<char*>(program), const_cast<char*>("change"), nullptr};
        pid_t other = 0;
        if (posix_spawn(&other, program, nullptr, nullptr, arguments, environ) != 0) return false;
        waitpid(other, nullptr, 0);
        if (WaitForSingleObject(changed, 100) == WAIT_OBJECT_0) return true;
    }
    return false;
}

}  // namespace

int main(int count, char** arguments) {
    if (count > 1) return change_the_port();
    RegistryAccessor::RegistrySetDWORD(kRoot, path, port_name, 143);
    show("before");

    // Only a port other than the present one is of interest.
    changed = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const ULONG expected = 143;
    RegistryMonitor monitor;
    const int started = monitor.StartMonitor(kRoot, path, port_name, reinterpret_cast<const char*>(&expected), FALSE,
                                             REG_NOTIFY_CHANGE_LAST_SET, {nullptr, 0, &on_change}, true, 1);
    const bool told = started && have_it_changed(arguments[0]);
    monitor.StopMonitor();
    CloseHandle(changed);
    if (!told) {
        std::fprintf(stderr, "no change was reported\n");
        return 1;
    }
    show("after");
    return 0;
}
