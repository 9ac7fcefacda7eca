#pragma once

// WinPR's events and locks behind plain names, as its headers cannot stand beside the platform's.

namespace winpr {

void* create_event();  // manual-reset: its others never reset
void close(void* handle);
void set(void* event);
void reset(void* event);
void wait(void* handle);  // without limit
void* create_mutex();
void release(void* mutex);

void* create_section();
void destroy_section(void* section);
void enter(void* section);
void leave(void* section);

}  // namespace winpr
