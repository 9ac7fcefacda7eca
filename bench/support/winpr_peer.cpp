#include "support/winpr_peer.h"

#include <winpr/handle.h>
#include <winpr/synch.h>

namespace winpr {

void* create_event() {
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}
void close(void* handle) {
    CloseHandle(handle);
}
void set(void* event) {
    SetEvent(event);
}
void reset(void* event) {
    ResetEvent(event);
}
void wait(void* handle) {
    WaitForSingleObject(handle, INFINITE);
}
void* create_mutex() {
    return CreateMutexA(nullptr, FALSE, nullptr);
}
void release(void* mutex) {
    ReleaseMutex(mutex);
}

void* create_section() {
    auto* section = new CRITICAL_SECTION;
    InitializeCriticalSection(section);
    return section;
}
void destroy_section(void* section) {
    auto* real = static_cast<CRITICAL_SECTION*>(section);
    DeleteCriticalSection(real);
    delete real;
}
void enter(void* section) {
    EnterCriticalSection(static_cast<CRITICAL_SECTION*>(section));
}
void leave(void* section) {
    LeaveCriticalSection(static_cast<CRITICAL_SECTION*>(section));
}

}  // namespace winpr
