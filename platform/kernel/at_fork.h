#pragma once

// What a fork has to do with each of the family's sources; at_fork.cpp has the order. A lock that is held here nobody
// else holds; what is forgotten is forgotten in the child, with the locks held, and without memory being taken or given
// back.

namespace zr::platform::at_fork {

void lock_host_events() noexcept;
void unlock_host_events() noexcept;
void forget_host_events() noexcept;

void lock_session() noexcept;  // and the members of named objects
void unlock_session() noexcept;
void forget_session() noexcept;

void lock_threads() noexcept;
void unlock_threads() noexcept;

void lock_thread_end() noexcept;
void unlock_thread_end() noexcept;

void lock_sections() noexcept;
void unlock_sections() noexcept;
void forget_section_queues() noexcept;

void lock_pages() noexcept;
void unlock_pages() noexcept;

void lock_views() noexcept;
void unlock_views() noexcept;

void lock_mapped_files() noexcept;
void unlock_mapped_files() noexcept;

void lock_handles() noexcept;
void unlock_handles() noexcept;
void forget_quick_pins() noexcept;

}  // namespace zr::platform::at_fork
