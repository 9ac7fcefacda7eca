#pragma once

// The host's own list of what is mapped into this process.

#include "platform/types.h"
#include "regions.h"

namespace zr::platform {

// Pieces that lie side by side and belong to one file are one allocation, in which `pages` are alike.
struct HostMapping {
    Range pages;
    std::uintptr_t allocation;  // where the allocation begins
    int protection;             // PROT_...
    int first_protection;       // of the allocation's first piece
    bool is_module;             // of a file, part of which may be executed
};

// What is mapped at an address. False: nothing is, and `pages` is what lies free around it, up to the next mapping; or
// the list cannot be read, and `error` says why.
bool find_host_mapping(std::uintptr_t address, HostMapping& out, DWORD& error) noexcept;

}  // namespace zr::platform
